// Exclusion of writers by the kernel's lock on an open file (flock), which a writer's death releases by itself.
#ifndef ZON_PLATFORM_REGISTRY_FILE_LOCK_H
#define ZON_PLATFORM_REGISTRY_FILE_LOCK_H

#include <cstdint>

#include "platform/registry/file_io.h"

namespace zon {

// Releases the lock explicitly before the descriptor is closed: a child forked meanwhile by another thread holds a copy
// of the descriptor, and closing alone would leave the lock with it.
class LockedFile {
 public:
  LockedFile() = default;
  LockedFile(LockedFile&&) = default;
  LockedFile& operator=(LockedFile&& other) noexcept;
  LockedFile(const LockedFile&) = delete;
  LockedFile& operator=(const LockedFile&) = delete;
  ~LockedFile() { release(); }

  int get() const { return file_.get(); }
  bool isHeld() const { return file_.isOpen(); }
  // Whether this process took the lock: a forked child has a copy of the descriptor, and with it of the lock, that is
  // not its own to use or to release.
  bool isOurs() const;
  // As the file was when its lock was had.
  const FileState& state() const { return state_; }
  void release();

  // Waits for the lock until the monotonic clock shows deadlineMs; GENREG_RC_LOCK_TIMEOUT after that. On success the
  // object owns the file.
  std::uint32_t lock(Descriptor file, std::uint64_t deadlineMs);

  // Whether the name leads to this file.
  std::uint32_t isNamed(int directory, const char* path, bool& result);

 private:
  Descriptor file_;
  FileState state_{};
  unsigned forks_ = 0;  // that had led to this process when the lock was had
};

// Opens (with O_CREAT in flags: creates) a file by name and locks it, such that at the moment of success the name still
// leads to the locked file. Starts over when somebody removed or replaced the file meanwhile.
std::uint32_t lockByName(int directory, const char* path, int flags, std::uint32_t mode, std::uint64_t deadlineMs,
                         LockedFile& locked);

}  // namespace zon

#endif
