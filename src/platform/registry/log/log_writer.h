// Appends to a log and publishes what was appended. The owner holds the file's lock.
//
// Before anything of its own is written, `open` settles what lies behind the published end: what another run of the
// machine left there is taken in and published, what this run left is wiped. After that everything behind the end is
// zero, on the disk too.
//
// Order of a commit, and what each step is for: (1) the frames and the zeros behind them are written; (2) one sync
// makes them durable, and with them everything written since the sync before: the last slot and the last index blocks;
// (3) the slot is written, which shows the commit to readers; (4) now and then the slot's overlay, or what the slot had
// no room for, is carried over to the index blocks, and the slot says so. Blocks may lag behind, because every reader
// looks at the overlay first, and walks the frames from indexedEnd on; they never run ahead of the slot, so that a
// commit which is discarded has no entry in them. Steps 3 and 4 need no sync of their own, but where the slot had no
// room for all heads, or a new mount would not be noticed: a crash of the machine that loses them leaves a durable
// commit behind the slot's end, which the next opening takes in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/registry/log/log_view.h"

namespace zon {

// A record that is to be changed or removed, as it was found.
struct FoundRecord {
  LiveRecord where;
  std::size_t size;
};

// Which digests a log being built may hold already, in bounded memory: a wrong yes costs one look-up, a no is certain.
class SeenDigests {
 public:
  void expect(std::uint64_t digests);

  // Notes the digest; answers whether it may have been noted before.
  bool note(std::uint64_t digest);

 private:
  std::vector<std::uint64_t> bits_;
};

class LogWriter : public LogView {
 public:
  // Without `durable` no commit is synced: a crash of the machine may then cost commits, and damage the file.
  LogWriter(const RecordType& type, const RunId& run, bool durable) : LogView(type), run_(run), durable_(durable) {}

  // What the log holds, with all that was appended.
  const LogView& view() const { return *this; }

  // What a new log is going to hold; too little does no harm.
  struct Expected {
    std::uint64_t records = 0;
    std::uint64_t bytes = 0;  // of their frames
  };

  // Begins a new log in an empty file, with room for so much.
  std::uint32_t create(int file, const format::FileHeader& header, const Expected& expected);

  // Opens the log and settles it: what lies behind its end is taken in after a crash, and discarded in the same run.
  std::uint32_t open(int file, std::uint64_t fileSize);

  // Each appends one event; finishCommit completes what was appended since the last one, and only then does it count.
  std::uint32_t appendInsert(const void* record, std::size_t size);
  // `old` is the record as it was, whose keys may differ from the new one's.
  std::uint32_t appendChange(const FoundRecord& found, const void* old, const void* record, std::size_t size);
  std::uint32_t appendRemove(const FoundRecord& found, const void* old);
  std::uint32_t finishCommit();

  // Damage that the file's last writer might not repair keeps it from being written anew or backed up.
  bool isUpkeepBlocked() const { return (slot_.flags & format::SLOT_UPKEEP_BLOCKED) != 0; }
  void noteUpkeepBlocked(bool isBlocked);

  void setNotUnique() { slot_.flags |= format::SLOT_NOT_UNIQUE; }

  // A power cut may give the file's name back to what stood there before. A new file says so until its directory was
  // synced.
  bool isNameUnsynced() const { return (slot_.flags & format::SLOT_NAME_UNSYNCED) != 0; }
  void setNameSynced() { slot_.flags &= ~format::SLOT_NAME_UNSYNCED; }

  // Of a file that is written anew, just before finish(): how many commits there were, this one included.
  void setCommits(std::uint64_t commits) { slot_.commits = commits; }
  void setAcknowledgedLosses(std::uint64_t losses) { slot_.acknowledgedLosses = losses; }
  // Takes note, durably, of all losses that the header counts. REQUIRES: nothing is dirty.
  std::uint32_t acknowledgeLosses();

  // Something was appended that is not published.
  bool isDirty() const { return end_ != published_.end; }
  // So much waits in memory that it should be committed, or written, before more is appended.
  bool isHeavy() const;

  // Makes everything appended durable and visible. After a failure the log is as it was at the last commit and this
  // object must not be used any more.
  std::uint32_t commit();

