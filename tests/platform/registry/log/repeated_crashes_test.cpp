// One disaster after the other: power cuts and kills, hundreds in a row.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "platform/registry/harness/crash_explorer.h"
#include "platform/registry/harness/simulated_disk.h"
#include "platform/registry/harness/test_records.h"
#include "support/told_numbers.h"

namespace zon::test {
namespace {

// Disasters one after the other: the file goes on working, and stays small.
class RepeatedDisasters : public PowerCuts {
 protected:
  void expectSmall() {
    std::uint64_t live = 0;
    for (const Value& value : now()) live += encode(value).size();
    const DiskImage image = disk_.image();
    EXPECT_LT(image.files.at(image.names.at("store"))->size(), 2 * (live + 65536));
  }
};

TEST_F(RepeatedDisasters, OfLosingTheSlotInAPowerCut) {
  addQuietly({"first", "first", ""});
  std::size_t mostCalls = 0;
  for (int cut = 0; cut < 250; ++cut) {
    for (int at = 0; at < 1 + cut % 29; ++at) {
      const std::string name = std::to_string(cut) + "-" + std::to_string(at);
      const std::size_t before = disk_.callCount();
      addQuietly({"g" + name, "k" + name, ""});
      mostCalls = std::max(mostCalls, disk_.callCount() - before);
    }
    startAnew(oldestNow());
  }
  TestStore store(DISK_FOLDER);
  EXPECT_EQ(store.list(), now());
  EXPECT_LT(mostCalls, 250u);
  Value value;
  for (const Value& wanted : now()) ASSERT_EQ(store.get(wanted.group, wanted.key, value), MD_RC_OK) << wanted.key;
  expectSmall();
}

// Each time the blocks have their entries and the slot that counted them is lost: a segment is full before any slot
// says so. Had it no successor, the heads that find no place in it would have to be read by each opening.
TEST_F(RepeatedDisasters, OfLosingTheSlotThatCountedWhatTheBlocksHave) {
  std::size_t mostCalls = 0;
  int number = 0;
  for (int cut = 0; cut < 60; ++cut) {
    std::uint64_t end = 0;
    do {
      const std::size_t before = disk_.callCount();
      addQuietly({numbered("g", number), numbered("k", number), ""});
      mostCalls = std::max(mostCalls, disk_.callCount() - before);
      ++number;
      end = publishedEnd();
    } while (newestSlot().overlayApplied == 0);
    DiskImage left = oldestNow();
    for (std::size_t choice = 0; choice < cutNow().choiceCount(); ++choice) {
      const DiskImage image = cutNow().newestBut(choice);
      if (newestSlotIn(image).end < end) left = image;
    }
    startAnew(left);
  }
  EXPECT_LT(mostCalls, 250u);
  TestStore store(DISK_FOLDER);
  EXPECT_EQ(store.list(), now());
  Value value;
  for (const Value& wanted : now()) ASSERT_EQ(store.get(wanted.group, wanted.key, value), MD_RC_OK) << wanted.key;
  expectSmall();
}

// A change of more heads than the slot holds, killed after each of its calls in turn, again and again.
TEST_F(RepeatedDisasters, OfBeingKilled) {
  addQuietly({"first", "first", ""});
  for (int kill = 0; kill < 300; ++kill) {
    Values batch;
    for (int at = 0; at < 30; ++at) {
      const std::string name = std::to_string(kill) + "-" + std::to_string(at);
      batch.push_back({"g" + name, "k" + name, ""});
    }
    {
      int calls = 0;
      disk_.fault = [&](Call call) {
        calls += call == Call::WRITE || call == Call::SYNC_DATA || call == Call::ALLOCATE ? 1 : 0;
        return calls > kill % 24 ? EINTR : 0;
      };
      TestStore store(DISK_FOLDER);
      static_cast<void>(store.beginBatch());  // each may be what fails
      for (const Value& value : batch) store.add(value);
      static_cast<void>(store.commitBatch());
      disk_.fault = nullptr;
    }
    disk_.killProcesses();
    TestStore store(DISK_FOLDER);
    std::uint32_t rc = MD_RC_OK;
    const Values listed = store.list(0, {}, &rc);
    ASSERT_EQ(rc, MD_RC_OK) << kill;
    const Value next{"n" + std::to_string(kill), "n", ""};
    ASSERT_EQ(store.add(next), MD_RC_OK) << kill;
    ASSERT_EQ(store.list(), with(listed, next)) << kill;
    if (kill % 20 == 0) {
      ASSERT_EQ(store.removeAll("", "", 0), MD_RC_OK);
    }
  }
}

enum class Strike { KILL, POWER_CUT };
enum class Piece { INSERT, CHANGE, REMOVE_GROUP, LARGE_BATCH, COMPACT, BACK_UP };
using Pieces = std::vector<Piece>;

// One piece of work after the other, and in the midst of each a disaster, at each of its points in turn. After each
// everything acknowledged is there, a writer goes on, file and backup stay small, and an insert takes as many system
// calls as at first.
class DisastersInARow : public ::testing::TestWithParam<std::pair<Strike, Pieces>> {
 protected:
  struct Plan {
    std::function<std::uint32_t(TestStore&)> work;
    std::vector<Values> after;  // the states that it leads through
  };

