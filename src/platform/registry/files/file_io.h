// Opening, reading and writing whole ranges over the table of system calls. Every function answers a return code; errno
// is turned into one here and nowhere else in the engine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "zonmdfile/platform/return_codes.h"

namespace zon {

// The return code that names the cause of a failed system call.
std::uint32_t codeOfErrno(int error);

// Owns an open descriptor.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int value) : value_(value) {}
  Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      reset();
      value_ = std::exchange(other.value_, -1);
    }
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { reset(); }

  int get() const { return value_; }
  bool isOpen() const { return value_ >= 0; }
  void reset();
  // For a number that is not this object's to close any more.
  void forget() { value_ = -1; }
  // Closes and tells what close said: for files that were written, where a late error counts.
  std::uint32_t close();

 private:
  int value_ = -1;
};

// What the engine needs to know of an open file.
struct FileState {
  std::uint64_t size = 0;
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint32_t mode = 0;
  std::uint32_t owner = 0;
  std::uint32_t group = 0;
  std::uint64_t links = 0;
  std::uint64_t mount = 0;  // which mount of its file system it was reached through, never used again; 0 when not known
};

// Opens path relative to a directory descriptor (AT_FDCWD for the current one). Never follows a link in the last
// component, never blocks, never answers a descriptor of standard input, output or error, closes on exec. A file that
// is not regular is refused with GENREG_RC_NOT_REGULAR, a missing one with GENREG_RC_NOT_FOUND.
std::uint32_t openRegular(int directory, const char* path, int flags, std::uint32_t mode, Descriptor& file);

// The same without the look at the file's type, for callers who look themselves.
std::uint32_t openAnything(int directory, const char* path, int flags, std::uint32_t mode, Descriptor& file);

// GENREG_RC_NOT_REGULAR for anything but a regular file.
std::uint32_t requireRegular(int file, FileState& state);

// Opens a directory only to name files in it.
std::uint32_t openDirectory(const char* path, Descriptor& directory);

std::uint32_t stateOf(int file, FileState& state);

// GENREG_RC_NOT_FOUND when there is nothing at that name.
std::uint32_t stateAt(int directory, const char* path, FileState& state);

// Within the engine: a place that the device cannot read, also when asked once more. It is lost like what fails its
// checksum, and helped by the same means. Callers of the engine are told GENREG_RC_IO_ERROR.
constexpr std::uint32_t RC_UNREADABLE = 0x900002FF;

// What the engine answers: a place that cannot be read, for which there was no help, is the device's failure.
inline std::uint32_t codeForCallers(std::uint32_t rc) { return rc == RC_UNREADABLE ? GENREG_RC_IO_ERROR : rc; }

// For what a reader takes in that no slot shows: a sync through its own descriptor. A file system that is mounted to be
// read only, or knows no sync, has nothing to write.
std::uint32_t makeReadBytesDurable(int file);

// Reads until the range is full or the file ends; `got` tells how far. RC_UNREADABLE when the device fails.
std::uint32_t readAt(int file, std::uint64_t offset, std::span<std::byte> range, std::size_t& got);

// The first offset from `offset` on that is not in a hole of the file; `end` when there is none before it. Where the
// file system does not tell, the offset itself.
std::uint64_t skipHole(int file, std::uint64_t offset, std::uint64_t end);

// So many bytes of [0, end) are not in holes of the file. Where the file system does not tell, no more than the file's
// blocks on the disk.
std::uint64_t dataBytes(int file, std::uint64_t end);

// Writes the whole range or fails.
std::uint32_t writeAt(int file, std::uint64_t offset, std::span<const std::byte> range);

// GENREG_RC_FILE_TOO_LARGE when this process may not write up to `size`: a write, an allocation or a growing cut beyond
// its limit would send it a signal that ends it. To be asked before the first of several writes below `size`. That the
// limit is lowered between the question and the writes, microseconds later, is left to whoever lowers it.
std::uint32_t requireAllowedSize(std::uint64_t size);

// Makes [0, size) exist, with room on the disk where the file system can promise it; never shrinks.
std::uint32_t reserve(int file, std::uint64_t oldSize, std::uint64_t size);

// Cuts the file to a smaller size.
std::uint32_t shrink(int file, std::uint64_t size);

std::uint32_t syncData(int file);
std::uint32_t syncFile(int file);

// Makes the names in a directory durable. GENREG_RC_DURABILITY_UNKNOWN when the system cannot say so.
std::uint32_t syncDirectory(int directory);

// The monotonic clock in milliseconds.
std::uint64_t nowMs();
void sleepMicroseconds(std::uint32_t microseconds);

template <class T>
std::span<const std::byte> bytesOf(const T& object) {
  return std::as_bytes(std::span<const T, 1>(&object, 1));
}

template <class T>
std::span<std::byte> writableBytesOf(T& object) {
  return std::as_writable_bytes(std::span<T, 1>(&object, 1));
}

}  // namespace zon