  // For a log in a file that nobody sees yet: writes out what waits, without a sync.
  std::uint32_t spill();
  // Completes such a log: everything is on the disk when it answers 0.
  std::uint32_t finish();

  std::uint64_t fileSize() const { return fileSize_; }
  // Bytes that writing the log anew would give back.
  std::uint64_t deadBytes() const;
  std::uint64_t areaBytes() const;
  bool isIndexFull() const;
  // Removals have used half of what was left to them: the disk, or the process's limit, gives no more.
  bool isShortOfRoom() const;
  // The last commit is published, and its heads found no place because of damage.
  bool isIndexDamaged() const { return isIndexDamaged_; }
  // Notes in the published slot how far the backup reaches.
  void republish(std::uint64_t backupEnd);

 private:
  struct ChainMark {
    std::size_t index;
    std::uint64_t digest;
  };

  std::uint32_t restoreHeaders(const HeaderPage& page);
  std::uint32_t discardUnpublished();
  std::uint32_t takeInUnpublished(bool mayBeTorn);
  std::uint32_t writeAgain(std::uint64_t from, std::uint64_t to) const;
  std::uint32_t isZeroFrom(std::uint64_t offset, bool& isZero) const;
  // Zeros from offset to the end of the file.
  std::uint32_t wipeFrom(std::uint64_t offset) const;
  std::uint32_t appendEvent(Frame& frame, const void* record, std::size_t size, const Sizes* old);
  std::uint32_t extendChains(Frame& frame, const void* record, int liveChange);
  std::uint32_t findBelow(Frame& frame) const;
  std::uint32_t appendSummary(const ChainMark& mark);
  std::uint32_t appendArea(std::uint64_t blockCount);
  std::uint32_t sizesOf(const FoundRecord& found, Sizes& sizes) const;

  std::size_t mergedOverlaySize() const;
  bool needsApply(std::size_t entries) const;
  std::uint32_t makeRoomInIndex(std::size_t entries);
  std::vector<format::OverlayEntry> mergedOverlay() const;
  std::uint32_t applyToBlocks(const std::vector<format::OverlayEntry>& entries);
  std::uint32_t placeEntries(std::vector<format::OverlayEntry> entries, bool& isFull);
  std::uint32_t growIndex();
  std::uint32_t flushPending();
  std::uint64_t touchedSize() const;
  std::uint32_t ensureFileSize(std::uint64_t size);
  std::uint64_t nextBlocksOffset() const;
  std::uint32_t makeRoomForArea(std::uint64_t blockCount, std::uint64_t bytesBehind = 0);
  std::uint32_t growTo(std::uint64_t size);
  void cutReserve();
  std::uint32_t publish(const std::vector<format::OverlayEntry>& overlay, std::size_t applied);
  std::uint32_t writeSlot(format::Slot& slot);
  std::uint32_t publishSlot();
  std::uint32_t publishCommitted();
  std::uint32_t applyPublished();
  std::uint32_t syncPublished();
  std::uint32_t settlePublished(std::uint64_t commitSize);
  std::uint32_t commitAppended();
  // False when what was not published may still be found by the next writer.
  bool takeBack();
  std::uint32_t clearBehind();
  std::uint32_t unmark() const;
  void setOverlay(const std::vector<format::OverlayEntry>& overlay, std::size_t applied);

  std::uint32_t sync() const { return durable_ ? syncData(file_) : MD_RC_OK; }

  RunId run_;
  bool durable_;
  SeenDigests seen_;
  bool fresh_ = false;        // create() began this log; nothing of it is published
  format::Slot published_{};  // the newest slot in the file
  bool newestIsDurable_ = false;
  bool hasWritten_ = false;  // something of what is being committed
  bool isIndexDamaged_ = false;
  std::uint64_t fileSize_ = 0;
  bool removesOnly_ = true;  // what is appended since the newest slot, which may then use the room for removals
  Frame last_;               // the newest frame of the commit being built
  bool building_ = false;
  std::vector<ChainMark> longChains_;
  std::vector<std::byte> payload_;
};

}  // namespace zon
