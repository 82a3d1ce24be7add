// Exclusion of writers by the kernel's lock on an open file (flock), which a writer's death releases by itself.
#pragma once

#include <cstdint>

#include "platform/registry/files/file_io.h"

namespace zon {

// A child that is forked while the object has its file closes its copy of the descriptor at once, so that the lock ends
// with the process that took it, however that ends. The lock is released explicitly before the descriptor is closed all
// the same: copies that were made without fork, by clone for one, know nothing of this.
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
  // Whether this process took the lock: in a forked child the number is closed, or somebody else's by now, and neither
  // to be used nor to be closed.
  bool isOurs() const;
  // As the file was when its lock was had.
  const FileState& state() const { return state_; }
  void release();

  // Owns the file from here on, without its lock.
  void take(Descriptor file);

  // Waits for the lock until the monotonic clock shows deadlineMs; GENREG_RC_LOCK_TIMEOUT after that.
  std::uint32_t lock(std::uint64_t deadlineMs);

  // Whether the name leads to this file.
  std::uint32_t isNamed(int directory, const char* path, bool& result);

 private:
  Descriptor file_;
  FileState state_{};
  unsigned forks_ = 0;  // that had led to the process that took the file
};

// Opens (with O_CREAT in flags: creates) a file by name and locks it, such that at the moment of success the name still
// leads to the locked file. Starts over when somebody removed or replaced the file meanwhile, or a fork came in
// between.
std::uint32_t lockByName(int directory, const char* path, int flags, std::uint32_t mode, std::uint64_t deadlineMs,
                         LockedFile& locked);

}  // namespace zon
