// What does tracing cost a function: while it is off, and while it records? Excluded: the making of the ring, and any
// reader. "TraceScope" is a whole traced function without variables, so two events and four questions while recording.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "platform/oss/trace_control.h"
#include "platform/trace_scope.h"
#include "record/trace_points.h"

namespace {

const std::string RING = "/tmp/trace_bench-" + std::to_string(::getpid()) + ".ring";

zon::TraceControl& control() {
  static auto* const block = static_cast<zon::TraceControl*>(::dlsym(RTLD_DEFAULT, zon::CONTROL_SYMBOL));
  if (block == nullptr) std::abort();
  return *block;
}

// Switches as zontrace does, from inside.
void switchOn() {
  static std::uint32_t count = 0;
  RING.copy(control().path, zon::CONTROL_PATH_BYTES - 1);
  control().word = ++count << zon::SWITCH_COUNT | zon::SWITCH_ON | zon::SWITCH_VALUES;
  if (gtraceIsAttached() == 0) std::abort();
}

void switchOff() {
  control().word = zon::SWITCH_CLOSE;
  if (gtraceIsAttached() != 0 || control().word != 0) std::abort();
  ::unlink(RING.c_str());
}

// What the loop of the benchmark costs by itself; to be taken off the rows below it.
void loopAlone(benchmark::State& state) {
  int nothing = 0;
  for (auto _ : state) benchmark::DoNotOptimize(nothing);
}

void questionOff(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(gtraceIsAttached());
}

void bothQuestionsOff(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(gtraceIsAttached());
    benchmark::DoNotOptimize(gtraceIsEnabled());
  }
}

std::uint32_t tracedFunction(std::uint32_t rc) {
  zon::TraceScope trace(zon::trace::point("MDCustomTree_retrieve"));
  return trace.exit(rc);
}

void scopeOff(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(tracedFunction(0));
}

void scopeRecording(benchmark::State& state) {
  if (state.thread_index() == 0) switchOn();
  for (auto _ : state) benchmark::DoNotOptimize(tracedFunction(0));
  if (state.thread_index() == 0) switchOff();
}

void variableRecording(benchmark::State& state) {
  switchOn();
  const std::string value(static_cast<std::size_t>(state.range(0)), 'v');
  for (auto _ : state) {
    _gtraceVar(1, zon::trace::point("MDCustomTree_retrieve"), 10, 3, 1, 0, value.size(), value.data());
  }
  switchOff();
}

BENCHMARK(loopAlone);
BENCHMARK(questionOff);
BENCHMARK(bothQuestionsOff);
BENCHMARK(scopeOff);
BENCHMARK(scopeRecording)->Threads(1)->Threads(2);
BENCHMARK(variableRecording)->Arg(8)->Arg(200);

}  // namespace

BENCHMARK_MAIN();
