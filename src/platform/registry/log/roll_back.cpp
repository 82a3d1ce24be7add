// The order: mark, slot, zeros, sync.
//
// The rule: as roll_back.h says.
#include "platform/registry/log/roll_back.h"

#include <array>

namespace zon {

// I6: nothing behind the published end may be found later. First a mark that is no commit goes to the end: should the
// rest fail, the next writer sees that something is to be cleared. After a failed sync the slot is written again, as
// its page and the blocks that it takes for applied may never have reached the disk. What is cleared may have reached
// it: so must the mark.
std::uint32_t clearBehind(int file, const LogRoom& room, SlotWriter& slots) {
  std::array<std::byte, format::TERMINATOR_SIZE> mark;
  mark.fill(std::byte{0xFF});
  const std::uint64_t end = slots.published().end;
  if (const std::uint32_t rc = writeAt(file, end, mark)) return rc;
  if (const std::uint32_t rc = slots.writePublishedAgain()) return rc;
  if (const std::uint32_t rc = room.wipeFrom(end + mark.size())) return rc;
  return slots.sync();
}

std::uint32_t removeMark(int file, const SlotWriter& slots) {
  constexpr std::array<std::byte, format::TERMINATOR_SIZE> ZEROS{};
  return writeAt(file, slots.published().end, ZEROS);
}

}  // namespace zon
