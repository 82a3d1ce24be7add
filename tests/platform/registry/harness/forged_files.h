// Files made by somebody who can compute checksums, and what they are met with. Whatever the numbers in a file and its
// backup say: no crash, no hang, the work in proportion to the file, memory and disk bounded; what is answered was in
// the file, or a code says why nothing is; what a writer acknowledged is found afterwards; and once a writer repaired
// the file, it works. Each file is met by every question and every change, in a process of its own.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/registry/harness/forged_file.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {

constexpr std::size_t SMALL_RECORDS = 4096;
constexpr std::size_t INDEXES = 2;
const Value PROBE{"probe", "probe", "acknowledged"};

// The engine's random numbers are the same in every run, so that the same seed makes the same file.
ssize_t evenRandom(void* data, std::size_t size, unsigned);

struct ForgedCase {
  FileBytes file{};
  FileBytes backup{};               // none when empty
  std::uint64_t size = 0;           // to which the file is made longer by a hole
  const Values* history = nullptr;  // all that was ever in it; null when nobody knows
  Value wanted{"g1", "a", ""};
  std::uint64_t mostRead = 0;  // 0: as for a small file
  bool tellsHoles = true;      // the file system does
};

// The folder's owner; the work is done by children.
class ForgedFiles : public ::testing::Test {
 protected:
  void put(const ForgedCase& forged) const;

  // Meets the file with everything; complains of what must not be.
  std::string meet(const ForgedCase& forged) const;

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
  TestFolder folder_{inMemory()};
};

}  // namespace zon::test
