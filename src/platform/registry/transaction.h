// The writer's session: takes the locks, opens or makes the record file, lets records be added, changed and removed,
// and commits. What it has damaged repaired, and kept small and backed up, is the work of care/.
//
// The rule: whatever is not committed when the object goes is gone. Work that meets damage is done once more on the
// repaired file, and a session repairs once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/registry/care/upkeep.h"
#include "platform/registry/care/writer_files.h"
#include "platform/registry/format/scratch_record.h"
#include "platform/registry/log/log_writer.h"

namespace zon {

class Transaction {
 public:
  Transaction(const RecordType& type, WriterSettings settings);

  // GENREG_RC_NOT_FOUND when there is no file and `create` is false; nothing is made then.
  [[nodiscard]] std::uint32_t begin(bool create);

  [[nodiscard]] std::uint32_t add(unsigned long flags, const void* record);
  [[nodiscard]] std::uint32_t change(unsigned long flags, const void* key, const void* record);
  [[nodiscard]] std::uint32_t remove(unsigned long flags, const void* key, bool all);

  // Makes the work so far durable and visible.
  [[nodiscard]] std::uint32_t commit();
  // In a batch: commits only when so much waits that it should not grow further.
  [[nodiscard]] std::uint32_t commitWhenHeavy();

  [[nodiscard]] std::uint32_t compact() { return compactWithBackup(files_, log_); }
  // Writes the file anew from what it and its backup hold intact, and keeps the present one as the corrupt copy.
  [[nodiscard]] std::uint32_t repair() { return repair(nullptr); }

  const RecordType& type() const { return files_.type; }
  const LogView& view() const { return log_->view(); }
  bool hasFile() const { return log_ != nullptr; }
  // GENREG_RC_NO_BATCH in a child that was forked meanwhile: neither the lock nor the descriptors are its own.
  [[nodiscard]] std::uint32_t requireOwner() const {
    return hasFile() && !files_.data.isOurs() ? GENREG_RC_NO_BATCH : MD_RC_OK;
  }
  // The file was written anew because it was damaged.
  bool isRepaired() const { return repaired_; }
  // Records were lost in this, or may have been.
  bool hasMetLoss() const { return hasMetLoss_; }
  // Makes it durable that somebody has taken note of all losses so far.
  [[nodiscard]] std::uint32_t acknowledgeLoss();

 private:
  [[nodiscard]] std::uint32_t lockFiles(bool create);
  [[nodiscard]] std::uint32_t openLog();
  [[nodiscard]] std::uint32_t syncName();
  void doUpkeepOrRepair();
  bool mayRepair() const { return files_.settings.repairs && !repaired_; }
  // Runs a piece of work; when it meets damage, repairs the file and runs it once more.
  [[nodiscard]] std::uint32_t repairing(const std::function<std::uint32_t()>& work);
  // With a view: the state that it has of the file, which need not be published.
  [[nodiscard]] std::uint32_t repair(const LogView* view);
  [[nodiscard]] std::uint32_t repairBehindChanges();
  [[nodiscard]] std::uint32_t findInScratch(unsigned long flags, const void* key, LiveRecord& found, std::size_t& size);
  [[nodiscard]] std::uint32_t addSized(unsigned long flags, const void* record, std::size_t size);
  [[nodiscard]] std::uint32_t changeSized(unsigned long flags, const void* key, const void* record, std::size_t size);
  [[nodiscard]] std::uint32_t removeFirst(unsigned long flags, const void* key);
  [[nodiscard]] std::uint32_t removeAll(unsigned long flags, const void* key);

  WriterFiles files_;
  std::unique_ptr<LogWriter> log_;
  ScratchRecord scratch_;
  // A change that failed half way, or a commit that failed: nothing that is not durable yet may be taken for done.
  std::uint32_t failure_ = MD_RC_OK;
  bool repaired_ = false;
  bool hasMetLoss_ = false;
};

}  // namespace zon
