// One committed state of a record file, to look records up in. A view keeps seeing its state whatever is appended to
// the file meanwhile: what lies at or behind end() does not exist for it.
//
// Every digest has one chain: all events of the records with that digest, newest first. An event is an insertion,
// change or removal; of the events of one place the newest one counts.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

#include "platform/registry/files/bad_sectors.h"
#include "platform/registry/files/file_io.h"
#include "platform/registry/format/frame.h"
#include "platform/registry/format/record_type.h"
#include "platform/registry/log/file_header.h"
#include "platform/registry/log/index_blocks.h"

namespace zon {

// The first bytes of a frame, read in one go: all of it for most records.
struct FrameBytes {
  std::array<std::byte, 1024> bytes;
  std::size_t got = 0;

  std::span<const std::byte> all() const { return std::span(bytes).first(got); }
};

// Where the newest form of the record at a place lies.
struct LiveRecord {
  std::uint64_t place;
  std::uint64_t offset;
};

class LogView;

// How much one search may read. Frames do not overlap, and each is in one chain of an index, so that together those
// that a search meets are no longer than the log: a file in which they are was forged to cost time.
class ReadAllowance {
 public:
  // A reader beside a writer, and a writer that goes on after one that died, may meet a frame once for each segment.
  explicit ReadAllowance(const LogView& view, std::uint64_t readsOfAFrame = format::MAX_SEGMENTS);

  // GENREG_RC_DAMAGED when this frame is one too many.
  std::uint32_t charge(const Frame& frame);

 private:
  const LogView& view_;
  std::uint64_t readsOfAFrame_;
  std::uint64_t left_;
  bool isRaised_ = false;
};

class LogView {
 public:
  explicit LogView(const RecordType& type) : type_(type) {}
  LogView(const LogView&) = delete;
  LogView& operator=(const LogView&) = delete;

  // Reads the header and chooses the newest published state. When the machine was started anew since then, or the file
  // system mounted anew, complete commits that lie behind it are made durable and taken in. The descriptor stays the
  // caller's and must outlive the view.
  std::uint32_t open(int file);

  const RecordType& type() const { return type_; }
  const format::FileHeader& header() const { return header_; }
  const format::Slot& slot() const { return slot_; }
  const FrameKey& key() const { return key_; }
  std::uint64_t end() const { return end_; }
  int file() const { return file_; }
  std::uint64_t records() const { return slot_.records; }
  // The end of the log that is not in the file yet, and where it begins.
  std::span<const std::byte> waiting() const { return pending_; }
  std::uint64_t waitingFrom() const { return pendingStart_; }
  bool isUnique() const { return (slot_.flags & format::SLOT_NOT_UNIQUE) == 0; }

  // Bytes of the log, written to the file or not; fewer than asked for at its end.
  std::uint32_t read(std::uint64_t offset, std::span<std::byte> range, std::size_t& got) const;

  // Reads the head of the frame at offset, and as many bytes behind it as there is room for.
  std::uint32_t readHead(std::uint64_t offset, FrameBytes& bytes, Frame& frame) const;

  // Copies the record of a frame to out, which holds type().maxSize bytes; size tells its true size.
  std::uint32_t readRecord(const Frame& frame, std::span<const std::byte> first, std::byte* out,
                           std::size_t& size) const;
  std::uint32_t readRecord(std::uint64_t offset, std::byte* out, std::size_t& size) const;
  // The same of a record that an index offered: one of many, or of those that a summary names.
  std::uint32_t readLive(const LiveRecord& record, ReadAllowance& allowance, std::byte* out, std::size_t& size) const;

  // Of a record that was not wanted after all, nothing stays in the caller's buffer.
  void wipe(std::byte* out, std::size_t size) const { std::memset(out, 0, std::min(size, type_.maxSize)); }

  // Reads what follows a frame's head, index blocks included, only to check it.
  std::uint32_t verifyPayload(const Frame& frame, std::span<const std::byte> first) const;

  std::uint32_t verifyBlocks(const format::AreaBody& area) const;

  // Follows the chain of the whole key to the live record that matches, for files in which whole keys are unique.
  std::uint32_t findByWholeKey(unsigned long flags, const void* key, std::byte* out, LiveRecord& found,
                               std::size_t& size) const;

  // The live records, in scan order, that an index offers for a digest; all others are known not to match.
  std::uint32_t gather(std::size_t index, std::uint64_t digest, std::vector<LiveRecord>& live) const;

  // The same of the one chain that starts at a frame.
  std::uint32_t gatherChain(std::size_t index, std::uint64_t head, std::vector<LiveRecord>& live) const;

  std::uint64_t digestOf(std::size_t index, const void* record) const {
    return type_.digestFor(index, record, header_.hashSeed);
  }

  // The newest frame in the chain of a digest; 0 without one.
  std::uint32_t headOf(std::size_t index, std::uint64_t digest, std::uint64_t& head) const;

