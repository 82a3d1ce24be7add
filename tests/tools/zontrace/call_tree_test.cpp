// Call trees and their print, from events made by hand.
#include "call_tree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "print_recording.h"
#include "record/trace_points.h"
#include "text.h"

namespace {

using namespace zon::trace_ring;
using testing::HasSubstr;
using zontrace::Event;
using zontrace::Output;
using zontrace::Recording;

constexpr std::uint32_t OUTER = zon::trace::point("MDCustomTree_retrieve");
constexpr std::uint32_t INNER = zon::trace::point("MDCustomTree::retrieve");

class CallTree : public testing::Test {
 protected:
  CallTree() {
    recording_.pid = 7;
    recording_.program = "/usr/bin/server";
    recording_.monotonicTime = 1000;
    recording_.wallTime = 1'000'000'000;
  }

  Event& add(Kind kind, std::uint64_t thread, std::uint32_t point, std::uint64_t time) {
    Event& event = recording_.events.emplace_back();
    event.number = recording_.events.size() - 1;
    event.kind = kind;
    event.thread = thread;
    event.point = point;
    event.time = time;
    ++recording_.begun;
    return event;
  }
  void entry(std::uint64_t thread, std::uint32_t point, std::uint64_t time) { add(ENTRY, thread, point, time); }
  void exit(std::uint64_t thread, std::uint32_t point, std::uint64_t time, std::uint32_t result) {
    Event& event = add(EXIT, thread, point, time);
    event.hasResult = true;
    event.sizeOrResult = result;
  }
  void variable(std::uint64_t thread, std::uint32_t point, std::uint64_t time, const std::string& value,
                bool isMasked) {
    Event& event = add(VARIABLE, thread, point, time);
    event.probe = 10;
    event.sizeOrResult = value.size();
    event.isMasked = isMasked;
    if (!isMasked) event.value = value;
  }

  std::string printed(Output output) const {
    std::ostringstream out;
    zontrace::printRecording(recording_, output, out);
    return out.str();
  }
  // Without the three lines about the recording.
  std::string tree() const {
    const std::string text = printed(Output::TEXT);
    return text.substr(text.find("\nthread"));
  }

