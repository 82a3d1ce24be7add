// Files that are none of ours, and damage that upkeep meets: what is refused stays as it is, what is repaired keeps its
// damaged bytes under a name.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "platform/registry/format/format.h"
#include "platform/registry/harness/damage_harness.h"
#include "platform/registry/harness/simulated_disk.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

TEST_F(DamagedFiles, AForeignFileIsRefusedAndUntouched) {
  for (const std::size_t size : {1u, 63u, 64u, 5000u, 70000u}) {
    auto bytes = std::make_shared<Bytes>(size);
    const std::string content = noise(size, 77);
    std::memcpy(bytes->data(), content.data(), size);
    DiskImage image;
    image.names["store"] = 11;
    image.files[11] = bytes;
    disk_.boot(image);
    TestStore store(DISK_FOLDER);
    Value value;
    std::uint32_t rc = MD_RC_OK;
    EXPECT_EQ(store.add(PROBE), GENREG_RC_NOT_RECORD_FILE) << size;
    EXPECT_EQ(store.get("g", "k", value), GENREG_RC_NOT_RECORD_FILE) << size;
    EXPECT_EQ(store.remove("g", "k"), GENREG_RC_NOT_RECORD_FILE) << size;
    EXPECT_EQ(store.repair(), GENREG_RC_NOT_RECORD_FILE) << size;
    store.list(0, {}, &rc);
    EXPECT_EQ(rc, GENREG_RC_NOT_RECORD_FILE) << size;
    EXPECT_EQ(*disk_.image().files.at(11), *bytes);
  }
}

TEST_F(DamagedFiles, AnExplicitRepairTakesALostHeaderFromTheBackup) {
  makeWithBackup();
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  std::fill_n(bytes->begin(), format::LOG_START + 512, std::byte{0});
  golden_.files[golden_.names.at("store")] = bytes;
  disk_.boot(golden_);
  TestStore store(DISK_FOLDER);
  EXPECT_EQ(store.repair(), MD_RC_OK);
  EXPECT_EQ(store.list(), truth_);
}

// The stores of one record type differ in their files' names alone.
TEST_F(DamagedFiles, AFileOfAnotherStoreIsRefused) {
  makeWithBackup();
  for (const bool isLost : {false, true}) {
    DiskImage moved = golden_;
    moved.names["other"] = golden_.names.at("store");
    moved.names[".other.bkp"] = golden_.names.at(".store.bkp");
    if (isLost) moved.files[moved.names.at("other")] = std::make_shared<Bytes>();
    disk_.boot(moved);
    TestStore other(DISK_FOLDER, true, "other");
    Value value;
    std::uint32_t rc = MD_RC_OK;
    EXPECT_EQ(other.list(0, {}, &rc), Values{});
    // Of a backup that is not this store's nobody knows what was lost.
    const std::uint32_t told = isLost ? GENREG_RC_DAMAGED : GENREG_RC_WRONG_RECORD_TYPE;
    EXPECT_EQ(rc, told);
    EXPECT_EQ(other.get("g1", "a", value), told);
    const std::uint32_t expected = isLost ? MD_RC_OK : GENREG_RC_WRONG_RECORD_TYPE;
    EXPECT_EQ(other.add(PROBE), expected);
    EXPECT_EQ(other.repair(), expected);
    EXPECT_EQ(other.compact(), expected);
    if (!isLost) checkUntouched(std::make_shared<Bytes>(bytesOf("store")));
  }
}

TEST_F(DamagedFiles, AnotherRecordTypeIsRefused) {
  makeSmall();
  TestStore other(DISK_FOLDER, false);
  Value value;
  EXPECT_EQ(other.add(PROBE, KEY), GENREG_RC_WRONG_RECORD_TYPE);
  EXPECT_EQ(other.get("g1", "a", value, KEY), GENREG_RC_WRONG_RECORD_TYPE);
  checkUntouched(std::make_shared<Bytes>(bytesOf("store")));
}

// Damage that nobody asks for, met by upkeep.
class DamageMetByUpkeep : public DamagedFiles {
 protected:
  // A record that is changed again and again, behind one that is damaged; without a backup.
  void makeWithDamageThatNobodyAsksFor(TestStore& store) {
    store.unsetFeature(GenRegBase::FEATURE_BACKUP);
    note(store.add({"g", "nobody asks", noise(900, 1)}));
    note(store.add({"g", "busy", noise(3000, 2)}));
    take();
    const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
    spoilText(*bytes, noise(900, 1));
    bootWith(bytes);
  }
};

