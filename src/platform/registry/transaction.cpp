// See transaction.h.
#include "platform/registry/transaction.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/guarded.h"
#include "platform/registry/care/repair.h"
#include "platform/registry/care/salvage.h"
#include "platform/registry/log/log_scan.h"

namespace zon {

Transaction::Transaction(const RecordType& type, WriterSettings settings)
    : files_(type, std::move(settings)), scratch_(type.maxSize) {}

std::uint32_t Transaction::begin(bool create) {
  if (!scratch_.isThere()) return GENREG_RC_NO_MEMORY;
  if (files_.settings.paths.isCut) return GENREG_RC_NAME_TOO_LONG;
  if (const std::uint32_t rc = currentBootId(files_.boot)) return rc;
  if (const std::uint32_t rc = lockFiles(create)) return rc;
  return log_ == nullptr ? openLog() : MD_RC_OK;
}

std::uint32_t Transaction::lockFiles(bool create) {
  const FilePaths& paths = files_.settings.paths;
  // Left of an attempt that found no file.
  files_.data.release();
  files_.lock.release();
  if (const std::uint32_t rc = openDirectory(paths.directory.c_str(), files_.directory)) return rc;
  FileState state;
  if (!create) {
    if (const std::uint32_t rc = stateAt(files_.directory.get(), paths.file.c_str(), state)) return rc;
  }
  // Read access is enough for a lock, and all that a file of another user may grant.
  const std::uint32_t rc = lockByName(files_.directory.get(), paths.lock.c_str(), O_RDONLY | O_CREAT,
                                      files_.settings.companionMode, files_.deadline, files_.lock);
  if (rc != MD_RC_OK) return rc == GENREG_RC_NOT_FOUND ? GENREG_RC_NO_DIRECTORY : rc;
  for (;;) {
    const std::uint32_t found =
        lockByName(files_.directory.get(), paths.file.c_str(), O_RDWR, 0, files_.deadline, files_.data);
    if (found != GENREG_RC_NOT_FOUND || !create) return found;
    const std::uint32_t made = makeFile(files_, log_, hasMetLoss_);
    if (made != GENREG_RC_DUPLICATE_KEY) return made;  // somebody else made it meanwhile
  }
}

std::uint32_t Transaction::openLog() {
  auto log = std::make_unique<LogWriter>(type(), files_.runOf(files_.data), files_.settings.durable);
  const std::uint32_t rc = log->open(files_.data.get(), files_.data.state().size);
  if (rc == MD_RC_OK) {
    log_ = std::move(log);
    return MD_RC_OK;
  }
  return isDamage(rc) && files_.settings.repairs ? repair() : rc;
}

std::uint32_t Transaction::repairing(const std::function<std::uint32_t()>& work) {
  if (const std::uint32_t rc = requireOwner()) return rc;
  if (failure_ != MD_RC_OK) return failure_;
  const bool wasDirty = log_->isDirty();
  const std::uint64_t end = log_->view().end();
  bool ended = false;  // in a way that leaves the log as it was, or with all of the change
  const auto attempt = [&] {
    ended = false;
    const std::uint32_t rc = work();
    ended = rc == MD_RC_OK || log_->view().end() == end;
    return rc;
  };
  std::uint32_t rc = guarded(attempt);
  const bool mayRetry = !wasDirty || log_->view().end() == end;
  if (isDamage(rc) && mayRepair() && mayRetry) {
    ended = false;
    rc = wasDirty ? repairBehindChanges() : repair();
    if (rc == MD_RC_OK) rc = guarded(work);
    ended = rc == MD_RC_OK || !log_->isDirty();
  }
  if (!ended) failure_ = rc;
  return rc;
}

// The batch's changes so far, each of them whole, wait in memory and go to the repaired file: nothing of them is
// written to the damaged one. When there will be no repaired file, the batch has failed.
std::uint32_t Transaction::repairBehindChanges() {
  failure_ = guarded([this] { return repair(&log_->view()); });
  return failure_;
}

std::uint32_t Transaction::findInScratch(unsigned long flags, const void* key, LiveRecord& found, std::size_t& size) {
  return scratch_.fill(size, [&](std::byte* out) { return findFirst(log_->view(), flags, key, out, found, size); });
}

std::uint32_t Transaction::add(unsigned long flags, const void* record) {
  std::size_t size = 0;
  if (const std::uint32_t rc = files_.type.check(flags, record, size)) return rc;
  return repairing([&] { return addSized(flags, record, size); });
}

std::uint32_t Transaction::addSized(unsigned long flags, const void* record, std::size_t size) {
  LiveRecord found{};
  std::size_t foundSize = 0;
  if (flags != 0) {
    const std::uint32_t rc = findInScratch(flags, record, found, foundSize);
    if (rc != GENREG_RC_NOT_FOUND) return rc == MD_RC_OK ? GENREG_RC_DUPLICATE_KEY : rc;
  }
  // Unless the caller's own condition keeps whole keys unique, see whether they still are.
  const unsigned long wholeKey = files_.type.indexFlags[0];
  if (log_->view().isUnique() && (flags == 0 || (flags & ~wholeKey) != 0)) {
    const std::uint32_t rc = findInScratch(wholeKey, record, found, foundSize);
    if (rc != MD_RC_OK && rc != GENREG_RC_NOT_FOUND) return rc;
    if (rc == MD_RC_OK) log_->setNotUnique();
  }
  if (const std::uint32_t rc = log_->appendInsert(record, size)) return rc;
  return log_->finishCommit();
}

std::uint32_t Transaction::change(unsigned long flags, const void* key, const void* record) {
  std::size_t size = 0;
  if (const std::uint32_t rc = files_.type.check(0, record, size)) return rc;
  return repairing([&] { return changeSized(flags, key, record, size); });
}

std::uint32_t Transaction::changeSized(unsigned long flags, const void* key, const void* record, std::size_t size) {
  FoundRecord found{};
  if (const std::uint32_t rc = findInScratch(flags, key, found.where, found.size)) return rc;
  if (found.size == size && std::memcmp(scratch_.get(), record, std::min(size, files_.type.maxSize)) == 0) {
    return GENREG_RC_NO_CHANGE;
  }
  const unsigned long wholeKey = files_.type.indexFlags[0];
  if (log_->view().isUnique() && !files_.type.matches(wholeKey, scratch_.get(), record)) {
    ScratchRecord other(files_.type.maxSize);
    if (!other.isThere()) return GENREG_RC_NO_MEMORY;
    LiveRecord same{};
    std::size_t sameSize = 0;
    const std::uint32_t rc = findFirst(log_->view(), wholeKey, record, other.forWriting(), same, sameSize);
    if (rc != MD_RC_OK && rc != GENREG_RC_NOT_FOUND) return rc;
    if (rc == MD_RC_OK) log_->setNotUnique();
  }
  if (const std::uint32_t rc = log_->appendChange(found, scratch_.get(), record, size)) return rc;
  return log_->finishCommit();
}

std::uint32_t Transaction::remove(unsigned long flags, const void* key, bool all) {
  return repairing([&] { return all ? removeAll(flags, key) : removeFirst(flags, key); });
}

std::uint32_t Transaction::removeFirst(unsigned long flags, const void* key) {
  FoundRecord found{};
  if (const std::uint32_t rc = findInScratch(flags, key, found.where, found.size)) return rc;
  if (const std::uint32_t rc = log_->appendRemove(found, scratch_.get())) return rc;
  return log_->finishCommit();
}

std::uint32_t Transaction::removeAll(unsigned long flags, const void* key) {
  std::vector<LiveRecord> matches;
  if (const std::uint32_t rc = findAll(log_->view(), flags, key, scratch_.forWriting(), matches)) return rc;
  if (matches.empty()) return GENREG_RC_NOT_FOUND;
  for (const LiveRecord& match : matches) {
    FoundRecord found{.where = match, .size = 0};
    if (const std::uint32_t rc = log_->view().bytes().readRecord(match.offset, scratch_.forWriting(), found.size))
      return rc;
    if (const std::uint32_t rc = log_->appendRemove(found, scratch_.get())) return rc;
  }
  return log_->finishCommit();
}

std::uint32_t Transaction::repair(const LogView* view) {
  if (const std::uint32_t rc = requireOwner()) return rc;
  repaired_ = true;
  return repairFile(files_, view, log_, hasMetLoss_);
}

std::uint32_t Transaction::commit() {
  if (const std::uint32_t rc = requireOwner()) return rc;
  if (failure_ != MD_RC_OK) return failure_;
  if (!log_->isDirty()) return MD_RC_OK;
  failure_ = syncName();
  if (failure_ == MD_RC_OK) failure_ = log_->commit();
  if (failure_ == MD_RC_OK) doUpkeepOrRepair();
  return failure_;
}

std::uint32_t Transaction::syncName() {
  if (!log_->isNameUnsynced()) return MD_RC_OK;
  if (const std::uint32_t rc = syncDirectory(files_.directory.get())) return rc;
  log_->setNameSynced();
  return MD_RC_OK;
}

// Nothing here can fail the commit. Damage to the index, or what upkeep meets, nobody else would come across before
// each change fails, or the file is never written anew. Who may not repair leaves a note in the slot: each change would
// read the file up to the damage once more.
void Transaction::doUpkeepOrRepair() {
  // Should a repair fail, the next writer meets the same damage.
  const auto tryRepair = [this] { static_cast<void>(guarded([this] { return repair(); })); };
  if (log_->isIndexDamaged() && mayRepair()) tryRepair();
  if (!files_.settings.repairs && isUpkeepPutOff(*log_)) return;
  const bool hasMetDamage = isDamage(doUpkeep(files_, log_));
  if (hasMetDamage && mayRepair()) {
    tryRepair();
  } else if (hasMetDamage != log_->isUpkeepBlocked()) {
    log_->noteUpkeepBlocked(hasMetDamage);
  }
}

std::uint32_t Transaction::commitWhenHeavy() { return log_->isHeavy() ? commit() : MD_RC_OK; }

std::uint32_t Transaction::acknowledgeLoss() {
  if (log_->view().slot().acknowledgedLosses >= log_->view().header().lossyRepairs) return MD_RC_OK;
  return log_->acknowledgeLosses();
}

}  // namespace zon
