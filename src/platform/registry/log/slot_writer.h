// Publishing: writing the header page's two slots in turn.
//
// The rule: a slot shows only what is durable already (I2), and the newest slot that surely is on the disk is never
// written over (I7).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/registry/files/file_io.h"
#include "platform/registry/log/file_header.h"
#include "platform/registry/log/log_state.h"

namespace zon {

class SlotWriter {
 public:
  // Without `durable` nothing is synced.
  SlotWriter(LogState& state, const RunId& run, bool durable) : state_(state), run_(run), durable_(durable) {}

  // The state is the newest slot's. When that is the only good one, the other is the one to write.
  void begin(int file, bool newestIsDurable);

  const RunId& run() const { return run_; }
  // The newest slot in the file.
  const format::Slot& published() const { return published_; }

  [[nodiscard]] std::uint32_t sync() const { return durable_ ? syncData(file_) : MD_RC_OK; }
  // With everything else, the newest slot is on the disk by now.
  [[nodiscard]] std::uint32_t syncWithSlot();

  // Shows the state as it is. REQUIRES: everything below its end is durable.
  [[nodiscard]] std::uint32_t publish();
  // With an overlay that together with the blocks leads to everything; the blocks hold the first `applied` of it.
  [[nodiscard]] std::uint32_t publishIndexed(std::span<const format::OverlayEntry> overlay, std::size_t applied);
  // Shows new heads as far as the slot has room for them. Without room they are published with nothing that leads to
  // them: who opens the file walks the frames from indexedEnd on.
  [[nodiscard]] std::uint32_t publishHeads(std::span<const format::OverlayEntry> heads);
  // Of a new log: both slots are there from the start, so that one that fails its checksum is damage or a write under
  // way.
  [[nodiscard]] std::uint32_t publishBoth();
  // A sync that takes nothing back when it fails. The kernel may then have dropped the slot's page and the blocks'
  // though they are no longer to be written: the slot is written once more, and no block counts as applied.
  [[nodiscard]] std::uint32_t syncPublished();
  // The published slot once more, whatever was appended; no block counts as applied.
  [[nodiscard]] std::uint32_t writePublishedAgain();

 private:
  [[nodiscard]] std::uint32_t write(format::Slot& slot);

  LogState& state_;
  const RunId run_;
  const bool durable_;
  int file_ = -1;
  format::Slot published_{};
  bool newestIsDurable_ = false;
};

}  // namespace zon
