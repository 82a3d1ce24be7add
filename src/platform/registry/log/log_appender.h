// Appends frames to the tail of a log, each linked into the lists of its digests. What is appended counts for nobody
// before it is committed.
//
// The rule: whoever fails half way leaves the log as it was, or the frames of a commit without its last one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/registry/log/bloom_filter.h"
#include "platform/registry/log/log_room.h"
#include "platform/registry/log/log_view.h"

namespace zon {

// A record that is to be changed or removed, as it was found.
struct FoundRecord {
  LiveRecord where;
  std::size_t size;
};

class LogAppender {
 public:
  LogAppender(LogParts& log, LogRoom& room) : log_(log), room_(room) {}

  // Each appends one event; finishCommit completes what was appended since the last one.
  [[nodiscard]] std::uint32_t appendInsert(const void* record, std::size_t size);
  // `old` is the record as it was, whose keys may differ from the new one's.
  [[nodiscard]] std::uint32_t appendChange(const FoundRecord& found, const void* old, const void* record,
                                           std::size_t size);
  [[nodiscard]] std::uint32_t appendRemove(const FoundRecord& found, const void* old);
  [[nodiscard]] std::uint32_t finishCommit();

  // A commit of its own: room for index blocks, which is written at once.
  [[nodiscard]] std::uint32_t appendArea(std::uint64_t blockCount);
  [[nodiscard]] std::uint32_t makeRoomForArea(std::uint64_t blockCount, std::uint64_t bytesBehind = 0);

  // Of a log that is being built: digests that it does not have are not looked for. Null for none.
  void skipSearchesBy(BloomFilter* known) { known_ = known; }

  [[nodiscard]] std::uint32_t makeRoomForTail();
  // Puts everything into the file, with zeros behind it. REQUIRES: there is room.
  [[nodiscard]] std::uint32_t writeTail();

  // So much waits in memory that it should be committed, or written, before more is appended.
  bool isHeavy() const;
  bool hasOnlyRemovals() const { return hasOnlyRemovals_; }
  // What is appended from now on belongs to another publication.
  void beginPublication() { hasOnlyRemovals_ = true; }

 private:
  struct ListMark {
    std::size_t index;
    std::uint64_t digest;
    bool operator==(const ListMark&) const = default;
    bool operator<(const ListMark& other) const {
      return index != other.index ? index < other.index : digest < other.digest;
    }
  };
  // What an event is appended with, besides its frame.
  struct Event {
    const Digests& digests;
    const void* record;
    std::size_t size;
    const RecordSizes* old;
  };

  Frame newFrame(format::FrameKind kind, std::uint64_t place) const;
  [[nodiscard]] std::uint32_t appendRemoval(const FoundRecord& found, const Digests& digests);
  [[nodiscard]] std::uint32_t appendEvent(Frame& frame, const Event& event);
  [[nodiscard]] std::uint32_t extendLists(Frame& frame, const Digests& digests, int liveChange);
  [[nodiscard]] std::uint32_t linkInto(std::size_t index, std::uint64_t digest, int liveChange, format::Link& link);
  [[nodiscard]] std::uint32_t findBelow(Frame& frame) const;
  [[nodiscard]] std::uint32_t appendSummary(const ListMark& mark);
  [[nodiscard]] std::uint32_t sizesOf(const FoundRecord& found, RecordSizes& sizes) const;
  std::uint64_t nextBlocksOffset() const;

  LogParts& log_;
  LogRoom& room_;
  BloomFilter* known_ = nullptr;
  bool hasOnlyRemovals_ = true;  // what is appended since the newest slot, which may then use the room for removals
  bool isBuilding_ = false;      // a commit, of which `last_` is the newest frame
  Frame last_;
  std::vector<ListMark> longLists_;
  std::vector<std::byte> payload_;
};

}  // namespace zon
