// How zontrace ends. Scripts depend on the numbers.
#pragma once

namespace zontrace {

inline constexpr int EXIT_DONE = 0;
inline constexpr int EXIT_NOTHING = 1;  // nothing found: no such process, library, event or identifier
inline constexpr int EXIT_USAGE = 2;
inline constexpr int EXIT_DAMAGED = 3;  // the file is no ring, or a damaged one
inline constexpr int EXIT_REFUSED = 5;  // the operating system refused

}  // namespace zontrace
