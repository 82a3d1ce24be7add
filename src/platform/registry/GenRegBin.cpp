// The record operations: each asks or changes the committed state, unless a batch is under way.
//
// The rule: nothing here knows which engine has the records; see engine.h.
#include "zonmdfile/platform/GenRegBin.h"

#include "platform/registry/engine.h"
#include "platform/registry/engine_call.h"
#include "platform/registry/engine_choice.h"
#include "platform/registry/trace_points.h"
#include "platform/trace_scope.h"

using zon::trace::enginePoint;

GenRegBin::GenRegBin() { zon::TraceScope trace(enginePoint("GenRegBin::GenRegBin")); }
GenRegBin::~GenRegBin() { zon::TraceScope trace(enginePoint("GenRegBin::~GenRegBin")); }

template <class Work>
std::uint32_t GenRegBin::onRecords(Work work) {
  const auto told = [&](zon::Records& records) {
    const std::uint32_t rc = work(records);
    if (records.hasMetLoss()) hasMetLoss_ = true;
    return rc;
  };
  return batch_ != nullptr ? told(*batch_) : zon::onEngine(engineSettings(), told);
}

// A batch's own scan looks at what a change would alter.
template <class Work>
std::uint32_t GenRegBin::changeRecords(Work work) {
  return batch_ != nullptr && scan_ != nullptr ? GENREG_RC_SCAN_OPEN : onRecords(work);
}

std::uint32_t GenRegBin::Add(unsigned long flags, void* record) {
  return zon::engineCall(enginePoint("GenRegBin::Add"), [&] {
    return changeRecords([&](zon::Records& records) { return records.add(flags, record); });
  });
}

std::uint32_t GenRegBin::Get(unsigned long flags, void* key, void* out) {
  return zon::engineCall(enginePoint("GenRegBin::Get"), [&] {
    return onRecords([&](zon::Records& records) { return records.get(flags, key, static_cast<std::byte*>(out)); });
  });
}

std::uint32_t GenRegBin::Change(unsigned long flags, void* key, void* record) {
  return zon::engineCall(enginePoint("GenRegBin::Change"), [&] {
    return changeRecords([&](zon::Records& records) { return records.change(flags, key, record); });
  });
}

std::uint32_t GenRegBin::Delete(unsigned long flags, void* key) {
  return zon::engineCall(enginePoint("GenRegBin::Delete"), [&] {
    const bool all = hasFeature(FEATURE_DELETE_ALL);
    return changeRecords([&](zon::Records& records) { return records.remove(flags, key, all); });
  });
}

std::uint32_t GenRegBin::GetNext(unsigned long flags, void* key, void* out) {
  return zon::engineCall(enginePoint("GenRegBin::GetNext"), [&] {
    if (scan_ == nullptr) return GENREG_RC_NO_SCAN;
    return scan_->next(flags, key, static_cast<std::byte*>(out));
  });
}
