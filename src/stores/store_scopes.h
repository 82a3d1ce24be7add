// Pairs that a store must close whatever happens in between: a scan, the delete-all feature, a batch, a traced
// operation.
//
// The rule: no logic beyond the pair.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <utility>

#include "platform/guarded.h"
#include "platform/trace_scope.h"
#include "zonmdfile/platform/DString.h"
#include "zonmdfile/platform/GenRegBin.h"
#include "zonmdfile/platform/return_codes.h"

namespace zon {

// One traced operation of a store: entry, its arguments, exit with the code; exceptions become codes.
template <class Body>
std::uint32_t tracedOperation(std::uint32_t point, std::initializer_list<const DString*> arguments,
                              Body&& body) noexcept {
  TraceScope trace(point);
  for (const DString* argument : arguments) trace.variable(argument->c_str(), argument->length());
  return trace.exit(guarded(std::forward<Body>(body)));
}

// A scan that OpenScan has begun.
class ScanScope {
 public:
  explicit ScanScope(GenRegBin& file) : file_(&file) {}
  ~ScanScope() {
    if (file_ != nullptr) file_->CloseScan();
  }
  ScanScope(const ScanScope&) = delete;
  ScanScope& operator=(const ScanScope&) = delete;

  std::uint32_t close() { return std::exchange(file_, nullptr)->CloseScan(); }

 private:
  GenRegBin* file_;
};

// Delete takes every matching record while this lives.
class DeleteAllScope {
 public:
  explicit DeleteAllScope(GenRegBin& file) : file_(file) { file_.setFeature(GenRegBase::FEATURE_DELETE_ALL); }
  ~DeleteAllScope() { file_.unsetFeature(GenRegBase::FEATURE_DELETE_ALL); }
  DeleteAllScope(const DeleteAllScope&) = delete;
  DeleteAllScope& operator=(const DeleteAllScope&) = delete;

 private:
  GenRegBin& file_;
};

// Whether a code that beginBatch gave ends the whole call. Each change would run into the same wait for the lock, one
// after the other, and end with this very code; every other failure shows at the changes themselves.
constexpr bool endsCall(std::uint32_t beginRc) { return beginRc == GENREG_RC_LOCK_TIMEOUT; }

// Changes of one file under one sync. Where no batch can begin, each change stands for itself and tells its own code.
class BatchScope {
 public:
  explicit BatchScope(GenRegBin& file) : file_(file) {}
  ~BatchScope() { commit(); }
  BatchScope(const BatchScope&) = delete;
  BatchScope& operator=(const BatchScope&) = delete;

  // Before the first change, so that a call without changes takes no lock.
  std::uint32_t begin() {
    const std::uint32_t rc = file_.beginBatch();
    isOpen_ = rc == MD_RC_OK;
    return rc;
  }
  bool isOpen() const { return isOpen_; }

  // 0 once all changes are durable; 0 also without a batch. Also done, with the code lost, at the end of the scope:
  // changes made before a failure stay made.
  std::uint32_t commit() { return std::exchange(isOpen_, false) ? file_.commitBatch() : MD_RC_OK; }

 private:
  GenRegBin& file_;
  bool isOpen_ = false;
};

}  // namespace zon
