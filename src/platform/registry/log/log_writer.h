// A writer's log: appends to it, and publishes what was appended. The owner holds the file's lock.
//
// The rule: nothing but the parts it is made of; each call leads to one of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/registry/log/log_appender.h"
#include "platform/registry/log/log_builder.h"
#include "platform/registry/log/log_committer.h"
#include "platform/registry/log/log_room.h"
#include "platform/registry/log/log_view.h"
#include "platform/registry/log/slot_writer.h"

namespace zon {

class LogWriter {
 public:
  // Without `durable` no commit is synced: a crash of the machine may then cost commits, and damage the file.
  LogWriter(const RecordType& type, const RunId& run, bool durable)
      : log_(type),
        slots_(log_.state, run, durable),
        appender_(log_, room_),
        committer_(log_, room_, slots_, appender_) {}
  LogWriter(const LogWriter&) = delete;
  LogWriter& operator=(const LogWriter&) = delete;

  // What the log holds, with all that was appended.
  const LogView& view() const { return log_.view; }

  // Opens the log, recovered from whatever happened to the writer before.
  [[nodiscard]] std::uint32_t open(int file, std::uint64_t fileSize);

  // ---- A log in a file that nobody sees yet.

  using Expected = ExpectedRecords;
  // Begins a new log in an empty file, with room for so much.
  [[nodiscard]] std::uint32_t create(int file, const format::FileHeader& header, const Expected& expected);
  // Writes out what waits, without a sync.
  [[nodiscard]] std::uint32_t spill() { return builder_->spill(); }
  // Just before finish(): how many commits there were in the file's history, this one included.
  void setCommits(std::uint64_t commits) { log_.state.slot().commits = commits; }
  void setAcknowledgedLosses(std::uint64_t losses) { log_.state.slot().acknowledgedLosses = losses; }
  // Everything is on the disk when it answers 0, and the log may be written to like any other.
  [[nodiscard]] std::uint32_t finish();

  // ---- Changes.

  // Each appends one event; finishCommit completes what was appended since the last one, and only then does it count.
  [[nodiscard]] std::uint32_t appendInsert(const void* record, std::size_t size) {
    return appender_.appendInsert(record, size);
  }
  // `old` is the record as it was, whose keys may differ from the new one's.
  [[nodiscard]] std::uint32_t appendChange(const FoundRecord& found, const void* old, const void* record,
                                           std::size_t size) {
    return appender_.appendChange(found, old, record, size);
  }
  [[nodiscard]] std::uint32_t appendRemove(const FoundRecord& found, const void* old) {
    return appender_.appendRemove(found, old);
  }
  [[nodiscard]] std::uint32_t finishCommit() { return appender_.finishCommit(); }

  void setNotUnique() { log_.state.slot().flags |= format::SLOT_NOT_UNIQUE; }
  // A power cut may give the file's name back to what stood there before. A new file says so until its directory was
  // synced.
  bool isNameUnsynced() const { return (log_.state.slot().flags & format::SLOT_NAME_UNSYNCED) != 0; }
  void setNameSynced() { log_.state.slot().flags &= ~format::SLOT_NAME_UNSYNCED; }

  // Damage that the file's last writer might not repair keeps it from being written anew or backed up.
  bool isUpkeepBlocked() const { return (log_.state.slot().flags & format::SLOT_UPKEEP_BLOCKED) != 0; }

  // ---- Commits: see LogCommitter.

  bool isDirty() const { return committer_.isDirty(); }
  bool isHeavy() const { return appender_.isHeavy(); }
  // Makes everything appended durable and visible. After a failure the log is as it was at the last commit and this
  // object must not be used any more.
  [[nodiscard]] std::uint32_t commit() { return committer_.commit(); }
  [[nodiscard]] std::uint32_t acknowledgeLosses() { return committer_.acknowledgeLosses(); }
  void republish(std::uint64_t backupEnd) { committer_.republish(backupEnd); }
  void noteUpkeepBlocked(bool isBlocked) { committer_.noteUpkeepBlocked(isBlocked); }
  bool isIndexDamaged() const { return committer_.isIndexDamaged(); }

  // ---- Space.

  std::uint64_t fileSize() const { return room_.fileSize(); }
  // Bytes that writing the log anew would give back.
  std::uint64_t deadBytes() const;
  std::uint64_t areaBytes() const;
  bool isIndexFull() const;
  bool isShortOfRoom() const { return room_.isShort(log_.state.end()); }

 private:
  LogParts log_;
  LogRoom room_;
  SlotWriter slots_;
  LogAppender appender_;
  LogCommitter committer_;
  std::optional<LogBuilder> builder_;  // as long as nobody sees the file
};

}  // namespace zon
