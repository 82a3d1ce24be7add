// The file engine: the engine of engine.h whose records lie in the record file itself, with a backup beside it. It
// adapts readers and transactions.
//
// The rule: on a stub every function answers RC_STUB and has done nothing. Making an engine costs nothing, so that one
// is made for each call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/registry/engine.h"
#include "platform/registry/transaction.h"

namespace zon {

class FileEngine final : public RecordEngine {
 public:
  // The settings must stay valid as long as this object.
  explicit FileEngine(const EngineSettings& settings) : settings_(settings) {}

  [[nodiscard]] std::uint32_t get(unsigned long flags, const void* key, std::byte* out) override;
  [[nodiscard]] std::uint32_t add(unsigned long flags, const void* record) override;
  [[nodiscard]] std::uint32_t change(unsigned long flags, const void* key, const void* record) override;
  [[nodiscard]] std::uint32_t remove(unsigned long flags, const void* key, bool all) override;
  [[nodiscard]] std::uint32_t openScan(std::unique_ptr<RecordScan>& scan) override;
  [[nodiscard]] std::uint32_t beginBatch(std::unique_ptr<RecordBatch>& batch) override;
  [[nodiscard]] std::uint32_t status(GenRegStatus& status) override;
  [[nodiscard]] std::uint32_t repair() override;
  [[nodiscard]] std::uint32_t compact() override;
  [[nodiscard]] std::uint32_t acknowledgeLoss() override;
  [[nodiscard]] std::uint32_t position(std::uint64_t& position) override;
  bool hasMetLoss() const override { return hasMetLoss_; }

 private:
  // Work on a file that is there; `create`: it may be made.
  template <class Work>
  [[nodiscard]] std::uint32_t withFile(WriterSettings settings, bool create, Work work);
  template <class Work>
  [[nodiscard]] std::uint32_t runChange(bool create, Work work);

  const EngineSettings& settings_;
  bool hasMetLoss_ = false;
};

}  // namespace zon
