// Answers questions from a record file without any right to write.
//
// The rule: from the file as it stands, and when that is damaged from what is intact in it and its backup. A record
// that is not among the intact ones is missing only when nothing was lost.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/registry/care/salvage.h"
#include "platform/registry/engine.h"
#include "platform/registry/files/file_io.h"
#include "platform/registry/log/log_scan.h"
#include "platform/registry/log/log_snapshot.h"

namespace zon {

class Transaction;

// An open record file, as readers see it.
class Reader {
 public:
  // Each path is followed by a NUL.
  Reader(const RecordType& type, std::string_view filePath, std::string_view backupPath)
      : type_(type), filePath_(filePath), backupPath_(backupPath), log_(type) {}

  // GENREG_RC_NOT_FOUND when there is no file: it counts as an empty one.
  [[nodiscard]] std::uint32_t open();

  // As GenRegBin::Get.
  [[nodiscard]] std::uint32_t get(unsigned long flags, const void* key, std::byte* out);

  const LogView& view() const { return log_.view(); }
  int file() const { return file_.get(); }

  // Reads file and backup through for what is intact; of a file that could be opened, in the state that it had then.
  [[nodiscard]] std::uint32_t salvage(std::unique_ptr<Salvage>& salvage) const;

 private:
  [[nodiscard]] std::uint32_t getFromSalvage(unsigned long flags, const void* key, std::byte* out) const;

  const RecordType& type_;
  std::string_view filePath_;
  std::string_view backupPath_;
  Descriptor file_;
  LogSnapshot log_;
  bool isViewOpen_ = false;
};

// A pass over the matching records of one state of a record file.
class Scan final : public RecordScan {
 public:
  // The paths must stay valid as long as the scan.
  Scan(const RecordType& type, std::string_view filePath, std::string_view backupPath)
      : type_(type), reader_(type_, filePath, backupPath) {}
  // Looks at a batch's own state.
  explicit Scan(const Transaction& batch);

  [[nodiscard]] std::uint32_t open();
  bool isOfBatch() const override { return batch_ != nullptr; }
  GenRegScanExtent extent() const override;

 private:
  // From the file; once damage was met, from what is intact in it and its backup.
  [[nodiscard]] std::uint32_t nextMatch(unsigned long flags, const void* key, std::byte* out) override;
  [[nodiscard]] std::uint32_t nextFromLog(unsigned long flags, const void* key, std::byte* out);
  [[nodiscard]] std::uint32_t nextCandidate(std::byte* out, std::size_t& size);
  [[nodiscard]] std::uint32_t prepare(unsigned long flags, const void* key);
  [[nodiscard]] std::uint32_t nextSalvaged(unsigned long flags, const void* key, std::byte* out);

  const RecordType type_;
  Reader reader_;
  const LogView* view_ = nullptr;  // null: no file, or only what is salvaged
  const Transaction* batch_ = nullptr;
  bool prepared_ = false;
  unsigned long flags_ = 0;
  std::uint64_t digest_ = 0;
  std::unique_ptr<LogScan> everything_;
  std::vector<LiveRecord> candidates_;
  std::size_t nextCandidate_ = 0;
  std::optional<ReadAllowance> allowance_;
  std::unique_ptr<Salvage> salvage_;
  std::size_t nextSalvaged_ = 0;
  std::uint64_t candidatePlace_ = 0;
  std::uint64_t lastPlace_ = 0;
};

}  // namespace zon
