// The trace facility in living processes: what it costs when off, how it is switched, what survives.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <thread>

#include "catalogue.h"
#include "exit_codes.h"
#include "process_control.h"
#include "ring_reader.h"
#include "traced_process.h"

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;
using zontrace::Event;
using zontrace::ProcessState;
using zontrace::ProcessStatus;
using zontrace::readRing;
using zontrace::Recording;

constexpr std::uint64_t SMALL = zon::trace_ring::MIN_EVENT_BYTES;
constexpr std::uint64_t SMALL_SLOTS = SMALL / zon::trace_ring::SLOT_BYTES;

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class TraceProcess : public testing::Test {
 protected:
  // Tests that switch from outside cannot run where the system refuses debuggers altogether.
  void SetUp() override {
    TracedProcess process;
    process.tell("call 1");
    zontrace::ProcessControl control(process.pid());
    const zontrace::Failure failure = control.find();
    if (failure.code == zontrace::EXIT_REFUSED) GTEST_SKIP() << failure.text;
    ASSERT_FALSE(failure) << failure.text;
  }

  std::string on(const TracedProcess& process, const std::string& options = {}) {
    const std::string pid = std::to_string(process.pid());
    const ToolResult result = runZontrace("on --wait 0 --pid " + pid + " --file " + ring() + ' ' + options);
    EXPECT_EQ(result.code, 0) << result.output;
    return result.output;
  }

  ToolResult off(const TracedProcess& process) {
    return runZontrace("off --wait 0 --pid " + std::to_string(process.pid()));
  }

  ProcessStatus statusOf(const TracedProcess& process) {
    zontrace::ProcessControl control(process.pid());
    ProcessStatus status;
    EXPECT_FALSE(control.find());
    EXPECT_FALSE(control.status(status));
    return status;
  }

  std::string ring() const { return folder_.file("a.ring"); }

  RingFolder folder_;
};

TEST_F(TraceProcess, OffCostsNoMappingNoDescriptorNoThreadAndNoSignalHandler) {
  TracedProcess process;
  process.tell("footprint");
  const std::string before = process.tell("footprint");
  process.tell("call 1000");
  EXPECT_EQ(process.tell("footprint"), before);
  EXPECT_EQ(process.tell("attached"), "00");
}

TEST_F(TraceProcess, TheEnvironmentStartsRecordingWithTheFirstCall) {
  TracedProcess process(ring());
  EXPECT_FALSE(std::filesystem::exists(ring()));
  process.tell("call 3");
  EXPECT_EQ(readRing(ring()).events.size(), 6U);
}

TEST_F(TraceProcess, TheEnvironmentGivesTheSizeOfTheRing) {
  TracedProcess process(ring() + ",size=128K");
  process.tell("call 1");
  EXPECT_EQ(std::filesystem::file_size(ring()), 128 * 1024 + zon::trace_ring::HEADER_BYTES);
}

TEST_F(TraceProcess, AWrongSettingInTheEnvironmentLeavesTracingOffWithAReason) {
  TracedProcess process(ring() + ",colour=red");
  process.tell("call 1");
  EXPECT_EQ(process.tell("attached"), "00");
  EXPECT_FALSE(std::filesystem::exists(ring()));
  EXPECT_EQ(statusOf(process).state, ProcessState::FAILED);
  EXPECT_EQ(statusOf(process).reason, EINVAL);
}

TEST_F(TraceProcess, SwitchingOnFromOutsideRecordsFromTheNextCall) {
  TracedProcess process;
  process.tell("call 5");
  EXPECT_THAT(on(process), HasSubstr("at its next traced call"));
  EXPECT_EQ(statusOf(process).state, ProcessState::STARTING);
  process.tell("call 2");
  EXPECT_EQ(process.tell("attached"), "11");
  EXPECT_EQ(statusOf(process).state, ProcessState::RECORDING);
  EXPECT_EQ(readRing(ring()).events.size(), 4U);
  EXPECT_EQ(readRing(ring()).pid, static_cast<std::uint64_t>(process.pid()));
}

TEST_F(TraceProcess, SwitchingOnReportsTheRingThatTheProcessHasMade) {
  TracedProcess process;
  process.tell("spin 1");
  const ToolResult result = runZontrace("on --wait 5000 --pid " + std::to_string(process.pid()) + " -f " + ring());
  EXPECT_EQ(result.code, 0);
  EXPECT_THAT(result.output, HasSubstr("is recording into " + ring()));
}

