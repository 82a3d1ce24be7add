// The record operations: each is a reader's question or a transaction of its own, unless a batch is under way.
#include "zonmdfile/platform/GenRegBin.h"

#include <optional>
#include <utility>

#include "platform/registry/engine_call.h"
#include "platform/registry/reader.h"
#include "platform/registry/trace_points.h"
#include "platform/registry/transaction.h"
#include "platform/trace_scope.h"

using zon::trace::enginePoint;

namespace {

template <class Work>
std::uint32_t runIn(zon::Transaction& transaction, bool isBatch, bool create, Work work) {
  if (!transaction.hasFile()) {
    if (const std::uint32_t rc = transaction.begin(create)) return rc;
  }
  if (const std::uint32_t rc = work(transaction)) return rc;
  return isBatch ? transaction.commitWhenHeavy() : transaction.commit();
}

// Runs a change in the batch under way, or in a transaction of its own. `create`: the change may make the file.
template <class Work>
std::uint32_t runChange(zon::Transaction* batch, const zon::RecordType& type, zon::WriterSettings settings, bool create,
                        bool& hasMetLoss, Work work) {
  std::optional<zon::Transaction> own;
  zon::Transaction& transaction = batch != nullptr ? *batch : own.emplace(type, std::move(settings));
  const std::uint32_t rc = runIn(transaction, batch != nullptr, create, work);
  if (transaction.hasMetLoss()) hasMetLoss = true;
  return rc;
}

}  // namespace

GenRegBin::GenRegBin() { zon::TraceScope trace(enginePoint("GenRegBin::GenRegBin")); }
GenRegBin::~GenRegBin() { zon::TraceScope trace(enginePoint("GenRegBin::~GenRegBin")); }

std::uint32_t GenRegBin::Add(unsigned long flags, void* record) {
  return zon::engineCall(enginePoint("GenRegBin::Add"), [&] {
    if (batch_ != nullptr && scan_ != nullptr) return GENREG_RC_SCAN_OPEN;
    return runChange(batch_, recordType(), writerSettings(), true, hasMetLoss_,
                     [&](zon::Transaction& transaction) { return transaction.add(flags, record); });
  });
}

std::uint32_t GenRegBin::Get(unsigned long flags, void* key, void* out) {
  return zon::engineCall(enginePoint("GenRegBin::Get"), [&] {
    const zon::RecordType type = recordType();
    auto* bytes = static_cast<std::byte*>(out);
    if (batch_ == nullptr) return zon::Reader(type, filePath_, backupPath_).get(flags, key, bytes);
    if (!batch_->hasFile()) return GENREG_RC_NOT_FOUND;
    if (const std::uint32_t rc = batch_->requireOwner()) return rc;
    zon::LiveRecord found{};
    std::size_t size = 0;
    return zon::findFirst(batch_->view(), flags, key, bytes, found, size);
  });
}

std::uint32_t GenRegBin::Change(unsigned long flags, void* key, void* record) {
  return zon::engineCall(enginePoint("GenRegBin::Change"), [&] {
    if (batch_ != nullptr && scan_ != nullptr) return GENREG_RC_SCAN_OPEN;
    return runChange(batch_, recordType(), writerSettings(), false, hasMetLoss_,
                     [&](zon::Transaction& transaction) { return transaction.change(flags, key, record); });
  });
}

std::uint32_t GenRegBin::Delete(unsigned long flags, void* key) {
  return zon::engineCall(enginePoint("GenRegBin::Delete"), [&] {
    if (batch_ != nullptr && scan_ != nullptr) return GENREG_RC_SCAN_OPEN;
    const bool all = hasFeature(FEATURE_DELETE_ALL);
    return runChange(batch_, recordType(), writerSettings(), false, hasMetLoss_,
                     [&](zon::Transaction& transaction) { return transaction.remove(flags, key, all); });
  });
}

std::uint32_t GenRegBin::GetNext(unsigned long flags, void* key, void* out) {
  return zon::engineCall(enginePoint("GenRegBin::GetNext"), [&] {
    if (scan_ == nullptr) return GENREG_RC_NO_SCAN;
    if (scan_->isOfBatch()) {
      if (const std::uint32_t rc = batch_->requireOwner()) return scan_->fail(rc);
    }
    return scan_->next(flags, key, static_cast<std::byte*>(out));
  });
}
