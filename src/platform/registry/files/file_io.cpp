// Loops over short and interrupted calls; see file_io.h.
#include "platform/registry/files/file_io.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/registry/files/system_calls.h"

namespace zon {

namespace {

constexpr int LOWEST_DESCRIPTOR = 3;
constexpr std::size_t LARGEST_TRANSFER = std::size_t{1} << 30;

// Moves a descriptor of a closed standard stream out of the way, so that nobody's output lands in a record file.
std::uint32_t avoidStandardStreams(int opened, Descriptor& file) {
  Descriptor first(opened);
  if (opened >= LOWEST_DESCRIPTOR) {
    file = std::move(first);
    return MD_RC_OK;
  }
  const int moved = systemCalls.duplicateFrom(opened, LOWEST_DESCRIPTOR);
  if (moved < 0) return codeOfErrno(errno);
  file = Descriptor(moved);
  return MD_RC_OK;
}

// Repeats a call that signals interrupt; gives up on a storm that leaves no room for progress.
constexpr int MOST_INTERRUPTS = 1000;

template <class Call>
auto uninterrupted(Call call) {
  auto result = call();
  for (int round = 0; result < 0 && errno == EINTR && round < MOST_INTERRUPTS; ++round) result = call();
  return result;
}

int openRetrying(int directory, const char* path, int flags, std::uint32_t mode) {
  return uninterrupted([&] { return systemCalls.openAt(directory, path, flags | O_CLOEXEC, mode); });
}

// Times are left out on purpose: a file system with fine-grained time stamps gives a file whose times were asked for a
// new stamp at its next write, and the sync of that write has the inode to write as well, a third more.
constexpr unsigned UNIQUE_MOUNT_ID =
    0x4000;  // STATX_MNT_ID_UNIQUE, which older headers lack; Linux 6.8 and later tell it
constexpr unsigned STATE_MASK =
    STATX_TYPE | STATX_MODE | STATX_NLINK | STATX_UID | STATX_GID | STATX_INO | STATX_SIZE | UNIQUE_MOUNT_ID;

std::uint32_t askState(int directory, const char* path, int flags, FileState& state) {
  struct statx status {};
  if (systemCalls.statx(directory, path, flags, STATE_MASK, &status) != 0) return codeOfErrno(errno);
  state = FileState{.size = status.stx_size,
                    .device = std::uint64_t{status.stx_dev_major} << 32 | status.stx_dev_minor,
                    .inode = status.stx_ino,
                    .mode = status.stx_mode,
                    .owner = status.stx_uid,
                    .group = status.stx_gid,
                    .links = status.stx_nlink,
                    .mount = (status.stx_mask & UNIQUE_MOUNT_ID) != 0 ? status.stx_mnt_id : 0};
  return MD_RC_OK;
}

}  // namespace

std::uint32_t codeOfErrno(int error) {
  switch (error) {
    case ENOSPC:
    case EDQUOT:
      return GENREG_RC_NO_SPACE;
    case EACCES:
    case EPERM:
      return GENREG_RC_NO_PERMISSION;
    case EROFS:
      return GENREG_RC_READ_ONLY;
    case EIO:
      return GENREG_RC_IO_ERROR;
    case ENOMEM:
    case ENOBUFS:
      return GENREG_RC_NO_MEMORY;
    case EMFILE:
    case ENFILE:
      return GENREG_RC_TOO_MANY_FILES;
    case EFBIG:
    case EOVERFLOW:
      return GENREG_RC_FILE_TOO_LARGE;
    case ELOOP:
    case ENXIO:
    case EISDIR:
    case ENODEV:
    case ESPIPE:
      return GENREG_RC_NOT_REGULAR;
    case ENOENT:
      return GENREG_RC_NOT_FOUND;
    case ENOTDIR:
      return GENREG_RC_NO_DIRECTORY;
    case ENAMETOOLONG:
      return GENREG_RC_NAME_TOO_LONG;
    case ENOLCK:
    case EOPNOTSUPP:
      return GENREG_RC_LOCK_UNSUPPORTED;
    default:
      return GENREG_RC_SYSTEM_ERROR;
  }
}

void Descriptor::reset() {
  if (value_ >= 0) systemCalls.close(std::exchange(value_, -1));
}

std::uint32_t Descriptor::close() {
  if (value_ < 0) return MD_RC_OK;
  // The descriptor is gone whatever close says, EINTR included: trying again could close somebody else's.
  if (systemCalls.close(std::exchange(value_, -1)) == 0 || errno == EINTR) return MD_RC_OK;
  return codeOfErrno(errno);
}

std::uint32_t openAnything(int directory, const char* path, int flags, std::uint32_t mode, Descriptor& file) {
  const int opened = openRetrying(directory, path, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, mode);
  return opened < 0 ? codeOfErrno(errno) : avoidStandardStreams(opened, file);
}

std::uint32_t requireRegular(int file, FileState& state) {
  if (const std::uint32_t rc = stateOf(file, state)) return rc;
  return S_ISREG(state.mode) ? MD_RC_OK : GENREG_RC_NOT_REGULAR;
}

std::uint32_t openRegular(int directory, const char* path, int flags, std::uint32_t mode, Descriptor& file) {
  std::uint32_t rc = openAnything(directory, path, flags, mode, file);
  FileState state;
  if (rc == MD_RC_OK) rc = requireRegular(file.get(), state);
  if (rc != MD_RC_OK) file.reset();
  return rc;
}

std::uint32_t openDirectory(const char* path, Descriptor& directory) {
  // The metadata directory itself may be a link: that is its owner's choice.
  const int opened = openRetrying(AT_FDCWD, path, O_RDONLY | O_DIRECTORY, 0);
  if (opened < 0) return errno == ENOENT ? GENREG_RC_NO_DIRECTORY : codeOfErrno(errno);
  return avoidStandardStreams(opened, directory);
}

std::uint32_t stateOf(int file, FileState& state) { return askState(file, "", AT_EMPTY_PATH, state); }

std::uint32_t stateAt(int directory, const char* path, FileState& state) {
  return askState(directory, path, AT_SYMLINK_NOFOLLOW, state);
}

std::uint32_t readAt(int file, std::uint64_t offset, std::span<std::byte> range, std::size_t& got) {
  got = 0;
  while (got < range.size()) {
    const std::size_t piece = std::min(range.size() - got, LARGEST_TRANSFER);
    const auto read = [&] {
      return systemCalls.pread(file, range.data() + got, piece, static_cast<off_t>(offset + got));
    };
    ssize_t count = uninterrupted(read);
    if (count < 0 && errno == EIO) count = uninterrupted(read);  // the fault may have passed
    if (count < 0) return errno == EIO ? RC_UNREADABLE : codeOfErrno(errno);
    if (count == 0) break;
    got += static_cast<std::size_t>(count);
  }
  return MD_RC_OK;
}

std::uint64_t skipHole(int file, std::uint64_t offset, std::uint64_t end) {
  const off_t data = systemCalls.seek(file, static_cast<off_t>(offset), SEEK_DATA);
  if (data < 0) return errno == ENXIO ? end : offset;
  return std::min(end, std::max(offset, static_cast<std::uint64_t>(data)));
}

namespace {

constexpr std::uint64_t STATX_BLOCK_SIZE = 512;

std::uint64_t blockBytes(int file, std::uint64_t end) {
  struct statx status {};
  if (systemCalls.statx(file, "", AT_EMPTY_PATH, STATX_BLOCKS, &status) != 0) return 0;
  return std::min<std::uint64_t>(end, status.stx_blocks * STATX_BLOCK_SIZE);
}

}  // namespace

std::uint64_t dataBytes(int file, std::uint64_t end) {
  std::uint64_t count = 0;
  for (std::uint64_t at = skipHole(file, 0, end); at < end; at = skipHole(file, at, end)) {
    const off_t found = systemCalls.seek(file, static_cast<off_t>(at), SEEK_HOLE);
    if (found < 0 || static_cast<std::uint64_t>(found) <= at) return blockBytes(file, end);
    const std::uint64_t hole = std::min(end, static_cast<std::uint64_t>(found));
    count += hole - at;
    at = hole;
  }
  return count;
}

std::uint32_t writeAt(int file, std::uint64_t offset, std::span<const std::byte> range) {
  std::size_t put = 0;
  while (put < range.size()) {
    const std::size_t piece = std::min(range.size() - put, LARGEST_TRANSFER);
    const ssize_t count = uninterrupted(
        [&] { return systemCalls.pwrite(file, range.data() + put, piece, static_cast<off_t>(offset + put)); });
    if (count < 0) return codeOfErrno(errno);
    if (count == 0) return GENREG_RC_IO_ERROR;  // no progress and no cause given: trying again could go on for ever
    put += static_cast<std::size_t>(count);
  }
  return MD_RC_OK;
}

std::uint32_t requireAllowedSize(std::uint64_t size) {
  struct rlimit limit;
  if (systemCalls.getResourceLimit(RLIMIT_FSIZE, &limit) != 0) return MD_RC_OK;
  return size > limit.rlim_cur ? GENREG_RC_FILE_TOO_LARGE : MD_RC_OK;
}

std::uint32_t reserve(int file, std::uint64_t oldSize, std::uint64_t size) {
  if (size <= oldSize) return MD_RC_OK;
  if (const std::uint32_t rc = requireAllowedSize(size)) return rc;
  const auto from = static_cast<off_t>(oldSize);
  const auto count = static_cast<off_t>(size - oldSize);
  if (uninterrupted([&] { return systemCalls.fallocate(file, 0, from, count); }) == 0) return MD_RC_OK;
  if (errno != EOPNOTSUPP && errno != ENOSYS) return codeOfErrno(errno);
  if (uninterrupted([&] { return systemCalls.ftruncate(file, static_cast<off_t>(size)); }) == 0) return MD_RC_OK;
  return codeOfErrno(errno);
}

std::uint32_t shrink(int file, std::uint64_t size) {
  if (uninterrupted([&] { return systemCalls.ftruncate(file, static_cast<off_t>(size)); }) == 0) return MD_RC_OK;
  return codeOfErrno(errno);
}

// A failed sync is not tried again, an interrupted one aside: the kernel may have dropped what it could not write and
// would answer success the next time.
std::uint32_t syncData(int file) {
  if (uninterrupted([&] { return systemCalls.fdatasync(file); }) == 0) return MD_RC_OK;
  return codeOfErrno(errno);
}

std::uint32_t makeReadBytesDurable(int file) {
  const std::uint32_t rc = syncData(file);
  return rc == GENREG_RC_READ_ONLY || rc == GENREG_RC_SYSTEM_ERROR ? MD_RC_OK : rc;
}

std::uint32_t syncFile(int file) {
  if (uninterrupted([&] { return systemCalls.fsync(file); }) == 0) return MD_RC_OK;
  return codeOfErrno(errno);
}

std::uint32_t syncDirectory(int directory) {
  if (uninterrupted([&] { return systemCalls.fsync(directory); }) == 0) return MD_RC_OK;
  return GENREG_RC_DURABILITY_UNKNOWN;
}

std::uint64_t nowMs() {
  struct timespec now;
  if (systemCalls.clockGetTime(CLOCK_MONOTONIC, &now) != 0) return 0;
  return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
}

void sleepMicroseconds(std::uint32_t microseconds) {
  const struct timespec time {
    .tv_sec = microseconds / 1000000, .tv_nsec = static_cast<long>(microseconds % 1000000) * 1000
  };
  systemCalls.sleepFor(&time, nullptr);
}

}  // namespace zon