TEST_F(TraceProcess, SwitchingOffLetsGoOfTheRingAtTheNextCall) {
  TracedProcess process;
  on(process);
  process.tell("call 1");
  EXPECT_EQ(process.tell("maps " + ring()), "yes");
  EXPECT_EQ(off(process).code, 0);
  EXPECT_EQ(statusOf(process).state, ProcessState::STOPPING);
  process.tell("call 1");
  EXPECT_EQ(process.tell("maps " + ring()), "no");
  EXPECT_EQ(process.tell("attached"), "00");
  EXPECT_EQ(statusOf(process).state, ProcessState::OFF);
  EXPECT_EQ(readRing(ring()).events.size(), 2U);
}

TEST_F(TraceProcess, SwitchingOnAgainGoesOnInTheProcessesOwnRing) {
  TracedProcess process;
  for (int i = 0; i < 2; ++i) {
    on(process);
    process.tell("call 1");
    off(process);
    process.tell("call 1");
  }
  EXPECT_EQ(readRing(ring()).events.size(), 4U);
}

TEST_F(TraceProcess, SwitchingOnTwiceIsRefused) {
  TracedProcess process;
  on(process);
  const ToolResult result = runZontrace("on --pid " + std::to_string(process.pid()) + " --file " + ring());
  EXPECT_EQ(result.code, zontrace::EXIT_USAGE);
  EXPECT_THAT(result.output, HasSubstr("zontrace off --pid"));
}

TEST_F(TraceProcess, SwitchingOffWhatIsOffFindsNothing) {
  TracedProcess process;
  process.tell("call 1");
  EXPECT_EQ(off(process).code, zontrace::EXIT_NOTHING);
}

TEST_F(TraceProcess, AProcessWithoutTheLibraryHasNothingToTrace) {
  const ToolResult result = runZontrace("status --pid $$");
  EXPECT_EQ(result.code, zontrace::EXIT_NOTHING);
  EXPECT_THAT(result.output, HasSubstr("has not loaded libzonosse.so.1"));
}

TEST_F(TraceProcess, AnExistingFileIsNeverOverwritten) {
  std::ofstream(ring()) << "precious";
  TracedProcess process;
  on(process);
  process.tell("call 1");
  EXPECT_EQ(contentOf(ring()), "precious");
  const std::string own = ring() + '.' + std::to_string(process.pid());
  EXPECT_EQ(statusOf(process).file, own);
  EXPECT_EQ(readRing(own).events.size(), 2U);
}

TEST_F(TraceProcess, ALinkAtTheRingsNameIsNotFollowed) {
  const std::string target = folder_.file("target");
  std::filesystem::create_symlink(target, ring());
  TracedProcess process;
  on(process);
  process.tell("call 1");
  EXPECT_FALSE(std::filesystem::exists(target));
}

