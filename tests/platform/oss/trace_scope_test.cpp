// TraceScope against a facility that only takes notes: the order of questions and calls, and what they carry.
#include "platform/trace_scope.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> notes;
int attachedAnswer = 1;
int enabledAnswer = 1;

}  // namespace

extern "C" int gtraceIsAttached(void) {
  notes.emplace_back("attached?");
  return attachedAnswer;
}

extern "C" int gtraceIsEnabled(void) {
  notes.emplace_back("enabled?");
  return enabledAnswer;
}

extern "C" uint64_t ossThreadID(void) { return 42; }

extern "C" void _gtraceEntry(uint64_t thread, uint32_t point, uint32_t reserved, uint32_t mask) {
  notes.push_back("entry " + std::to_string(thread) + ' ' + std::to_string(point) + ' ' + std::to_string(reserved) +
                  ' ' + std::to_string(mask));
}

extern "C" void _gtraceVar(uint64_t thread, uint32_t point, uint32_t probe, uint32_t level, uint32_t count,
                           uint32_t reserved, uint64_t size, const void* data) {
  notes.push_back("var " + std::to_string(thread) + ' ' + std::to_string(point) + ' ' + std::to_string(probe) + ' ' +
                  std::to_string(level) + ' ' + std::to_string(count) + ' ' + std::to_string(reserved) + ' ' +
                  std::string(static_cast<const char*>(data), size));
}

extern "C" void _gtraceExit(uint64_t thread, uint32_t point, const void* rc, uint32_t reserved) {
  const std::string value = rc == nullptr ? "none" : std::to_string(*static_cast<const uint32_t*>(rc));
  notes.push_back("exit " + std::to_string(thread) + ' ' + std::to_string(point) + ' ' + value + ' ' +
                  std::to_string(reserved));
}

namespace {

using Notes = std::vector<std::string>;

class TraceScopeOrder : public testing::Test {
 protected:
  void SetUp() override {
    notes.clear();
    attachedAnswer = 1;
    enabledAnswer = 1;
  }
};

std::uint32_t traced(bool early) {
  zon::TraceScope trace(7);
  if (early) return trace.exit(std::uint32_t{31004});
  trace.variable("ab", 2);
  trace.variable("c", 1);
  return trace.exit(std::uint32_t{0});
}

TEST_F(TraceScopeOrder, EveryTraceCallIsPrecededByBothQuestions) {
  EXPECT_EQ(traced(false), 0U);
  EXPECT_EQ(notes,
            (Notes{"attached?", "enabled?", "entry 42 7 0 1000000", "attached?", "enabled?", "var 42 7 10 3 1 0 ab",
                   "attached?", "enabled?", "var 42 7 20 3 1 0 c", "attached?", "enabled?", "exit 42 7 0 0"}));
}

TEST_F(TraceScopeOrder, AnEarlyReturnTracesItsValue) {
  EXPECT_EQ(traced(true), 31004U);
  EXPECT_EQ(notes.back(), "exit 42 7 31004 0");
}

TEST_F(TraceScopeOrder, NotAttachedAsksNothingFurther) {
  attachedAnswer = 0;
  traced(false);
  EXPECT_EQ(notes, Notes(4, "attached?"));
}

TEST_F(TraceScopeOrder, AttachedButNotEnabledTracesNothing) {
  enabledAnswer = 0;
  traced(true);
  EXPECT_EQ(notes, (Notes{"attached?", "enabled?", "attached?", "enabled?"}));
}

TEST_F(TraceScopeOrder, ProbesKeepTheirNumbersWhenTracingStartsInBetween) {
  attachedAnswer = 0;
  {
    zon::TraceScope trace(7);
    trace.variable("ab", 2);
    attachedAnswer = 1;
    trace.variable("c", 1);
  }
  EXPECT_EQ(notes[4], "var 42 7 20 3 1 0 c");
}

TEST_F(TraceScopeOrder, AFunctionWithoutAValueTracesNone) {
  { zon::TraceScope trace(7); }
  EXPECT_EQ(notes.back(), "exit 42 7 none 0");
}

TEST_F(TraceScopeOrder, AnSqlcodeTravelsAsItsBits) {
  {
    zon::TraceScope trace(7);
    EXPECT_EQ(trace.exit(std::int32_t{-22273}), -22273);
  }
  EXPECT_EQ(notes.back(), "exit 42 7 4294945023 0");
}

TEST_F(TraceScopeOrder, AnExceptionTracesTheExit) {
  try {
    zon::TraceScope trace(7);
    throw 1;
  } catch (int) {
  }
  EXPECT_EQ(notes.back(), "exit 42 7 none 0");
}

}  // namespace
