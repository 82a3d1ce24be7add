// Walks the log frame by frame; behind damage it looks for the next frame that passes its checksums.
#include "platform/registry/salvage.h"

#include <algorithm>
#include <cstring>

namespace zon {

namespace {

// An area's blocks start within this distance behind its frame's start.
constexpr std::uint64_t LONGEST_AREA_LEAD = 1024;

// Without a readable header the salt is still told by the first frame, whose chain field is the salt.
bool guessSalt(int file, std::size_t indexCount, std::uint32_t& salt) {
  std::array<std::byte, format::MAX_HEAD_SIZE> bytes;
  std::size_t got = 0;
  if (readAt(file, format::LOG_START, bytes, got) != MD_RC_OK || got < bytes.size()) return false;
  format::FrameHeader header;
  std::memcpy(&header, bytes.data(), sizeof header);
  Frame frame;
  salt = header.chain;
  return parseHead(bytes, format::LOG_START, FrameKey{.salt = salt, .indexCount = indexCount}, frame) ==
         ParseResult::OK;
}

std::uint64_t sizeOf(int file) {
  FileState state{};
  return file >= 0 && stateOf(file, state) == MD_RC_OK ? state.size : 0;
}

}  // namespace

RawLog::RawLog(const RecordType& type, int file, const format::FileHeader& header, std::uint64_t size) : LogView(type) {
  file_ = file;
  header_ = header;
  slot_ = format::Slot{};
  key_ = FrameKey{.salt = saltOf(header.fileId), .indexCount = type.indexCount};
  end_ = size;
}

bool RawLog::hasFrame(std::uint64_t offset, Frame& frame) const {
  if (offset + sizeof(format::FrameHeader) > end_) return false;
  FrameBytes bytes;
  if (readHead(offset, bytes, frame) != MD_RC_OK || frame.end() > end_) return false;
  return frame.kind == format::FrameKind::AREA || verifyPayload(frame, bytes.all()) == MD_RC_OK;
}

// Decides by which salt the frames are checked, and whether the backup is of the same generation.
void Salvage::identify(int file, int backup) {
  HeaderPage filePage{};
  HeaderPage backupPage{};
  const bool fileHasHeader = file >= 0 && readHeaderPage(file, filePage) == MD_RC_OK;
  const bool backupHasHeader = backup >= 0 && readHeaderPage(backup, backupPage) == MD_RC_OK;
  if (fileHasHeader) header_ = filePage.header;
  std::uint32_t salt = saltOf(filePage.header.fileId);
  bool fileCounts = fileHasHeader;
  if (!fileHasHeader && file >= 0 && guessSalt(file, type_.indexCount, salt)) {
    header_ = backupHasHeader && saltOf(backupPage.header.fileId) == salt ? backupPage.header : format::FileHeader{};
    if (header_.fileId == 0) header_.fileId = salt;
    fileCounts = true;
  }
  if (fileCounts) file_ = std::make_unique<RawLog>(type_, file, header_, sizeOf(file));
  const bool sameGeneration = backupHasHeader && fileCounts && saltOf(backupPage.header.fileId) == salt;
  Frame frame;
  const bool fileHasFrames =
      fileCounts && (!fileHasHeader || filePage.hasSlot() || file_->hasFrame(format::LOG_START, frame));
  if (sameGeneration || (backupHasHeader && !fileHasFrames)) {
    if (!fileCounts || !sameGeneration) header_ = backupPage.header;
    if (!sameGeneration) file_.reset();
    backup_ = std::make_unique<RawLog>(type_, backup, header_, sizeOf(backup));
  }
  for (const HeaderPage* page : {&filePage, &backupPage}) {
    const bool counts = page == &filePage ? fileHasHeader && file_ != nullptr : backup_ != nullptr;
    if (!counts || !page->hasSlot()) continue;
    const format::Slot& slot = page->slots[page->newest()];
    if (hasSlot_ && slot_.end >= slot.end) continue;
    slot_ = slot;
    hasSlot_ = true;
  }
}

std::uint32_t Salvage::open(int file, int backup) {
  if (file >= 0) {
    HeaderPage page;
    if (readHeaderPage(file, page) == GENREG_RC_NEWER_FORMAT) return GENREG_RC_NEWER_FORMAT;
  }
  identify(file, backup);
  if (file_ == nullptr && backup_ == nullptr) return GENREG_RC_NOT_RECORD_FILE;
  if (const std::uint32_t rc = walk()) return rc;
  keepNewest();
  return MD_RC_OK;
}

bool Salvage::frameAt(std::uint64_t offset, Frame& frame, bool& inBackup) const {
  inBackup = false;
  if (file_ != nullptr && file_->hasFrame(offset, frame)) return true;
  inBackup = true;
  return backup_ != nullptr && backup_->hasFrame(offset, frame);
}

// Index blocks are no loss: they are made anew.
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
  const std::uint64_t limit =
      hasSlot_ ? std::min(slot_.end, std::max(fileSize, backupSize)) : std::max(fileSize, backupSize);
  if (const std::uint64_t behind = hasSlot_ ? endOfKnownArea(offset) : 0; behind != 0 && behind <= slot_.end)
    return behind;
  Frame frame;
  bool inBackup = false;
  for (std::uint64_t at = offset + format::FRAME_ALIGNMENT; at < limit; at += format::FRAME_ALIGNMENT) {
    if (!frameAt(at, frame, inBackup)) continue;
    lostBytes_ += at - offset;
    return at;
  }
  if (hasSlot_ && slot_.end > offset) lostBytes_ += slot_.end - offset;
  return format::MAX_OFFSET;
}

void Salvage::takeFrame(const Frame& frame, bool inBackup) {
  if (inBackup) ++fromBackup_;
  if (!frame.isEvent()) return;
  events_.push_back(Event{.place = frame.place,
                          .offset = frame.offset,
                          .removed = frame.kind == format::FrameKind::REMOVE,
                          .inBackup = inBackup});
}

std::uint32_t Salvage::walk() {
  std::vector<std::pair<Frame, bool>> commit;
  std::uint64_t offset = format::LOG_START;
  Frame frame;
  bool inBackup = false;
  while (offset < format::MAX_OFFSET) {
    if (!frameAt(offset, frame, inBackup)) {
      if (hasSlot_ && offset >= slot_.end) break;
      for (const auto& [part, partInBackup] : commit) takeFrame(part, partInBackup);
      commit.clear();
      offset = skipDamage(offset);
      continue;
    }
    // Behind the published end a commit counts only when it is complete.
    commit.emplace_back(frame, inBackup);
    offset = frame.end();
    if (!frame.last && (!hasSlot_ || offset > slot_.end)) continue;
    for (const auto& [part, partInBackup] : commit) takeFrame(part, partInBackup);
    commit.clear();
  }
  return MD_RC_OK;
}

void Salvage::keepNewest() {
  std::stable_sort(events_.begin(), events_.end(), [](const Event& a, const Event& b) {
    return a.place != b.place ? a.place < b.place : a.offset > b.offset;
  });
  std::uint64_t place = 0;
  for (const Event& event : events_) {
    if (event.place == place) continue;
    place = event.place;
    if (!event.removed) records_.push_back(event);
  }
  events_.clear();
}

std::uint32_t Salvage::readRecord(std::size_t number, std::byte* out, std::size_t& size) const {
  const Event& record = records_[number];
  return (record.inBackup ? backup_ : file_)->readRecord(record.offset, out, size);
}

}  // namespace zon
