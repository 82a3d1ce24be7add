// Which errors a system call may give, and which code of an operation names each of them.
#pragma once

#include <cstdint>

namespace zon::test {

// Whether this code tells of that error; 0 stands for memory that ran out.
bool namesCause(std::uint32_t rc, int error);

}  // namespace zon::test
