// See reader.h.
#include "platform/registry/reader.h"

#include <fcntl.h>

#include <algorithm>

#include "platform/registry/files/stub.h"
#include "platform/registry/log/log_bytes.h"
#include "platform/registry/transaction.h"

namespace zon {

namespace {

// A file that is damaged and written to all the while is told to be damaged in the end.
constexpr int MOST_SALVAGES = 20;

}  // namespace

std::uint32_t Reader::open() {
  if (filePath_.size() == GenRegBase::PATH_SIZE - 1) return GENREG_RC_NAME_TOO_LONG;
  if (const std::uint32_t rc = openAnything(AT_FDCWD, filePath_.data(), O_RDONLY, 0, file_)) return rc;
  const std::uint32_t rc = log_.open(file_.get());
  isViewOpen_ = rc == MD_RC_OK;
  if (!isDamage(rc)) return rc;
  // Only what has the looks of no record file is asked whether it is a file at all.
  FileState state;
  const std::uint32_t refused = requireRegular(file_.get(), state);
  return refused != MD_RC_OK ? refused : rc;
}

std::uint32_t Reader::salvage(std::unique_ptr<Salvage>& salvage) const {
  std::uint32_t rc = MD_RC_OK;
  for (int round = 0; round < MOST_SALVAGES; ++round) {
    Descriptor backup;
    const std::uint32_t opened = openRegular(AT_FDCWD, backupPath_.data(), O_RDONLY, 0, backup);
    salvage = std::make_unique<Salvage>(type_, Salvage::Access::SHARED);
    rc = salvage->open(file_.get(), opened == MD_RC_OK ? backup.get() : -1, isViewOpen_ ? &log_.view() : nullptr);
    if (rc == MD_RC_OK) salvage->keepBackupOpen(std::move(backup));
    // An empty file with no backup is one that holds nothing yet. Of a backup that cannot be read nobody knows.
    FileState state;
    if (rc == GENREG_RC_NOT_RECORD_FILE && stateOf(file_.get(), state) == MD_RC_OK && state.size == 0)
      return opened == GENREG_RC_NOT_FOUND ? GENREG_RC_NOT_FOUND : GENREG_RC_DAMAGED;
    if (rc != MD_RC_OK || !salvage->isOvertaken(file_.get())) return rc;
  }
  return GENREG_RC_DAMAGED;
}

std::uint32_t Reader::get(unsigned long flags, const void* key, std::byte* out) {
  std::uint32_t rc = open();
  if (rc == MD_RC_OK) {
    LiveRecord found{};
    std::size_t size = 0;
    rc = findFirst(log_.view(), flags, key, out, found, size);
  }
  return isDamage(rc) ? getFromSalvage(flags, key, out) : rc;
}

std::uint32_t Reader::getFromSalvage(unsigned long flags, const void* key, std::byte* out) const {
  // Of a record that turned out to be damaged while it was read.
  if (isViewOpen_) wipe(type_, out, type_.maxSize);
  std::unique_ptr<Salvage> intact;
  if (const std::uint32_t rc = salvage(intact)) return rc;
  for (std::size_t number = 0; number < intact->count(); ++number) {
    std::size_t size = 0;
    if (const std::uint32_t rc = intact->readRecord(number, out, size)) return rc;
    if (type_.matches(flags, key, out)) return intact->isNewestForm(number) ? MD_RC_OK : GENREG_RC_DAMAGED;
    wipe(type_, out, size);
  }
  return intact->lostBytes() > 0 ? GENREG_RC_DAMAGED : GENREG_RC_NOT_FOUND;
}

Scan::Scan(const Transaction& batch)
    : type_(batch.type()), reader_(type_, {}, {}), view_(batch.hasFile() ? &batch.view() : nullptr), batch_(&batch) {}

std::uint32_t Scan::open() {
  const std::uint32_t rc = reader_.open();
  if (rc == GENREG_RC_NOT_FOUND) return MD_RC_OK;
  if (rc == MD_RC_OK) {
    view_ = &reader_.view();
    return MD_RC_OK;
  }
  if (!isDamage(rc)) return rc;
  const std::uint32_t failed = reader_.salvage(salvage_);
  if (failed != MD_RC_OK) salvage_.reset();
  return failed == GENREG_RC_NOT_FOUND ? MD_RC_OK : failed;
}

// Every byte of a text stands in the log as it is, and a frame's prefix is larger than a byte for each text.
GenRegScanExtent Scan::extent() const {
  if (salvage_ != nullptr) return {.records = salvage_->count(), .bytes = salvage_->count() * type_.maxSize};
  if (view_ == nullptr) return {};
  return {.records = view_->records(), .bytes = std::min(view_->slot().recordBytes, view_->end())};
}

std::uint32_t Scan::nextMatch(unsigned long flags, const void* key, std::byte* out) {
  if (batch_ != nullptr) {
    if (const std::uint32_t rc = batch_->requireOwner()) return rc;
  }
  std::uint32_t rc = salvage_ != nullptr ? nextSalvaged(flags, key, out) : nextFromLog(flags, key, out);
  if (isDamage(rc) && salvage_ == nullptr) {
    if (reader_.file() < 0) return codeForCallers(rc);
    const std::uint32_t salvaged = reader_.salvage(salvage_);
    // A file that was emptied under the scan had records when the scan began.
    if (salvaged == GENREG_RC_NOT_FOUND) return codeForCallers(rc);
    // So had one that a stub was written over, in place.
    if (salvaged == RC_STUB) return GENREG_RC_DAMAGED;
    // Of a record that turned out to be damaged while it was read.
    wipe(type_, out, type_.maxSize);
    rc = salvaged != MD_RC_OK ? salvaged : nextSalvaged(flags, key, out);
  }
  const bool isShort = rc == GENREG_RC_END_OF_SCAN && salvage_ != nullptr && salvage_->lostBytes() > 0;
  return isShort ? GENREG_RC_DAMAGED : codeForCallers(rc);
}

std::uint32_t Scan::prepare(unsigned long flags, const void* key) {
  const std::size_t index = type_.bestIndex(flags);
  const bool isIndexed = index < type_.indexCount;
  const std::uint64_t digest = isIndexed ? view_->digestOf(index, key) : 0;
  if (prepared_ && flags == flags_ && digest == digest_) return MD_RC_OK;
  flags_ = flags;
  digest_ = digest;
  prepared_ = true;
  candidates_.clear();
  nextCandidate_ = 0;
  everything_.reset();
  if (!isIndexed) {
    everything_ = std::make_unique<LogScan>(*view_);
    return MD_RC_OK;
  }
  allowance_.emplace(view_->newAllowance());
  return view_->lists().gather(index, digest, candidates_);
}

std::uint32_t Scan::nextCandidate(std::byte* out, std::size_t& size) {
  LiveRecord record{};
  // Who asks another question in the middle of a scan goes on behind the last record he was given.
  for (;;) {
    if (everything_ != nullptr) {
      if (const std::uint32_t rc = everything_->next(out, record, size)) return rc;
    } else {
      if (nextCandidate_ == candidates_.size()) return GENREG_RC_END_OF_SCAN;
      record = candidates_[nextCandidate_++];
    }
    if (record.place > lastPlace_) break;
    if (everything_ != nullptr) wipe(type_, out, size);
  }
  if (everything_ == nullptr) {
    if (const std::uint32_t rc = view_->bytes().readLive(record, *allowance_, out, size)) return rc;
  }
  candidatePlace_ = record.place;
  return MD_RC_OK;
}

std::uint32_t Scan::nextFromLog(unsigned long flags, const void* key, std::byte* out) {
  if (view_ == nullptr) return GENREG_RC_END_OF_SCAN;
  if (const std::uint32_t rc = prepare(flags, key)) return rc;
  std::size_t size = 0;
  for (;;) {
    if (const std::uint32_t rc = nextCandidate(out, size)) return rc;
    if (type_.matches(flags, key, out)) break;
    wipe(type_, out, size);
  }
  lastPlace_ = candidatePlace_;
  return MD_RC_OK;
}

std::uint32_t Scan::nextSalvaged(unsigned long flags, const void* key, std::byte* out) {
  std::size_t size = 0;
  while (nextSalvaged_ < salvage_->count()) {
    const std::size_t number = nextSalvaged_++;
    if (salvage_->placeOf(number) <= lastPlace_) continue;
    if (const std::uint32_t rc = salvage_->readRecord(number, out, size)) return rc;
    if (type_.matches(flags, key, out)) {
      lastPlace_ = salvage_->placeOf(number);
      return MD_RC_OK;
    }
    wipe(type_, out, size);
  }
  return GENREG_RC_END_OF_SCAN;
}

}  // namespace zon
