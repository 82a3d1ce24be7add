// A stub: a small file that stands where a record file would, and leads to the engine that keeps the records instead.
// docs/file-format.md tells its bytes.
//
// The rule: a file that may be a stub, however damaged, is never taken for a record file: it is no damage that somebody
// could repair from a backup, as what the backup holds is not what the other engine has.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace zon {

// Within the engine: what was read is the beginning of a stub. Callers of the engine never see it.
constexpr std::uint32_t RC_STUB = 0x900002FE;

namespace format {

// Everything here is on disk, as in format.h. No record file begins with the first byte of this magic, so that even the
// beginning of a stub that was cut is known.
constexpr char STUB_MAGIC[8] = {'S', 'T', 'U', 'B', 'Z', 'O', 'N', '\n'};
constexpr std::uint32_t STUB_VERSION = 1;
constexpr std::size_t ENGINE_NAME_SIZE = 32;
constexpr std::size_t SETTINGS_NAME_SIZE = 256;

struct Stub {
  char magic[8];
  std::uint32_t version;
  std::uint32_t reserved;             // zero
  char engine[ENGINE_NAME_SIZE];      // lower-case letters, digits, '-' and '_'; filled up with NULs, at least one
  char settings[SETTINGS_NAME_SIZE];  // what this engine needs to find the records; filled up with NULs, at least one
  std::uint8_t unused[204];           // zero
  std::uint32_t crc;                  // over all bytes before it
};
static_assert(sizeof(Stub) == 512);
static_assert(offsetof(Stub, engine) == 16 && offsetof(Stub, settings) == 48 && offsetof(Stub, crc) == 508);

// The file is the stub, and the same bytes again.
constexpr std::size_t STUB_FILE_SIZE = 2 * sizeof(Stub);

}  // namespace format

// Whether a file of this size that begins so may be a stub; to be asked only of what has no header of a record file.
// Where the device could not read them the bytes are zeros.
bool mayBeStub(std::span<const std::byte> start, std::uint64_t fileSize);

// What a stub tells.
class Stub {
 public:
  std::string_view engine() const { return stub_.engine; }
  std::string_view settings() const { return stub_.settings; }

  // Takes a stub's bytes as they were read; `fileSize` may be more than were. GENREG_RC_NOT_RECORD_FILE when this is no
  // stub, GENREG_RC_NEWER_FORMAT, or GENREG_RC_DAMAGED_STUB.
  [[nodiscard]] std::uint32_t take(std::span<const std::byte> bytes, std::uint64_t fileSize);

 private:
  format::Stub stub_{};
};

}  // namespace zon
