// Bounded waiting for flock; see file_lock.h.
#include "platform/registry/files/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>

#include "platform/registry/files/forks.h"
#include "platform/registry/files/system_calls.h"

namespace zon {

namespace {

// A holder is usually done within one sync: first look often, then ever less so.
constexpr std::uint32_t FIRST_PAUSE_US = 10;
constexpr std::uint32_t LONGEST_PAUSE_US = 2000;

}  // namespace

LockedFile& LockedFile::operator=(LockedFile&& other) noexcept {
  if (this != &other) {
    release();
    file_ = std::move(other.file_);
    state_ = other.state_;
    forks_ = other.forks_;
  }
  return *this;
}

void LockedFile::take(Descriptor file) {
  release();
  file_ = std::move(file);
  forks_ = forksToHere();
  closeInChildren(file_.get());
}

bool LockedFile::isOurs() const { return file_.isOpen() && forks_ == forksToHere(); }

void LockedFile::release() {
  if (!file_.isOpen()) return;
  if (isOurs()) {
    systemCalls.flock(file_.get(), LOCK_UN);
    // In this order: a copy without the lock does no harm.
    keepInChildren(file_.get());
  } else if (canBeClosedInChildren(file_.get())) {
    file_.forget();
  }
  file_.reset();
}

std::uint32_t LockedFile::lock(std::uint64_t deadlineMs) {
  for (std::uint32_t pause = FIRST_PAUSE_US;; pause = std::min(pause * 2, LONGEST_PAUSE_US)) {
    if (systemCalls.flock(file_.get(), LOCK_EX | LOCK_NB) == 0) return MD_RC_OK;
    if (errno != EWOULDBLOCK && errno != EINTR) return codeOfErrno(errno);
    if (nowMs() >= deadlineMs) return GENREG_RC_LOCK_TIMEOUT;
    sleepMicroseconds(pause);
  }
}

std::uint32_t LockedFile::isNamed(int directory, const char* path, bool& result) {
  if (const std::uint32_t rc = requireRegular(file_.get(), state_)) return rc;
  FileState named;
  const std::uint32_t rc = stateAt(directory, path, named);
  result = rc == MD_RC_OK && named.inode == state_.inode && named.device == state_.device;
  return rc == GENREG_RC_NOT_FOUND ? MD_RC_OK : rc;
}

std::uint32_t lockByName(int directory, const char* path, int flags, std::uint32_t mode, std::uint64_t deadlineMs,
                         LockedFile& locked) {
  ForkPatience patience;
  for (;;) {
    const ForkWatch watch(patience);
    Descriptor file;
    if (const std::uint32_t rc = openAnything(directory, path, flags, mode, file)) return rc;
    LockedFile candidate;
    candidate.take(std::move(file));
    // A child may have a copy that it does not know of: this one must never be locked.
    if (watch.sawFork() && !patience.isOver()) {
      patience.pause();
      continue;
    }
    if (const std::uint32_t rc = candidate.lock(deadlineMs)) return rc;
    bool isNamed = false;
    if (const std::uint32_t rc = candidate.isNamed(directory, path, isNamed)) return rc;
    if (isNamed) {
      locked = std::move(candidate);
      return MD_RC_OK;
    }
    if (nowMs() >= deadlineMs) return GENREG_RC_LOCK_TIMEOUT;
  }
}

}  // namespace zon