TEST_F(TraceProcess, OnlyTheOwnerMayReadTheRing) {
  TracedProcess process(ring());
  process.tell("call 1");
  struct stat status {};
  ASSERT_EQ(::stat(ring().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(TraceProcess, ARingThatCannotBeMadeSwitchesTracingOffAndLeavesTheReason) {
  TracedProcess process;
  process.tell("call 1");
  const std::string pid = std::to_string(process.pid());
  runZontrace("on --wait 0 --pid " + pid + " --file " + folder_.file("missing/a.ring"));
  process.tell("call 1");
  EXPECT_EQ(process.tell("attached"), "00");
  EXPECT_EQ(statusOf(process).state, ProcessState::FAILED);
  EXPECT_EQ(statusOf(process).reason, ENOENT);
  EXPECT_THAT(runZontrace("status --pid " + pid).output, HasSubstr("No such file or directory"));
}

TEST_F(TraceProcess, ARingBeyondTheFileSizeLimitDoesNotKillTheProcess) {
  TracedProcess process;
  ASSERT_EQ(process.tell("limit 4096"), "ok");
  on(process);
  EXPECT_EQ(process.tell("call 1"), "ok");
  EXPECT_EQ(statusOf(process).reason, EFBIG);
  EXPECT_FALSE(std::filesystem::exists(ring()));
}

TEST_F(TraceProcess, AKilledProcessLeavesEveryEventUpToTheLast) {
  TracedProcess process(ring());
  process.tell("call 500");
  process.kill();
  const Recording recording = readRing(ring());
  EXPECT_EQ(recording.condition, Recording::Condition::INTACT) << recording.problem;
  EXPECT_EQ(recording.events.size(), 1000U);
  EXPECT_EQ(recording.events.back().kind, zon::trace_ring::EXIT);
  EXPECT_EQ(recording.events.back().sizeOrResult, 31004U);
}

TEST_F(TraceProcess, AProcessKilledInTheMidstOfEventsLeavesAReadableRing) {
  for (int round = 0; round < 20; ++round) {
    const std::string file = folder_.file("killed" + std::to_string(round));
    TracedProcess process(file + ",size=64K,values");
    process.tell("spin 3");
    for (int i = 0; i < 10000 && readRing(file).events.empty(); ++i) std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(std::chrono::milliseconds(2 + round));
    process.kill();
    const Recording recording = readRing(file);
    EXPECT_EQ(recording.condition, Recording::Condition::INTACT) << recording.problem;
    EXPECT_LE(recording.unfinished, 6U);  // at most the slots of one event a thread
    EXPECT_GT(recording.events.size(), 0U);
  }
}

TEST_F(TraceProcess, AFullRingKeepsTheNewestEventsAndItsSize) {
  TracedProcess process(ring() + ",size=64K");
  process.tell("call 5000");
  const Recording recording = readRing(ring());
  EXPECT_EQ(std::filesystem::file_size(ring()), SMALL + zon::trace_ring::HEADER_BYTES);
  EXPECT_EQ(recording.events.size(), SMALL_SLOTS);
  EXPECT_EQ(recording.begun, 10000U);
  EXPECT_EQ(recording.overwritten, 10000U - SMALL_SLOTS);
  EXPECT_EQ(recording.events.back().number, 9999U);
}

TEST_F(TraceProcess, ThreadsRecordAllTheirEventsInOrderOnceTheRingIsMade) {
  TracedProcess process(ring());
  process.tell("call 1");
  process.tell("threads 8 1000");
  const Recording recording = readRing(ring());
  EXPECT_EQ(recording.events.size(), 2U + 16000U);
  std::map<std::uint64_t, const Event*> last;
  for (const Event& event : recording.events) {
    const Event*& before = last[event.thread];
    const bool isEntryDue = before == nullptr || before->kind == zon::trace_ring::EXIT;
    ASSERT_EQ(event.kind, isEntryDue ? zon::trace_ring::ENTRY : zon::trace_ring::EXIT);
    ASSERT_TRUE(before == nullptr || before->time <= event.time);
    before = &event;
  }
  EXPECT_EQ(last.size(), 1U + 8U);
}

TEST_F(TraceProcess, AForkedChildRecordsIntoARingOfItsOwn) {
  TracedProcess process(ring());
  process.tell("call 1");
  const std::string child = process.tell("fork 7");
  process.tell("call 1");
  const Recording parents = readRing(ring());
  const Recording childs = readRing(ring() + '.' + child);
  EXPECT_EQ(parents.events.size(), 4U);
  EXPECT_EQ(parents.pid, static_cast<std::uint64_t>(process.pid()));
  EXPECT_EQ(childs.events.size(), 14U);
  EXPECT_EQ(std::to_string(childs.pid), child);
}

TEST_F(TraceProcess, AChildForkedWhileThreadsRecordDoesNotTouchTheParentsRing) {
  TracedProcess process(ring());
  process.tell("call 1");  // makes the ring; else it would be of whoever records first, and that may be a child
  process.tell("spin 3");
  std::set<std::string> children;
  for (int i = 0; i < 30; ++i) children.insert(process.tell("fork 50"));
  process.kill();
  for (const Event& event : readRing(ring()).events) ASSERT_FALSE(children.contains(std::to_string(event.thread)));
  for (const std::string& child : children) {
    EXPECT_EQ(readRing(ring() + '.' + child).events.size(), 100U) << child;
  }
}

TEST_F(TraceProcess, ValuesStayOutOfTheRingUnlessAskedFor) {
  TracedProcess process(ring());
  process.tell("outer anna@example.org");
  const Recording recording = readRing(ring());
  ASSERT_EQ(recording.events.size(), 5U);
  EXPECT_EQ(recording.events[1].sizeOrResult, 16U);
  EXPECT_TRUE(recording.events[1].isMasked);
  EXPECT_THAT(contentOf(ring()), Not(HasSubstr("anna")));
}

TEST_F(TraceProcess, ValuesAskedForAreRecordedUpToTheirLimit) {
  TracedProcess process;
  on(process, "--values");
  const std::string longValue(1000, 'x');
  process.tell("outer anna@example.org");
  process.tell("outer " + longValue);
  const Recording recording = readRing(ring());
  ASSERT_EQ(recording.events.size(), 10U);
  EXPECT_EQ(recording.events[1].value, "anna@example.org");
  EXPECT_EQ(recording.events[6].sizeOrResult, 1000U);
  EXPECT_EQ(recording.events[6].value, longValue.substr(0, zon::trace_ring::MAX_VALUE_BYTES));
}

TEST_F(TraceProcess, ErrnoSurvivesTheMakingOfARing) {
  TracedProcess process(folder_.file("missing/a.ring"));
  EXPECT_EQ(process.tell("errno"), "kept");
  on(process);
  EXPECT_EQ(process.tell("errno"), "kept");
}

TEST_F(TraceProcess, SwitchingWhileThreadsRecordHarmsNeitherProcessNorRings) {
  TracedProcess process;
  process.tell("spin 4");
  const std::string pid = std::to_string(process.pid());
  for (int i = 0; i < 25; ++i) {
    const std::string file = folder_.file("ring" + std::to_string(i));
    const ToolResult on = runZontrace("on --wait 5000 --size 64K --pid " + pid + " --file " + file);
    ASSERT_EQ(on.code, 0) << on.output;
    const ToolResult off = runZontrace("off --wait 5000 --pid " + pid);
    ASSERT_EQ(off.code, 0) << off.output;
    EXPECT_THAT(off.output, HasSubstr("is not being recorded"));
    EXPECT_EQ(process.tell("maps " + file), "no");
    const Recording recording = readRing(file);
    EXPECT_EQ(recording.condition, Recording::Condition::INTACT) << recording.problem;
    EXPECT_EQ(recording.unfinished, 0U);
    EXPECT_GT(recording.events.size(), 0U);
  }
  EXPECT_NE(process.tell("footprint"), "");
}

TEST_F(TraceProcess, ThePrintedTreeNamesFunctionsAndResults) {
  TracedProcess process(ring());
  process.tell("outer abc");
  const ToolResult result = runZontrace("print " + ring());
  EXPECT_EQ(result.code, 0);
  const std::size_t outer = result.output.find("  MDCustomTree_retrieve (");
  const std::size_t probe = result.output.find("    probe 10: 3 bytes, value not recorded\n");
  const std::size_t inner = result.output.find("    MDCustomTree::retrieve (");
  EXPECT_LT(outer, probe);
  EXPECT_LT(probe, inner);
  EXPECT_NE(inner, std::string::npos) << result.output;
  EXPECT_THAT(result.output, HasSubstr(") = SQLCODE -22273\n"));
  EXPECT_THAT(result.output, HasSubstr(") = 31004"));
}

TEST_F(TraceProcess, StatusCanBeReadByPrograms) {
  TracedProcess process;
  on(process);
  process.tell("call 1");
  const std::string pid = std::to_string(process.pid());
  EXPECT_EQ(runZontrace("status -o json --pid " + pid).output,
            "{\"process\":" + pid + ",\"state\":\"recording\",\"file\":\"" + ring() +
                "\",\"eventBytes\":4194304,\"values\":false,\"errno\":0}\n");
}

TEST_F(TraceProcess, ARingWithoutEventsPrintsNothingFound) {
  TracedProcess process(ring());
  EXPECT_EQ(process.tell("attached"), "11");
  EXPECT_EQ(runZontrace("print " + ring()).code, zontrace::EXIT_NOTHING);
}

TEST_F(TraceProcess, PrintingWhatIsNoRingTellsSo) {
  std::ofstream(ring()) << "something else";
  EXPECT_EQ(runZontrace("print " + ring()).code, zontrace::EXIT_DAMAGED);
  EXPECT_EQ(runZontrace("print " + folder_.file("missing")).code, zontrace::EXIT_REFUSED);
  EXPECT_EQ(runZontrace("print").code, zontrace::EXIT_USAGE);
}

TEST_F(TraceProcess, TheCatalogueListsEveryTracePoint) {
  const ToolResult all = runZontrace("ids");
  EXPECT_EQ(all.code, 0);
  for (const zontrace::TracedFunction& row : zontrace::catalogue()) {
    EXPECT_THAT(all.output, HasSubstr(std::to_string(row.point) + "  " + row.name + '\n'));
  }
  EXPECT_EQ(runZontrace("ids 451412909").output, "451412909  mapMDFileRcToSqlca\n");
  EXPECT_EQ(runZontrace("ids nobody").code, zontrace::EXIT_NOTHING);
}

}  // namespace
