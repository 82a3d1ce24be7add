// The harness: makes files with a history, spoils them everywhere, and judges what readers and writers answer.
#include "platform/registry/harness/damage_harness.h"

#include <algorithm>
#include <iostream>
#include <span>

#include "platform/registry/log/file_header.h"
#include "support/evidence.h"

namespace zon::test {
namespace {

constexpr int MOST_FAILURES = 5;

}  // namespace

DamagedFiles::~DamagedFiles() {
  zontest::tellEvidence("damage.cases", cases_, zontest::evidenceSeed());
  if (cases_ > 0) std::cout << "damaged files " << cases_ << ", of which repaired " << repaired_ << '\n';
}

void DamagedFiles::makeSmall() {
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

void DamagedFiles::makeWithBackup() {
  TestStore store(DISK_FOLDER);
  note(store.add({"g1", "a", noise(900, 1)}));
  note(store.add({"g1", "b", noise(40, 2)}));
  note(store.remove("g1", "b"));
  note(store.add({"g2", "c", noise(1500, 3)}));
  note(store.change({"g1", "a", noise(2200, 4)}));
  history_ = {
      {"g1", "a", noise(900, 1)}, {"g1", "a", noise(2200, 4)}, {"g1", "b", noise(40, 2)}, {"g2", "c", noise(1500, 3)}};
  gone_ = {{"g1", "b", ""}, {"none", "none", ""}};
  take();
  ASSERT_TRUE(golden_.has(".store.bkp"));
  GenRegStatus status;
  ASSERT_EQ(store.status(status), MD_RC_OK);
  ASSERT_EQ(status.backupBytes, status.usedBytes);
  hasBackup_ = true;
}

void DamagedFiles::take() {
  TestStore store(DISK_FOLDER);
  truth_ = store.list();
  golden_ = disk_.image();
  boot_ = disk_.bootNumber();
  GenRegStatus status;
  ASSERT_EQ(store.status(status), MD_RC_OK);
  used_ = status.usedBytes;
}

Frame DamagedFiles::lastFrame(format::FrameKind kind) const {
  const Bytes& bytes = bytesOf("store");
  const FrameKey key{.salt = saltOf(loadAt<format::FileHeader>(bytes, 0).fileId), .indexCount = 2};
  Frame last;
  Frame frame;
  for (std::uint64_t at = format::LOG_START; at < used_; at = frame.end()) {
    if (parseFrame(std::span(bytes).subspan(at), at, key, frame) != ParseResult::OK) break;
    if (frame.kind == kind) last = frame;
  }
  EXPECT_EQ(last.kind, kind);
  return last;
}

void DamagedFiles::bootWith(const Content& bytes) {
  DiskImage image = golden_;
  image.files[image.names.at("store")] = bytes;
  disk_.boot(image);
}

void DamagedFiles::bootWithFlipped(std::uint64_t offset) {
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  spoilByte(*bytes, offset);
  bootWith(bytes);
}

std::shared_ptr<Bytes> DamagedFiles::spoiltAt(std::size_t offset) const {
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  std::fill_n(bytes->begin() + static_cast<std::ptrdiff_t>(offset), 16, std::byte{0xFF});
  return bytes;
}

void DamagedFiles::fail(const std::string& what) {
  if (++failures_ <= MOST_FAILURES) ADD_FAILURE() << where_ << ": " << what;
}

void DamagedFiles::check(const std::string& where, const std::shared_ptr<Bytes>& bytes, const std::string& name) {
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

bool DamagedFiles::wasOnceThere(const Value& value) const {
  return std::find(history_.begin(), history_.end(), value) != history_.end();
}

void DamagedFiles::checkReader() {
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
  static_cast<void>(store.status(status));  // must come to an end, whatever it answers
}

void DamagedFiles::checkWriter(const std::shared_ptr<Bytes>& damaged) {
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

void DamagedFiles::checkUntouched(const std::shared_ptr<Bytes>& bytes) {
  const DiskImage image = disk_.image();
  if (bytes != nullptr && *image.files.at(image.names.at("store")) != *bytes) fail("the refused file was changed");
}

void DamagedFiles::spoilText(Bytes& bytes, const std::string& text) {
  std::size_t at = format::LOG_START;
  while (at + text.size() < bytes.size() && std::memcmp(&bytes[at], text.data(), text.size()) != 0) ++at;
  ASSERT_LT(at + text.size(), bytes.size());
  spoilByte(bytes, at);
}

void DamagedFiles::spoilEveryByte() {
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

void DamagedFiles::cutEveryLength(std::size_t from) {
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

}  // namespace zon::test
