// Walks the log frame by frame; behind damage it looks for the next frame that passes its checksums.
#include "platform/registry/care/salvage.h"

#include <algorithm>
#include <cstring>

#include "platform/registry/files/stub.h"
#include "platform/registry/log/index_blocks.h"

namespace zon {

namespace {

// An area's blocks start within this distance behind its frame's start.
constexpr std::uint64_t LONGEST_AREA_LEAD = 1024;

// What a header may be wrong with, as opposed to what may keep it from being read.
bool isVerdict(std::uint32_t rc) {
  return rc == MD_RC_OK || rc == GENREG_RC_NOT_RECORD_FILE || rc == GENREG_RC_DAMAGED || rc == GENREG_RC_NEWER_FORMAT ||
         rc == RC_UNREADABLE;
}

bool isUnreadable(int file) {
  std::array<std::byte, 1> byte;
  std::size_t got = 0;
  return file >= 0 && readAt(file, 0, byte, got) == RC_UNREADABLE;
}

// Without a readable header the salt is still told by the first frame, whose chain field is the salt.
bool guessSalt(int file, std::size_t indexCount, std::uint32_t& salt) {
  std::array<std::byte, format::MAX_PREFIX_SIZE> bytes;
  std::size_t got = 0;
  if (readAt(file, format::LOG_START, bytes, got) != MD_RC_OK || got < bytes.size()) return false;
  format::FrameHeader header;
  std::memcpy(&header, bytes.data(), sizeof header);
  Frame frame;
  salt = header.chain;
  return parseFrame(bytes, format::LOG_START, FrameKey{.salt = salt, .indexCount = indexCount}, frame) ==
         ParseResult::OK;
}

}  // namespace

// Decides by which salt the frames are checked, and whether the backup is of the same generation.
std::uint32_t Salvage::identify(int file, int backup) {
  HeaderPage backupPage{};
  const std::uint32_t fileVerdict = file >= 0 ? readHeaderPage(file, filePage_) : GENREG_RC_NOT_RECORD_FILE;
  const std::uint32_t backupVerdict = backup >= 0 ? readHeaderPage(backup, backupPage) : GENREG_RC_NOT_RECORD_FILE;
  if (fileVerdict == GENREG_RC_NEWER_FORMAT || !isVerdict(fileVerdict)) return fileVerdict;
  // A stub under the backup's name says nothing about this file.
  if (!isVerdict(backupVerdict) && backupVerdict != RC_STUB) return backupVerdict;
  fileHasHeader_ = fileVerdict == MD_RC_OK;
  const bool backupHasHeader = backupVerdict == MD_RC_OK && isHeaderOf(backupPage.header, type_);
  if (fileHasHeader_) header_ = filePage_.header;
  std::uint32_t salt = saltOf(filePage_.header.fileId);
  bool fileCounts = fileHasHeader_;
  if (!fileHasHeader_ && file >= 0 && guessSalt(file, type_.indexCount, salt)) {
    header_ = backupHasHeader && saltOf(backupPage.header.fileId) == salt ? backupPage.header : format::FileHeader{};
    if (header_.fileId == 0) header_.fileId = salt;
    fileCounts = true;
  }
  FileState fileState{};
  FileState backupState{};
  if (const std::uint32_t rc = file >= 0 ? stateOf(file, fileState) : MD_RC_OK) return rc;
  if (const std::uint32_t rc = backup >= 0 ? stateOf(backup, backupState) : MD_RC_OK) return rc;
  if (fileCounts) file_ = std::make_unique<RawLog>(type_, file, header_, fileState.size);
  const bool sameGeneration = backupHasHeader && fileCounts && saltOf(backupPage.header.fileId) == salt;
  Frame frame;
  const bool fileHasFrames =
      fileCounts && (!fileHasHeader_ || filePage_.hasSlot() || file_->hasFrame(format::LOG_START, frame));
  if (sameGeneration || (backupHasHeader && !fileHasFrames)) {
    if (!fileCounts || !sameGeneration) header_ = backupPage.header;
    if (!sameGeneration) file_.reset();
    backup_ = std::make_unique<RawLog>(type_, backup, header_, backupState.size);
  }
  if (sameGeneration && tellsOtherHistory(filePage_, backupPage)) backup_.reset();
  if (file_ == nullptr && backup_ == nullptr && !filePage_.isWhole) return GENREG_RC_IO_ERROR;
  chooseEnd(backup_ != nullptr ? &backupPage : nullptr);
  return MD_RC_OK;
}

// The log reaches at least as far as any slot tells.
void Salvage::chooseEnd(const HeaderPage* backupPage) {
  const bool fileHasSlots = fileHasHeader_ && file_ != nullptr;
  isEndKnown_ = fileHasSlots && filePage_.bothSlots();
  isSameRun_ =
      fileHasSlots && filePage_.hasSlot() && isOfPresentRun(file_->file(), filePage_.slots[filePage_.newest()]);
  takesBehind_ = !isEndKnown_ || !isSameRun_;
  const HeaderPage* filePage = fileHasSlots ? &filePage_ : nullptr;
  for (const HeaderPage* page : {filePage, backupPage}) {
    if (page == nullptr || !page->hasSlot()) continue;
    const format::Slot& slot = page->slots[page->newest()];
    if (hasSlot_ && slot_.end >= slot.end) continue;
    slot_ = slot;
    hasSlot_ = true;
  }
}

// The caller's view has a slot that it believes, and has rolled it forward if that was due.
void Salvage::takeStateOf(const LogView& view) {
  slot_ = view.slot();
  slot_.end = view.end();
  hasSlot_ = true;
  isEndKnown_ = true;
  takesBehind_ = false;
  if (file_ != nullptr) file_->goOnWith(view);
}

// A copy of the file that somebody put back goes its own way from where it was taken, and the backup may know another
// one. Where the shorter of the two ends, the longer one has a frame that follows the same frame, unless that is
// damaged.
bool Salvage::tellsOtherHistory(const HeaderPage& filePage, const HeaderPage& backupPage) const {
  if (!filePage.hasSlot() || !backupPage.hasSlot()) return false;
  const format::Slot& ofFile = filePage.slots[filePage.newest()];
  const format::Slot& ofBackup = backupPage.slots[backupPage.newest()];
  if (ofFile.end == ofBackup.end) return ofFile.chain != ofBackup.chain;
  Frame frame;
  if (ofBackup.end < ofFile.end) return file_->hasFrame(ofBackup.end, frame) && frame.chain != ofBackup.chain;
  // A backup is ahead of the slots only after a power cut, or when the newest one is lost. In the first case the file
  // has all of its frames too, so that a backup that cannot be placed is no loss.
  return backup_->hasFrame(ofFile.end, frame) ? frame.chain != ofFile.chain : filePage.bothSlots();
}

std::uint32_t Salvage::failure() const {
  if (file_ != nullptr && file_->failure() != MD_RC_OK) return file_->failure();
  return backup_ != nullptr ? backup_->failure() : MD_RC_OK;
}

std::uint32_t Salvage::open(int file, int backup, const LogView* state) {
  if (const std::uint32_t rc = identify(file, backup)) return rc;
  if (file_ == nullptr && backup_ == nullptr)
    return isUnreadable(file) ? GENREG_RC_IO_ERROR : GENREG_RC_NOT_RECORD_FILE;
  if (state != nullptr) takeStateOf(*state);
  // What is taken in from behind the published end must stay whatever happens next.
  if (access_ == Access::SHARED && takesBehind_ && file >= 0) {
    if (const std::uint32_t rc = makeReadBytesDurable(file)) return rc;
  }
  if (const std::uint32_t rc = walk()) return rc;
  for (const RawLog* log : {file_.get(), backup_.get()}) {
    if (log != nullptr && log->isDeviceFailing()) return GENREG_RC_IO_ERROR;
  }
  keepNewest();
  return MD_RC_OK;
}

// A writer publishes what it has recovered before it writes anything of its own.
bool Salvage::isOvertaken(int file) const {
  if (!takesBehind_ || file < 0) return false;
  HeaderPage now{};
  const std::uint32_t rc = readHeaderPage(file, now);
  if ((rc == MD_RC_OK) != fileHasHeader_) return true;
  if (rc != MD_RC_OK) return false;
  for (std::size_t slot = 0; slot < now.slots.size(); ++slot) {
    if (now.slotValid[slot] != filePage_.slotValid[slot]) return true;
    if (now.slotValid[slot] && now.slots[slot].crc != filePage_.slots[slot].crc) return true;
  }
  return false;
}

std::uint64_t Salvage::mostCommits() const {
  std::uint64_t end = slot_.end;
  for (const RawLog* log : {file_.get(), backup_.get()}) {
    if (takesBehind_ && log != nullptr) end = std::max(end, log->end());
  }
  const std::uint64_t from = std::max(slot_.end, format::LOG_START);
  return slot_.commits + (end > from ? (end - from) / format::LEAST_RECORD_FRAME : 0);
}

std::uint64_t Salvage::frameBytes() const {
  std::uint64_t bytes = 0;
  for (const Event& record : records_) {
    const bool isChange = record.offset != record.place;
    bytes += record.size - (isChange ? sizeof(format::EventBody) : 0);
  }
  return bytes;
}

bool Salvage::frameAt(std::uint64_t offset, Frame& frame, bool& inBackup) const {
  inBackup = false;
  if (file_ != nullptr && file_->hasFrame(offset, frame)) return true;
  inBackup = true;
  return backup_ != nullptr && backup_->hasFrame(offset, frame);
}

// Index blocks are no loss: the repaired file gets others.
std::uint64_t Salvage::endOfKnownArea(std::uint64_t offset) const {
  for (std::size_t segment = 0; segment < segmentCount(slot_); ++segment) {
    const Segment area = unpackSegment(slot_.segments[segment]);
    if (offset < area.offset && area.offset - offset < LONGEST_AREA_LEAD) {
      return area.offset + area.blockCount * format::BLOCK_SIZE;
    }
  }
  return 0;
}

// The offset of the next intact frame; where there is none, the end of what is known to be written.
std::uint64_t Salvage::skipDamage(std::uint64_t offset) {
  const std::uint64_t fileSize = file_ != nullptr ? file_->end() : 0;
  const std::uint64_t backupSize = backup_ != nullptr ? backup_->end() : 0;
  const std::uint64_t size = std::max(fileSize, backupSize);
  const std::uint64_t limit = isEndKnown_ ? std::min(slot_.end, size) : size;
  if (const std::uint64_t behind = hasSlot_ ? endOfKnownArea(offset) : 0; behind != 0 && behind <= slot_.end)
    return behind;
  Frame frame;
  bool inBackup = false;
  std::uint64_t inFile = 0;
  std::uint64_t inOther = 0;
  for (std::uint64_t at = offset;;) {
    at += format::FRAME_ALIGNMENT;
    if (inFile < at) inFile = file_ != nullptr ? file_->findFrame(at, limit) : limit;
    if (inOther < at) inOther = backup_ != nullptr ? backup_->findFrame(at, limit) : limit;
    // Each stops at its own file's end at the latest.
    at = std::min(inFile < fileSize ? inFile : limit, inOther < backupSize ? inOther : limit);
    if (at >= limit || failure() != MD_RC_OK) break;
    if (!frameAt(at, frame, inBackup)) continue;
    lostBytes_ += at - offset;
    lossEnd_ = at;
    return at;
  }
  if (hasSlot_ && slot_.end > offset) {
    lostBytes_ += slot_.end - offset;
    lossEnd_ = isEndKnown_ ? slot_.end : format::MAX_OFFSET;
    if (isEndKnown_) return slot_.end;
  }
  if (!isEndKnown_ && !endsAt(offset)) {
    ++lostBytes_;  // how many, nothing tells
    lossEnd_ = format::MAX_OFFSET;
  }
  return format::MAX_OFFSET;
}

// A log that was not cut short is known by the zeros behind it.
bool Salvage::endsAt(std::uint64_t offset) const {
  if (file_ == nullptr || offset <= format::LOG_START || (hasSlot_ && offset < slot_.end)) return false;
  std::array<std::byte, format::TERMINATOR_SIZE> tail{};
  std::size_t got = 0;
  return file_->bytes().read(offset, tail, got) == MD_RC_OK && got == tail.size() &&
         std::all_of(tail.begin(), tail.end(), [](std::byte byte) { return byte == std::byte{0}; });
}

// Where there is no frame: nothing that was acknowledged can follow.
bool Salvage::isPastEnd(std::uint64_t offset) const {
  if (!hasSlot_ || offset < slot_.end) return false;
  if (isEndKnown_) return true;
  // One slot and the remains of a commit, as a power cut may leave them.
  const bool mayBeTorn = fileHasHeader_ && file_ != nullptr && filePage_.hasSlot() && !isSameRun_;
  return mayBeTorn && offset + format::TERMINATOR_SIZE <= file_->end();
}

void Salvage::takeFrame(const Frame& frame, bool inBackup) {
  if (inBackup) ++fromBackup_;
  if (!frame.isEvent()) return;
  events_.push_back(Event{.place = frame.place,
                          .offset = frame.offset,
                          .size = frame.size,
                          .removed = frame.kind == format::FrameKind::REMOVE,
                          .inBackup = inBackup});
}

std::uint32_t Salvage::walk() {
  // What was taken of complete commits.
  std::size_t events = 0;
  std::uint64_t fromBackup = 0;
  const auto keepAll = [&] {
    events = events_.size();
    fromBackup = fromBackup_;
  };
  std::uint64_t offset = format::LOG_START;
  std::uint32_t chain = 0;
  bool isChainKnown = false;
  Frame frame;
  bool inBackup = false;
  while (offset < format::MAX_OFFSET) {
    const bool isBehind = hasSlot_ && offset >= slot_.end;
    if (isBehind && !takesBehind_) break;
    if (isBehind && offset == slot_.end) {
      chain = slot_.chain;
      isChainKnown = true;
    }
    const bool follows = frameAt(offset, frame, inBackup) && (!isBehind || !isChainKnown || frame.chain == chain);
    if (!follows) {
      if (isPastEnd(offset)) break;
      const std::uint64_t next = skipDamage(offset);
      // The beginning of a commit is nothing, unless it is damage that took the rest.
      if (next == format::MAX_OFFSET && endsAt(offset)) break;
      keepAll();
      isChainKnown = false;
      offset = next;
      continue;
    }
    takeFrame(frame, inBackup);
    offset = frame.end();
    chain = frame.crc;
    isChainKnown = true;
    // Behind the published end a commit counts only when it is complete.
    if (frame.last || (hasSlot_ && offset <= slot_.end)) keepAll();
  }
  events_.resize(events);
  fromBackup_ = fromBackup;
  return failure();
}

void Salvage::keepNewest() {
  std::sort(events_.begin(), events_.end(), [](const Event& a, const Event& b) {
    return a.place != b.place ? a.place < b.place : a.offset > b.offset;
  });
  const auto isOlderForm = [](const Event& newer, const Event& older) { return newer.place == older.place; };
  events_.erase(std::unique(events_.begin(), events_.end(), isOlderForm), events_.end());
  std::erase_if(events_, [](const Event& event) { return event.removed; });
  records_.swap(events_);
}

std::uint32_t Salvage::readRecord(std::size_t number, std::byte* out, std::size_t& size) const {
  const Event& record = records_[number];
  const std::uint32_t rc = (record.inBackup ? backup_ : file_)->bytes().readRecord(record.offset, out, size);
  // It was intact when it was found.
  return rc == GENREG_RC_DAMAGED ? GENREG_RC_IO_ERROR : rc;
}

}  // namespace zon
