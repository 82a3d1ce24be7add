// Scans, batches and care of a record file as a whole.
#include "zonmdfile/platform/GenRegFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/registry/engine_call.h"
#include "platform/registry/reader.h"
#include "platform/registry/trace_points.h"
#include "platform/registry/transaction.h"
#include "platform/trace_scope.h"

using zon::trace::enginePoint;

namespace zon {

namespace {

bool isArea(const Frame& frame, std::uint64_t packed) {
  const Segment segment = unpackSegment(packed);
  return segment.offset == frame.area.blocksOffset && segment.blockCount == frame.area.blockCount;
}

// Whether every frame and block up to the published end passes its checksum, and the index has its segments there.
std::uint32_t checkWholeLog(const Reader& reader, std::uint64_t fileSize, bool& damaged) {
  const LogView& view = reader.view();
  const RawLog log(view.type(), reader.file(), view.header(), fileSize);
  Frame frame;
  std::size_t segments = 0;
  damaged = false;
  for (std::uint64_t offset = format::LOG_START; offset < view.end(); offset = frame.end()) {
    damaged = !log.hasFrame(offset, frame) || frame.end() > view.end();
    if (!damaged && frame.kind == format::FrameKind::AREA) {
      if (segments < segmentCount(view.slot()) && isArea(frame, view.slot().segments[segments])) ++segments;
      const std::uint32_t rc = log.verifyBlocks(frame.area);
      if (rc != MD_RC_OK && !isDamage(rc)) return rc;
      damaged = rc != MD_RC_OK;
    }
    if (damaged) break;
  }
  damaged = damaged || segments != segmentCount(view.slot());
  return log.isDeviceFailing() ? GENREG_RC_IO_ERROR : MD_RC_OK;
}

std::uint64_t unacknowledged(const format::FileHeader& header, std::uint64_t acknowledged) {
  return header.lossyRepairs > acknowledged ? header.lossyRepairs - acknowledged : 0;
}

void fillStatus(const Reader& reader, std::uint64_t fileSize, GenRegStatus& status) {
  const format::Slot& slot = reader.view().slot();
  const format::FileHeader& header = reader.view().header();
  status.records = slot.records;
  status.recordBytes = slot.recordBytes;
  status.fileBytes = fileSize;
  status.usedBytes = reader.view().end();
  status.changes = slot.commits;
  status.backupBytes = slot.backupEnd;
  status.repairs = header.repairs;
  status.lostBytes = header.lostBytes;
  status.formatVersion = header.version;
  status.unacknowledgedLosses = unacknowledged(header, slot.acknowledgedLosses);
}

bool isNonEmptyFile(const char* path) {
  FileState state;
  return stateAt(AT_FDCWD, path, state) == MD_RC_OK && S_ISREG(state.mode) && state.size > 0;
}

bool isAnything(const char* path) {
  FileState state;
  return stateAt(AT_FDCWD, path, state) == MD_RC_OK;
}

// Of a file that cannot be opened, what is left of it tells something.
std::uint32_t fillFromSalvage(const Reader& reader, GenRegStatus& status) {
  std::unique_ptr<Salvage> intact;
  const std::uint32_t rc = reader.salvage(intact);
  if (rc == GENREG_RC_NOT_FOUND) return MD_RC_OK;  // an empty one
  status.damaged = 1;
  if (rc == GENREG_RC_DAMAGED) return MD_RC_OK;
  if (rc != MD_RC_OK) return rc;
  status.records = intact->count();
  status.repairs = intact->header().repairs;
  status.lostBytes = intact->header().lostBytes;
  status.formatVersion = intact->header().version;
  status.unacknowledgedLosses = unacknowledged(intact->header(), intact->acknowledgedLosses());
  return MD_RC_OK;
}

std::uint32_t readStatus(const RecordType& type, const char* filePath, const char* backupPath, const char* corruptPath,
                         GenRegStatus& status) {
  status = GenRegStatus{};
  status.corruptCopy = isAnything(corruptPath) ? 1 : 0;
  Reader reader(type, filePath, backupPath);
  const std::uint32_t opened = reader.open();
  if (opened == GENREG_RC_NOT_FOUND) {
    status.orphanedBackup = isNonEmptyFile(backupPath) ? 1 : 0;
    return MD_RC_OK;
  }
  if (opened != MD_RC_OK && !isDamage(opened)) return opened;
  FileState state;
  if (const std::uint32_t rc = stateOf(reader.file(), state)) return rc;
  status.fileBytes = state.size;
  if (opened != MD_RC_OK) return fillFromSalvage(reader, status);
  fillStatus(reader, state.size, status);
  bool damaged = false;
  const std::uint32_t rc = checkWholeLog(reader, state.size, damaged);
  status.damaged = damaged ? 1 : 0;
  return rc;
}

}  // namespace

}  // namespace zon

