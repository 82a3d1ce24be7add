// Whose turn it is, and what a slot says.
//
// The rule: as slot_writer.h says.
#include "platform/registry/log/slot_writer.h"

#include <algorithm>

namespace zon {

void SlotWriter::begin(int file, bool newestIsDurable) {
  file_ = file;
  published_ = state_.slot();
  newestIsDurable_ = newestIsDurable;
}

std::uint32_t SlotWriter::syncWithSlot() {
  if (const std::uint32_t rc = sync()) return rc;
  newestIsDurable_ = true;
  return MD_RC_OK;
}

std::uint32_t SlotWriter::write(format::Slot& slot) {
  // I7: slots take turns by sync: while the newest one may not be durable, it is the one to be written over, so that
  // the other one stays whole whatever a crash of the machine does.
  slot.sequence = published_.sequence + (newestIsDurable_ ? 1 : 2);
  std::copy(run_.boot.begin(), run_.boot.end(), slot.bootId);
  slot.mountId = run_.mount;
  sealSlot(slot, saltOf(state_.header().fileId));
  const auto bytes = bytesOf(slot).first(slotSize(slot));
  // After a failure the same one is to be written: the other one is all that may be durable.
  if (const std::uint32_t rc = writeAt(file_, format::SLOT_OFFSET[slot.sequence % 2], bytes)) return rc;
  newestIsDurable_ = false;
  return MD_RC_OK;
}

std::uint32_t SlotWriter::publish() {
  if (const std::uint32_t rc = write(state_.slot())) return rc;
  published_ = state_.slot();
  return MD_RC_OK;
}

std::uint32_t SlotWriter::publishIndexed(std::span<const format::OverlayEntry> overlay, std::size_t applied) {
  format::Slot& slot = state_.slot();
  std::copy(overlay.begin(), overlay.end(), slot.overlay);
  slot.overlayCount = static_cast<std::uint16_t>(overlay.size());
  slot.overlayApplied = static_cast<std::uint16_t>(applied);
  slot.indexedEnd = slot.end;
  if (const std::uint32_t rc = publish()) return rc;
  state_.forgetNewHeads();
  return MD_RC_OK;
}

// The blocks take the heads over after this, so that a commit is never led to before it counts.
std::uint32_t SlotWriter::publishHeads(std::span<const format::OverlayEntry> heads) {
  return heads.size() <= format::OVERLAY_CAPACITY ? publishIndexed(heads, 0) : publish();
}

std::uint32_t SlotWriter::publishBoth() {
  for (std::size_t slot = 0; slot < std::size(format::SLOT_OFFSET); ++slot) {
    newestIsDurable_ = true;
    if (const std::uint32_t rc = publishIndexed({}, 0)) return rc;
  }
  return MD_RC_OK;
}

std::uint32_t SlotWriter::syncPublished() {
  const std::uint32_t rc = syncWithSlot();
  if (rc == MD_RC_OK) return MD_RC_OK;
  state_.slot().overlayApplied = 0;
  static_cast<void>(publish());
  return rc;
}

std::uint32_t SlotWriter::writePublishedAgain() {
  format::Slot slot = published_;
  slot.overlayApplied = 0;
  if (const std::uint32_t rc = write(slot)) return rc;
  published_ = slot;
  return MD_RC_OK;
}

}  // namespace zon
