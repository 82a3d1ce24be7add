// Power cuts and killed processes at every point of every kind of change.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/registry/harness/crash_explorer.h"
#include "platform/registry/harness/simulated_disk.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

TEST_F(PowerCuts, TheFirstAddMakesTheFile) {
  statesPerPoint_ = 400;
  add({"g", "k", "first"});
}

TEST_F(PowerCuts, SingleChanges) {
  statesPerPoint_ = 100;
  const Value a{"g1", "a", "one"};
  const Value b{"g1", "b", noise(700, 1)};
  const Value c{"g2", "c", ""};
  absent_.insert(absent_.end(), {a, b, c, {"g3", "moved", ""}});
  add(a);
  add(b);
  add(c);
  const Value a2{"g1", "a", noise(1200, 2)};
  step("change a", [&](TestStore& store) { return store.change(a2); }, {{a2, b, c}});
  const Value moved{"g3", "moved", "elsewhere"};
  step("rename b", [&](TestStore& store) { return store.changeTo(b, moved); }, {{a2, moved, c}});
  step("delete c", [&](TestStore& store) { return store.remove("g2", "c"); }, {{a2, moved}});
  add(c);
  step("change c",
       [&](TestStore& store) {
         return store.change({"g2", "c", "new"});
       },
       {{a2, moved, {"g2", "c", "new"}}});
}

TEST_F(PowerCuts, DeletingAGroup) {
  Values keep;
  for (int at = 0; at < 9; ++at) {
    const Value value{at % 3 == 0 ? "stays" : "goes", "k" + std::to_string(at), noise(100, static_cast<unsigned>(at))};
    addQuietly(value);
    absent_.push_back(value);
    if (at % 3 == 0) keep.push_back(value);
  }
  step("delete group", [&](TestStore& store) { return store.removeAll("goes", "", GROUP); }, {keep});
  step("delete all", [&](TestStore& store) { return store.removeAll("", "", 0); }, {{}});
}

TEST_F(PowerCuts, ABatch) {
  addQuietly({"g", "before", "b"});
  const Value first = now().front();
  std::vector<Values> after;
  Values values = now();
  for (int at = 0; at < 4; ++at) {
    values.push_back({"g", "k" + std::to_string(at), noise(300, static_cast<unsigned>(at))});
    absent_.push_back(values.back());
    after.push_back(values);
  }
  values.front().data = "changed";
  after.push_back(values);
  values.erase(values.begin() + 2);
  after.push_back(values);
  const std::vector<Values> states = after;
  step(
      "batch",
      [&](TestStore& store) {
        std::uint32_t rc = store.beginBatch();
        for (int at = 0; at < 4; ++at) rc |= store.add(states[3][static_cast<std::size_t>(at) + 1]);
        rc |= store.change({"g", "before", "changed"});
        rc |= store.remove("g", "k1");
        return rc | store.commitBatch();
      },
      after);
}

// The overlay of the slot holds 48 heads; a commit with more goes another way.
TEST_F(PowerCuts, ABatchWithMoreHeadsThanTheSlotHolds) {
  statesPerPoint_ = 40;
  addQuietly({"g", "before", "b"});
  for (int round = 0; round < 2; ++round) {
    std::vector<Values> after;
    Values values = now();
    const std::size_t known = values.size();
    for (int at = 0; at < 40; ++at) {
      const std::string name = std::to_string(round) + "-" + std::to_string(at);
      values.push_back({"group" + name, "k" + name, "d"});
      after.push_back(values);
    }
    step(
        "batch",
        [&](TestStore& store) {
          std::uint32_t rc = store.beginBatch();
          for (std::size_t at = known; at < values.size(); ++at) rc |= store.add(values[at]);
          return rc | store.commitBatch();
        },
        after);
  }
}

