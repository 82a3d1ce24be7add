// What do the two zero-filled record buffers of one operation cost, allocated, touched in three places and released?
// Excluded: everything else that an operation does. "record" touches what a small record touches (keys, version, the
// beginning of the data); "spread" touches the beginning, the middle and the end, where every page has to be made.
#include <benchmark/benchmark.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "zonmdfile/platform/oss.h"

namespace {

constexpr std::size_t RECORD_SIZE = 1024148;
using Places = std::array<std::size_t, 3>;
constexpr Places RECORD{0, 140, 900};
constexpr Places SPREAD{0, RECORD_SIZE / 2, RECORD_SIZE - 1};

void touch(void* buffer, const Places& places) {
  for (const std::size_t place : places) static_cast<volatile char*>(buffer)[place] = 1;
}

void memoryService(benchmark::State& state, const Places& places) {
  for (auto _ : state) {
    void* match = nullptr;
    void* result = nullptr;
    if (_ossMemAlloc(&match, 0, RECORD_SIZE, 1, "memory_bench", __LINE__) != 0 ||
        _ossMemAlloc(&result, 0, RECORD_SIZE, 1, "memory_bench", __LINE__) != 0) {
      std::abort();
    }
    touch(match, places);
    touch(result, places);
    _ossMemFree(&result, 0, 0, "memory_bench", __LINE__);
    _ossMemFree(&match, 0, 0, "memory_bench", __LINE__);
  }
}

void cLibrary(benchmark::State& state, const Places& places) {
  // The mapping threshold of malloc adapts to the largest block released; from then on calloc clears by hand.
  for (int i = 0; i < 4; ++i) std::free(std::calloc(1, 4 * RECORD_SIZE));
  for (auto _ : state) {
    void* match = std::calloc(1, RECORD_SIZE);
    void* result = std::calloc(1, RECORD_SIZE);
    if (match == nullptr || result == nullptr) std::abort();
    touch(match, places);
    touch(result, places);
    std::free(result);
    std::free(match);
  }
}

void mappings(benchmark::State& state, const Places& places) {
  for (auto _ : state) {
    std::array<void*, 2> buffers{};
    for (void*& buffer : buffers) {
      buffer = ::mmap(nullptr, RECORD_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (buffer == MAP_FAILED) std::abort();
    }
    for (void* buffer : buffers) touch(buffer, places);
    for (void* buffer : buffers) ::munmap(buffer, RECORD_SIZE);
  }
}

BENCHMARK_CAPTURE(memoryService, record, RECORD)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK_CAPTURE(memoryService, spread, SPREAD);
BENCHMARK_CAPTURE(cLibrary, record, RECORD)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK_CAPTURE(cLibrary, spread, SPREAD);
BENCHMARK_CAPTURE(mappings, record, RECORD)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK_CAPTURE(mappings, spread, SPREAD);

// A listing grows by appending: what does a text of 25 MB cost from its first byte to its release?
void growingBlock(benchmark::State& state) {
  constexpr std::uint64_t END = std::uint64_t{25} << 20;
  for (auto _ : state) {
    void* text = nullptr;
    std::uint64_t filled = 0;
    for (std::uint64_t size = 4096; filled < END; size *= 2) {
      if (ossMemResize(&text, size, "memory_bench", __LINE__) != 0) std::abort();
      const std::uint64_t end = std::min(size, END);
      std::memset(static_cast<char*>(text) + filled, 1, end - filled);
      filled = end;
    }
    benchmark::DoNotOptimize(text);
    _ossMemFree(&text, 0, 0, "memory_bench", __LINE__);
  }
}
BENCHMARK(growingBlock)->Unit(benchmark::kMillisecond);

void smallBlock(benchmark::State& state) {
  for (auto _ : state) {
    void* text = nullptr;
    if (_ossMemAlloc(&text, 0, 33, 1, "memory_bench", __LINE__) != 0) std::abort();
    benchmark::DoNotOptimize(text);
    _ossMemFree(&text, 0, 0, "memory_bench", __LINE__);
  }
}
BENCHMARK(smallBlock)->ThreadRange(1, 2)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
