// Files with every byte spoilt and every length cut, and files that were made to do harm. What must hold: no crash, no
// hang, no wrong answer given as a right one; a record that was there is found, or its loss is told; with a current
// backup nothing is lost; the first writer keeps the damaged file as the corrupt copy and goes on.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <iostream>
#include <set>

#include "platform/registry/crc32c.h"
#include "platform/registry/file_header.h"
#include "platform/registry/file_io.h"
#include "platform/registry/format.h"
#include "platform/registry/frame.h"
#include "simulated_disk.h"
#include "test_records.h"

namespace zon::test {
namespace {

constexpr std::size_t SMALL_RECORDS = 4096;
constexpr int MOST_FAILURES = 5;
const Value PROBE{"probe", "probe", "p"};

template <class T>
T loadAt(const Bytes& bytes, std::size_t at) {
  T value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

template <class T>
void storeAt(Bytes& bytes, std::size_t at, const T& value) {
  std::memcpy(bytes.data() + at, &value, sizeof value);
}

class DamagedFiles : public ::testing::Test {
 protected:
  ~DamagedFiles() override {
    if (cases_ > 0) std::cout << "damaged files " << cases_ << ", of which repaired " << repaired_ << '\n';
  }

  // A file with records that were changed, renamed and removed.
  void makeSmall() {
    TestStore store(DISK_FOLDER);
    note(store.add({"g1", "a", noise(60, 1)}));
    note(store.add({"g1", "b", noise(40, 2)}));
    note(store.add({"g2", "c", noise(90, 3)}));
    note(store.add({"g2", "d", ""}));
    note(store.change({"g1", "a", noise(80, 4)}));
    note(store.remove("g1", "b"));
    note(store.changeTo({"g2", "d", ""}, {"g3", "moved", "m"}));
    history_ = {{"g1", "a", noise(60, 1)}, {"g1", "a", noise(80, 4)}, {"g1", "b", noise(40, 2)},
                {"g2", "c", noise(90, 3)}, {"g2", "d", ""},           {"g3", "moved", "m"}};
    gone_ = {{"g1", "b", ""}, {"g2", "d", ""}, {"none", "none", ""}};
    take();
  }

  // A file whose backup holds all of it.
  void makeWithBackup() {
    TestStore store(DISK_FOLDER);
    note(store.add({"g1", "a", noise(900, 1)}));
    note(store.add({"g1", "b", noise(40, 2)}));
    note(store.remove("g1", "b"));
    note(store.add({"g2", "c", noise(1500, 3)}));
    note(store.change({"g1", "a", noise(2200, 4)}));
    history_ = {{"g1", "a", noise(900, 1)},
                {"g1", "a", noise(2200, 4)},
                {"g1", "b", noise(40, 2)},
                {"g2", "c", noise(1500, 3)}};
    gone_ = {{"g1", "b", ""}, {"none", "none", ""}};
    take();
    ASSERT_TRUE(golden_.has(".store.bkp"));
    GenRegStatus status;
    ASSERT_EQ(store.status(status), MD_RC_OK);
    ASSERT_EQ(status.backupBytes, status.usedBytes);
    hasBackup_ = true;
  }

  void note(std::uint32_t rc) { EXPECT_EQ(rc, MD_RC_OK); }

  void take() {
    TestStore store(DISK_FOLDER);
    truth_ = store.list();
    golden_ = disk_.image();
    boot_ = disk_.bootNumber();
    GenRegStatus status;
    ASSERT_EQ(store.status(status), MD_RC_OK);
    used_ = status.usedBytes;
  }

  const Bytes& bytesOf(const std::string& name) const { return *golden_.files.at(golden_.names.at(name)); }

  // The last frame of a kind in the file that was taken.
  Frame lastFrame(format::FrameKind kind) const {
    const Bytes& bytes = bytesOf("store");
    const FrameKey key{.salt = saltOf(loadAt<format::FileHeader>(bytes, 0).fileId), .indexCount = 2};
    Frame last;
    Frame frame;
    for (std::uint64_t at = format::LOG_START; at < used_; at = frame.end()) {
      if (parseHead(std::span(bytes).subspan(at), at, key, frame) != ParseResult::OK) break;
      if (frame.kind == kind) last = frame;
    }
    EXPECT_EQ(last.kind, kind);
    return last;
  }

  // What was taken, with these bytes in the place of the file.
  void bootWith(const Content& bytes) {
    DiskImage image = golden_;
    image.files[image.names.at("store")] = bytes;
    disk_.boot(image);
  }
  void bootWithFlipped(std::uint64_t offset) {
    const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
    spoilByte(*bytes, offset);
    bootWith(bytes);
  }
  // The file that was taken, with 16 bytes overwritten.
  std::shared_ptr<Bytes> spoiltAt(std::size_t offset) const {
    const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
    std::fill_n(bytes->begin() + static_cast<std::ptrdiff_t>(offset), 16, std::byte{0xFF});
    return bytes;
  }

  void fail(const std::string& what) {
    if (++failures_ <= MOST_FAILURES) ADD_FAILURE() << where_ << ": " << what;
  }

  // Puts these bytes in the place of the file and looks at them as a reader and as a writer.
  void check(const std::string& where, const std::shared_ptr<Bytes>& bytes, const std::string& name = "store") {
    if (failures_ > MOST_FAILURES) return;
    for (const unsigned boot : {boot_, boot_ + 1}) {
      ++cases_;
      where_ = where + (boot == boot_ ? "" : ", machine started anew");
      DiskImage image = golden_;
      image.files[image.names.at(name)] = bytes;
      disk_.boot(image);
      disk_.setBootNumber(boot);
      checkReader();
      checkWriter(name == "store" ? bytes : nullptr);
    }
  }

  bool wasOnceThere(const Value& value) const {
    return std::find(history_.begin(), history_.end(), value) != history_.end();
  }

  void checkReader() {
    TestStore store(DISK_FOLDER);
    std::uint32_t rc = MD_RC_OK;
    const Values listed = store.list(0, {}, &rc);
    if (rc == MD_RC_OK && listed != truth_) fail("the listing tells other records and no damage");
    const std::uint32_t expected = isEndKnown_ ? MD_RC_OK : GENREG_RC_DAMAGED;
    if (hasBackup_ && rc != expected) fail("the listing answers " + std::to_string(rc & 0xFFF) + " despite the backup");
    if (hasBackup_ && listed != truth_) fail("the listing leaves out what the backup has");
    for (const Value& value : listed) {
      if (!wasOnceThere(value)) fail("the listing makes records up");
    }
    Value value;
    for (const Value& wanted : truth_) {
      rc = store.get(wanted.group, wanted.key, value);
      if (rc == MD_RC_OK && !(value == wanted)) fail("Get tells another form of " + wanted.key);
      if (rc == GENREG_RC_NOT_FOUND) fail("Get does not find " + wanted.key + " and tells no damage");
      if (hasBackup_ && rc != expected) fail("Get answers " + std::to_string(rc & 0xFFF) + " despite the backup");
    }
    for (const Value& gone : gone_) {
      rc = store.get(gone.group, gone.key, value);
      if (rc == MD_RC_OK) fail("Get finds " + gone.key + ", which is gone");
    }
    GenRegStatus status;
    store.status(status);
  }

  void checkWriter(const std::shared_ptr<Bytes>& damaged) {
    TestStore store(DISK_FOLDER);
    const std::uint32_t rc = store.add(PROBE);
    if (rc == GENREG_RC_NOT_RECORD_FILE && !hasBackup_) return checkUntouched(damaged);
    if (rc != MD_RC_OK) return fail("Add answers " + std::to_string(rc & 0xFFF));
    if (const std::uint32_t mended = store.repair()) return fail("repair answers " + std::to_string(mended & 0xFFF));
    std::uint32_t listed = MD_RC_OK;
    Values values = store.list(0, {}, &listed);
    if (listed != MD_RC_OK) return fail("after the repair the listing answers " + std::to_string(listed & 0xFFF));
    if (values.empty() || !(values.back() == PROBE)) return fail("the record added is not there");
    values.pop_back();
    GenRegStatus status{};
    if (store.status(status) != MD_RC_OK || status.damaged != 0) fail("after the repair there is damage");
    if (hasBackup_ && isEndKnown_ && status.lostBytes != 0) fail("something was lost despite the backup");
    if (!isEndKnown_ && status.lostBytes == 0) fail("nobody knows where the log ended, and no loss is told");
    if (status.lostBytes == 0 && values != truth_) fail("after the writer there are other records and no loss is told");
    for (const Value& value : values) {
      if (!wasOnceThere(value)) fail("after the writer there are records that never were");
    }
    if (status.repairs == 0) return;
    ++repaired_;
    const DiskImage image = disk_.image();
    if (damaged == nullptr || damaged->empty()) return;
    if (!image.has("store.cor")) return fail("no corrupt copy was kept");
    const Bytes& kept = *image.files.at(image.names.at("store.cor"));
    // Before it met the damage the writer may have written slots and appended, no more.
    const std::size_t end = std::min<std::size_t>(damaged->size(), used_);
    for (std::size_t at = format::LOG_START; at < end; ++at) {
      if (at >= kept.size() || kept[at] != (*damaged)[at]) return fail("the corrupt copy is not the damaged file");
    }
  }

  void checkUntouched(const std::shared_ptr<Bytes>& bytes) {
    const DiskImage image = disk_.image();
    if (bytes != nullptr && *image.files.at(image.names.at("store")) != *bytes) fail("the refused file was changed");
  }

  // Damages a record of whose data this is the beginning.
  static void spoilText(Bytes& bytes, const std::string& text) {
    std::size_t at = format::LOG_START;
    while (at + text.size() < bytes.size() && std::memcmp(&bytes[at], text.data(), text.size()) != 0) ++at;
    ASSERT_LT(at + text.size(), bytes.size());
    spoilByte(bytes, at);
  }

  void spoilEveryByte() {
    const Bytes& golden = bytesOf("store");
    for (std::size_t at = 0; at < used_ + 32; ++at) {
      for (const int kind : {0, 1, 2}) {
        const std::byte old = golden[at];
        const std::byte spoilt = kind == 0 ? std::byte{0} : kind == 1 ? std::byte{0xFF} : old ^ std::byte{1 << 4};
        if (spoilt == old) continue;
        const auto bytes = std::make_shared<Bytes>(golden);
        (*bytes)[at] = spoilt;
        check("byte " + std::to_string(at) + " = " + std::to_string(static_cast<int>(spoilt)), bytes);
      }
    }
  }

  void cutEveryLength(std::size_t from) {
    const Bytes& golden = bytesOf("store");
    std::uint64_t slotsEnd = 0;
    for (const std::uint64_t at : format::SLOT_OFFSET) {
      slotsEnd = std::max<std::uint64_t>(slotsEnd, at + slotSize(loadAt<format::Slot>(golden, at)));
    }
    // What is cut off reads as zeros.
    while (golden[slotsEnd - 1] == std::byte{0}) --slotsEnd;
    for (std::size_t length = from; length < used_ + 64; ++length) {
      isEndKnown_ = length >= slotsEnd;
      check("cut at " + std::to_string(length),
            std::make_shared<Bytes>(golden.begin(), golden.begin() + static_cast<std::ptrdiff_t>(length)));
    }
  }

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
  SimulatedDisk disk_;
  DiskImage golden_;
  unsigned boot_ = 1;
  Values truth_;
  Values history_;
  Values gone_;
  std::uint64_t used_ = 0;
  bool hasBackup_ = false;
  bool isEndKnown_ = true;  // of a file that is checked
  std::string where_;
  int failures_ = 0;
  std::uint64_t cases_ = 0;
  std::uint64_t repaired_ = 0;
};

TEST_F(DamagedFiles, EveryByteWithoutABackup) {
  makeSmall();
  spoilEveryByte();
}

TEST_F(DamagedFiles, EveryByteWithABackup) {
  makeWithBackup();
  spoilEveryByte();
}

// A file of no bytes reads as an empty one where there is no backup: whoever makes a file by hand makes such.
TEST_F(DamagedFiles, EveryLengthWithoutABackup) {
  makeSmall();
  cutEveryLength(1);
}

TEST_F(DamagedFiles, EveryLengthWithABackup) {
  makeWithBackup();
  cutEveryLength(0);
}

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
  store.unsetFeature(GenRegBase::FEATURE_BACKUP);
  note(store.add({"g", "first", noise(100, 1)}));
  note(store.add({"g", "second", noise(100, 2)}));
  take();
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
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
  store.unsetFeature(GenRegBase::FEATURE_BACKUP);
  note(store.add({"g", "damaged", noise(90, 1)}));
  note(store.add({"g", "second", noise(90, 2)}));
  take();
  note(store.add({"g", "under way", "x"}));
  const DiskImage after = disk_.image();
  const Bytes& later = *after.files.at(after.names.at("store"));
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  const auto at = static_cast<std::ptrdiff_t>(used_);
  std::copy(later.begin() + at, later.begin() + at + 300, bytes->begin() + at);
  spoilText(*bytes, noise(90, 1));
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

TEST_F(DamagedFiles, EveryByteOfTheBackup) {
  makeWithBackup();
  const Bytes& golden = bytesOf(".store.bkp");
  for (std::size_t at = 0; at < golden.size(); ++at) {
    const auto bytes = std::make_shared<Bytes>(golden);
    spoilByte(*bytes, at);
    check("byte " + std::to_string(at) + " of the backup", bytes, ".store.bkp");
  }
}

TEST_F(DamagedFiles, EverySector) {
  makeWithBackup();
  const Bytes& golden = bytesOf("store");
  for (std::size_t at = 0; at + UNIT <= golden.size(); at += UNIT) {
    for (const int fill : {0, 0xFF, 0x5A}) {
      const auto bytes = std::make_shared<Bytes>(golden);
      std::fill_n(bytes->begin() + static_cast<std::ptrdiff_t>(at), UNIT, static_cast<std::byte>(fill));
      check("sector at " + std::to_string(at), bytes);
    }
  }
}

TEST_F(DamagedFiles, EverySectorWithoutABackup) {
  makeSmall();
  const Bytes& golden = bytesOf("store");
  for (std::size_t at = 0; at < used_; at += UNIT) {
    for (const int fill : {0, 0xFF, 0x5A}) {
      const auto bytes = std::make_shared<Bytes>(golden);
      std::fill_n(bytes->begin() + static_cast<std::ptrdiff_t>(at), UNIT, static_cast<std::byte>(fill));
      check("sector at " + std::to_string(at), bytes);
    }
  }
}

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

// Each sector of the header page has a header and a slot.
TEST_F(DamagedFiles, AHeaderPageThatCannotBeReadIsDamage) {
  makeWithBackup();
  const std::uint64_t inode = golden_.names.at("store");
  for (const int sectors : {1, 2, 3}) {
    disk_.boot(golden_);
    disk_.setBootNumber(boot_);
    for (const std::uint64_t sector : {0, 1}) {
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
  ASSERT_EQ(parseHead(std::span(*bytes).subspan(end), end, key, frame), ParseResult::OK);
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
  ASSERT_EQ(parseHead(std::span(from).subspan(end), end, key, frame), ParseResult::OK);
  ASSERT_FALSE(frame.last);
  const auto at = static_cast<std::ptrdiff_t>(end);
  std::copy_n(from.begin() + at, frame.size, bytes->begin() + at);
  // The first record, behind the first area, is damaged.
  ASSERT_EQ(parseHead(std::span(*bytes).subspan(format::LOG_START), format::LOG_START, key, frame), ParseResult::OK);
  spoilByte(*bytes, frame.end() + 60);
  history_ = truth_;
  check("an unfinished commit behind the end", bytes);
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
  for (int at = 0; at < 60; ++at) note(store.change({"g", "a", std::to_string(at)}));
  take();
  const Frame summary = lastFrame(format::FrameKind::SUMMARY);
  // The place of the first of its records, which would then come last.
  bootWithFlipped(summary.offset + summary.headSize + 5);
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
    (*backup)[header + 20] ^= std::byte{1};
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
class DamageMetByUpkeep : public DamagedFiles {};

TEST_F(DamageMetByUpkeep, DoesNotStopCompaction) {
  TestStore store(DISK_FOLDER);
  store.unsetFeature(GenRegBase::FEATURE_BACKUP);
  note(store.add({"g", "nobody asks", noise(900, 1)}));
  note(store.add({"g", "busy", noise(3000, 2)}));
  take();
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  spoilText(*bytes, noise(900, 1));
  bootWith(bytes);
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

// A place that the device cannot read is damage: what is intact elsewhere is answered, and the next change moves the
// file away from it.
class BadSectorsOnTheDisk : public DamagedFiles {
 protected:
  void exercise(const std::string& name, std::uint64_t sector) {
    using Operation = std::uint32_t (*)(TestStore&);
    const std::pair<const char*, Operation> operations[] = {
        {"Add", [](TestStore& store) { return store.add(PROBE); }},
        {"Change",
         [](TestStore& store) {
           return store.change({"g1", "a", "changed"});
         }},
        {"Delete", [](TestStore& store) { return store.remove("g1", "a"); }},
        {"repair", [](TestStore& store) { return store.repair(); }},
        {"compact", [](TestStore& store) { return store.compact(); }},
    };
    for (const auto& [what, operation] : operations) {
      where_ = name + ", sector " + std::to_string(sector) + ", " + what;
      disk_.boot(golden_);
      disk_.setBootNumber(boot_);
      disk_.badSectors = {{golden_.names.at(name), sector}};
      checkReader();
      TestStore store(DISK_FOLDER);
      const std::uint32_t rc = operation(store);
      GenRegStatus status{};
      if (store.status(status) != MD_RC_OK) fail("has no status");
      const bool mayBeLost = rc == GENREG_RC_NOT_FOUND && status.lostBytes > 0;
      if (rc != MD_RC_OK && !mayBeLost) fail("answers " + std::to_string(rc & 0xFFF));
      const Values listed = store.list();
      if (hasBackup_ && status.lostBytes != 0) fail("something was lost despite the backup");
      if (status.lostBytes == 0 && std::string(what) == "repair" && listed != truth_) fail("other records");
      for (const Value& value : listed) {
        const bool isNew = value == PROBE || value == Value{"g1", "a", "changed"};
        if (!isNew && !wasOnceThere(value)) fail("makes records up");
      }
      Value value;
      if (store.add({"later", "later", ""}) != MD_RC_OK || store.get("later", "later", value) != MD_RC_OK)
        fail("takes no further records");
    }
  }

  void exerciseAll() {
    for (const char* name : {"store", ".store.bkp"}) {
      if (!golden_.has(name)) continue;
      for (std::uint64_t sector = 0; sector * 4096 < bytesOf(name).size(); ++sector) exercise(name, sector);
    }
  }
};

TEST_F(BadSectorsOnTheDisk, AreHelpedByTheBackup) {
  makeWithBackup();
  exerciseAll();
}

TEST_F(BadSectorsOnTheDisk, LoseNoMoreThanTheyHold) {
  makeSmall();
  exerciseAll();
}

// Frames with passing checksums that promise what cannot be.
class HostileFiles : public ::testing::Test {
 protected:
  // Every operation must end soon and answer something; no more is asked of such a file.
  void exercise(const std::string& what) {
    const auto start = std::chrono::steady_clock::now();
    TestStore store(folder_.path());
    Value value;
    std::uint32_t rc = MD_RC_OK;
    store.get("g", "k1", value);
    store.list(0, {}, &rc);
    store.list(GROUP, {"g", "", ""}, &rc);
    store.list(DATA, {"", "", "x"}, &rc);
    GenRegStatus status;
    store.status(status);
    store.add({"g", "added", "x"});
    store.change({"g", "k1", "changed"});
    store.remove("g", "k2");
    store.removeAll("g", "", GROUP);
    store.compact();
    store.repair();
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(took).count(), 5000) << what;
  }

  Bytes golden() {
    TestStore store(folder_.path());
    for (int at = 0; at < 8; ++at) {
      EXPECT_EQ(store.add({"g", "k" + std::to_string(at), noise(30, static_cast<unsigned>(at))}), MD_RC_OK);
    }
    EXPECT_EQ(store.change({"g", "k3", "other"}), MD_RC_OK);
    EXPECT_EQ(store.remove("g", "k4"), MD_RC_OK);
    std::ifstream file(folder_.file(), std::ios::binary);
    const std::string content((std::istreambuf_iterator<char>(file)), {});
    Bytes bytes(content.size());
    std::memcpy(bytes.data(), content.data(), content.size());
    return bytes;
  }

  void put(const Bytes& bytes) {
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) std::filesystem::remove(entry.path());
    std::ofstream file(folder_.file(), std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }

  static std::vector<std::uint64_t> frameOffsets(const Bytes& bytes, const FrameKey& key) {
    std::vector<std::uint64_t> offsets;
    Frame frame;
    for (std::uint64_t at = format::LOG_START; at + format::MAX_HEAD_SIZE < bytes.size(); at = frame.end()) {
      if (parseHead(std::span(bytes).subspan(at), at, key, frame) != ParseResult::OK) break;
      offsets.push_back(at);
    }
    return offsets;
  }

  // Makes the checksum of a frame's head right again.
  static void sealHead(Bytes& bytes, std::uint64_t offset, std::uint32_t headSize, const FrameKey& key) {
    const std::uint32_t crc = crc32c(checksumStart(key.salt, offset), bytes.data() + offset + 4, headSize - 4);
    storeAt(bytes, offset, crc);
  }

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
  TestFolder folder_{inMemory()};
};

TEST_F(HostileFiles, HeadsWithAnyNumberInAnyField) {
  const Bytes good = golden();
  const auto header = loadAt<format::FileHeader>(good, 0);
  const FrameKey key{.salt = saltOf(header.fileId), .indexCount = 2};
  const auto offsets = frameOffsets(good, key);
  ASSERT_GT(offsets.size(), 9u);
  std::vector<std::uint64_t> numbers{
      0, 1, 8, 4096, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF8, 0xFFFFFFFF, ~0ull << 3, 0x0000FFFFFFFFFFF8, 0};
  std::uint64_t cases = 0;
  for (const std::uint64_t offset : offsets) {
    Frame frame;
    ASSERT_EQ(parseHead(std::span(good).subspan(offset), offset, key, frame), ParseResult::OK);
    numbers.back() = offset;  // a frame that leads to itself
    for (std::size_t field = 8; field + 4 <= frame.headSize; field += 4) {
      for (const std::uint64_t number : numbers) {
        Bytes bytes = good;
        storeAt(bytes, offset + field, static_cast<std::uint32_t>(number >> (field % 8 == 4 ? 32 : 0)));
        sealHead(bytes, offset, frame.headSize, key);
        put(bytes);
        ++cases;
        ASSERT_NO_FATAL_FAILURE(exercise("frame at " + std::to_string(offset) + " field " + std::to_string(field)));
        if (HasFailure()) return;
      }
    }
  }
  std::cout << "hostile heads " << cases << '\n';
}

TEST_F(HostileFiles, SlotsWithAnyNumberInAnyField) {
  const Bytes good = golden();
  const auto header = loadAt<format::FileHeader>(good, 0);
  const std::uint64_t numbers[] = {0, 1, 4096, 4097, 1 << 20, 0x7FFFFFFFFFF8, (1ull << 43) - 8, ~0ull};
  std::uint64_t cases = 0;
  for (std::size_t field = 8; field < offsetof(format::Slot, overlay); field += 8) {
    for (const std::uint64_t number : numbers) {
      Bytes bytes = good;
      for (const std::uint64_t at : format::SLOT_OFFSET) {
        auto slot = loadAt<format::Slot>(bytes, at);
        std::memcpy(reinterpret_cast<char*>(&slot) + field, &number, sizeof number);
        sealSlot(slot, saltOf(header.fileId));
        storeAt(bytes, at, slot);
      }
      put(bytes);
      ++cases;
      ASSERT_NO_FATAL_FAILURE(exercise("slot field " + std::to_string(field) + " = " + std::to_string(number)));
      if (HasFailure()) return;
    }
  }
  std::cout << "hostile slots " << cases << '\n';
}

// A long chain whose changes all concern different places: following it must not take time in the square of its length.
TEST_F(HostileFiles, ALongChainOfStrangers) {
  const SettingScope strangers(digestsCollide, true);
  {
    TestStore store(folder_.path());
    ASSERT_EQ(store.beginBatch(), MD_RC_OK);
    for (int at = 0; at < 300; ++at) ASSERT_EQ(store.add({"g", "k" + std::to_string(at), "x"}), MD_RC_OK);
    ASSERT_EQ(store.commitBatch(), MD_RC_OK);
  }
  exercise("300 strangers");
}

TEST_F(HostileFiles, HugeSparseFiles) {
  constexpr off_t TERABYTE = off_t{1} << 40;
  const Bytes good = golden();
  const auto growTo = [&](const std::filesystem::path& path) { return ::truncate(path.c_str(), TERABYTE); };
  put(good);
  if (growTo(folder_.file()) != 0) GTEST_SKIP() << "no sparse files of a terabyte here";
  exercise("a terabyte behind the log");
  put(good);
  Bytes spoilt = good;
  for (const std::uint64_t slot : format::SLOT_OFFSET) spoilByte(spoilt, slot + 20);
  put(spoilt);
  ASSERT_EQ(growTo(folder_.file()), 0);
  exercise("a terabyte without slots");
  put({});
  ASSERT_EQ(growTo(folder_.file()), 0);
  exercise("a terabyte of nothing");
  put(good);
  for (const char* name : {".store.bkp", "store.tmp", "store.cor"}) {
    std::ofstream(folder_.path() / name).put('x');
    ASSERT_EQ(growTo(folder_.path() / name), 0);
  }
  exercise("companions of a terabyte");
  put(spoilt);
  std::ofstream(folder_.path() / ".store.bkp").put('x');
  ASSERT_EQ(growTo(folder_.path() / ".store.bkp"), 0);
  exercise("no slots and a backup of a terabyte");
}

}  // namespace
}  // namespace zon::test
