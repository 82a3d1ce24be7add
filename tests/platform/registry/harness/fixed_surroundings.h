// What stands around the engine, held still: boot id and random numbers are the same in every run of a test.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "platform/registry/files/system_calls.h"
#include "platform/registry/harness/format_reader.h"

namespace zontest::format_document {

inline Bytes bytesOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void write(const std::filesystem::path& path, const Bytes& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// The engine gets its boot id, its mount and its random numbers from here.
class FixedSurroundings {
 public:
  explicit FixedSurroundings(const std::filesystem::path& folder) {
    bootIdPath = (folder / "boot-id").string();
    nextRandom = 0;
    setBootId(0xB0);
    real = zon::realSystemCalls();
    zon::systemCalls.openAt = openAt;
    zon::systemCalls.getRandom = getRandom;
    zon::systemCalls.statx = statx;
  }
  ~FixedSurroundings() { zon::systemCalls = real; }
  FixedSurroundings(const FixedSurroundings&) = delete;
  FixedSurroundings& operator=(const FixedSurroundings&) = delete;

  // The run whose boot id counts up from `first`.
  static Bytes bootId(std::uint8_t first) {
    Bytes id;
    for (std::uint8_t at = 0; at < 16; ++at) id.push_back(static_cast<std::uint8_t>(first + at));
    return id;
  }

  static void setBootId(std::uint8_t first) {
    std::ofstream file(bootIdPath, std::ios::trunc);
    const Bytes id = bootId(first);
    for (std::size_t at = 0; at < id.size(); ++at) {
      if (at == 4 || at == 6 || at == 8 || at == 10) file << '-';
      char digits[3];
      std::snprintf(digits, sizeof digits, "%02x", unsigned{id[at]});
      file << digits;
    }
    file << '\n';
  }

 private:
  static int openAt(int directory, const char* path, int flags, mode_t mode) {
    const bool isBootId = std::string_view(path) == "/proc/sys/kernel/random/boot_id";
    return real.openAt(directory, isBootId ? bootIdPath.c_str() : path, flags, mode);
  }

  // A system that does not tell one mount from the next.
  static int statx(int directory, const char* path, int flags, unsigned mask, struct statx* status) {
    const int result = real.statx(directory, path, flags, mask, status);
    status->stx_mask &= ~0x4000U;
    return result;
  }

  static ssize_t getRandom(void* data, std::size_t size, unsigned) {
    const std::uint64_t value = 0x1122334455667700 + ++nextRandom * 0x11;
    std::memcpy(data, &value, std::min(size, sizeof value));
    return static_cast<ssize_t>(size);
  }

  inline static std::string bootIdPath;
  inline static std::uint64_t nextRandom;
  inline static zon::SystemCalls real;
};

}  // namespace zontest::format_document
