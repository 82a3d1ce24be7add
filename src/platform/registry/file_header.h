// The header page: the file's own facts and the two slots that publish the log. Everything answered here has passed its
// checksum, and every number in it is possible: a slot that tells what cannot be counts as one that fails its checksum.
#ifndef ZON_PLATFORM_REGISTRY_FILE_HEADER_H
#define ZON_PLATFORM_REGISTRY_FILE_HEADER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/registry/format.h"

namespace zon {

using BootId = std::array<std::uint8_t, 16>;

// The identity of this run of the machine's kernel; all zero when the system does not tell.
BootId currentBootId();

// Two slots or a slot and the running kernel are of the same run. An unknown run is never the same.
bool isSameBoot(const BootId& current, const format::Slot& slot);

std::uint32_t headerChecksum(const format::FileHeader& header);

// Computes and sets the slot's checksum, which is keyed by the file's salt.
void sealSlot(format::Slot& slot, std::uint32_t salt);

// The bytes of a slot that count.
std::size_t slotSize(const format::Slot& slot);

struct HeaderPage {
  format::FileHeader header;
  std::array<format::Slot, 2> slots;
  std::array<bool, 2> slotValid;
  std::array<bool, 2> headerValid;  // the header and its copy
  // The disk could read all of it. What it could not read fails its checksum, and cannot be written in place.
  bool isWhole = true;

  bool hasSlot() const { return slotValid[0] || slotValid[1]; }
  bool bothSlots() const { return slotValid[0] && slotValid[1]; }
  bool bothHeaders() const { return headerValid[0] && headerValid[1]; }
  // The newer of the valid slots.
  std::size_t newest() const;
};

// GENREG_RC_NOT_RECORD_FILE, GENREG_RC_NEWER_FORMAT and GENREG_RC_DAMAGED tell what is wrong with the header itself;
// slots are judged by slotValid.
std::uint32_t readHeaderPage(int file, HeaderPage& page);

}  // namespace zon

#endif
