// A commit is read twice: once to see whether it is complete, and once to be taken.
//
// The rule: as roll_forward.h says; every loop goes up to where the log, or a commit, is known to end.
#include "platform/registry/log/roll_forward.h"

#include <algorithm>
#include <array>
#include <vector>

#include "platform/registry/files/file_io.h"
#include "platform/registry/log/file_header.h"
#include "platform/registry/log/index_blocks.h"

namespace zon {

namespace {

// The older form of a record is the first or second frame below it in its list, unless whole keys come more than once.
constexpr std::uint64_t READS_LOOKING_BACK = 2;

class RollForward {
 public:
  explicit RollForward(LogParts& log)
      : bytes_(log.bytes),
        state_(log.state),
        record_(log.bytes.type().maxSize),
        allowance_(log.bytes.file(), log.state.end(), READS_LOOKING_BACK) {}

  // Takes the commit at the end; false when there is no complete one.
  Answer<bool> takeCommit() {
    const Answer<std::uint64_t> commitEnd = endOfCommit();
    if (commitEnd.rc != MD_RC_OK || commitEnd.value == 0) return {.rc = commitEnd.rc};
    while (state_.end() < commitEnd.value) {
      if (const std::uint32_t rc = takeFrame()) return {.rc = rc};
    }
    ++state_.slot().commits;
    return {.value = true};
  }

 private:
  // 0 when a frame fails before the last one of the commit.
  Answer<std::uint64_t> endOfCommit() const {
    FrameBytes bytes;
    Frame frame;
    std::uint32_t chain = state_.slot().chain;
    for (std::uint64_t offset = state_.end();; offset = frame.end()) {
      std::uint32_t rc = bytes_.readFrame(offset, bytes, frame);
      if (rc == MD_RC_OK && frame.chain != chain) rc = GENREG_RC_DAMAGED;
      if (rc == MD_RC_OK) rc = bytes_.verifyPayload(frame, bytes.all());
      if (rc == GENREG_RC_DAMAGED) return {};
      if (rc != MD_RC_OK) return {.rc = rc};
      if (frame.last) return {.value = frame.end()};
      chain = frame.crc;
    }
  }

  std::uint32_t takeFrame() {
    FrameBytes bytes;
    Frame frame;
    if (const std::uint32_t rc = bytes_.readFrame(state_.end(), bytes, frame)) return rc;
    if (frame.kind == format::FrameKind::AREA) {
      if (segmentCount(state_.slot()) == format::MAX_SEGMENTS) return GENREG_RC_DAMAGED;
      state_.takeArea(frame);
      return MD_RC_OK;
    }
    if (frame.kind == format::FrameKind::SUMMARY) {
      state_.takeSummary(frame);
      return MD_RC_OK;
    }
    return takeEvent(frame, bytes);
  }

  std::uint32_t takeEvent(const Frame& frame, const FrameBytes& bytes) {
    RecordSizes old;
    bool replaces = false;
    std::size_t size = 0;
    if (frame.kind != format::FrameKind::INSERT) {
      FrameBytes olderBytes;
      Frame older;
      const Answer<bool> found = findOlder(frame, olderBytes, older);
      if (found.rc != MD_RC_OK) return found.rc;
      replaces = found.value;
      if (!replaces && frame.kind == format::FrameKind::REMOVE) return GENREG_RC_DAMAGED;
      if (replaces) {
        if (const std::uint32_t rc = bytes_.readRecord(older, olderBytes.all(), record_.data(), size)) return rc;
        old = RecordSizes{.record = size, .frame = older.size};
      }
    }
    if (frame.isRecord()) {
      if (const std::uint32_t rc = bytes_.readRecord(frame, bytes.all(), record_.data(), size)) return rc;
      if (!replaces) {
        if (const std::uint32_t rc = noteRepeatedKey(frame)) return rc;
      }
    }
    if (replaces && !state_.countsCover(old)) return GENREG_RC_DAMAGED;
    state_.takeEvent(frame, state_.digestsOf(record_.data()), size, replaces ? &old : nullptr);
    return MD_RC_OK;
  }