TEST_F(DamageMetByUpkeep, DoesNotStopCompaction) {
  TestStore store(DISK_FOLDER);
  makeWithDamageThatNobodyAsksFor(store);
  for (unsigned round = 0; round < 300; ++round) {
    ASSERT_EQ(store.change({"g", "busy", noise(3000, 10 + round)}), MD_RC_OK) << round;
  }
  GenRegStatus status{};
  note(store.status(status));
  EXPECT_EQ(status.repairs, 1u);
  EXPECT_GT(status.lostBytes, 0u);
  EXPECT_EQ(status.records, 1u);
  EXPECT_LT(status.fileBytes, 2 * (status.recordBytes + 65536));
  EXPECT_TRUE(disk_.image().has("store.cor"));
}

// Who may not repair cannot write the file anew either: he does not begin with it at every change.
TEST_F(DamageMetByUpkeep, CostsAWriterWithoutTheRightToRepairFewAttempts) {
  for (const bool keepsBackup : {false, true}) {
    disk_.boot(DiskImage{});
    TestStore store(DISK_FOLDER);
    makeWithDamageThatNobodyAsksFor(store);
    store.unsetFeature(GenRegBase::FEATURE_REPAIR);
    if (keepsBackup) store.setFeature(GenRegBase::FEATURE_BACKUP);
    disk_.log.clear();
    disk_.isRecording = true;
    constexpr unsigned ROUNDS = 300;
    for (unsigned round = 0; round < ROUNDS; ++round) {
      ASSERT_EQ(store.change({"g", "busy", noise(3000, 10 + round)}), MD_RC_OK) << round;
    }
    disk_.isRecording = false;
    const auto attempts = std::count_if(disk_.log.begin(), disk_.log.end(), [](const DiskOp& op) {
      return op.kind == DiskOp::Kind::BIND && op.name == "store.tmp";
    });
    EXPECT_GE(attempts, 2);  // damage may pass
    EXPECT_LE(attempts, 8);
    EXPECT_FALSE(disk_.image().has("store.cor"));
    // Whoever may, does it at once.
    store.setFeature(GenRegBase::FEATURE_REPAIR);
    note(store.change({"g", "busy", "last"}));
    GenRegStatus status{};
    note(store.status(status));
    EXPECT_EQ(status.repairs, 1u);
    EXPECT_LT(status.fileBytes, 131072u);
  }
}

// A place that could not be read for a while.
TEST_F(DamageMetByUpkeep, ThatHasPassedIsTriedAgain) {
  TestStore store(DISK_FOLDER);
  note(store.add({"b", "busy", noise(3000, 2)}));
  for (unsigned at = 0; at < 3; ++at) note(store.add({"g", "nobody asks " + std::to_string(at), noise(4000, at)}));
  take();
  disk_.boot(golden_);
  store.unsetFeature(GenRegBase::FEATURE_REPAIR);
  disk_.badSectors = {{golden_.names.at("store"), (used_ - 6000) / 4096}};  // of the second of them
  for (unsigned round = 0; round < 100; ++round) {
    ASSERT_EQ(store.change({"b", "busy", noise(3000, 10 + round)}), MD_RC_OK) << round;
  }
  GenRegStatus status{};
  note(store.status(status));
  EXPECT_GT(status.fileBytes, 250000u);
  disk_.badSectors.clear();
  for (unsigned round = 0; round < 64; ++round) {
    ASSERT_EQ(store.change({"b", "busy", noise(3000, 300 + round)}), MD_RC_OK) << round;
  }
  note(store.status(status));
  EXPECT_LT(status.fileBytes, 250000u);
  EXPECT_EQ(status.damaged, 0u);
  EXPECT_GT(status.backupBytes + 16384, status.usedBytes);
}

