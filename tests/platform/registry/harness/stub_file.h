// Stubs for tests, made from docs/file-format.md alone: nothing of the engine's own reading of them is used.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "platform/registry/format/crc32c.h"

namespace zon::test {

inline void putNumber(std::string& bytes, std::size_t offset, std::uint32_t number) {
  for (std::size_t at = 0; at < 4; ++at) bytes[offset + at] = static_cast<char>(number >> (8 * at));
}

// One of the two copies that a stub consists of, sealed whatever it says.
inline std::string stubCopy(std::string_view engine, std::string_view settings, std::uint32_t version = 1) {
  std::string bytes(512, '\0');
  bytes.replace(0, 8, "STUBZON\n");
  putNumber(bytes, 8, version);
  bytes.replace(16, engine.size(), engine);
  bytes.replace(48, settings.size(), settings);
  putNumber(bytes, 508, crc32c(0, bytes.data(), 508));
  return bytes;
}

inline std::string stubBytes(std::string_view engine, std::string_view settings, std::uint32_t version = 1) {
  return stubCopy(engine, settings, version) + stubCopy(engine, settings, version);
}

inline void putFile(const std::filesystem::path& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace zon::test
