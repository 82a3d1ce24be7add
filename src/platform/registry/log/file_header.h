// The header page: the file's own facts and the two slots that publish the log. Everything answered here has passed its
// checksum, and every number in it is possible: a slot that tells what cannot be counts as one that fails its checksum.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/registry/format/format.h"
#include "platform/registry/format/record_type.h"

namespace zon {

using BootId = std::array<std::uint8_t, 16>;

// The identity of this run of the machine's kernel; all zero when the system does not tell it, or not to us. Any other
// failure to ask is an answer of its own: who guessed could take a commit under way for one that outlasted a restart.
[[nodiscard]] std::uint32_t currentBootId(BootId& id);

// What the page cache lives as long as: a run of the kernel, and a mount of the file system in it. Zeros: not known.
struct RunId {
  BootId boot{};
  std::uint64_t mount = 0;
};

enum class Run {
  SAME,    // whatever was written since is still there, in the cache or on the disk
  UNSURE,  // the same run of the kernel, of which nobody knows whether the file system was mounted anew in it
  OTHER,   // only what was durable is there for sure
};

// How the run in which the slot was written stands to the present one.
Run compareRuns(const RunId& present, const format::Slot& slot);

// The header names this record type's indexes and this store.
bool isHeaderOf(const format::FileHeader& header, const RecordType& type);

std::uint32_t headerChecksum(const format::FileHeader& header);

// Computes and sets the slot's checksum, which is keyed by the file's salt.
void sealSlot(format::Slot& slot, std::uint32_t salt);

// The bytes of a slot that count.
std::size_t slotSize(const format::Slot& slot);

// The bytes of the page that count, as they lie in the file.
struct HeaderPageBytes {
  format::FileHeader header;
  std::array<std::byte, format::SLOT_OFFSET[0] - sizeof(format::FileHeader)> unused;
  std::array<format::Slot, 2> slots;
  format::FileHeader headerCopy;
};
static_assert(sizeof(HeaderPageBytes) == format::HEADER_READ_SIZE);
static_assert(offsetof(HeaderPageBytes, slots) == format::SLOT_OFFSET[0]);
static_assert(format::SLOT_OFFSET[1] == format::SLOT_OFFSET[0] + sizeof(format::Slot));
static_assert(offsetof(HeaderPageBytes, headerCopy) == format::HEADER_COPY_OFFSET);

// `header` is the copy where only that one passes its checksum.
struct HeaderPage : HeaderPageBytes {
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

// GENREG_RC_NOT_RECORD_FILE, GENREG_RC_NEWER_FORMAT and GENREG_RC_DAMAGED tell what is wrong with the header itself,
// RC_STUB that another engine has the records; slots are judged by slotValid.
[[nodiscard]] std::uint32_t readHeaderPage(int file, HeaderPage& page);

// The present run as an open record file is reached in it.
[[nodiscard]] std::uint32_t currentRun(int file, RunId& run);

// For readers: nothing that the slot does not show can be an acknowledged commit, as far as is known.
bool isOfPresentRun(int file, const format::Slot& slot);

}  // namespace zon