GenRegFile::GenRegFile() { zon::TraceScope trace(enginePoint("GenRegFile::GenRegFile")); }

GenRegFile::~GenRegFile() {
  zon::TraceScope trace(enginePoint("GenRegFile::~GenRegFile"));
  delete scan_;
  delete batch_;
}

zon::RecordType GenRegFile::recordType() const {
  zon::RecordType type;
  type.match = callbacks_.match;
  type.validate = callbacks_.validate;
  type.recordSize = callbacks_.recordSize;
  type.digest = callbacks_.digest;
  unsigned long size = 0;
  callbacks_.maxRecordSize(&size);
  type.maxSize = size;
  type.setStore(zon::lastComponent(filePath_));
  type.indexCount = 0;
  for (std::size_t index = 0; index < MAX_INDEXES && indexFlags_[index] != 0; ++index) {
    type.indexFlags[index] = indexFlags_[index];
    ++type.indexCount;
  }
  return type;
}

zon::WriterSettings GenRegFile::writerSettings() const {
  zon::WriterSettings settings;
  const auto isFull = [](const char* path) { return std::strlen(path) == PATH_SIZE - 1; };
  settings.paths = zon::FilePaths{.directory = zon::directoryOf(filePath_),
                                  .file = zon::lastComponent(filePath_),
                                  .backup = zon::lastComponent(backupPath_),
                                  .temporary = zon::lastComponent(temporaryPath_),
                                  .corrupt = zon::lastComponent(corruptPath_),
                                  .lock = zon::lastComponent(lockPath_),
                                  .isCut = isFull(filePath_) || isFull(backupPath_) || isFull(temporaryPath_) ||
                                           isFull(corruptPath_) || isFull(lockPath_)};
  settings.fileMode = fileMode_;
  settings.companionMode = companionMode_;
  settings.lockWaitMs = lockWaitMs_;
  settings.repairs = hasFeature(FEATURE_REPAIR);
  settings.keepsBackup = hasFeature(FEATURE_BACKUP);
  settings.durable = (options_ & OPTION_DURABLE) != 0;
  return settings;
}

std::uint32_t GenRegFile::OpenScan() {
  return zon::engineCall(enginePoint("GenRegFile::OpenScan"), [&] {
    if (scan_ != nullptr) return GENREG_RC_SCAN_OPEN;
    auto scan = std::make_unique<zon::Scan>(recordType(), filePath_, backupPath_);
    std::uint32_t rc = MD_RC_OK;
    if (batch_ == nullptr) {
      rc = scan->open();
    } else if (batch_->hasFile()) {
      rc = batch_->requireOwner();
      scan->openOn(batch_->view());
    }
    if (rc == MD_RC_OK) scan_ = scan.release();
    return rc;
  });
}

GenRegScanExtent GenRegFile::scanExtent() const { return scan_ != nullptr ? scan_->extent() : GenRegScanExtent{}; }

std::uint32_t GenRegFile::CloseScan() {
  return zon::engineCall(enginePoint("GenRegFile::CloseScan"), [&] {
    if (scan_ == nullptr) return GENREG_RC_NO_SCAN;
    const std::uint32_t rc = scan_->close();
    delete scan_;
    scan_ = nullptr;
    return rc;
  });
}