// Nothing may lead to a batch that its writer did not live to show: not when its records are looked for, nor when they
// are added after all.
TEST_F(PowerCuts, ABatchThatWasDiscardedIsAddedAgain) {
  Values batch;
  for (int at = 0; at < 40; ++at) batch.push_back({numbered("g", at), numbered("k", at), noise(40, 1)});
  addQuietly({"g", "before", "b"});
  const DiskImage before = disk_.image();
  const unsigned boot = disk_.bootNumber();
  bool isDone = false;
  for (std::size_t most = 0; !isDone; ++most) {
    disk_.boot(before);
    disk_.setBootNumber(boot);
    std::size_t calls = 0;
    disk_.fault = [&](Call) { return calls++ >= most ? EINTR : 0; };
    const auto addAll = [&](TestStore& store) {
      std::uint32_t rc = store.beginBatch();
      for (const Value& value : batch) rc |= store.add(value);
      return rc | store.commitBatch();
    };
    {
      TestStore store(DISK_FOLDER);
      static_cast<void>(addAll(store));
    }
    disk_.fault = nullptr;
    disk_.killProcesses();
    isDone = calls <= most;
    TestStore store(DISK_FOLDER);
    const bool wasShown = store.list().size() > now().size();
    ASSERT_EQ(store.add(PROBE), MD_RC_OK) << most;
    Value value;
    for (const Value& wanted : batch) {
      ASSERT_EQ(store.get(wanted.group, wanted.key, value), wasShown ? MD_RC_OK : GENREG_RC_NOT_FOUND) << most;
    }
    ASSERT_EQ(wasShown ? MD_RC_OK : addAll(store), MD_RC_OK) << most;
    ASSERT_EQ(store.list().size(), now().size() + batch.size() + 1) << most;
    GenRegStatus status{};
    ASSERT_EQ(store.status(status), MD_RC_OK);
    ASSERT_EQ(status.damaged + status.repairs, 0u) << most;
  }
}

TEST_F(PowerCuts, TheOverlayFillsAndIsApplied) {
  statesPerPoint_ = 24;
  for (int at = 0; at < 60; ++at) {
    const std::string name = std::to_string(at);
    add({"g" + std::to_string(at % 35), "k" + name, name});
  }
}

// Where the system does not tell its runs apart, every opening is as after a restart.
TEST_F(PowerCuts, OfAMachineWithoutABootId) {
  statesPerPoint_ = 24;
  disk_.tellsBoots = false;
  for (int at = 0; at < 28; ++at) {
    const std::string name = std::to_string(at);
    add({"g" + name, "k" + name, name});
  }
}

TEST_F(PowerCuts, OfAMachineThatForbidsItsBootId) {
  statesPerPoint_ = 24;
  addQuietly({"g", "known", "by a writer that was told"});
  disk_.bootIdError = EACCES;
  for (int at = 0; at < 8; ++at) {
    const std::string name = std::to_string(at);
    add({"g" + name, "k" + name, name});
  }
  disk_.bootIdError = 0;
  add({"g", "told again", ""});
}

TEST_F(PowerCuts, WhereMountsCannotBeTold) {
  statesPerPoint_ = 24;
  disk_.tellsMounts = false;
  for (int at = 0; at < 28; ++at) {
    const std::string name = std::to_string(at);
    add({"g" + name, "k" + name, name});
  }
}

// A guess could take a commit under way for one that outlasted a restart.
TEST_F(PowerCuts, ABootIdThatIsOutOfReachIsAFailure) {
  const std::pair<int, std::uint32_t> errors[]{{EMFILE, GENREG_RC_TOO_MANY_FILES},
                                               {ENFILE, GENREG_RC_TOO_MANY_FILES},
                                               {ENOMEM, GENREG_RC_NO_MEMORY},
                                               {EIO, GENREG_RC_IO_ERROR}};
  addQuietly({"g", "before", ""});
  addQuietly({"g", "acknowledged", ""});
  const DiskImage image = oldestNow();
  for (const auto& [error, code] : errors) {
    startAnew(image);
    disk_.bootIdError = error;
    TestStore store(DISK_FOLDER);
    Value value;
    EXPECT_EQ(store.get("g", "acknowledged", value), code) << error;
    EXPECT_EQ(store.add(PROBE), code) << error;
    disk_.bootIdError = 0;
    EXPECT_EQ(store.list(), now()) << error;
  }
}