  Recording recording_;
};

TEST_F(CallTree, NestedCallsAreIndentedWithDurationsAndResults) {
  entry(5, OUTER, 2000);
  variable(5, OUTER, 2100, "anna", true);
  entry(5, INNER, 2200);
  exit(5, INNER, 2712, 0);
  exit(5, OUTER, 4500, static_cast<std::uint32_t>(-22273));
  EXPECT_EQ(tree(),
            "\nthread 5\n"
            "   0.000001000  MDCustomTree_retrieve (2.500 us) = SQLCODE -22273\n"
            "   0.000001100    probe 10: 4 bytes, value not recorded\n"
            "   0.000001200    MDCustomTree::retrieve (512 ns) = 0" +
                std::string(zontrace::resultName(INNER, 0).empty() ? "" : " " + zontrace::resultName(INNER, 0)) + "\n");
}

TEST_F(CallTree, ThreadsHaveTreesOfTheirOwn) {
  entry(1, OUTER, 2000);
  entry(2, OUTER, 2001);
  exit(1, OUTER, 2002, 0);
  exit(2, OUTER, 2004, 0);
  EXPECT_EQ(tree(),
            "\nthread 1\n"
            "   0.000001000  MDCustomTree_retrieve (2 ns) = SQLCODE 0\n"
            "\nthread 2\n"
            "   0.000001001  MDCustomTree_retrieve (3 ns) = SQLCODE 0\n");
}

TEST_F(CallTree, AnExitWithoutEntryAndAnEntryWithoutExitAreMarked) {
  exit(1, INNER, 2000, 0);
  entry(1, OUTER, 3000);
  EXPECT_THAT(tree(), HasSubstr("[entry not recorded]\n"));
  EXPECT_THAT(tree(), HasSubstr("  MDCustomTree_retrieve  [exit not recorded]\n"));
}

TEST_F(CallTree, AMissingInnerExitDoesNotCaptureTheCallsAfterIt) {
  entry(1, OUTER, 2000);
  entry(1, INNER, 2001);
  exit(1, OUTER, 2002, 0);
  entry(1, OUTER, 2003);
  const auto trees = zontrace::buildCallTrees(recording_);
  ASSERT_EQ(trees.size(), 1U);
  ASSERT_EQ(trees[0].lines.size(), 3U);
  EXPECT_EQ(trees[0].lines[2].depth, 0U);
}

TEST_F(CallTree, RecursionPairsTheInnermostCalls) {
  entry(1, OUTER, 2000);
  entry(1, OUTER, 2010);
  exit(1, OUTER, 2020, 1);
  exit(1, OUTER, 2030, 2);
  const auto lines = zontrace::buildCallTrees(recording_)[0].lines;
  EXPECT_EQ(lines[0].result, 2U);
  EXPECT_EQ(lines[1].result, 1U);
}

TEST_F(CallTree, ValuesAreEscapedForTheTerminal) {
  entry(1, OUTER, 2000);
  variable(1, OUTER, 2001, "a\x0E\x1B[2J\"\xC3\xA9", false);
  EXPECT_THAT(tree(), HasSubstr("probe 10: 9 bytes \"a\\x0E\\x1B[2J\\\"\\xC3\\xA9\"\n"));
}

TEST_F(CallTree, AnUnknownFunctionIsPrintedByItsNumber) {
  entry(1, 77, 2000);
  EXPECT_THAT(tree(), HasSubstr("function 77"));
}

TEST_F(CallTree, AVeryDeepChainPrintsInLinearSize) {
  for (std::uint64_t i = 0; i < 100'000; ++i) entry(1, OUTER, 2000 + i);
  const std::string text = tree();
  EXPECT_LT(text.size(), 100'000U * 200);
  EXPECT_THAT(text, HasSubstr("[level 99999]"));
}

TEST_F(CallTree, JsonLinesHoldOneCallEach) {
  entry(5, OUTER, 2000);
  variable(5, OUTER, 2100, "a\"\x01\xFF", false);
  exit(5, OUTER, 4500, static_cast<std::uint32_t>(-22271));
  EXPECT_EQ(printed(Output::JSON_LINES),
            "{\"type\":\"recording\",\"process\":7,\"program\":\"/usr/bin/server\",\"made\":\"1970-01-01T00:00:01."
            "000000000Z\",\"begun\":3,\"recorded\":3,\"overwritten\":0,\"dropped\":0,\"unfinished\":0,\"damaged\":0}\n"
            "{\"type\":\"call\",\"thread\":5,\"depth\":0,\"time\":\"1970-01-01T00:00:01.000001000Z\",\"identifier\":"
            "451415003,\"function\":\"MDCustomTree_retrieve\",\"durationNs\":2500,\"result\":-22271,\"entered\":true,"
            "\"left\":true}\n"
            "{\"type\":\"variable\",\"thread\":5,\"depth\":1,\"time\":\"1970-01-01T00:00:01.000001100Z\","
            "\"identifier\":451415003,\"function\":\"MDCustomTree_retrieve\",\"probe\":10,\"bytes\":4,"
            "\"value\":\"a\\\"\\u0001\xEF\xBF\xBD\"}\n");
}

TEST_F(CallTree, EngineCodesArePrintedInHexadecimal) {
  EXPECT_THAT(zontrace::resultText(INNER, 0x900001F6), HasSubstr("0x900001F6"));
}

TEST_F(CallTree, TheHeadTellsWhatIsMissing) {
  recording_.begun = 100;
  recording_.overwritten = 90;
  recording_.dropped = 8;
  recording_.unfinished = 2;
  EXPECT_THAT(printed(Output::TEXT), HasSubstr("100 events: 0 recorded, 90 overwritten, 8 dropped, 2 unfinished\n"));
}

}  // namespace
