// See rewrite.h.
#include "platform/registry/care/rewrite.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/guarded.h"
#include "platform/registry/care/corrupt_copies.h"
#include "platform/registry/care/temporary_file.h"
#include "platform/registry/files/system_calls.h"
#include "platform/registry/format/scratch_record.h"
#include "platform/registry/log/log_scan.h"

namespace zon {

namespace {

constexpr int MOST_RANDOM_ATTEMPTS = 1000;

std::uint32_t fillRandom(std::uint64_t& value) {
  for (int attempt = 0; attempt < MOST_RANDOM_ATTEMPTS; ++attempt) {
    const ssize_t got = systemCalls.getRandom(&value, sizeof value, 0);
    if (got < 0 && errno != EINTR) return codeOfErrno(errno);
    if (got == static_cast<ssize_t>(sizeof value) && value != 0) return MD_RC_OK;
  }
  return GENREG_RC_SYSTEM_ERROR;
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

// Puts every record of the source into the log, each as a commit of its own.
template <class Put>
std::uint32_t putAll(LogWriter& fresh, const RecordSource& source, std::byte* record, Put put) {
  std::size_t size = 0;
  for (;;) {
    std::uint32_t rc = source(record, size);
    if (rc == GENREG_RC_END_OF_SCAN) return MD_RC_OK;
    if (rc == MD_RC_OK) rc = put(size);
    if (rc == MD_RC_OK) rc = fresh.finishCommit();
    if (rc == MD_RC_OK && fresh.isHeavy()) rc = fresh.spill();
    if (rc != MD_RC_OK) return rc;
  }
}

// The record of the same whole key that is in the log already; GENREG_RC_NOT_FOUND without one.
std::uint32_t findSameKey(const LogWriter& fresh, const std::byte* record, ScratchRecord& earlier, FoundRecord& found) {
  return earlier.fill(found.size, [&](std::byte* out) {
    return findFirst(fresh.view(), fresh.view().type().indexFlags[0], record, out, found.where, found.size);
  });
}

}  // namespace

std::uint32_t insertDistinct(LogWriter& fresh, const RecordSource& source, std::byte* record) {
  return putAll(fresh, source, record, [&](std::size_t size) { return fresh.appendInsert(record, size); });
}

std::uint32_t insertRepeated(LogWriter& fresh, const RecordSource& source, std::byte* record) {
  fresh.setNotUnique();
  return insertDistinct(fresh, source, record);
}

std::uint32_t insertAndFindRepeats(LogWriter& fresh, const RecordSource& source, std::byte* record) {
  return putAll(fresh, source, record, [&](std::size_t size) {
    if (!fresh.view().isUnique()) return fresh.appendInsert(record, size);
    ScratchRecord earlier(fresh.view().type().maxSize);
    if (!earlier.isThere()) return GENREG_RC_NO_MEMORY;
    FoundRecord found{};
    const std::uint32_t rc = findSameKey(fresh, record, earlier, found);
    if (rc != MD_RC_OK && rc != GENREG_RC_NOT_FOUND) return rc;
    if (rc == MD_RC_OK) fresh.setNotUnique();
    return fresh.appendInsert(record, size);
  });
}

std::uint32_t insertNewestOfKeys(LogWriter& fresh, const RecordSource& source, std::byte* record) {
  return putAll(fresh, source, record, [&](std::size_t size) {
    ScratchRecord earlier(fresh.view().type().maxSize);
    if (!earlier.isThere()) return GENREG_RC_NO_MEMORY;
    FoundRecord found{};
    const std::uint32_t rc = findSameKey(fresh, record, earlier, found);
    if (rc == GENREG_RC_NOT_FOUND) return fresh.appendInsert(record, size);
    return rc != MD_RC_OK ? rc : fresh.appendChange(found, earlier.get(), record, size);
  });
}

namespace {

// A complete and durable log in the temporary file.
std::uint32_t build(const WriterFiles& files, const Rewriting& rewriting, const TemporaryFile& temporary,
                    std::unique_ptr<LogWriter>& log) {
  ScratchRecord record(files.type.maxSize);
  if (!record.isThere()) return GENREG_RC_NO_MEMORY;
  auto fresh = std::make_unique<LogWriter>(files.type, files.runOf(temporary.file()), files.settings.durable);
  format::FileHeader header;
  if (const std::uint32_t rc = makeHeader(files.type, rewriting.former, header)) return rc;
  if (const std::uint32_t rc = temporary.takeOverRights()) return rc;
  if (const std::uint32_t rc = fresh->create(temporary.get(), header, rewriting.expected)) return rc;
  // Only now: without room for the new file nothing is to change.
  if (rewriting.keepsPresent) {
    if (const std::uint32_t rc = keepAsCorruptCopy(files, files.settings.paths.file)) return rc;
  }
  fresh->setAcknowledgedLosses(rewriting.acknowledgedLosses);
  if (const std::uint32_t rc = rewriting.fill(*fresh, rewriting.source, record.forWriting())) return rc;
  fresh->setCommits(rewriting.commits);
  if (const std::uint32_t rc = fresh->finish()) return rc;
  log = std::move(fresh);
  // They may have been changed meanwhile.
  return temporary.takeOverRights();
}

}  // namespace

Rewritten rewrite(WriterFiles& files, const Rewriting& rewriting, std::unique_ptr<LogWriter>& log) {
  TemporaryFile temporary(files);
  if (const std::uint32_t rc = temporary.make()) return {.rc = rc, .isInPlace = false};
  std::unique_ptr<LogWriter> fresh;
  const std::uint32_t built = guarded([&] { return build(files, rewriting, temporary, fresh); });
  if (built != MD_RC_OK) return {.rc = built, .isInPlace = false};
  const std::uint32_t rc = temporary.putInPlace(files.settings.paths.file);
  if (rc != MD_RC_OK && rc != GENREG_RC_DURABILITY_UNKNOWN) return {.rc = rc, .isInPlace = false};
  files.data = temporary.release();
  log = std::move(fresh);
  if (rc == MD_RC_OK) log->setNameSynced();
  return {.rc = rc, .isInPlace = true};
}

}  // namespace zon
