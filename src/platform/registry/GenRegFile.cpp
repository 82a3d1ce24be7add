// Scans, batches and care of a record file as a whole.
//
// The rule: nothing here knows which engine has the records; see engine.h.
#include "zonmdfile/platform/GenRegFile.h"

#include <memory>
#include <utility>

#include "platform/registry/engine.h"
#include "platform/registry/engine_call.h"
#include "platform/registry/engine_choice.h"
#include "platform/registry/trace_points.h"
#include "platform/trace_scope.h"

using zon::trace::enginePoint;

GenRegFile::GenRegFile() { zon::TraceScope trace(enginePoint("GenRegFile::GenRegFile")); }

// A scan may see the batch's state and goes first.
GenRegFile::~GenRegFile() {
  zon::TraceScope trace(enginePoint("GenRegFile::~GenRegFile"));
  delete scan_;
  delete batch_;
}

zon::EngineSettings GenRegFile::engineSettings() const {
  zon::EngineSettings settings;
  zon::RecordType& type = settings.type;
  type.match = callbacks_.match;
  type.validate = callbacks_.validate;
  type.recordSize = callbacks_.recordSize;
  type.digest = callbacks_.digest;
  unsigned long size = 0;
  callbacks_.maxRecordSize(&size);
  type.maxSize = size;
  type.setStore(fileNames().file);
  type.indexCount = 0;
  for (std::size_t index = 0; index < MAX_INDEXES && indexFlags_[index] != 0; ++index) {
    type.indexFlags[index] = indexFlags_[index];
    ++type.indexCount;
  }
  settings.names = fileNames();
  settings.hasLostNames = hasLostFileNames();
  settings.fileMode = fileMode_;
  settings.companionMode = companionMode_;
  settings.lockWaitMs = lockWaitMs_;
  settings.repairs = hasFeature(FEATURE_REPAIR);
  settings.keepsBackup = hasFeature(FEATURE_BACKUP);
  settings.durable = (options_ & OPTION_DURABLE) != 0;
  return settings;
}

// Outside of a batch.
template <class Work>
std::uint32_t GenRegFile::onEngine(Work work) {
  return zon::onEngine(engineSettings(), [&](zon::RecordEngine& engine) {
    const std::uint32_t rc = work(engine);
    if (engine.hasMetLoss()) hasMetLoss_ = true;
    return rc;
  });
}

// Care of the file as a whole, outside of scans too.
template <class Work>
std::uint32_t GenRegFile::careForFile(Work work) {
  if (batch_ != nullptr) return GENREG_RC_BATCH_OPEN;
  if (scan_ != nullptr) return GENREG_RC_SCAN_OPEN;
  return onEngine(work);
}

std::uint32_t GenRegFile::OpenScan() {
  return zon::engineCall(enginePoint("GenRegFile::OpenScan"), [&] {
    if (scan_ != nullptr) return GENREG_RC_SCAN_OPEN;
    std::unique_ptr<zon::RecordScan> scan;
    const std::uint32_t rc = batch_ != nullptr
                                 ? batch_->openScan(scan)
                                 : onEngine([&scan](zon::RecordEngine& engine) { return engine.openScan(scan); });
    if (rc == MD_RC_OK) scan_ = scan.release();
    return rc;
  });
}

GenRegScanExtent GenRegFile::scanExtent() const { return scan_ != nullptr ? scan_->extent() : GenRegScanExtent{}; }

std::uint32_t GenRegFile::CloseScan() {
  return zon::engineCall(enginePoint("GenRegFile::CloseScan"), [&] {
    if (scan_ == nullptr) return GENREG_RC_NO_SCAN;
    const std::uint32_t rc = scan_->close();
    delete std::exchange(scan_, nullptr);
    return rc;
  });
}

std::uint32_t GenRegFile::beginBatch() {
  return zon::engineCall(enginePoint("GenRegFile::beginBatch"), [&] {
    if (batch_ != nullptr) return GENREG_RC_BATCH_OPEN;
    std::unique_ptr<zon::RecordBatch> batch;
    const std::uint32_t rc = onEngine([&batch](zon::RecordEngine& engine) { return engine.beginBatch(batch); });
    if (rc == MD_RC_OK) batch_ = batch.release();
    return rc;
  });
}

std::uint32_t GenRegFile::commitBatch() {
  return zon::engineCall(enginePoint("GenRegFile::commitBatch"), [&] {
    if (batch_ == nullptr) return GENREG_RC_NO_BATCH;
    const std::unique_ptr<zon::RecordBatch> batch(std::exchange(batch_, nullptr));
    if (scan_ != nullptr && scan_->isOfBatch()) delete std::exchange(scan_, nullptr);
    const std::uint32_t rc = zon::guarded([&batch] { return batch->commit(); });
    if (batch->hasMetLoss()) hasMetLoss_ = true;
    return rc;
  });
}

std::uint32_t GenRegFile::status(GenRegStatus& status) {
  return zon::engineCall(enginePoint("GenRegFile::status"), [&] {
    return onEngine([&status](zon::RecordEngine& engine) { return engine.status(status); });
  });
}

std::uint32_t GenRegFile::repair() {
  return zon::engineCall(enginePoint("GenRegFile::repair"),
                         [&] { return careForFile([](zon::RecordEngine& engine) { return engine.repair(); }); });
}

std::uint32_t GenRegFile::compact() {
  return zon::engineCall(enginePoint("GenRegFile::compact"),
                         [&] { return careForFile([](zon::RecordEngine& engine) { return engine.compact(); }); });
}

std::uint32_t GenRegFile::acknowledgeLoss() {
  return zon::engineCall(enginePoint("GenRegFile::acknowledgeLoss"), [&] {
    return careForFile([](zon::RecordEngine& engine) { return engine.acknowledgeLoss(); });
  });
}