  // The checksum of the frame that ends at offset, as the frame behind it tells; 0 when there is no frame behind it.
  std::uint32_t chainAt(std::uint64_t offset) const;

  // Whether the frame at offset has none before it in its chain.
  std::uint32_t startsChain(std::size_t index, std::uint64_t offset, bool& result) const;

  // The first of the targets, which fall, that the chain which starts at `from` runs through; 0 when it misses all.
  std::uint32_t chainReaches(std::size_t index, std::uint64_t from, std::span<const std::uint64_t> targets,
                             ReadAllowance& allowance, std::uint64_t& reached) const;

 protected:
  // Chooses the slot and the checksum key from a header page.
  std::uint32_t takePage(const HeaderPage& page);
  // Looks for the key in the chain that starts at a frame.
  std::uint32_t followWholeKey(std::uint64_t head, unsigned long flags, const void* key, ReadAllowance& allowance,
                               std::byte* out, LiveRecord& found, std::size_t& size) const;
  // Reads the head of a frame that a chain leads to, which ends at or before `above`, the frame that led there.
  std::uint32_t readBelow(std::uint64_t offset, std::uint64_t above, FrameBytes& bytes, Frame& frame) const;
  bool findNewHead(std::size_t index, std::uint64_t digest, std::uint64_t& head) const;
  // What a removal frame tells of the record that is gone.
  using RemovedDigests = std::array<std::uint64_t, format::MAX_INDEXES>;
  std::uint32_t readRemovedDigests(const Frame& frame, std::span<const std::byte> first, RemovedDigests& digests) const;
  std::uint32_t hasDigest(std::uint64_t offset, std::size_t index, std::uint64_t digest, ReadAllowance& allowance,
                          bool& result) const;
  // All events of a chain, in any order; of a removal the offset has its lowest bit set.
  std::uint32_t walkChain(std::size_t index, std::uint64_t head, std::vector<LiveRecord>& events) const;
  std::uint32_t readSummary(const Frame& frame, std::vector<LiveRecord>& events) const;

  std::uint32_t openOnce(bool& isSettled);
  std::uint32_t takeIn(bool isOtherRun, bool& isSettled);
  // Takes over the heads that neither overlay nor blocks lead to yet.
  std::uint32_t takeUnindexed();
  std::uint32_t takeHeads(const Frame& frame, const FrameBytes& bytes, std::vector<std::byte>& record);
  void forgetNewHeads();
  std::uint32_t tailIsClean(bool& clean) const;
  // Takes all valid commits behind end() into the state.
  std::uint32_t rollForward();
  // The frames of the commit at end(); none when there is no valid one.
  std::uint32_t readCommit(std::vector<Frame>& frames) const;
  std::uint32_t takeCommit(const std::vector<Frame>& frames);
  std::uint32_t takeFrame(const Frame& frame, std::vector<std::byte>& record);
  // Takes a frame that was just put at end(). Of a change or removal, `old` tells the size of what it replaces.
  struct Sizes {
    std::uint64_t record = 0;
    std::uint64_t frame = 0;
  };
  void takeEvent(const Frame& frame, const void* record, std::size_t recordSize, const Sizes* old);
  // The slot's counts are no smaller than what is to be taken from them.
  bool countsCover(const Sizes& old) const;
  void takeHead(std::size_t index, std::uint64_t digest, std::uint64_t offset) {
    newHeads_[index][digest] = offset;
    foundHead_.reset();
  }
  std::size_t newHeadCount() const;
  // The form of the record that a change or removal frame replaces; `found` false when it starts a chain of its own.
  std::uint32_t findOlder(const Frame& event, FrameBytes& bytes, Frame& older, bool& found) const;

  const RecordType& type_;
  int file_ = -1;
  BadSectors* badSectors_ = nullptr;  // set by who wants to read around them
  format::FileHeader header_;
  format::Slot slot_;  // its counts are kept up to date; its overlay and segments are what the file's index covers
  FrameKey key_;
  std::uint64_t end_ = format::LOG_START;
  // Heads newer than the slot's overlay, by index: digest -> offset.
  std::array<std::unordered_map<std::uint64_t, std::uint64_t>, format::MAX_INDEXES> newHeads_;
  // What the last search by whole key found out: the newest frame in the chain of its digest, 0 when there is no chain.
  // A change follows the search for what it changes, and need not search once more. Good until an event is added.
  struct FoundHead {
    std::uint64_t digest;
    std::uint64_t offset;
  };
  mutable std::optional<FoundHead> foundHead_;
  // What looking for the older forms of all changes that are taken in may read together.
  mutable std::optional<ReadAllowance> lookingBack_;
  // The tail of the log that is not in the file yet.
  std::vector<std::byte> pending_;
  std::uint64_t pendingStart_ = format::MAX_OFFSET;
};

}  // namespace zon