  // ZON_CRASH_SCALE=4 makes it 1,000 of each.
  static int count() { return static_cast<int>(250 * std::max(1U, zontest::toldNumber("ZON_CRASH_SCALE", 1U))); }

  std::string newName(const char* prefix) { return numbered(prefix, nextName_++); }

  Plan insertOf(std::size_t most) {
    const Value value{numbered("g", nextName_ % 5), newName("k"), noise(random_() % most, 1)};
    return {[value](TestStore& store) { return store.add(value); }, {with(now_, value)}};
  }

  Plan changeOfAny() {
    Values after = now_;
    Value& changed = after[random_() % after.size()];
    changed.data = noise(random_() % 1500, 2) + newName(" ");
    return {[changed](TestStore& store) { return store.change(changed); }, {after}};
  }

  Plan removalOfAnyGroup() {
    const std::string group = now_[random_() % now_.size()].group;
    Values after = now_;
    std::erase_if(after, [&](const Value& value) { return value.group == group; });
    return {[group](TestStore& store) { return store.removeAll(group, "", GROUP); }, {after}};
  }

  // Of more heads than the slot holds.
  Plan largeBatch() {
    Plan plan;
    Values batch;
    plan.after = {now_};
    for (int at = 0; at < 30; ++at) {
      batch.push_back({newName("b"), newName("k"), ""});
      plan.after.push_back(with(plan.after.back(), batch.back()));
    }
    plan.work = [batch](TestStore& store) {
      std::uint32_t rc = store.beginBatch();
      for (const Value& value : batch) rc |= store.add(value);
      return rc | store.commitBatch();
    };
    return plan;
  }

  Plan planOf(Piece piece) {
    switch (piece) {
      case Piece::INSERT:
        return insertOf(1500);
      case Piece::CHANGE:
        return changeOfAny();
      case Piece::REMOVE_GROUP:
        return removalOfAnyGroup();
      case Piece::LARGE_BATCH:
        return largeBatch();
      case Piece::COMPACT:
        return {[](TestStore& store) { return store.compact(); }, {now_}};
      case Piece::BACK_UP:
        return insertOf(SMALL_RECORDS);
    }
    return {};
  }

  void doWhole(const Plan& plan) {
    TestStore store(DISK_FOLDER);
    ASSERT_EQ(plan.work(store), MD_RC_OK);
    now_ = plan.after.back();
    followAll();
  }

  void followAll() {
    for (const DiskOp& op : disk_.log) cut_.follow(op);
    disk_.log.clear();
  }

  // Answers the states of which one must be found now.
  std::vector<Values> strikeIn(const Plan& plan, int number) {
    {
      TestStore store(DISK_FOLDER);
      EXPECT_EQ(plan.work(store), MD_RC_OK);
    }
    const std::vector<DiskOp> ops = std::exchange(disk_.log, {});
    const std::size_t point = static_cast<std::size_t>(number) % (ops.size() + 1);
    for (std::size_t at = 0; at < point; ++at) cut_.follow(ops[at]);
    GetParam().first == Strike::KILL ? kill() : cutPower(number);
    if (point == ops.size()) return {plan.after.back()};
    std::vector<Values> allowed = plan.after;
    allowed.push_back(now_);
    return allowed;
  }

  void kill() {
    const unsigned boot = disk_.bootNumber();
    disk_.boot(cut_.newest());
    disk_.setBootNumber(boot);
  }

  // Every third time the cache is lost, and the machine goes on.
  void cutPower(int number) {
    const std::size_t choices = cut_.choiceCount();
    const std::size_t choice = choices == 0 ? 0 : random_() % choices;
    DiskImage left = cut_.randomState(random_);
    if (number % 5 == 0) left = cut_.oldest();
    if (number % 5 == 1) left = cut_.newest();
    if (number % 5 == 2 && choices > 0) left = cut_.newestBut(choice);
    if (number % 5 == 3 && choices > 0) left = cut_.oldestBut(choice);
    number % 3 == 0 ? disk_.remount(left) : disk_.boot(left);
    cut_ = PowerCut(left);
  }