std::uint32_t GenRegFile::beginBatch() {
  return zon::engineCall(enginePoint("GenRegFile::beginBatch"), [&] {
    if (batch_ != nullptr) return GENREG_RC_BATCH_OPEN;
    auto batch = std::make_unique<zon::Transaction>(recordType(), writerSettings());
    // Without a file there is nothing to change or remove yet; the first record added makes it.
    const std::uint32_t rc = batch->begin(false);
    if (batch->hasMetLoss()) hasMetLoss_ = true;
    if (rc != MD_RC_OK && rc != GENREG_RC_NOT_FOUND) return rc;
    batch_ = batch.release();
    return MD_RC_OK;
  });
}

std::uint32_t GenRegFile::commitBatch() {
  return zon::engineCall(enginePoint("GenRegFile::commitBatch"), [&] {
    if (batch_ == nullptr) return GENREG_RC_NO_BATCH;
    const std::unique_ptr<zon::Transaction> batch(std::exchange(batch_, nullptr));
    if (scan_ != nullptr && scan_->isOfBatch()) delete std::exchange(scan_, nullptr);
    const std::uint32_t rc = batch->hasFile() ? batch->commit() : MD_RC_OK;
    if (batch->hasMetLoss()) hasMetLoss_ = true;
    return rc;
  });
}

std::uint32_t GenRegFile::status(GenRegStatus& status) {
  return zon::engineCall(enginePoint("GenRegFile::status"),
                         [&] { return zon::readStatus(recordType(), filePath_, backupPath_, corruptPath_, status); });
}

// Work on the file as a whole, outside of scans and batches.
template <class Work>
std::uint32_t GenRegFile::withFile(const zon::WriterSettings& settings, Work work) {
  if (batch_ != nullptr) return GENREG_RC_BATCH_OPEN;
  if (scan_ != nullptr) return GENREG_RC_SCAN_OPEN;
  zon::Transaction transaction(recordType(), settings);
  std::uint32_t rc = transaction.begin(false);
  if (rc == MD_RC_OK) rc = work(transaction);
  if (transaction.hasMetLoss()) hasMetLoss_ = true;
  return rc;
}

std::uint32_t GenRegFile::repair() {
  return zon::engineCall(enginePoint("GenRegFile::repair"), [&] {
    if (batch_ != nullptr) return GENREG_RC_BATCH_OPEN;
    if (scan_ != nullptr) return GENREG_RC_SCAN_OPEN;
    zon::WriterSettings settings = writerSettings();
    settings.repairs = true;
    GenRegStatus before;
    const std::uint32_t told = status(before);
    if (told != MD_RC_OK && told != GENREG_RC_NOT_RECORD_FILE) return told;
    const std::uint32_t rc = withFile(settings, [&](zon::Transaction& transaction) {
      return before.damaged == 0 || transaction.isRepaired() ? MD_RC_OK : transaction.repair();
    });
    return rc == GENREG_RC_NOT_FOUND ? MD_RC_OK : rc;
  });
}

std::uint32_t GenRegFile::compact() {
  return zon::engineCall(enginePoint("GenRegFile::compact"), [&] {
    const std::uint32_t rc = withFile(writerSettings(), [&](zon::Transaction& transaction) {
      const std::uint32_t compacted = transaction.compact();
      const bool mayRepair = hasFeature(FEATURE_REPAIR) && !transaction.isRepaired();
      return zon::isDamage(compacted) && mayRepair ? transaction.repair() : compacted;
    });
    return rc == GENREG_RC_NOT_FOUND ? MD_RC_OK : rc;
  });
}

std::uint32_t GenRegFile::acknowledgeLoss() {
  return zon::engineCall(enginePoint("GenRegFile::acknowledgeLoss"), [&] {
    return withFile(writerSettings(), [](zon::Transaction& transaction) { return transaction.acknowledgeLoss(); });
  });
}