  // The note that whole keys come more than once may be lost with the slot: assume it of a key that lives already.
  std::uint32_t noteRepeatedKey(const Frame& frame) {
    if (frame.previous == 0) return MD_RC_OK;
    FrameBytes bytes;
    Frame older;
    if (const std::uint32_t rc = bytes_.readFrame(frame.previous, bytes, older)) return rc;
    if (older.isRecord()) state_.slot().flags |= format::SLOT_NOT_UNIQUE;
    return MD_RC_OK;
  }

  // The form of the record that a change or removal replaces; false when it starts a list of its own.
  Answer<bool> findOlder(const Frame& event, FrameBytes& bytes, Frame& older) {
    for (std::uint64_t offset = event.previous; offset >= event.place && offset != 0; offset = older.previous) {
      if (const std::uint32_t rc = bytes_.readFrame(offset, bytes, older)) return {.rc = rc};
      if (const std::uint32_t rc = allowance_.charge(older)) return {.rc = rc};
      if (older.isEvent() && older.place == event.place) return {.value = older.isRecord()};
    }
    return {};
  }

  const LogBytes& bytes_;
  LogState& state_;
  std::vector<std::byte> record_;
  // What looking for the older forms of all changes that are taken may read together.
  ReadAllowance allowance_;
};

std::uint32_t takeHeads(LogParts& log, const Frame& frame, const FrameBytes& bytes, std::vector<std::byte>& record) {
  if (frame.kind == format::FrameKind::SUMMARY) log.state.takeSummaryHead(frame);
  if (!frame.isEvent()) return MD_RC_OK;
  Digests digests{};
  if (frame.isRecord()) {
    record.resize(log.bytes.type().maxSize);
    std::size_t size = 0;
    if (const std::uint32_t rc = log.bytes.readRecord(frame, bytes.all(), record.data(), size)) return rc;
    digests = log.state.digestsOf(record.data());
  } else {
    if (const std::uint32_t rc = log.bytes.readRemovedDigests(frame, bytes.all(), digests)) return rc;
  }
  log.state.takeHeads(digests, frame.offset);
  return MD_RC_OK;
}

}  // namespace

std::uint32_t beginWithPage(LogParts& log, int file, const HeaderPage& page) {
  if (!isHeaderOf(page.header, log.bytes.type())) return GENREG_RC_WRONG_RECORD_TYPE;
  log.bytes.open(file, page.header.fileId);
  // A slot that fails its checksum is being written, or was when the machine stopped; one that stays so is damage.
  if (!page.hasSlot()) return GENREG_RC_DAMAGED;
  log.state.begin(page.header, page.slots[page.newest()]);
  return MD_RC_OK;
}

std::uint32_t takeUnindexed(LogParts& log) {
  std::vector<std::byte> record;
  FrameBytes bytes;
  Frame frame;
  for (std::uint64_t offset = log.state.slot().indexedEnd; offset < log.state.end(); offset = frame.end()) {
    if (const std::uint32_t rc = log.bytes.readFrame(offset, bytes, frame)) return rc;
    if (const std::uint32_t rc = takeHeads(log, frame, bytes, record)) return rc;
  }
  return MD_RC_OK;
}

std::uint32_t rollForward(LogParts& log) {
  RollForward forward(log);
  for (;;) {
    const Answer<bool> taken = forward.takeCommit();
    if (taken.rc != MD_RC_OK || !taken.value) return taken.rc;
  }
}

Answer<bool> isTailZero(const LogParts& log) {
  std::array<std::byte, format::TERMINATOR_SIZE> tail;
  std::size_t got = 0;
  const int file = log.bytes.file();
  if (const std::uint32_t rc = readAt(file, log.state.end(), tail, got)) return {.rc = rc};
  if (got == 0) {
    // Nothing behind the end; what is before it must be there.
    if (const std::uint32_t rc = readAt(file, log.state.end() - 1, std::span(tail).first(1), got)) return {.rc = rc};
    return got == 0 ? Answer<bool>{.rc = GENREG_RC_DAMAGED} : Answer<bool>{.value = true};
  }
  return {.value = std::all_of(tail.begin(), tail.begin() + static_cast<std::ptrdiff_t>(got),
                               [](std::byte byte) { return byte == std::byte{0}; })};
}

}  // namespace zon
