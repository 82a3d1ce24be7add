// One writer's work on one record file: takes the locks, opens or makes the file, lets records be added, changed and
// removed, commits, and afterwards keeps the file small and its backup near. Whatever is not committed when the object
// goes is gone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/registry/files/file_lock.h"
#include "platform/registry/files/file_paths.h"
#include "platform/registry/format/scratch_record.h"
#include "platform/registry/log/log_writer.h"

namespace zon {

struct WriterSettings {
  FilePaths paths;
  std::uint32_t fileMode = 0666;
  std::uint32_t companionMode = 0666;
  std::uint32_t lockWaitMs = 0;
  bool repairs = true;
  bool keepsBackup = true;
  bool durable = true;
};

class Transaction {
 public:
  Transaction(const RecordType& type, WriterSettings settings);

  // GENREG_RC_NOT_FOUND when there is no file and `create` is false; nothing is made then.
  std::uint32_t begin(bool create);

  std::uint32_t add(unsigned long flags, const void* record);
  std::uint32_t change(unsigned long flags, const void* key, const void* record);
  std::uint32_t remove(unsigned long flags, const void* key, bool all);

  // Makes the work so far durable and visible.
  std::uint32_t commit();
  // In a batch: commits only when so much waits that it should not grow further.
  std::uint32_t commitWhenHeavy();

  std::uint32_t compact();
  // Writes the file anew from what it and its backup hold intact, and keeps the present one as the corrupt copy.
  std::uint32_t repair() { return repair(nullptr); }

  const RecordType& type() const { return type_; }
  const LogView& view() const { return log_->view(); }
  bool hasFile() const { return log_ != nullptr; }
  // GENREG_RC_NO_BATCH in a child that was forked meanwhile: neither the lock nor the descriptors are its own.
  std::uint32_t requireOwner() const { return hasFile() && !data_.isOurs() ? GENREG_RC_NO_BATCH : MD_RC_OK; }
  // The file was written anew because it was damaged.
  bool isRepaired() const { return repaired_; }
  // Records were lost in this, or may have been.
  bool hasMetLoss() const { return hasMetLoss_; }
  // Makes it durable that somebody has taken note of all losses so far.
  std::uint32_t acknowledgeLoss();

 private:
  // Answers one record after the other of what is to be written anew, then GENREG_RC_END_OF_SCAN.
  using RecordSource = std::function<std::uint32_t(std::byte* out, std::size_t& size)>;

  std::uint32_t lockFiles(bool create);
  std::uint32_t openLog();
  std::uint32_t make();
  std::uint32_t keepOrphanedBackup(bool& isKept);
  std::uint32_t mending(const std::function<std::uint32_t()>& work);
  // With a view: the state that it has of the file, which need not be published.
  std::uint32_t repair(const LogView* view);
  std::uint32_t repairBehindChanges();
  std::uint32_t addSized(unsigned long flags, const void* record, std::size_t size);
  std::uint32_t changeSized(unsigned long flags, const void* key, const void* record, std::size_t size);
  std::uint32_t removeFirst(unsigned long flags, const void* key);
  std::uint32_t removeAll(unsigned long flags, const void* key);

  // What is known of the whole keys of the records that are written anew.
  enum class Keys {
    DIFFER,
    REPEAT,
    FIND_OUT,
    MERGE,  // of a key that damage brought back, the later record is the right one
  };

  // What becomes of the present file when a new one takes its name.
  enum class Present { GIVEN_UP, KEPT };

  std::uint32_t lockTemporary(LockedFile& temporary);
  std::uint32_t removeTemporary(const FileState& found);
  bool isLeftUnfinished(const FileState& found);
  LogWriter::Expected liveParts() const;
  std::uint32_t rewrite(const RecordSource& source, const LogWriter::Expected& expected, const format::FileHeader& old,
                        Keys keys, Present present);
  std::uint32_t fill(LogWriter& fresh, const RecordSource& source, Keys keys);
  std::uint32_t takeOverRights(int temporary) const;
  std::uint32_t putInPlace(LockedFile& temporary, const std::string& name);
  std::uint32_t keepAsCorruptCopy(const std::string& name);
  std::uint32_t numberOlderCorruptCopy();

  void maintain();
  bool isTooLarge() const;
  bool isBackupDue() const;
  std::uint32_t updateBackup();
  std::uint32_t extendBackup(int backup);
  std::uint32_t restoreHeader(int backup, const HeaderPage& page) const;
  std::uint32_t makeBackup();
  std::uint32_t copyLog(int backup, std::uint64_t from, std::uint32_t chain);
  std::uint32_t sealBackup(int backup, std::uint64_t sequence);

  const RecordType type_;
  WriterSettings settings_;
  std::uint64_t deadline_;
  BootId boot_{};
  Descriptor directory_;
  LockedFile lock_;
  LockedFile data_;
  std::unique_ptr<LogWriter> log_;
  ScratchRecord scratch_;
  // A change that failed half way, or a commit that failed: nothing that is not durable yet may be taken for done.
  std::uint32_t failure_ = MD_RC_OK;
  bool repaired_ = false;
  bool hasMetLoss_ = false;
  // Of the file that is written anew.
  std::uint64_t acknowledgedLosses_ = 0;
  std::uint64_t commits_ = 0;
};

}  // namespace zon
