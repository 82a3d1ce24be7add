// What becomes of damaged files: repairs, and what is refused instead.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/registry/format/format.h"
#include "platform/registry/harness/damage_harness.h"
#include "platform/registry/harness/simulated_disk.h"
#include "platform/registry/harness/test_records.h"
#include "platform/registry/log/file_header.h"

namespace zon::test {
namespace {

TEST_F(DamagedFiles, RecordsThatShareAKeySurviveARepair) {
  TestStore store(DISK_FOLDER);
  note(store.add({"g", "k", "first"}));
  note(store.add({"g", "k", "second"}, 0));
  note(store.add({"g", "other", "x"}));
  const Values all = store.list();
  for (const bool slotsToo : {false, true}) {
    DiskImage image = disk_.image();
    auto bytes = std::make_shared<Bytes>(*image.files.at(image.names.at("store")));
    spoilByte(*bytes, format::LOG_START + 1024);  // an index block
    if (slotsToo) {
      for (const std::uint64_t slot : format::SLOT_OFFSET) spoilByte(*bytes, slot + 20);
    }
    image.files[image.names.at("store")] = bytes;
    disk_.boot(image);
    ASSERT_EQ(store.repair(), MD_RC_OK);
    EXPECT_EQ(store.list(), all) << slotsToo;
    Value value;
    ASSERT_EQ(store.get("g", "k", value), MD_RC_OK);
    EXPECT_EQ(value.data, "first");
  }
}

TEST_F(DamagedFiles, OlderCorruptCopiesGetNumbers) {
  makeSmall();
  for (int round = 1; round <= 3; ++round) {
    DiskImage image = disk_.image();
    auto bytes = std::make_shared<Bytes>(*image.files.at(image.names.at("store")));
    for (const std::uint64_t slot : format::SLOT_OFFSET) spoilByte(*bytes, slot + 20);
    image.files[image.names.at("store")] = bytes;
    disk_.boot(image);
    TestStore store(DISK_FOLDER);
    ASSERT_EQ(store.add({"round", std::to_string(round), ""}), MD_RC_OK);
    const DiskImage after = disk_.image();
    ASSERT_TRUE(after.has("store.cor"));
    EXPECT_EQ(*after.files.at(after.names.at("store.cor")), *bytes);
    EXPECT_EQ(after.has("store.cor." + std::to_string(round - 1)), round > 1);
    GenRegStatus status;
    ASSERT_EQ(store.status(status), MD_RC_OK);
    EXPECT_EQ(status.repairs, static_cast<std::uint64_t>(round));
    EXPECT_EQ(status.records, truth_.size() + static_cast<std::size_t>(round));
  }
}

TEST_F(DamagedFiles, WithoutTheRepairFeatureAWriterRefuses) {
  makeSmall();
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  for (const std::uint64_t slot : format::SLOT_OFFSET) spoilByte(*bytes, slot + 20);
  golden_.files[golden_.names.at("store")] = bytes;
  disk_.boot(golden_);
  TestStore store(DISK_FOLDER);
  store.unsetFeature(GenRegBin::FEATURE_REPAIR);
  EXPECT_EQ(store.add(PROBE), GENREG_RC_DAMAGED);
  checkUntouched(bytes);
}

// Damage that is met in the middle of the work.
TEST_F(DamagedFiles, WithoutTheRepairFeatureAWriterRefusesWhatItMeetsLater) {
  makeSmall();
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  spoilText(*bytes, noise(90, 3));
  golden_.files[golden_.names.at("store")] = bytes;
  disk_.boot(golden_);
  disk_.setBootNumber(boot_);
  TestStore store(DISK_FOLDER);
  store.unsetFeature(GenRegBin::FEATURE_REPAIR);
  EXPECT_EQ(store.removeAll("", "", 0), GENREG_RC_DAMAGED);
  checkUntouched(bytes);
  EXPECT_FALSE(disk_.image().has("store.cor"));
}

// A batch that meets damage after its first change.
class DamagedBatches : public DamagedFiles {
 protected:
  void SetUp() override {
    makeSmall();
    const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
    spoilText(*bytes, noise(90, 3));
    golden_.files[golden_.names.at("store")] = bytes;
    disk_.boot(golden_);
    disk_.setBootNumber(boot_);
  }

