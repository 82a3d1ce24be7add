// What comes after a crash: the first writer, whatever fails for it, and one disaster after the other.
#include <gtest/gtest.h>

#include <algorithm>
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

// An acknowledged change, its slot lost in a power cut: whatever fails for the first writer after that, and however
// often, it stays. A change that was refused stays away.
class FirstWriters : public PowerCuts {
 protected:
  // The newest commit is durable and no slot shows it.
  void SetUp() override {
    addQuietly({"g", "before", noise(400, 1)});
    addQuietly({"g", "acknowledged", noise(300, 2)});
    acknowledged_ = now();
    lost_ = oldestNow();
  }

  // Everything there that was acknowledged, and perhaps the change of the writer that answered this.
  void expectNothingLost(std::uint32_t answer, const std::string& where) {
    TestStore store(DISK_FOLDER);
    std::uint32_t rc = MD_RC_OK;
    const Values listed = store.list(0, {}, &rc);
    ASSERT_EQ(rc, MD_RC_OK) << where;
    const bool isThere = listed == with(acknowledged_, PROBE);
    const bool isAway = listed == acknowledged_;
    const bool isUnknown = answer == GENREG_RC_DURABILITY_UNKNOWN;
    EXPECT_TRUE((isThere && (answer == MD_RC_OK || isUnknown)) || (isAway && answer != MD_RC_OK))
        << where << ": answered " << answer << ", found " << ::testing::PrintToString(listed);
    EXPECT_EQ(store.add(SECOND_PROBE), MD_RC_OK) << where;
    EXPECT_EQ(store.list(), with(listed, SECOND_PROBE)) << where;
  }

  Values acknowledged_;
  DiskImage lost_;
};

TEST_F(FirstWriters, LoseNothingWhateverFailsForThem) {
  for (const bool isRemounted : {false, true}) {
    for (const bool goesOn : {false, true}) {
      for (std::size_t failing = 0;; ++failing) {
        startAnew(lost_);
        if (isRemounted) {
          disk_.setBootNumber(1);
          disk_.setMountNumber(2);
        }
        std::size_t calls = 0;
        disk_.fault = [&](Call) { return calls++ == failing || (goesOn && calls > failing) ? EIO : 0; };
        std::uint32_t answer = MD_RC_OK;
        {
          disk_.isRecording = true;
          disk_.log.clear();
          TestStore store(DISK_FOLDER);
          answer = store.add(PROBE);
        }
        disk_.fault = nullptr;
        disk_.isRecording = false;
        PowerCut cut(lost_);
        for (const DiskOp& op : disk_.log) cut.follow(op);
        const std::string where = "call " + std::to_string(failing) + (goesOn ? " and on" : "");
        const unsigned boot = disk_.bootNumber();
        expectNothingLost(answer, where);
        for (const DiskImage& image : {cut.oldest(), cut.newest()}) {
          disk_.boot(image);
          disk_.setBootNumber(boot + 1);
          expectNothingLost(answer, where + ", then a power cut");
        }
        if (calls <= failing) break;
      }
    }
  }
}

// What a reader sees beside the first writer after a restart must outlast a power cut at that moment.
TEST_F(FirstWriters, ShowReadersNothingThatIsNotDurable) {
  startAnew(lost_);
  PowerCut cut(lost_);
  disk_.isRecording = true;
  disk_.log.clear();
  std::vector<std::pair<Values, DiskImage>> seen;
  bool isReading = false;
  std::size_t followed = 0;
  disk_.fault = [&](Call) {
    if (isReading) return 0;
    isReading = true;
    TestStore reader(DISK_FOLDER);
    const Values listed = reader.list();
    for (; followed < disk_.log.size(); ++followed) cut.follow(disk_.log[followed]);
    seen.emplace_back(listed, cut.oldest());
    isReading = false;
    return 0;
  };
  {
    TestStore writer(DISK_FOLDER);
    ASSERT_EQ(writer.add(PROBE), MD_RC_OK);
  }
  disk_.fault = nullptr;
  disk_.isRecording = false;
  ASSERT_GT(seen.size(), 10u);
  for (const auto& [listed, image] : seen) {
    startAnew(image);
    TestStore store(DISK_FOLDER);
    const Values after = store.list();
    EXPECT_GE(after.size(), listed.size());
    EXPECT_TRUE(std::equal(listed.begin(), listed.end(), after.begin()));
  }
}

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
  for (int cut = 0; cut < 250; ++cut) {
    for (int at = 0; at < 1 + cut % 29; ++at) {
      const std::string name = std::to_string(cut) + "-" + std::to_string(at);
      addQuietly({"g" + name, "k" + name, ""});
    }
    startAnew(oldestNow());
  }
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
      store.beginBatch();
      for (const Value& value : batch) store.add(value);
      store.commitBatch();
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

}  // namespace
}  // namespace zon::test
