// The order of locks: the lock file, then the record file itself (so that somebody who deletes the lock file cannot let
// two writers in), then the temporary file where one is made. Each is held by name: after locking, the name must still
// lead to the locked file.
#include "platform/registry/transaction.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/guarded.h"
#include "platform/registry/care/salvage.h"
#include "platform/registry/files/file_rights.h"
#include "platform/registry/files/system_calls.h"
#include "platform/registry/format/frame_checker.h"
#include "platform/registry/log/log_scan.h"

namespace zon {

namespace {

// The file may be twice as large as its live records and this.
constexpr std::uint64_t SPACE_SLACK = 65536;
constexpr std::uint64_t LEAST_GAIN = 16384;
constexpr std::uint64_t FIRST_BACKUP_DISTANCE = 4096;
constexpr std::uint64_t BACKUP_DISTANCE = 16384;
constexpr std::uint64_t BACKUP_SHARE = 16;
constexpr std::size_t COPY_PIECE = 256 * 1024;
constexpr std::uint32_t RETRY_PAUSE_US = 500;
constexpr std::uint32_t UNFINISHED_PAUSE_US = 20000;
constexpr int MOST_RANDOM_ATTEMPTS = 1000;
// A file too small for a backup looks after what an earlier one left so often, by its commits.
constexpr std::uint64_t STALE_BACKUP_INTERVAL = 8;
// Where damage keeps upkeep from its work, and nobody may repair it, it is tried so often, by the file's commits.
constexpr std::uint64_t BLOCKED_UPKEEP_INTERVAL = 64;

std::uint32_t fillRandom(std::uint64_t& value) {
  for (int attempt = 0; attempt < MOST_RANDOM_ATTEMPTS; ++attempt) {
    const ssize_t got = systemCalls.getRandom(&value, sizeof value, 0);
    if (got < 0 && errno != EINTR) return codeOfErrno(errno);
    if (got == static_cast<ssize_t>(sizeof value) && value != 0) return MD_RC_OK;
  }
  return GENREG_RC_SYSTEM_ERROR;
}

// A count that began over would hide what it is to tell.
void addUpToMost(std::uint64_t& count, std::uint64_t more) {
  count = count + more < count ? ~std::uint64_t{0} : count + more;
}

std::uint32_t makeHeader(const RecordType& type, const format::FileHeader& old, format::FileHeader& header) {
  header = format::FileHeader{};
  std::copy(std::begin(format::MAGIC), std::end(format::MAGIC), header.magic);
  header.version = format::FORMAT_VERSION;
  header.headerSize = format::LOG_START;
  if (const std::uint32_t rc = fillRandom(header.fileId)) return rc;
  if (const std::uint32_t rc = fillRandom(header.hashSeed)) return rc;
  std::copy(type.indexFlags.begin(), type.indexFlags.end(), header.indexFlags);
  header.repairs = old.repairs;
  header.lostBytes = old.lostBytes;
  header.lossyRepairs = old.lossyRepairs;
  std::copy(type.store.begin(), type.store.end(), header.store);
  header.crc = headerChecksum(header);
  return MD_RC_OK;
}

}  // namespace

Transaction::Transaction(const RecordType& type, WriterSettings settings)
    : type_(type), settings_(std::move(settings)), deadline_(nowMs() + settings_.lockWaitMs), scratch_(type.maxSize) {}

std::uint32_t Transaction::begin(bool create) {
  if (!scratch_.isThere()) return GENREG_RC_NO_MEMORY;
  if (settings_.paths.isCut) return GENREG_RC_NAME_TOO_LONG;
  if (const std::uint32_t rc = currentBootId(boot_)) return rc;
  if (const std::uint32_t rc = lockFiles(create)) return rc;
  return log_ == nullptr ? openLog() : MD_RC_OK;
}

std::uint32_t Transaction::lockFiles(bool create) {
  const FilePaths& paths = settings_.paths;
  // Left of an attempt that found no file.
  data_.release();
  lock_.release();
  if (const std::uint32_t rc = openDirectory(paths.directory.c_str(), directory_)) return rc;
  FileState state;
  if (!create) {
    if (const std::uint32_t rc = stateAt(directory_.get(), paths.file.c_str(), state)) return rc;
  }
  // Read access is enough for a lock, and all that a file of another user may grant.
  const std::uint32_t rc =
      lockByName(directory_.get(), paths.lock.c_str(), O_RDONLY | O_CREAT, settings_.companionMode, deadline_, lock_);
  if (rc != MD_RC_OK) return rc == GENREG_RC_NOT_FOUND ? GENREG_RC_NO_DIRECTORY : rc;
  for (;;) {
    const std::uint32_t found = lockByName(directory_.get(), paths.file.c_str(), O_RDWR, 0, deadline_, data_);
    if (found != GENREG_RC_NOT_FOUND || !create) return found;
    const std::uint32_t made = make();
    if (made != GENREG_RC_DUPLICATE_KEY) return made;  // somebody else made it meanwhile
  }
}

// A backup without its file is all that is left of records that somebody may miss. It is kept, and the new file tells
// of it.
std::uint32_t Transaction::make() {
  bool hasOrphan = false;
  if (const std::uint32_t rc = keepOrphanedBackup(hasOrphan)) return rc;
  format::FileHeader header{};
  header.lossyRepairs = hasOrphan ? 1 : 0;
  const RecordSource nothing = [](std::byte*, std::size_t&) { return GENREG_RC_END_OF_SCAN; };
  const std::uint32_t rc = rewrite(nothing, {}, header, Keys::DIFFER, Present::GIVEN_UP);
  if (!hasOrphan || (rc != MD_RC_OK && rc != GENREG_RC_DURABILITY_UNKNOWN)) return rc;
  hasMetLoss_ = true;
  if (rc != MD_RC_OK) return rc;
  // The other name keeps it. Should this fail, the first backup of the new file takes its place.
  systemCalls.unlinkAt(directory_.get(), settings_.paths.backup.c_str(), 0);
  return MD_RC_OK;
}

std::uint32_t Transaction::keepOrphanedBackup(bool& isKept) {
  FileState state;
  const std::uint32_t rc = stateAt(directory_.get(), settings_.paths.backup.c_str(), state);
  if (rc == GENREG_RC_NOT_FOUND) return MD_RC_OK;
  if (rc != MD_RC_OK) return rc;
  isKept = S_ISREG(state.mode) && state.size > 0;
  return isKept ? keepAsCorruptCopy(settings_.paths.backup) : MD_RC_OK;
}

std::uint32_t Transaction::openLog() {
  const RunId run{.boot = boot_, .mount = data_.state().mount};
  auto log = std::make_unique<LogWriter>(type_, run, settings_.durable);
  const std::uint32_t rc = log->open(data_.get(), data_.state().size);
  if (rc == MD_RC_OK) {
    log_ = std::move(log);
    return MD_RC_OK;
  }
  return isDamage(rc) && settings_.repairs ? repair() : rc;
}

// Runs a piece of work; when it meets damage, mends the file and runs it once more.
std::uint32_t Transaction::mending(const std::function<std::uint32_t()>& work) {
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
  const bool mayMend = !wasDirty || log_->view().end() == end;
  if (isDamage(rc) && settings_.repairs && !repaired_ && mayMend) {
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

std::uint32_t Transaction::add(unsigned long flags, const void* record) {
  std::size_t size = 0;
  if (const std::uint32_t rc = type_.check(flags, record, size)) return rc;
  return mending([&] { return addSized(flags, record, size); });
}

std::uint32_t Transaction::addSized(unsigned long flags, const void* record, std::size_t size) {
  LiveRecord found{};
  std::size_t foundSize = 0;
  if (flags != 0) {
    const std::uint32_t rc = findFirst(log_->view(), flags, record, scratch_.get(), found, foundSize);
    if (rc != GENREG_RC_NOT_FOUND) return rc == MD_RC_OK ? GENREG_RC_DUPLICATE_KEY : rc;
  }
  // Unless the caller's own condition keeps whole keys unique, see whether they still are.
  const unsigned long wholeKey = type_.indexFlags[0];
  if (log_->view().isUnique() && (flags == 0 || (flags & ~wholeKey) != 0)) {
    const std::uint32_t rc = findFirst(log_->view(), wholeKey, record, scratch_.get(), found, foundSize);
    if (rc != MD_RC_OK && rc != GENREG_RC_NOT_FOUND) return rc;
    if (rc == MD_RC_OK) log_->setNotUnique();
  }
  if (const std::uint32_t rc = log_->appendInsert(record, size)) return rc;
  return log_->finishCommit();
}

std::uint32_t Transaction::change(unsigned long flags, const void* key, const void* record) {
  std::size_t size = 0;
  if (const std::uint32_t rc = type_.check(0, record, size)) return rc;
  return mending([&] { return changeSized(flags, key, record, size); });
}

std::uint32_t Transaction::changeSized(unsigned long flags, const void* key, const void* record, std::size_t size) {
  FoundRecord found{};
  if (const std::uint32_t rc = findFirst(log_->view(), flags, key, scratch_.get(), found.where, found.size)) return rc;
  if (found.size == size && std::memcmp(scratch_.get(), record, std::min(size, type_.maxSize)) == 0) {
    return GENREG_RC_NO_CHANGE;
  }
  const unsigned long wholeKey = type_.indexFlags[0];
  if (log_->view().isUnique() && !type_.matches(wholeKey, scratch_.get(), record)) {
    ScratchRecord other(type_.maxSize);
    if (!other.isThere()) return GENREG_RC_NO_MEMORY;
    LiveRecord same{};
    std::size_t sameSize = 0;
    const std::uint32_t rc = findFirst(log_->view(), wholeKey, record, other.get(), same, sameSize);
    if (rc != MD_RC_OK && rc != GENREG_RC_NOT_FOUND) return rc;
    if (rc == MD_RC_OK) log_->setNotUnique();
  }
  if (const std::uint32_t rc = log_->appendChange(found, scratch_.get(), record, size)) return rc;
  return log_->finishCommit();
}

std::uint32_t Transaction::remove(unsigned long flags, const void* key, bool all) {
  return mending([&] { return all ? removeAll(flags, key) : removeFirst(flags, key); });
}

std::uint32_t Transaction::removeFirst(unsigned long flags, const void* key) {
  FoundRecord found{};
  if (const std::uint32_t rc = findFirst(log_->view(), flags, key, scratch_.get(), found.where, found.size)) return rc;
  if (const std::uint32_t rc = log_->appendRemove(found, scratch_.get())) return rc;
  return log_->finishCommit();
}

std::uint32_t Transaction::removeAll(unsigned long flags, const void* key) {
  std::vector<LiveRecord> matches;
  if (const std::uint32_t rc = findAll(log_->view(), flags, key, scratch_.get(), matches)) return rc;
  if (matches.empty()) return GENREG_RC_NOT_FOUND;
  for (const LiveRecord& match : matches) {
    FoundRecord found{.where = match, .size = 0};
    if (const std::uint32_t rc = log_->view().bytes().readRecord(match.offset, scratch_.get(), found.size)) return rc;
    if (const std::uint32_t rc = log_->appendRemove(found, scratch_.get())) return rc;
  }
  return log_->finishCommit();
}

std::uint32_t Transaction::commit() {
  if (const std::uint32_t rc = requireOwner()) return rc;
  if (failure_ != MD_RC_OK) return failure_;
  if (!log_->isDirty()) return MD_RC_OK;
  if (log_->isNameUnsynced()) {
    failure_ = syncDirectory(directory_.get());
    if (failure_ != MD_RC_OK) return failure_;
    log_->setNameSynced();
  }
  failure_ = log_->commit();
  // Nobody else would come across it before the overlay is full, and then each change would fail.
  if (failure_ == MD_RC_OK && log_->isIndexDamaged() && settings_.repairs && !repaired_) {
    guarded([this] { return repair(); });
  }
  if (failure_ == MD_RC_OK) maintain();
  return failure_;
}

std::uint32_t Transaction::commitWhenHeavy() { return log_->isHeavy() ? commit() : MD_RC_OK; }

// ---- Writing the file anew

// Left by a writer that died, or being made by one that is at work: whoever has its lock may remove it.
std::uint32_t Transaction::removeTemporary(const FileState& found) {
  const char* name = settings_.paths.temporary.c_str();
  LockedFile stale;
  const std::uint32_t rc = lockByName(directory_.get(), name, O_RDONLY, 0, deadline_, stale);
  if (rc == GENREG_RC_NOT_FOUND) return MD_RC_OK;
  if (rc != MD_RC_OK && !(rc == GENREG_RC_NO_PERMISSION && isLeftUnfinished(found))) return rc;
  if (systemCalls.unlinkAt(directory_.get(), name, 0) == 0 || errno == ENOENT) return MD_RC_OK;
  return codeOfErrno(errno);
}

// Another user who died before he gave the temporary file its rights left an empty one that he alone can open. Nobody
// is at work on it: he would have the lock file and the record file, which are held here, and in the time of a pause
// the file would have got its rights and its first bytes.
bool Transaction::isLeftUnfinished(const FileState& found) {
  if (found.size != 0 || !S_ISREG(found.mode)) return false;
  sleepMicroseconds(UNFINISHED_PAUSE_US);
  FileState state;
  const std::uint32_t rc = stateAt(directory_.get(), settings_.paths.temporary.c_str(), state);
  return rc == MD_RC_OK && state.inode == found.inode && state.device == found.device && state.size == 0;
}

// A file that takes the place of another one is its maker's alone until it gets that one's rights; a new one has those
// that the settings and the user's mask say from the start.
std::uint32_t Transaction::lockTemporary(LockedFile& temporary) {
  const char* name = settings_.paths.temporary.c_str();
  const std::uint32_t mode = data_.isHeld() ? MAKER_ONLY : settings_.fileMode;
  for (;;) {
    FileState state;
    std::uint32_t rc = stateAt(directory_.get(), name, state);
    if (rc == MD_RC_OK) rc = removeTemporary(state);
    if (rc != MD_RC_OK && rc != GENREG_RC_NOT_FOUND) return rc;
    rc = lockByName(directory_.get(), name, O_RDWR | O_CREAT | O_EXCL, mode, deadline_, temporary);
    if (rc == MD_RC_OK || stateAt(directory_.get(), name, state) != MD_RC_OK) return rc;
    if (rc != GENREG_RC_SYSTEM_ERROR) {
      // It was made, but could not be locked.
      systemCalls.unlinkAt(directory_.get(), name, 0);
      return rc;
    }
    // Somebody, who can only have taken the lock file away, made one in between.
    if (nowMs() >= deadline_) return GENREG_RC_LOCK_TIMEOUT;
    sleepMicroseconds(RETRY_PAUSE_US);
  }
}

std::uint32_t Transaction::fill(LogWriter& fresh, const RecordSource& source, Keys keys) {
  std::size_t size = 0;
  for (;;) {
    std::uint32_t rc = source(scratch_.get(), size);
    if (rc == GENREG_RC_END_OF_SCAN) {
      fresh.setCommits(commits_);
      return fresh.finish();
    }
    if (rc != MD_RC_OK) return rc;
    FoundRecord found{};
    if (keys == Keys::MERGE || (keys == Keys::FIND_OUT && fresh.view().isUnique())) {
      ScratchRecord earlier(type_.maxSize);
      if (!earlier.isThere()) return GENREG_RC_NO_MEMORY;
      rc = findFirst(fresh.view(), type_.indexFlags[0], scratch_.get(), earlier.get(), found.where, found.size);
      if (rc != MD_RC_OK && rc != GENREG_RC_NOT_FOUND) return rc;
      const bool isRepeated = rc == MD_RC_OK;
      if (isRepeated && keys == Keys::FIND_OUT) fresh.setNotUnique();
      rc = isRepeated && keys == Keys::MERGE ? fresh.appendChange(found, earlier.get(), scratch_.get(), size)
                                             : fresh.appendInsert(scratch_.get(), size);
    } else {
      rc = fresh.appendInsert(scratch_.get(), size);
    }
    if (rc == MD_RC_OK) rc = fresh.finishCommit();
    if (rc == MD_RC_OK && fresh.isHeavy()) rc = fresh.spill();
    if (rc != MD_RC_OK) return rc;
  }
}

std::uint32_t Transaction::rewrite(const RecordSource& source, const LogWriter::Expected& expected,
                                   const format::FileHeader& old, Keys keys, Present present) {
  LockedFile temporary;
  if (const std::uint32_t rc = lockTemporary(temporary)) return rc;
  std::unique_ptr<LogWriter> fresh;
  const std::uint32_t made = guarded([&] {
    const RunId run{.boot = boot_, .mount = temporary.state().mount};
    fresh = std::make_unique<LogWriter>(type_, run, settings_.durable);
    format::FileHeader header;
    if (const std::uint32_t failed = makeHeader(type_, old, header)) return failed;
    if (const std::uint32_t failed = takeOverRights(temporary.get())) return failed;
    if (const std::uint32_t failed = fresh->create(temporary.get(), header, expected)) return failed;
    // Only now: without room for the new file nothing is to change.
    if (present == Present::KEPT) {
      if (const std::uint32_t failed = keepAsCorruptCopy(settings_.paths.file)) return failed;
    }
    fresh->setAcknowledgedLosses(acknowledgedLosses_);
    if (keys == Keys::REPEAT) fresh->setNotUnique();
    if (const std::uint32_t failed = fill(*fresh, source, keys)) return failed;
    // They may have been changed meanwhile.
    return takeOverRights(temporary.get());
  });
  const std::uint32_t rc = made == MD_RC_OK ? putInPlace(temporary, settings_.paths.file) : made;
  const bool isInPlace = made == MD_RC_OK && (rc == MD_RC_OK || rc == GENREG_RC_DURABILITY_UNKNOWN);
  if (isInPlace) {
    data_ = std::move(temporary);
    log_ = std::move(fresh);
    if (rc == MD_RC_OK) log_->setNameSynced();
    return rc;
  }
  systemCalls.unlinkAt(directory_.get(), settings_.paths.temporary.c_str(), 0);
  return rc;
}

// The new file is to be what the old one was to its readers, and to nobody else. Who may not give it these rights
// leaves things as they are.
std::uint32_t Transaction::takeOverRights(int temporary) const {
  if (!data_.isHeld()) return MD_RC_OK;
  FileRights rights;
  if (const std::uint32_t rc = rightsOf(data_.get(), rights)) return rc;
  return giveRights(temporary, rights);
}

// The file was synced before: a rename that became durable first would leave the name with an empty file. The directory
// is synced after: without it the name could lead back to the old file, and what is committed to the new one would be
// lost.
std::uint32_t Transaction::putInPlace(LockedFile& temporary, const std::string& name) {
  FileState named;
  const char* from = settings_.paths.temporary.c_str();
  bool isNamed = false;
  if (const std::uint32_t rc = temporary.isNamed(directory_.get(), from, isNamed)) return rc;
  if (!isNamed) return GENREG_RC_NOT_REGULAR;  // somebody put another file there
  if (!data_.isHeld()) {
    const std::uint32_t rc = stateAt(directory_.get(), name.c_str(), named);
    if (rc != GENREG_RC_NOT_FOUND) return rc == MD_RC_OK ? GENREG_RC_DUPLICATE_KEY : rc;
  }
  if (systemCalls.renameAt(directory_.get(), from, directory_.get(), name.c_str()) != 0) return codeOfErrno(errno);
  return syncDirectory(directory_.get());
}

// The slot's counts are believed no further than there are bytes on the disk. A changed record's frame becomes smaller
// when it is inserted anew.
LogWriter::Expected Transaction::liveParts() const {
  const std::uint64_t bytes = dataBytes(data_.get(), log_->view().end());
  const std::uint64_t records = std::min(log_->view().records(), bytes / format::LEAST_RECORD_FRAME);
  const std::uint64_t frames = std::min(log_->view().slot().liveFrameBytes, bytes);
  return {.records = records, .bytes = frames - std::min(frames, records * sizeof(format::EventBody))};
}

std::uint32_t Transaction::compact() {
  if (log_->isDirty()) return GENREG_RC_INTERNAL;
  LogScan scan(log_->view());
  const RecordSource source = [&scan](std::byte* out, std::size_t& size) {
    LiveRecord record{};
    return scan.next(out, record, size);
  };
  const Keys keys = log_->view().isUnique() ? Keys::DIFFER : Keys::REPEAT;
  acknowledgedLosses_ = log_->view().slot().acknowledgedLosses;
  commits_ = log_->view().slot().commits + 1;
  if (const std::uint32_t rc = rewrite(source, liveParts(), log_->view().header(), keys, Present::GIVEN_UP)) return rc;
  // A backup of what was given up would be no smaller than before.
  FileState backup;
  const bool hasBackup = settings_.keepsBackup &&
                         stateAt(directory_.get(), settings_.paths.backup.c_str(), backup) == MD_RC_OK &&
                         makeBackup() == MD_RC_OK;
  log_->republish(hasBackup ? log_->view().end() : 0);
  return MD_RC_OK;
}

std::uint32_t Transaction::repair(const LogView* view) {
  if (const std::uint32_t rc = requireOwner()) return rc;
  repaired_ = true;
  Descriptor backup;
  const std::uint32_t opened = openRegular(directory_.get(), settings_.paths.backup.c_str(), O_RDONLY, 0, backup);
  // Without a backup that is only out of reach for now, what it holds would be lost for good.
  if (opened != MD_RC_OK && opened != GENREG_RC_NOT_FOUND) return opened;
  Salvage salvage(type_, Salvage::Access::LOCKED);
  const std::uint32_t rc = salvage.open(data_.get(), opened == MD_RC_OK ? backup.get() : -1, view);
  if (rc == GENREG_RC_NOT_RECORD_FILE) {
    FileState state;
    if (const std::uint32_t failed = stateOf(data_.get(), state)) return failed;
    if (state.size != 0) return rc;
    return make();
  }
  if (rc != MD_RC_OK) return rc;
  std::size_t next = 0;
  const RecordSource source = [&](std::byte* out, std::size_t& size) {
    return next == salvage.count() ? GENREG_RC_END_OF_SCAN : salvage.readRecord(next++, out, size);
  };
  format::FileHeader header = salvage.header();
  const bool isLossy = salvage.lostBytes() > 0;
  addUpToMost(header.repairs, 1);
  addUpToMost(header.lostBytes, salvage.lostBytes());
  addUpToMost(header.lossyRepairs, isLossy ? 1 : 0);
  acknowledgedLosses_ = salvage.acknowledgedLosses();
  commits_ = salvage.mostCommits() + 1;
  const Keys keys = salvage.hasRepeatedKeys() ? Keys::REPEAT : isLossy ? Keys::MERGE : Keys::FIND_OUT;
  const LogWriter::Expected expected{.records = salvage.count(), .bytes = salvage.frameBytes()};
  const std::uint32_t written = rewrite(source, expected, header, keys, Present::KEPT);
  if (isLossy && (written == MD_RC_OK || written == GENREG_RC_DURABILITY_UNKNOWN)) hasMetLoss_ = true;
  return written;
}

std::uint32_t Transaction::acknowledgeLoss() {
  if (log_->view().slot().acknowledgedLosses >= log_->view().header().lossyRepairs) return MD_RC_OK;
  return log_->acknowledgeLosses();
}

// A file gets a second name under which it is kept, which must be durable before its first one is given away. Of
// corrupt copies the newest has the plain name, and the older ones are numbered as they came.
std::uint32_t Transaction::keepAsCorruptCopy(const std::string& name) {
  const int directory = directory_.get();
  const std::string& corrupt = settings_.paths.corrupt;
  FileState kept;
  FileState older;
  if (const std::uint32_t rc = stateAt(directory, name.c_str(), kept)) return rc;
  const std::uint32_t rc = stateAt(directory, corrupt.c_str(), older);
  if (rc != MD_RC_OK && rc != GENREG_RC_NOT_FOUND) return rc;
  if (rc == MD_RC_OK) {
    if (older.inode == kept.inode && older.device == kept.device) return syncDirectory(directory);
    if (const std::uint32_t failed = numberOlderCorruptCopy()) return failed;
  }
  if (systemCalls.linkAt(directory, name.c_str(), directory, corrupt.c_str(), 0) != 0) return codeOfErrno(errno);
  return syncDirectory(directory);
}

std::uint32_t Transaction::numberOlderCorruptCopy() {
  const std::string& corrupt = settings_.paths.corrupt;
  const auto isTaken = [&](std::uint64_t number, bool& taken) {
    FileState state;
    const std::uint32_t rc = stateAt(directory_.get(), (corrupt + "." + std::to_string(number)).c_str(), state);
    taken = rc == MD_RC_OK;
    return rc == GENREG_RC_NOT_FOUND ? MD_RC_OK : rc;
  };
  // Numbers are given out without gaps, so that the first free one is found in few steps however many there are; where
  // somebody took copies away, some free one is.
  std::uint64_t takenNumber = 0;
  std::uint64_t freeNumber = 1;
  for (bool taken = false;; freeNumber *= 2) {
    if (const std::uint32_t rc = isTaken(freeNumber, taken)) return rc;
    if (!taken) break;
    takenNumber = freeNumber;
  }
  while (freeNumber - takenNumber > 1) {
    const std::uint64_t middle = takenNumber + (freeNumber - takenNumber) / 2;
    bool taken = false;
    if (const std::uint32_t rc = isTaken(middle, taken)) return rc;
    (taken ? takenNumber : freeNumber) = middle;
  }
  const std::string numbered = corrupt + "." + std::to_string(freeNumber);
  if (systemCalls.renameAt(directory_.get(), corrupt.c_str(), directory_.get(), numbered.c_str()) != 0)
    return codeOfErrno(errno);
  // The older copy must have its new name before another one takes the old name.
  return syncDirectory(directory_.get());
}

// ---- Upkeep after a commit. Nothing here can fail the commit: what does not work now is tried again after a later
// one. Damage that upkeep meets is repaired at once: nobody else may come across it, and the file would never be
// written anew nor backed up.

bool Transaction::isTooLarge() const {
  const format::Slot& slot = log_->view().slot();
  const std::uint64_t limit = 2 * (std::min(slot.recordBytes, slot.liveFrameBytes) + SPACE_SLACK);
  if (log_->isShortOfRoom() && log_->deadBytes() >= LEAST_GAIN) return true;
  return log_->fileSize() > limit - limit / 8 && log_->deadBytes() >= std::max(LEAST_GAIN, slot.liveFrameBytes / 8);
}

// Who may not repair leaves a note in the slot: each change would read the file up to the damage once more.
void Transaction::maintain() {
  const bool isTried =
      settings_.repairs || !log_->isUpkeepBlocked() || log_->view().slot().commits % BLOCKED_UPKEEP_INTERVAL == 0;
  if (!isTried) return;
  std::uint32_t rc = guarded([this] { return isTooLarge() || log_->isIndexFull() ? compact() : MD_RC_OK; });
  if (!isDamage(rc)) rc = guarded([this] { return settings_.keepsBackup ? updateBackup() : MD_RC_OK; });
  if (isDamage(rc) && settings_.repairs && !repaired_) {
    guarded([this] { return repair(); });
  } else if (isDamage(rc) != log_->isUpkeepBlocked()) {
    log_->noteUpkeepBlocked(isDamage(rc));
  }
}

bool Transaction::isBackupDue() const {
  const std::uint64_t end = log_->view().end();
  const std::uint64_t reached = log_->view().slot().backupEnd;
  if (reached != 0) return end - reached >= std::max(BACKUP_DISTANCE, end / BACKUP_SHARE);
  if (end - format::LOG_START - log_->areaBytes() >= FIRST_BACKUP_DISTANCE) return true;
  // What a larger file left is made anew all the same.
  FileState state;
  return log_->view().slot().commits % STALE_BACKUP_INTERVAL == 0 &&
         stateAt(directory_.get(), settings_.paths.backup.c_str(), state) == MD_RC_OK && S_ISREG(state.mode) &&
         state.size > end + SPACE_SLACK;
}

std::uint32_t Transaction::updateBackup() {
  if (!isBackupDue()) return MD_RC_OK;
  // A log of holes was forged to fill the disk.
  if (dataBytes(data_.get(), log_->view().end()) < log_->view().end() / 2) return MD_RC_OK;
  Descriptor backup;
  std::uint32_t rc = openRegular(directory_.get(), settings_.paths.backup.c_str(), O_RDWR, 0, backup);
  if (rc == MD_RC_OK) rc = extendBackup(backup.get());
  // Where the device does not take it, another place may serve.
  if (rc == GENREG_RC_NOT_FOUND || rc == GENREG_RC_IO_ERROR) rc = makeBackup();
  if (rc == MD_RC_OK) log_->republish(log_->view().end());
  return rc;
}

// GENREG_RC_NOT_FOUND when this is not a backup of the present file that may be written to. One with other rights is
// not: somebody may have it open who must not see what comes now.
std::uint32_t Transaction::extendBackup(int backup) {
  FileState state;
  if (const std::uint32_t rc = stateOf(backup, state)) return rc;
  HeaderPage page;
  const std::uint32_t rc = readHeaderPage(backup, page);
  FileRights ours;
  FileRights rights;
  if (const std::uint32_t failed = rightsOf(data_.get(), ours)) return failed;
  if (const std::uint32_t failed = rightsOf(backup, rights)) return failed;
  if (rights != ours) return GENREG_RC_NOT_FOUND;
  const bool isOurs =
      rc == MD_RC_OK && state.links == 1 && page.header.fileId == log_->view().header().fileId && page.hasSlot();
  if (!isOurs) return GENREG_RC_NOT_FOUND;
  const format::Slot& slot = page.slots[page.newest()];
  if (slot.end > log_->view().end() || log_->view().chainAt(slot.end) != slot.chain) return GENREG_RC_NOT_FOUND;
  if (const std::uint32_t failed = reserve(backup, state.size, log_->view().end())) return failed;
  if (const std::uint32_t failed = restoreHeader(backup, page)) return failed;
  if (const std::uint32_t failed = copyLog(backup, slot.end, slot.chain)) return failed;
  if (const std::uint32_t failed = syncData(backup)) return failed;
  return sealBackup(backup, slot.sequence + 1);
}

// Sealing the backup writes to a sector that has a header: a power cut may cost it, so that the other one must be good.
// The sync before the seal keeps the two from being under way at once.
std::uint32_t Transaction::restoreHeader(int backup, const HeaderPage& page) const {
  if (page.bothHeaders()) return MD_RC_OK;
  return writeAt(backup, page.headerValid[0] ? format::HEADER_COPY_OFFSET : 0, bytesOf(log_->view().header()));
}

std::uint32_t Transaction::makeBackup() {
  LockedFile temporary;
  if (const std::uint32_t rc = lockTemporary(temporary)) return rc;
  const int file = temporary.get();
  std::uint32_t rc = guarded([&] { return takeOverRights(file); });
  if (rc == MD_RC_OK) rc = reserve(file, 0, log_->view().end());
  if (rc == MD_RC_OK) rc = writeAt(file, 0, bytesOf(log_->view().header()));
  if (rc == MD_RC_OK) rc = writeAt(file, format::HEADER_COPY_OFFSET, bytesOf(log_->view().header()));
  if (rc == MD_RC_OK) rc = guarded([&] { return copyLog(file, format::LOG_START, log_->view().key().salt); });
  if (rc == MD_RC_OK) rc = sealBackup(file, 1);
  if (rc == MD_RC_OK) rc = sealBackup(file, 2);
  if (rc == MD_RC_OK) rc = syncFile(file);
  if (rc == MD_RC_OK) rc = putInPlace(temporary, settings_.paths.backup);
  if (rc != MD_RC_OK && rc != GENREG_RC_DURABILITY_UNKNOWN) {
    systemCalls.unlinkAt(directory_.get(), settings_.paths.temporary.c_str(), 0);
  }
  return rc;
}

// Nothing that fails its checksum gets into the backup, which may be the last to have it right.
std::uint32_t Transaction::copyLog(int backup, std::uint64_t from, std::uint32_t chain) {
  FrameChecker checker(log_->view().key(), from, chain);
  std::vector<std::byte> piece(
      static_cast<std::size_t>(std::min<std::uint64_t>(COPY_PIECE, log_->view().end() - from)));
  for (std::uint64_t at = from; at < log_->view().end();) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), log_->view().end() - at));
    const std::span<std::byte> bytes = std::span(piece).first(wanted);
    std::size_t got = 0;
    if (const std::uint32_t rc = readAt(data_.get(), at, bytes, got)) return rc;
    if (got < wanted || !checker.feed(bytes)) return GENREG_RC_DAMAGED;
    if (const std::uint32_t rc = writeAt(backup, at, bytes)) return rc;
    at += wanted;
  }
  return checker.endsWith(log_->view().slot().chain) ? MD_RC_OK : GENREG_RC_DAMAGED;
}

// A backup is read frame by frame: its slot tells only how far it reaches.
std::uint32_t Transaction::sealBackup(int backup, std::uint64_t sequence) {
  format::Slot slot = log_->view().slot();
  slot.overlayCount = 0;
  slot.overlayApplied = 0;
  slot.end = log_->view().end();
  slot.sequence = sequence;
  std::fill(std::begin(slot.bootId), std::end(slot.bootId), std::uint8_t{0});
  slot.mountId = 0;
  sealSlot(slot, log_->view().key().salt);
  return writeAt(backup, format::SLOT_OFFSET[sequence % 2], bytesOf(slot).first(slotSize(slot)));
}

}  // namespace zon