  void expectOneOf(const std::vector<Values>& allowed) {
    TestStore store(DISK_FOLDER);
    std::uint32_t rc = MD_RC_OK;
    const Values listed = store.list(0, {}, &rc);
    ASSERT_EQ(rc, MD_RC_OK);
    ASSERT_NE(std::find(allowed.begin(), allowed.end(), listed), allowed.end()) << ::testing::PrintToString(listed);
    now_ = listed;
    Value value;
    for (std::size_t at = random_() % 5; at < listed.size(); at += 5) {
      ASSERT_EQ(store.get(listed[at].group, listed[at].key, value), MD_RC_OK) << listed[at].key;
      ASSERT_EQ(value, listed[at]);
    }
    followAll();
  }

  void expectSound() {
    TestStore store(DISK_FOLDER);
    ASSERT_EQ(store.list(), now_);
    GenRegStatus status{};
    ASSERT_EQ(store.status(status), MD_RC_OK);
    ASSERT_EQ(status.damaged + status.repairs + status.lostBytes, 0u);
    ASSERT_EQ(status.records, now_.size());
    std::uint64_t live = 0;
    for (const Value& value : now_) live += encode(value).size();
    const DiskImage image = disk_.image();
    for (const char* name : {"store", ".store.bkp"}) {
      if (!image.has(name)) continue;
      ASSERT_LT(image.files.at(image.names.at(name))->size(), 2 * (live + 65536)) << name;
    }
    followAll();
  }

  std::size_t callsOfAnInsert() {
    const std::size_t before = disk_.callCount();
    doWhole(insertOf(100));
    return disk_.callCount() - before;
  }

  // After a quarter the file has what it will have, such as a backup and a segment more. From then on the usual insert
  // costs the same, and what comes now and then, like an application of the overlay, comes no more often.
  static void expectFlat(std::vector<std::size_t> calls) {
    const auto quarter = static_cast<std::ptrdiff_t>(calls.size() / 4);
    const auto sum = [](auto from, auto to) { return std::accumulate(from, to, std::size_t{0}); };
    const auto second = calls.begin() + quarter;
    EXPECT_LE(sum(calls.end() - quarter, calls.end()), sum(second, second + quarter) * 3 / 2);
    std::sort(second, second + 10);
    std::sort(calls.end() - 10, calls.end());
    EXPECT_LE(*(calls.end() - 5), *(second + 5) * 3 / 2);
  }

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
  SimulatedDisk disk_;
  PowerCut cut_{DiskImage{}};
  Values now_;
  std::mt19937_64 random_{7};
  int nextName_ = 0;
};

TEST_P(DisastersInARow, LeaveAFileThatWorksAsAtFirst) {
  const Pieces& pieces = GetParam().second;
  disk_.isRecording = true;
  std::vector<std::size_t> calls;
  for (int number = 0; number < count(); ++number) {
    SCOPED_TRACE("disaster " + std::to_string(number));
    while (now_.size() < 20) doWhole(insertOf(1500));
    const Piece piece = pieces[static_cast<std::size_t>(number) % pieces.size()];
    ASSERT_NO_FATAL_FAILURE(expectOneOf(strikeIn(planOf(piece), number)));
    // The first writer settles what the disaster left.
    ASSERT_NO_FATAL_FAILURE(doWhole(insertOf(100)));
    calls.push_back(callsOfAnInsert());
    ASSERT_NO_FATAL_FAILURE(expectSound());
    while (now_.size() > 60) ASSERT_NO_FATAL_FAILURE(doWhole(removalOfAnyGroup()));
  }
  expectFlat(calls);
}

const std::pair<const char*, Pieces> WORK[]{
    {"Inserts", {Piece::INSERT}},
    {"Compactions", {Piece::COMPACT}},
    {"Backups", {Piece::BACK_UP}},
    {"LargeBatches", {Piece::LARGE_BATCH}},
    {"WorkOfEveryKind",
     {Piece::INSERT, Piece::CHANGE, Piece::LARGE_BATCH, Piece::REMOVE_GROUP, Piece::COMPACT, Piece::BACK_UP}}};

std::vector<std::pair<Strike, Pieces>> allDisasters() {
  std::vector<std::pair<Strike, Pieces>> all;
  for (const Strike strike : {Strike::KILL, Strike::POWER_CUT}) {
    for (const auto& [name, pieces] : WORK) all.emplace_back(strike, pieces);
  }
  return all;
}

std::string nameOfDisasters(const ::testing::TestParamInfo<std::pair<Strike, Pieces>>& disasters) {
  const bool isKill = disasters.param.first == Strike::KILL;
  return std::string(isKill ? "KillsIn" : "PowerCutsIn") + WORK[disasters.index % std::size(WORK)].first;
}

INSTANTIATE_TEST_SUITE_P(InTheMidst, DisastersInARow, ::testing::ValuesIn(allDisasters()), nameOfDisasters);

}  // namespace
}  // namespace zon::test
