// Files of which something is gone for good: it is told until somebody takes note, and no backup hides it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "platform/registry/format/format.h"
#include "platform/registry/harness/damage_harness.h"
#include "platform/registry/harness/simulated_disk.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

// The backup trails the file: what it knows is not all, and may be gone by now.
class LostFiles : public DamagedFiles {
 protected:
  // Behind the backup's end a record is removed, one is changed and one is added.
  void makeAheadOfBackup() {
    TestStore store(DISK_FOLDER);
    note(store.add({"g", "stays", noise(1200, 1)}));
    note(store.add({"g", "changes", noise(1000, 2)}));
    note(store.add({"g", "goes", noise(1800, 3)}));
    known_ = store.list();
    GenRegStatus status;
    note(store.status(status));
    ASSERT_EQ(status.backupBytes, status.usedBytes);
    note(store.change({"g", "changes", "newer"}));
    note(store.remove("g", "goes"));
    note(store.add({"g", "comes", "new"}));
    take();
    ASSERT_LT(bytesOf(".store.bkp").size(), used_);
  }

  // Two records; answers the bytes of the file, for damage.
  std::shared_ptr<Bytes> makeWithoutBackup(TestStore& store) {
    store.unsetFeature(GenRegBase::FEATURE_BACKUP);
    note(store.add({"g", "first", noise(100, 1)}));
    note(store.add({"g", "second", noise(100, 2)}));
    take();
    return std::make_shared<Bytes>(bytesOf("store"));
  }

  void expectLossIsTold(const std::string& what) {
    TestStore store(DISK_FOLDER);
    std::uint32_t rc = MD_RC_OK;
    EXPECT_EQ(store.list(0, {}, &rc), known_) << what;
    EXPECT_EQ(rc, GENREG_RC_DAMAGED) << what;
    Value value;
    for (const char* key : {"stays", "changes", "goes", "comes"}) {
      EXPECT_EQ(store.get("g", key, value), GENREG_RC_DAMAGED) << what << ", " << key;
    }
    EXPECT_EQ(store.add(PROBE), MD_RC_OK) << what;
    Values expected = known_;
    expected.push_back(PROBE);
    EXPECT_EQ(store.list(0, {}, &rc), expected) << what;
    EXPECT_EQ(rc, MD_RC_OK) << what;
    GenRegStatus status{};
    note(store.status(status));
    EXPECT_EQ(status.repairs, 1u) << what;
    EXPECT_GE(status.lostBytes, 1u) << what;
    EXPECT_TRUE(disk_.image().has("store.cor")) << what;
  }

  Values known_;  // to the backup
};

