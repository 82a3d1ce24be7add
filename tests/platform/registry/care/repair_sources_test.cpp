// What a repair takes, and from where: intact frames of this history, from the file first and from its backup where the
// file has them no more; nothing of another history, and nothing unfinished.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/registry/format/format.h"
#include "platform/registry/format/frame.h"
#include "platform/registry/harness/damage_harness.h"
#include "platform/registry/harness/simulated_disk.h"
#include "platform/registry/harness/test_records.h"
#include "platform/registry/log/file_header.h"

namespace zon::test {
namespace {

// Each sector of the header page has a header and a slot.
TEST_F(DamagedFiles, AHeaderPageThatCannotBeReadIsDamage) {
  makeWithBackup();
  const std::uint64_t inode = golden_.names.at("store");
  for (const int sectors : {1, 2, 3}) {
    disk_.boot(golden_);
    disk_.setBootNumber(boot_);
    for (const std::uint64_t sector : {std::uint64_t{0}, std::uint64_t{1}}) {
      if ((sectors >> sector & 1) != 0) disk_.badSectors.insert({inode, sector});
    }
    TestStore store(DISK_FOLDER);
    std::uint32_t rc = MD_RC_OK;
    EXPECT_EQ(store.list(0, {}, &rc), truth_) << sectors;
    EXPECT_EQ(rc, MD_RC_OK) << sectors;
    EXPECT_EQ(store.add(PROBE), MD_RC_OK) << sectors;
    GenRegStatus status{};
    EXPECT_EQ(store.status(status), MD_RC_OK) << sectors;
    EXPECT_EQ(status.records, truth_.size() + 1) << sectors;
    disk_.badSectors.clear();
  }
}

// Frames that are intact, of this file and at their place, but follow what is not there.
TEST_F(DamagedFiles, FramesOfAnotherHistoryDoNotContinueThisOne) {
  TestStore store(DISK_FOLDER);
  note(store.add({"g", "first", "x"}));
  const DiskImage fork = disk_.image();
  note(store.add({"g", "here", "x"}));
  take();
  const std::uint64_t end = used_;
  disk_.boot(fork);
  disk_.setBootNumber(boot_);
  note(store.add({"g", "else", "x"}));
  note(store.add({"g", "never here", "x"}));
  const DiskImage other = disk_.image();
  const Bytes& from = *other.files.at(other.names.at("store"));
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  const auto at = static_cast<std::ptrdiff_t>(end);
  std::copy(from.begin() + at, from.begin() + at + 400, bytes->begin() + at);
  Frame frame;
  const auto header = loadAt<format::FileHeader>(*bytes, 0);
  const FrameKey key{.salt = saltOf(header.fileId), .indexCount = 2};
  ASSERT_EQ(parseFrame(std::span(*bytes).subspan(end), end, key, frame), ParseResult::OK);
  ASSERT_TRUE(frame.last);
  history_ = truth_;
  gone_ = {{"g", "never here", ""}};
  check("another history behind the end", bytes);
}

// Whatever a power cut does while a file is repaired, the damaged bytes keep a name.
TEST_F(DamagedFiles, KeepANameThroughAPowerCutInTheirRepair) {
  makeWithBackup();
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  spoilByte(*bytes, used_ - 100);
  golden_.files[golden_.names.at("store")] = bytes;
  const std::uint64_t damaged = golden_.names.at("store");
  for (const bool hasOlder : {false, true}) {
    if (hasOlder) {
      golden_.names["store.cor"] = damaged + 1000;
      golden_.files[damaged + 1000] = std::make_shared<Bytes>(10, std::byte{7});
    }
    disk_.boot(golden_);
    disk_.isRecording = true;
    TestStore store(DISK_FOLDER);
    ASSERT_EQ(store.repair(), MD_RC_OK);
    disk_.isRecording = false;
    const std::vector<DiskOp> ops = std::move(disk_.log);
    disk_.log.clear();
    ASSERT_EQ(disk_.image().names.at("store.cor"), damaged);
    PowerCut cut(golden_);
    std::mt19937_64 random(5);
    for (const DiskOp& op : ops) {
      cut.follow(op);
      const std::uint64_t count = cut.stateCount();
      for (std::uint64_t number = 0; number < std::min<std::uint64_t>(count, 256); ++number) {
        const DiskImage image = count <= 256 ? cut.state(number) : cut.randomState(random);
        EXPECT_TRUE(image.files.contains(damaged));
        EXPECT_EQ(image.files.contains(damaged + 1000), hasOlder);
        if (HasFailure()) return;
      }
    }
  }
}

// Of a commit that a dying writer left unfinished behind the end, nobody takes anything.
TEST_F(DamagedFiles, AnUnfinishedCommitIsNotSalvaged) {
  TestStore store(DISK_FOLDER);
  note(store.add({"g", "a", noise(50, 1)}));
  note(store.add({"g", "b", noise(50, 2)}));
  note(store.add({"other", "c", noise(2000, 3)}));
  note(store.add({"other", "d", noise(2500, 4)}));
  take();
  hasBackup_ = true;
  const std::uint64_t end = used_;
  note(store.removeAll("g", "", GROUP));
  const DiskImage removed = disk_.image();
  const Bytes& from = *removed.files.at(removed.names.at("store"));
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  Frame frame;
  const auto header = loadAt<format::FileHeader>(*bytes, 0);
  const FrameKey key{.salt = saltOf(header.fileId), .indexCount = 2};
  ASSERT_EQ(parseFrame(std::span(from).subspan(end), end, key, frame), ParseResult::OK);
  ASSERT_FALSE(frame.last);
  const auto at = static_cast<std::ptrdiff_t>(end);
  std::copy_n(from.begin() + at, frame.size, bytes->begin() + at);
  // The first record, behind the first area, is damaged.
  ASSERT_EQ(parseFrame(std::span(*bytes).subspan(format::LOG_START), format::LOG_START, key, frame), ParseResult::OK);
  spoilByte(*bytes, frame.end() + 60);
  history_ = truth_;
  check("an unfinished commit behind the end", bytes);
}

// Without a slot nothing tells where the log ends but its last complete commit.
TEST_F(DamagedFiles, AnUnfinishedCommitIsNotSalvagedWhereTheSlotsAreLost) {
  TestStore store(DISK_FOLDER);
  store.unsetFeature(GenRegBase::FEATURE_BACKUP);
  for (const char* key : {"a", "b"}) note(store.add({"g", key, "x"}));
  take();
  note(store.removeAll("g", "", GROUP));
  const DiskImage removed = disk_.image();
  const Bytes& later = *removed.files.at(removed.names.at("store"));
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  // The first of two removals: 72 bytes with two indexes, or as many as its frame tells.
  const auto size = loadAt<std::uint32_t>(later, used_ + 12);
  const auto at = static_cast<std::ptrdiff_t>(used_);
  std::copy_n(later.begin() + at, size, bytes->begin() + at);
  for (const std::size_t slot : format::SLOT_OFFSET) spoilByte(*bytes, slot + 20);
  bootWith(bytes);
  EXPECT_EQ(store.repair(), MD_RC_OK);
  EXPECT_EQ(store.list(), truth_);
}

// Somebody put an older state of the file back, and went on: its backup holds other frames at the same places.
TEST_F(DamagedFiles, WhatTheFileHasIntactIsNotTakenFromItsBackup) {
  TestStore store(DISK_FOLDER);
  const auto addMany = [&](const char* group, unsigned count, unsigned seed) {
    for (unsigned at = 0; at < count; ++at) note(store.add({group, "k" + std::to_string(at), noise(3900, seed + at)}));
  };
  addMany("first", 2, 1);
  take();
  const std::uint64_t parting = used_;
  DiskImage restored = golden_;
  addMany("ahead", 6, 20);
  restored.files[restored.names.at(".store.bkp")] = disk_.image().files.at(restored.names.at(".store.bkp"));
  disk_.boot(restored);
  store.unsetFeature(GenRegBase::FEATURE_BACKUP);
  addMany("other", 6, 40);
  take();
  history_ = truth_;
  const Bytes& backup = bytesOf(".store.bkp");
  ASSERT_GT(backup.size(), parting + 8000);
  ASSERT_LE(backup.size(), used_);
  ASSERT_NE(loadAt<std::uint64_t>(backup, parting + 1000), loadAt<std::uint64_t>(bytesOf("store"), parting + 1000));
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  spoilByte(*bytes, format::LOG_START + 6000);
  check("damage before where they part", bytes);
}

// Somebody put an older copy of the file back, which then went its own way: nothing of what the backup knows belongs to
// it, though both are of one generation.
class CopiesPutBack : public DamagedFiles {
 protected:
  // A file of three records and a backup that knows six more, called gone.
  void putBack() {
    TestStore store(DISK_FOLDER);
    for (unsigned at = 0; at < 3; ++at) note(store.add({"g", "k" + std::to_string(at), noise(1500, at)}));
    DiskImage image = disk_.image();
    const Content old = image.files.at(image.names.at("store"));
    GenRegStatus status;
    note(store.status(status));
    const std::uint64_t used = status.usedBytes;
    for (unsigned at = 0; at < 6; ++at) note(store.add({"gone", "g" + std::to_string(at), noise(3500, 20 + at)}));
    image = disk_.image();
    note(store.status(status));
    ASSERT_GT(status.backupBytes, used + 3500);
    image.files[image.names.at("store")] = old;
    disk_.boot(image);
  }
  void addNew(TestStore& store, unsigned count) {
    for (unsigned at = 0; at < count; ++at) note(store.add({"new", "n" + std::to_string(at), noise(3500, 40 + at)}));
  }
};

TEST_F(CopiesPutBack, AreNotMixedWithABackupOfAnotherHistory) {
  for (const unsigned others : {1u, 5u, 6u, 8u}) {
    disk_.boot({});
    ASSERT_NO_FATAL_FAILURE(putBack());
    {
      TestStore store(DISK_FOLDER);
      store.unsetFeature(GenRegBase::FEATURE_BACKUP);
      addNew(store, others);
    }
    take();
    for (const std::size_t at : {std::size_t{8192}, used_ - 4000, used_ - 40}) {
      bootWith(spoiltAt(at));
      TestStore store(DISK_FOLDER);
      for (const Value& value : store.list()) EXPECT_NE(value.group, "gone") << others << " at " << at;
      EXPECT_EQ(store.repair(), MD_RC_OK);
      for (const Value& value : store.list()) EXPECT_NE(value.group, "gone") << others << " repaired, at " << at;
    }
  }
}

TEST_F(CopiesPutBack, GetABackupOfTheirOwn) {
  ASSERT_NO_FATAL_FAILURE(putBack());
  TestStore store(DISK_FOLDER);
  addNew(store, 12);
  GenRegStatus status;
  note(store.status(status));
  EXPECT_EQ(status.repairs, 0u);
  const std::uint64_t reach = status.backupBytes;
  take();
  for (std::size_t at = format::LOG_START; at + 16 < reach; at += 512) {
    bootWith(spoiltAt(at));
    EXPECT_EQ(store.repair(), MD_RC_OK);
    EXPECT_EQ(store.list(), truth_) << "damage at " << at;
  }
}

TEST_F(DamagedFiles, ASummaryIsNotBelievedWithoutItsChecksum) {
  TestStore store(DISK_FOLDER);
  store.unsetFeature(GenRegBase::FEATURE_BACKUP);
  for (const char* key : {"a", "b", "c"}) note(store.add({"g", key, "x"}));
  note(store.change({"g", "b", "changed"}));
  for (int at = 0; at < 60; ++at) note(store.change({"g", "a", std::to_string(at)}));
  take();
  const Frame summary = lastFrame(format::FrameKind::SUMMARY);
  // The place of the first of its records, which would then come last.
  bootWithFlipped(summary.offset + summary.prefixSize + 5);
  EXPECT_EQ(store.list(GROUP, {"g", "", ""}), truth_);
  // Its second record in the form in which it was added: everything about that is possible.
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  const std::size_t entry = summary.offset + summary.prefixSize + sizeof(format::SummaryEntry);
  ASSERT_NE(loadAt<std::uint64_t>(*bytes, entry), loadAt<std::uint64_t>(*bytes, entry + 8));
  storeAt(*bytes, entry + 8, loadAt<std::uint64_t>(*bytes, entry));
  bootWith(bytes);
  EXPECT_EQ(store.list(GROUP, {"g", "", ""}), truth_);
}

TEST_F(DamagedFiles, ARemovalThatWasLostLeavesOneRecordOfItsKey) {
  TestStore store(DISK_FOLDER);
  store.unsetFeature(GenRegBase::FEATURE_BACKUP);
  for (const char* key : {"before", "twice", "behind"}) note(store.add({"g", key, "first"}));
  note(store.remove("g", "twice"));
  note(store.add({"g", "twice", "second"}));
  take();
  bootWithFlipped(lastFrame(format::FrameKind::REMOVE).offset + 9);
  ASSERT_EQ(store.repair(), MD_RC_OK);
  EXPECT_EQ(store.list(), (Values{{"g", "before", "first"}, {"g", "twice", "second"}, {"g", "behind", "first"}}));
  GenRegStatus status;
  ASSERT_EQ(store.status(status), MD_RC_OK);
  EXPECT_GT(status.lostBytes, 0u);
}

TEST_F(DamagedFiles, AnEmptyFileIsMadeARecordFileByRepair) {
  makeSmall();
  DiskImage image = golden_;
  image.files[image.names.at("store")] = std::make_shared<Bytes>();
  image.names.erase(".store.bkp");
  disk_.boot(image);
  TestStore store(DISK_FOLDER);
  ASSERT_EQ(store.repair(), MD_RC_OK);
  EXPECT_GE(disk_.image().files.at(disk_.image().names.at("store"))->size(), format::LOG_START);
  EXPECT_EQ(store.add(PROBE), MD_RC_OK);
  EXPECT_EQ(store.list(), Values{PROBE});
  EXPECT_FALSE(disk_.image().has("store.cor"));
}

TEST_F(DamagedFiles, ABackupOfAFormerFileIsMadeAnew) {
  {
    TestStore store(DISK_FOLDER);
    for (unsigned at = 0; at < 4; ++at) note(store.add({"former", "k" + std::to_string(at), noise(1500, at)}));
    DiskImage image = disk_.image();
    ASSERT_TRUE(image.has(".store.bkp"));
    image.files.erase(image.names.at("store"));
    image.names.erase("store");
    disk_.boot(image);
    note(store.beginBatch());
    for (unsigned at = 0; at < 6; ++at) note(store.add({"g", "k" + std::to_string(at), noise(2000, 50 + at)}));
    note(store.commitBatch());
    take();
    history_ = truth_;
  }
  hasBackup_ = true;
  for (std::size_t at = format::LOG_START; at < used_; at += 512) {
    check("bytes at " + std::to_string(at), spoiltAt(at));
  }
}

// A power cut while the backup is sealed may cost the header that is left.
TEST_F(DamagedFiles, ABackupThatGrowsGetsItsLostHeaderBack) {
  makeWithBackup();
  for (const std::size_t header : {std::size_t{0}, format::HEADER_COPY_OFFSET}) {
    DiskImage image = golden_;
    const auto backup = std::make_shared<Bytes>(bytesOf(".store.bkp"));
    spoilByte(*backup, header + 20);
    image.files[image.names.at(".store.bkp")] = backup;
    disk_.boot(image);
    TestStore store(DISK_FOLDER);
    GenRegStatus status{};
    for (unsigned at = 0; status.backupBytes <= used_; ++at) {
      ASSERT_LT(at, 100u) << "it does not grow";
      ASSERT_EQ(store.add({"more", std::to_string(at), noise(2000, at)}), MD_RC_OK);
      ASSERT_EQ(store.status(status), MD_RC_OK);
    }
    image = disk_.image();
    const Bytes& grown = *image.files.at(image.names.at(".store.bkp"));
    EXPECT_EQ(std::memcmp(&grown[0], &grown[format::HEADER_COPY_OFFSET], sizeof(format::FileHeader)), 0) << header;
  }
}

}  // namespace
}  // namespace zon::test
