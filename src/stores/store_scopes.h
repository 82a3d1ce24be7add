// Pairs that a store must close whatever happens in between: a scan, the delete-all feature, a batch.
//
// The rule: no logic beyond the pair.
#pragma once

#include <cstdint>
#include <utility>

#include "zonmdfile/platform/GenRegBin.h"
#include "zonmdfile/platform/return_codes.h"

namespace zon {

// A scan that OpenScan has begun.
class ScanScope {
 public:
  explicit ScanScope(GenRegBin& file) : file_(file) {}
  ~ScanScope() { static_cast<void>(close()); }
  ScanScope(const ScanScope&) = delete;
  ScanScope& operator=(const ScanScope&) = delete;

  [[nodiscard]] std::uint32_t close() { return std::exchange(isOpen_, false) ? file_.CloseScan() : MD_RC_OK; }
  // Another one, after the first was closed.
  [[nodiscard]] std::uint32_t begin() {
    const std::uint32_t rc = file_.OpenScan();
    isOpen_ = rc == MD_RC_OK;
    return rc;
  }

 private:
  GenRegBin& file_;
  bool isOpen_ = true;
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

// Whether a code that beginBatch gave ends the whole call: each change would run into the same failure. Within a batch
// that the object's owner has begun, the changes are part of that one.
constexpr bool endsCall(std::uint32_t beginRc) { return beginRc != MD_RC_OK && beginRc != GENREG_RC_BATCH_OPEN; }

// What the answer to a question about records tells of the question alone: there are such records, there is none, or a
// key is refused. Every other code is a failure that leaves the question open.
constexpr bool isAnswer(std::uint32_t rc) {
  return rc == MD_RC_OK || rc == GENREG_RC_NOT_FOUND || rc == MD_RC_KEY_EMPTY || rc == MD_RC_KEY_TOO_LONG;
}

// Changes of one file under one sync; within a batch of the object's owner, under his.
class BatchScope {
 public:
  explicit BatchScope(GenRegBin& file) : file_(file) {}
  ~BatchScope() { static_cast<void>(commit()); }
  BatchScope(const BatchScope&) = delete;
  BatchScope& operator=(const BatchScope&) = delete;

  // Before the first change, so that a call without changes takes no lock.
  [[nodiscard]] std::uint32_t begin() {
    const std::uint32_t rc = file_.beginBatch();
    isOpen_ = rc == MD_RC_OK;
    return rc;
  }
  bool isOpen() const { return isOpen_; }

  // 0 once all changes are durable; 0 also without a batch. Also done, with the code lost, at the end of the scope:
  // changes made before a failure stay made.
  [[nodiscard]] std::uint32_t commit() { return std::exchange(isOpen_, false) ? file_.commitBatch() : MD_RC_OK; }

 private:
  GenRegBin& file_;
  bool isOpen_ = false;
};

}  // namespace zon