  // The removal is of the group with the damaged record.
  std::uint32_t addAndRemove(TestStore& store) {
    note(store.beginBatch());
    note(store.add(PROBE));
    return store.removeAll("g2", "", GROUP);
  }
};

TEST_F(DamagedBatches, KeepWhatTheyDidBeforeTheRepair) {
  TestStore store(DISK_FOLDER);
  // There is no backup, and no other record in the group.
  EXPECT_EQ(addAndRemove(store), GENREG_RC_NOT_FOUND);
  note(store.commitBatch());
  Value value;
  EXPECT_EQ(store.get("probe", "probe", value), MD_RC_OK);
  EXPECT_EQ(store.get("g1", "a", value), MD_RC_OK);
  EXPECT_TRUE(disk_.image().has("store.cor"));
}

// Whatever call of the repair fails: the batch's answer is that failure, and nothing of it is there, or ever will be.
TEST_F(DamagedBatches, LeaveNothingWhenTheRepairFails) {
  std::size_t refused = 0;
  for (std::size_t failing = 0;; ++failing) {
    disk_.boot(golden_);
    disk_.setBootNumber(boot_);
    disk_.log.clear();
    disk_.isRecording = true;
    std::size_t calls = 0;
    std::uint32_t removed = MD_RC_OK;
    std::uint32_t committed = MD_RC_OK;
    {
      TestStore store(DISK_FOLDER);
      note(store.beginBatch());
      note(store.add(PROBE));
      disk_.fault = [&calls, failing](Call call) {
        const bool counts = call == Call::LINK || call == Call::WRITE || call == Call::SYNC || call == Call::RENAME;
        return counts && calls++ == failing ? EIO : 0;
      };
      removed = store.removeAll("g2", "", GROUP);
      disk_.fault = nullptr;
      committed = store.commitBatch();
    }
    disk_.isRecording = false;
    if (calls <= failing) break;
    if (removed == GENREG_RC_NOT_FOUND || removed == GENREG_RC_DURABILITY_UNKNOWN) continue;
    ++refused;
    EXPECT_EQ(committed, removed) << failing;
    PowerCut cut(golden_);
    for (const DiskOp& op : disk_.log) cut.follow(op);
    const auto expectAway = [&](const char* when) {
      TestStore store(DISK_FOLDER);
      Value value;
      EXPECT_EQ(store.get("probe", "probe", value), GENREG_RC_NOT_FOUND) << failing << when;
      EXPECT_EQ(store.get("g1", "a", value), MD_RC_OK) << failing << when;
    };
    expectAway(", at once");
    for (const DiskImage& image : {cut.oldest(), cut.newest()}) {
      disk_.boot(image);
      expectAway(", after a power cut");
    }
  }
  EXPECT_GT(refused, 3u);
}

// Their checksums are right, but not for this file.
TEST_F(DamagedFiles, SlotsOfAnotherFileAreNoSlots) {
  makeSmall();
  const Bytes small = bytesOf("store");
  const Values truth = truth_;
  const DiskImage golden = golden_;
  {
    disk_.boot(DiskImage{});
    TestStore store(DISK_FOLDER);
    note(store.add({"another", "file", "x"}));
    take();
  }
  const auto bytes = std::make_shared<Bytes>(small);
  const Bytes& other = bytesOf("store");
  const auto slots = static_cast<std::ptrdiff_t>(format::SLOT_OFFSET[0]);
  std::copy_n(other.begin() + slots, 2 * sizeof(format::Slot), bytes->begin() + slots);
  golden_ = golden;
  truth_ = truth;
  check("slots of another file", bytes);
}

TEST_F(DamagedFiles, ACutFileIsRepairedByTheNextWriter) {
  makeSmall();
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  bytes->resize(used_ - 8);
  golden_.files[golden_.names.at("store")] = bytes;
  disk_.boot(golden_);
  disk_.setBootNumber(boot_);
  TestStore store(DISK_FOLDER);
  note(store.add(PROBE));
  EXPECT_TRUE(disk_.image().has("store.cor"));
}

TEST_F(DamagedFiles, ASlotInThePlaceOfTheOtherDoesNotCount) {
  makeSmall();
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  const auto first = loadAt<format::Slot>(*bytes, format::SLOT_OFFSET[0]);
  storeAt(*bytes, format::SLOT_OFFSET[0], loadAt<format::Slot>(*bytes, format::SLOT_OFFSET[1]));
  storeAt(*bytes, format::SLOT_OFFSET[1], first);
  bootWith(bytes);
  TestStore store(DISK_FOLDER);
  EXPECT_EQ(store.list(), truth_);
  GenRegStatus status{};
  ASSERT_EQ(store.status(status), MD_RC_OK);
  EXPECT_NE(status.damaged, 0u);
  ASSERT_EQ(store.add(PROBE), MD_RC_OK);
  ASSERT_EQ(store.status(status), MD_RC_OK);
  EXPECT_EQ(status.repairs, 1u);
  EXPECT_EQ(status.lostBytes, 0u);
  EXPECT_EQ(store.list().size(), truth_.size() + 1);
}

TEST_F(DamagedFiles, ANewerFormatIsRefusedAndUntouched) {
  makeSmall();
  const auto makeNewer = {
      +[](format::FileHeader& header) { header.version = format::FORMAT_VERSION + 1; },
      +[](format::FileHeader& header) { header.version = format::FORMAT_VERSION + 2; },
      +[](format::FileHeader& header) { header.headerSize = 2 * format::LOG_START; },
      +[](format::FileHeader& header) { header.mustUnderstand = 1; },
      +[](format::FileHeader& header) { header.mustUnderstand = 0x80000000; },
  };
  for (const auto& change : makeNewer) {
    const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
    auto header = loadAt<format::FileHeader>(*bytes, 0);
    change(header);
    // Of a later version not even the place of the checksum is known.
    header.crc = headerChecksum(header) + (header.version == format::FORMAT_VERSION + 2 ? 1 : 0);
    storeAt(*bytes, 0, header);
    storeAt(*bytes, format::HEADER_COPY_OFFSET, header);
    bootWith(bytes);
    TestStore store(DISK_FOLDER);
    Value value;
    std::uint32_t rc = MD_RC_OK;
    EXPECT_EQ(store.add(PROBE), GENREG_RC_NEWER_FORMAT);
    EXPECT_EQ(store.get("g1", "a", value), GENREG_RC_NEWER_FORMAT);
    store.list(0, {}, &rc);
    EXPECT_EQ(rc, GENREG_RC_NEWER_FORMAT);
    EXPECT_EQ(store.remove("g1", "a"), GENREG_RC_NEWER_FORMAT);
    EXPECT_EQ(store.compact(), GENREG_RC_NEWER_FORMAT);
    EXPECT_EQ(store.repair(), GENREG_RC_NEWER_FORMAT);
    checkUntouched(bytes);
  }
}

}  // namespace
}  // namespace zon::test
