// Runs work on record files in a child process that is held to bounds, and counts what it asks of the system: bytes
// read, written and reserved, by the engine's table of calls. The clock decides nothing; a limit on processor time only
// ends what would never end.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace zon::test {

struct Bounds {
  std::uint64_t bytesRead = 0;
  std::uint64_t calls = 0;
  std::uint64_t bytesWritten = 0;  // reserved ones included
  std::uint64_t memory = 0;        // beyond what the process has before; 0: not held to any
};

// What one piece of work may have cost, and did.
class CallCounter {
 public:
  // Puts itself into the table of calls; for a process that ends soon.
  static void install();
  static Bounds counted();
  static void reset();
};

// Answers what the work complained of, or how its process died; empty when all is well.
std::string runBounded(std::uint64_t memory, const std::function<std::string()>& work);

}  // namespace zon::test
