// Who may do what with a file: owner, group, mode and POSIX access list. A file that takes another one's place gets the
// same rights before its first record is written, and has fewer until then.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zon {

// The mode with which a file is made that gets its rights later: nobody but its maker can open it meanwhile, and keep
// it open beyond that.
constexpr std::uint32_t MAKER_ONLY = 0600;

struct FileRights {
  std::uint32_t owner = 0;
  std::uint32_t group = 0;
  std::uint32_t mode = 0;
  std::vector<std::byte> accessList;  // as the system keeps it; empty: the mode tells all

  bool operator==(const FileRights&) const = default;
};

std::uint32_t rightsOf(int file, FileRights& rights);

// Gives them to a file that has MAKER_ONLY or fewer, such that it never has more than these and its own. What the
// process may not give is an error, with the file left to its owners old and new.
std::uint32_t giveRights(int file, const FileRights& rights);

}  // namespace zon
