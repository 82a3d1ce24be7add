// What the public classes ask of whatever keeps the records: the seam between them and the engines. The file engine is
// one of several; which one serves a record file is decided in engine_choice.h.
//
// The rule: nothing here knows of files, logs or servers, and every promise of docs/engine.md that is not about a file
// holds for each engine. Functions answer a return code; what an exception makes of them is the callers' business.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/guarded.h"
#include "platform/registry/format/record_type.h"
#include "zonmdfile/platform/GenRegFile.h"

namespace zon {

// What an object's caller has set. The names are those of the caller's object, which outlives whatever is made from
// this, and each is followed by a NUL; only the record file's must lead to something for every engine. None was set
// where there was no memory for them.
struct EngineSettings {
  RecordType type;
  GenRegBase::FileNames names;
  bool hasLostNames = false;
  std::uint32_t fileMode = 0;
  std::uint32_t companionMode = 0;
  std::uint32_t lockWaitMs = 0;
  bool repairs = false;
  bool keepsBackup = false;
  bool durable = false;
};

// A pass over the matching records of one state, whatever happens to them meanwhile.
class RecordScan {
 public:
  RecordScan() = default;
  RecordScan(const RecordScan&) = delete;
  RecordScan& operator=(const RecordScan&) = delete;
  virtual ~RecordScan() = default;

  // As GenRegBin::GetNext. A failure, an exception included, is told once, then the scan is over; close() tells it
  // again.
  [[nodiscard]] std::uint32_t next(unsigned long flags, const void* key, std::byte* out) {
    if (over_) return GENREG_RC_END_OF_SCAN;
    const std::uint32_t rc = guarded([&] { return nextMatch(flags, key, out); });
    if (rc == MD_RC_OK || rc == GENREG_RC_END_OF_SCAN) return rc;
    over_ = true;
    failure_ = rc;
    return rc;
  }
  [[nodiscard]] std::uint32_t close() const { return failure_; }

  virtual GenRegScanExtent extent() const = 0;
  // It sees the state of a batch, and must end before that does.
  virtual bool isOfBatch() const { return false; }

 private:
  // The next record that matches. Who asks another question in the middle of a scan goes on behind the last record that
  // he was given. Of a record that is not handed out nothing may stay in `out`, unless the call fails.
  [[nodiscard]] virtual std::uint32_t nextMatch(unsigned long flags, const void* key, std::byte* out) = 0;

  std::uint32_t failure_ = MD_RC_OK;
  bool over_ = false;
};

// Records that can be asked for and changed, as GenRegBin's functions of these names say. `all`: every record that
// matches is removed, not only the first.
class Records {
 public:
  Records() = default;
  Records(const Records&) = delete;
  Records& operator=(const Records&) = delete;
  virtual ~Records() = default;

  // Where none matches, nothing may stay in `out` of records that were looked at.
  [[nodiscard]] virtual std::uint32_t get(unsigned long flags, const void* key, std::byte* out) = 0;
  [[nodiscard]] virtual std::uint32_t add(unsigned long flags, const void* record) = 0;
  [[nodiscard]] virtual std::uint32_t change(unsigned long flags, const void* key, const void* record) = 0;
  [[nodiscard]] virtual std::uint32_t remove(unsigned long flags, const void* key, bool all) = 0;
  // `scan` is set when 0 is answered, and may be kept for longer than this object.
  [[nodiscard]] virtual std::uint32_t openScan(std::unique_ptr<RecordScan>& scan) = 0;

  // A call of this object lost records that were there before, or may have.
  virtual bool hasMetLoss() const { return false; }
};

// The state that a writer is about to commit: what it changes it alone sees. Its scans must not outlive it. Destroying
// it takes back what was not committed.
class RecordBatch : public Records {
 public:
  // Nothing else may be called afterwards.
  [[nodiscard]] virtual std::uint32_t commit() = 0;
};

// The committed state of one record file; each change is a commit of its own.
class RecordEngine : public Records {
 public:
  // Keeps other writers out until the batch ends. `batch` is set when 0 is answered, and may be kept for longer than
  // this object.
  [[nodiscard]] virtual std::uint32_t beginBatch(std::unique_ptr<RecordBatch>& batch) = 0;

  // As GenRegFile's functions of these names.
  [[nodiscard]] virtual std::uint32_t status(GenRegStatus& status) = 0;
  [[nodiscard]] virtual std::uint32_t repair() = 0;
  [[nodiscard]] virtual std::uint32_t compact() = 0;
  [[nodiscard]] virtual std::uint32_t acknowledgeLoss() = 0;

  // A number that is greater after each commit, so that whoever kept it can tell whether there was one since. 0 as long
  // as there is nothing. It costs a look, however many records there are.
  [[nodiscard]] virtual std::uint32_t position(std::uint64_t& position) = 0;
};

}  // namespace zon