TEST_F(PowerCuts, TheIndexGetsANewArea) {
  statesPerPoint_ = 16;
  secondEvery_ = 100;
  Values values;
  for (int at = 0; at < 180; ++at) values.push_back({"g" + std::to_string(at), "k" + std::to_string(at), "d"});
  addInOneBatch(values);
  for (int at = 180; at < 215; ++at) {
    const std::string name = std::to_string(at);
    add({"g" + name, "k" + name, name});
  }
}

TEST_F(PowerCuts, AnExplicitCompaction) {
  for (int at = 0; at < 12; ++at) addQuietly({"g", "k" + std::to_string(at), noise(60, static_cast<unsigned>(at))});
  Values values = now();
  for (std::size_t at = 0; at < 6; ++at) {
    values[at].data = noise(500, 50);
    quietly([&](TestStore& store) { return store.change(values[at]); }, values);
  }
  step("compact", [](TestStore& store) { return store.compact(); }, {values});
  add({"g", "after", "the compaction"});
}

TEST_F(PowerCuts, CompactionByItself) {
  statesPerPoint_ = 40;
  addQuietly({"g", "stays", noise(200, 1)});
  addQuietly({"g", "churned", ""});
  for (unsigned at = 0; at < 40; ++at) {
    Values values = now();
    values[1].data = noise(4000, at);
    stepIfItHas(
        DiskOp::Kind::RENAME, "store", "change", [&](TestStore& store) { return store.change(values[1]); }, values);
  }
  EXPECT_GT(found_, 0);
}

TEST_F(PowerCuts, TheFirstBackup) {
  checksBackup_ = true;
  for (unsigned at = 0; at < 12; ++at) {
    const Value value{"g", "k" + std::to_string(at), noise(700, at)};
    stepIfItHas(
        DiskOp::Kind::RENAME, ".store.bkp", "add", [&](TestStore& store) { return store.add(value); },
        with(now(), value));
  }
  EXPECT_GT(found_, 0);
  add({"g", "after", "the backup"});
}

TEST_F(PowerCuts, TheBackupGrows) {
  checksBackup_ = true;
  statesPerPoint_ = 20;
  for (unsigned at = 0; at < 3; ++at) addQuietly({"g", "k" + std::to_string(at), noise(3000, at)});
  for (unsigned at = 3; at < 12; ++at) add({"g", "k" + std::to_string(at), noise(3000, at)});
}

// After a restart each reader would go through what lies behind the slot, until somebody writes.
TEST_F(PowerCuts, ASlotThatShowsALargeCommitIsNotLost) {
  const SettingScope<std::size_t> large(largestData, MAX_DATA);
  addQuietly({"g", "small", "its slot may be lost"});
  const std::uint64_t end = publishedEnd();
  startAnew(oldestNow());
  ASSERT_LT(publishedEnd(), end);
  addQuietly({"g", "large", noise(300000, 1)});
  const std::uint64_t largeEnd = publishedEnd();
  startAnew(oldestNow());
  EXPECT_EQ(publishedEnd(), largeEnd);
  EXPECT_EQ(TestStore(DISK_FOLDER).list(), now());
}

// Several records of one key: which of them a Get answers must not depend on what a crash took.
TEST_F(PowerCuts, RecordsThatShareAKey) {
  addQuietly({"g", "k", "first"});
  const Value second{"g", "other", "x"};
  addQuietly(second);
  step("add again",
       [&](TestStore& store) {
         return store.add({"g", "k", "second"}, 0);
       },
       {with(now(), {"g", "k", "second"})});
}

}  // namespace
}  // namespace zon::test
