// Knowing and reading stubs; see stub.h.
#include "platform/registry/files/stub.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/registry/files/file_io.h"
#include "platform/registry/format/crc32c.h"
#include "platform/registry/format/format.h"

namespace zon {

namespace {

static_assert(format::STUB_MAGIC[0] != format::MAGIC[0]);

bool hasMagic(std::span<const std::byte> bytes) {
  const std::size_t size = std::min(bytes.size(), sizeof format::STUB_MAGIC);
  return size > 0 && std::memcmp(bytes.data(), format::STUB_MAGIC, size) == 0;
}

std::uint32_t checksumOf(const format::Stub& stub) { return crc32c(0, &stub, offsetof(format::Stub, crc)); }

template <std::size_t SIZE>
bool isEnded(const char (&text)[SIZE]) {
  const std::size_t length = std::string_view(text, SIZE).find('\0');
  return length != 0 && std::all_of(text + std::min(length, SIZE - 1), text + SIZE, [](char c) { return c == '\0'; });
}

// The name may become part of the name of a library: nothing that leads elsewhere gets through.
bool isEngineName(std::string_view name) {
  constexpr std::string_view LETTERS = "abcdefghijklmnopqrstuvwxyz0123456789-_";
  return !name.empty() && name.size() < format::ENGINE_NAME_SIZE &&
         name.find_first_not_of(LETTERS) == std::string_view::npos;
}

bool isSettingsName(std::string_view name) {
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7F'; };
  return !name.empty() && name.size() < format::SETTINGS_NAME_SIZE && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos && std::none_of(name.begin(), name.end(), isControl);
}

// Whatever its checksum says, what a stub tells must be possible.
bool isPossible(const format::Stub& stub) {
  return isEnded(stub.engine) && isEnded(stub.settings) && isEngineName(stub.engine) && isSettingsName(stub.settings);
}

bool isIntact(const format::Stub& stub) {
  return hasMagic(bytesOf(stub)) && stub.version == format::STUB_VERSION && stub.crc == checksumOf(stub) &&
         isPossible(stub);
}

bool isOfLaterRelease(const format::Stub& stub) {
  return hasMagic(bytesOf(stub)) && stub.version > format::STUB_VERSION && stub.version < 0x10000;
}

}  // namespace

bool mayBeStub(std::span<const std::byte> start, std::uint64_t fileSize) {
  start = start.first(static_cast<std::size_t>(std::min<std::uint64_t>(start.size(), fileSize)));
  if (hasMagic(start) || fileSize == format::STUB_FILE_SIZE) return true;
  const std::size_t second = sizeof(format::Stub);
  return start.size() >= second + sizeof format::STUB_MAGIC && hasMagic(start.subspan(second));
}

std::uint32_t Stub::take(std::span<const std::byte> bytes, std::uint64_t fileSize) {
  if (!mayBeStub(bytes, fileSize)) return GENREG_RC_NOT_RECORD_FILE;
  std::array<format::Stub, 2> copies{};
  std::memcpy(copies.data(), bytes.data(), std::min(bytes.size(), sizeof copies));
  const auto intact = std::find_if(copies.begin(), copies.end(), isIntact);
  if (intact != copies.end()) {
    stub_ = *intact;
    return MD_RC_OK;
  }
  return std::any_of(copies.begin(), copies.end(), isOfLaterRelease) ? GENREG_RC_NEWER_FORMAT : GENREG_RC_DAMAGED_STUB;
}

}  // namespace zon
