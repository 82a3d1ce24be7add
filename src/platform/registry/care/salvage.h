// What can still be read of a damaged record file, filled up from its backup.
//
// The rule: nothing is changed, and nothing older is given for the newest form. File and backup of one generation (file
// id) hold the same bytes at the same offsets, so that a frame that is damaged in one can be taken from the other. A
// backup of another generation serves only when nothing of the file can be read.
//
// Where the log ends is known when its newest slot is: both slots pass their checksums, or the caller has a view of it.
// Else it is known when the frames lead to the zeros behind a log; and when the machine was started anew since one of
// the slots was written, because a power cut may tear the other one and an unacknowledged commit. In all other cases
// there may have been more, and that counts as a loss.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <utility>

#include "platform/registry/care/raw_log.h"
#include "platform/registry/files/file_io.h"
#include "platform/registry/log/file_header.h"
#include "platform/registry/log/log_view.h"

namespace zon {

// What is wrong with the file may be helped by salvage.
inline bool isDamage(std::uint32_t rc) {
  return rc == GENREG_RC_DAMAGED || rc == GENREG_RC_NOT_RECORD_FILE || rc == RC_UNREADABLE;
}

class Salvage {
 public:
  // Who reads: a writer holds the file's lock; beside a reader, writers may be at work.
  enum class Access { LOCKED, SHARED };

  explicit Salvage(const RecordType& type, Access access) : type_(type), access_(access) {}

  // Reads both files through; a descriptor of -1 stands for a file that is not there. A caller who has a view of the
  // file gets that very state of it. GENREG_RC_NOT_RECORD_FILE and GENREG_RC_NEWER_FORMAT when there is nothing to
  // salvage, GENREG_RC_IO_ERROR when the device gives nothing.
  [[nodiscard]] std::uint32_t open(int file, int backup, const LogView* state = nullptr);

  // A writer published something while the files were read through: what was found may be of a commit that is not
  // durable, and is to be read anew.
  bool isOvertaken(int file) const;

  // Keeps a descriptor that open was given for as long as this object.
  void keepBackupOpen(Descriptor backup) { backupDescriptor_ = std::move(backup); }

  // In scan order.
  std::size_t count() const { return records_.size(); }
  [[nodiscard]] std::uint32_t readRecord(std::size_t number, std::byte* out, std::size_t& size) const;

  // Of the frames that hold them, which are no smaller when the records are inserted anew.
  std::uint64_t frameBytes() const;

  std::uint64_t placeOf(std::size_t number) const { return records_[number].place; }

  // Bytes of the log that neither file has intact, and that may have held records.
  std::uint64_t lostBytes() const { return lostBytes_; }
  // Nothing that was lost can be a newer form of this record, or its removal.
  bool isNewestForm(std::size_t number) const { return lostBytes_ == 0 || records_[number].offset >= lossEnd_; }
  // The file is known to hold several records of one whole key.
  bool hasRepeatedKeys() const { return hasSlot_ && (slot_.flags & format::SLOT_NOT_UNIQUE) != 0; }
  const format::FileHeader& header() const { return header_; }
  std::uint64_t acknowledgedLosses() const { return hasSlot_ ? slot_.acknowledgedLosses : 0; }
  // No fewer commits than the file has had, as far as a slot tells: behind it, each took a frame at least.
  std::uint64_t mostCommits() const;
  // Frames that had to be taken from the backup.
  std::uint64_t fromBackup() const { return fromBackup_; }

 private:
  struct Event {
    std::uint64_t place;
    std::uint64_t offset;
    std::uint32_t size;
    bool removed;
    bool inBackup;
  };

  [[nodiscard]] std::uint32_t identify(int file, int backup);
  void chooseEnd(const HeaderPage* backupPage);
  void takeStateOf(const LogView& view);
  bool tellsOtherHistory(const HeaderPage& filePage, const HeaderPage& backupPage) const;
  std::uint32_t failure() const;
  [[nodiscard]] std::uint32_t walk();
  void takeFrame(const Frame& frame, bool inBackup);
  bool frameAt(std::uint64_t offset, Frame& frame, bool& inBackup) const;
  bool isPastEnd(std::uint64_t offset) const;
  std::uint64_t skipDamage(std::uint64_t offset);
  bool endsAt(std::uint64_t offset) const;
  std::uint64_t endOfKnownArea(std::uint64_t offset) const;
  void keepNewest();

  const RecordType& type_;
  const Access access_;
  format::FileHeader header_{};
  HeaderPage filePage_{};
  bool fileHasHeader_ = false;
  format::Slot slot_{};
  bool hasSlot_ = false;
  bool isEndKnown_ = false;  // by the file's own slots
  bool isSameRun_ = false;   // in which the file's newest slot was written
  bool takesBehind_ = true;  // complete commits behind the published end count
  Descriptor backupDescriptor_;
  std::unique_ptr<RawLog> file_;
  std::unique_ptr<RawLog> backup_;
  // In pieces: a vector that grows would hold most of them twice.
  std::deque<Event> events_;
  std::deque<Event> records_;
  std::uint64_t lostBytes_ = 0;
  std::uint64_t lossEnd_ = 0;
  std::uint64_t fromBackup_ = 0;
};

}  // namespace zon