TEST_F(LostFiles, AreNotAnsweredFromATrailingBackupAsIfNothingWereMissing) {
  ASSERT_NO_FATAL_FAILURE(makeAheadOfBackup());
  const Bytes whole = bytesOf("store");
  for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{100}, std::size_t{700},
                                   std::size_t{format::SLOT_OFFSET[1]}, std::size_t{format::SLOT_OFFSET[1]} + 20}) {
    for (const unsigned boot : {boot_, boot_ + 1}) {
      bootWith(std::make_shared<Bytes>(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
      disk_.setBootNumber(boot);
      expectLossIsTold("cut at " + std::to_string(length));
    }
  }
}

TEST_F(LostFiles, LeaveABackupThatTheFirstWriterKeeps) {
  ASSERT_NO_FATAL_FAILURE(makeAheadOfBackup());
  DiskImage gone = golden_;
  gone.names.erase("store");
  for (const bool hasOlder : {false, true}) {
    if (hasOlder) {
      gone.names["store.cor"] = 4000;
      gone.files[4000] = std::make_shared<Bytes>(10, std::byte{7});
    }
    disk_.boot(gone);
    TestStore store(DISK_FOLDER);
    EXPECT_EQ(store.list(), Values{});
    GenRegStatus status{};
    note(store.status(status));
    EXPECT_NE(status.orphanedBackup, 0u);
    EXPECT_EQ(store.remove("g", "stays"), GENREG_RC_NOT_FOUND);
    EXPECT_FALSE(store.hasMetLoss());
    EXPECT_EQ(store.acknowledgeLoss(), GENREG_RC_NOT_FOUND);
    note(store.add(PROBE));
    EXPECT_TRUE(store.hasMetLoss());
    note(store.status(status));
    EXPECT_EQ(status.orphanedBackup, 0u);
    EXPECT_EQ(status.unacknowledgedLosses, 1u);
    EXPECT_NE(status.corruptCopy, 0u);
    for (unsigned at = 0; at < 30; ++at) note(store.add({"new", std::to_string(at), noise(3000, at)}));
    const DiskImage after = disk_.image();
    EXPECT_EQ(after.names.at("store.cor"), golden_.names.at(".store.bkp"));
    EXPECT_EQ(*after.files.at(after.names.at("store.cor")), bytesOf(".store.bkp"));
    EXPECT_EQ(after.has("store.cor.1"), hasOlder);
    EXPECT_NE(after.names.at(".store.bkp"), golden_.names.at(".store.bkp"));
  }
}

// At no moment is the backup without a name, and a file that stands there counts the loss.
TEST_F(LostFiles, KeepTheirBackupThroughAPowerCutInTheFirstWriter) {
  ASSERT_NO_FATAL_FAILURE(makeAheadOfBackup());
  DiskImage gone = golden_;
  gone.names.erase("store");
  disk_.boot(gone);
  disk_.isRecording = true;
  {
    TestStore store(DISK_FOLDER);
    note(store.add(PROBE));
  }
  disk_.isRecording = false;
  const std::vector<DiskOp> ops = std::move(disk_.log);
  disk_.log.clear();
  const std::uint64_t kept = golden_.names.at(".store.bkp");
  PowerCut cut(gone);
  std::mt19937_64 random(7);
  for (const DiskOp& op : ops) {
    cut.follow(op);
    for (int number = 0; number < 12; ++number) {
      const DiskImage image = number == 0 ? cut.oldest() : number == 1 ? cut.newest() : cut.randomState(random);
      const bool isNamed =
          std::any_of(image.names.begin(), image.names.end(), [&](const auto& name) { return name.second == kept; });
      ASSERT_TRUE(isNamed);
      disk_.boot(image);
      TestStore store(DISK_FOLDER);
      note(store.add({"g", "second", "x"}));
      GenRegStatus status{};
      note(store.status(status));
      ASSERT_EQ(status.unacknowledgedLosses, 1u);
      ASSERT_EQ(disk_.image().names.at("store.cor"), kept);
    }
  }
}

TEST_F(LostFiles, AreToldUntilSomebodyTakesNote) {
  ASSERT_NO_FATAL_FAILURE(makeAheadOfBackup());
  bootWith(std::make_shared<Bytes>());
  GenRegStatus status{};
  {
    TestStore store(DISK_FOLDER);
    note(store.status(status));
    EXPECT_NE(status.damaged, 0u);
    note(store.add(PROBE));
    EXPECT_TRUE(store.hasMetLoss());
  }
  TestStore store(DISK_FOLDER);
  note(store.add({"g", "next", "x"}));
  EXPECT_FALSE(store.hasMetLoss());
  note(store.compact());
  note(store.status(status));
  EXPECT_EQ(status.unacknowledgedLosses, 1u);
  note(store.acknowledgeLoss());
  note(store.acknowledgeLoss());
  note(store.compact());
  disk_.boot(disk_.image());
  note(store.add({"g", "later", "x"}));
  note(store.status(status));
  EXPECT_EQ(status.unacknowledgedLosses, 0u);
  EXPECT_GE(status.lostBytes, 1u);
  // A repair without a loss carries on what was acknowledged.
  take();
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  spoilByte(*bytes, format::SLOT_OFFSET[0] + 20);
  bootWith(bytes);
  note(store.repair());
  note(store.status(status));
  EXPECT_EQ(status.unacknowledgedLosses, 0u);
}

// What is taken note of is on the disk when the call answers.
TEST_F(LostFiles, AreTakenNoteOfDurably) {
  ASSERT_NO_FATAL_FAILURE(makeAheadOfBackup());
  bootWith(std::make_shared<Bytes>());
  TestStore store(DISK_FOLDER);
  note(store.add(PROBE));
  take();
  disk_.boot(golden_);
  disk_.setBootNumber(boot_);
  disk_.isRecording = true;
  note(store.acknowledgeLoss());
  disk_.isRecording = false;
  PowerCut cut(golden_);
  for (const DiskOp& op : disk_.log) cut.follow(op);
  disk_.boot(cut.oldest());
  GenRegStatus status{};
  note(store.status(status));
  EXPECT_EQ(status.unacknowledgedLosses, 0u);
  EXPECT_EQ(store.list(), truth_);
}

// One slot and a broken commit behind it are what a power cut leaves, and damage when there was none.
TEST_F(LostFiles, ATornSlotAndATornCommitAreALossOnlyInTheSameRun) {
  TestStore store(DISK_FOLDER);
  const auto bytes = makeWithoutBackup(store);
  const auto slots = {loadAt<format::Slot>(*bytes, format::SLOT_OFFSET[0]),
                      loadAt<format::Slot>(*bytes, format::SLOT_OFFSET[1])};
  const std::size_t newest = std::data(slots)[0].sequence > std::data(slots)[1].sequence ? 0 : 1;
  spoilByte(*bytes, format::SLOT_OFFSET[newest] + 40);
  spoilByte(*bytes, lastFrame(format::FrameKind::INSERT).offset + 60);
  for (const bool isSameRun : {true, false}) {
    bootWith(bytes);
    if (isSameRun) disk_.setBootNumber(boot_);
    std::uint32_t rc = MD_RC_OK;
    EXPECT_EQ(store.list(0, {}, &rc).size(), 1u);
    EXPECT_EQ(rc, isSameRun ? GENREG_RC_DAMAGED : MD_RC_OK);
  }
}

// A record is damaged, and behind the end lies a commit that is complete, but was not acknowledged.
TEST_F(LostFiles, ReadersOfDamageTakeNoCommitThatIsUnderWay) {
  TestStore store(DISK_FOLDER);
  const auto bytes = makeWithoutBackup(store);
  note(store.add({"g", "under way", "x"}));
  const DiskImage after = disk_.image();
  const Bytes& later = *after.files.at(after.names.at("store"));
  const auto at = static_cast<std::ptrdiff_t>(used_);
  std::copy(later.begin() + at, later.begin() + at + 300, bytes->begin() + at);
  spoilText(*bytes, noise(100, 1));
  for (const bool isSameRun : {true, false}) {
    bootWith(bytes);
    if (isSameRun) disk_.setBootNumber(boot_);
    std::uint32_t rc = MD_RC_OK;
    const Values listed = store.list(0, {}, &rc);
    EXPECT_EQ(rc, GENREG_RC_DAMAGED);
    // After a restart it is durable and counts.
    EXPECT_EQ(listed.size(), isSameRun ? 1u : 2u);
    Value value;
    EXPECT_EQ(store.get("g", "under way", value), isSameRun ? GENREG_RC_NOT_FOUND : MD_RC_OK);
  }
}

}  // namespace
}  // namespace zon::test