// There is no room for the repaired file: nothing is written for it, and nothing gets another name.
TEST_F(DamagedFiles, ARepairWithoutRoomIsRefusedBeforeItBegins) {
  makeWithBackup();
  {
    TestStore store(DISK_FOLDER);
    for (unsigned at = 0; at < 40; ++at) note(store.add({"more", std::to_string(at), noise(3000, at)}));
    take();
  }
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  spoilText(*bytes, noise(3000, 20));
  golden_.files[golden_.names.at("store")] = bytes;
  golden_.names["store.cor"] = 7000;
  golden_.files[7000] = std::make_shared<Bytes>(10, std::byte{7});
  std::uint64_t used = 0;
  for (const auto& [name, inode] : golden_.names) used += golden_.files.at(inode)->size();
  for (const std::uint64_t room : {std::uint64_t{4096}, std::uint64_t{60000}, std::uint64_t{110000}}) {
    disk_.boot(golden_);
    disk_.setBootNumber(boot_);
    disk_.capacity = used + room;
    disk_.log.clear();
    disk_.isRecording = true;
    TestStore store(DISK_FOLDER);
    EXPECT_EQ(store.repair(), GENREG_RC_NO_SPACE) << room;
    EXPECT_EQ(store.change({"more", "20", "changed"}), GENREG_RC_NO_SPACE) << room;
    disk_.isRecording = false;
    for (const DiskOp& op : disk_.log) {
      EXPECT_NE(op.kind, DiskOp::Kind::WRITE) << room;
      EXPECT_NE(op.kind, DiskOp::Kind::RENAME) << room;
      if (op.kind == DiskOp::Kind::BIND) {
        EXPECT_NE(op.name, "store.cor") << room;
      }
    }
    EXPECT_EQ(disk_.image().names, golden_.names) << room;
    checkUntouched(bytes);
  }
  disk_.capacity = used + 200000;
  TestStore store(DISK_FOLDER);
  EXPECT_EQ(store.repair(), MD_RC_OK);
  EXPECT_TRUE(disk_.image().has("store.cor.1"));
}

TEST_F(DamageMetByUpkeep, IsRepairedByACompactionThatWasAskedFor) {
  makeWithBackup();
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  spoilText(*bytes, noise(1500, 3));
  bootWith(bytes);
  TestStore store(DISK_FOLDER);
  EXPECT_EQ(store.compact(), MD_RC_OK);
  EXPECT_EQ(store.list(), truth_);
  GenRegStatus status{};
  note(store.status(status));
  EXPECT_EQ(status.repairs, 1u);
  EXPECT_EQ(status.lostBytes, 0u);
}

// The file is damaged behind what the backup has: it is copied to the backup in no case.
TEST_F(DamageMetByUpkeep, DoesNotGetIntoTheBackup) {
  makeWithBackup();
  {
    TestStore store(DISK_FOLDER);
    note(store.add({"g2", "unnoticed", noise(1000, 5)}));
    take();
  }
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  spoilText(*bytes, noise(1000, 5));
  bootWith(bytes);
  TestStore store(DISK_FOLDER);
  for (unsigned round = 0; round < 12; ++round) {
    note(store.add({"g3", "k" + std::to_string(round), noise(2000, 20 + round)}));
  }
  GenRegStatus status{};
  note(store.status(status));
  EXPECT_EQ(status.repairs, 1u);
  EXPECT_GT(status.lostBytes, 0u);
  EXPECT_EQ(status.damaged, 0u);
  EXPECT_TRUE(disk_.image().has("store.cor"));
  Value value;
  EXPECT_EQ(store.get("g2", "unnoticed", value), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(store.list().size(), truth_.size() - 1 + 12);
}

TEST_F(DamagedFiles, ABackupMuchLargerThanItsFileIsMadeAnew) {
  TestStore store(DISK_FOLDER);
  note(store.add({"g", "k", "x"}));
  DiskImage image = disk_.image();
  image.names[".store.bkp"] = 999;
  image.files[999] = std::make_shared<Bytes>(600000, std::byte{7});
  disk_.boot(image);
  for (unsigned round = 0; round < 8; ++round) note(store.change({"g", "k", std::to_string(round)}));
  image = disk_.image();
  EXPECT_LT(image.files.at(image.names.at(".store.bkp"))->size(), 140000u);
}

TEST_F(DamagedFiles, NumbersOfCorruptCopiesNeverRunOut) {
  makeSmall();
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  for (const std::uint64_t slot : format::SLOT_OFFSET) spoilByte(*bytes, slot + 20);
  golden_.files[golden_.names.at("store")] = bytes;
  constexpr std::uint64_t COPIES = 1500;
  const auto copy = std::make_shared<Bytes>(10, std::byte{7});
  golden_.files[5000] = copy;
  golden_.names["store.cor"] = 5000;
  for (std::uint64_t number = 1; number <= COPIES; ++number) {
    golden_.files[5000 + number] = copy;
    golden_.names["store.cor." + std::to_string(number)] = 5000 + number;
  }
  disk_.boot(golden_);
  TestStore store(DISK_FOLDER);
  const std::size_t before = disk_.callCount();
  EXPECT_EQ(store.repair(), MD_RC_OK);
  EXPECT_LT(disk_.callCount() - before, 300u);
  const DiskImage after = disk_.image();
  EXPECT_EQ(after.names.at("store.cor"), golden_.names.at("store"));
  EXPECT_EQ(after.names.at("store.cor." + std::to_string(COPIES + 1)), 5000u);
  EXPECT_EQ(store.list(), truth_);
}

}  // namespace
}  // namespace zon::test
