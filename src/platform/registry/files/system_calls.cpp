// The system's own functions, behind the table of system_calls.h.
#include "platform/registry/files/system_calls.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>  // renameat

namespace zon {

namespace {

int callOpenAt(int directory, const char* path, int flags, mode_t mode) {
  return ::openat(directory, path, flags, mode);
}
int callDuplicateFrom(int descriptor, int lowest) { return ::fcntl(descriptor, F_DUPFD_CLOEXEC, lowest); }

int callGetResourceLimit(int resource, struct rlimit* limit) {
  return ::getrlimit(static_cast<__rlimit_resource_t>(resource), limit);
}

}  // namespace

SystemCalls realSystemCalls() {
  return SystemCalls{
      .openAt = callOpenAt,
      .close = ::close,
      .duplicateFrom = callDuplicateFrom,
      .pread = ::pread,
      .pwrite = ::pwrite,
      .fdatasync = ::fdatasync,
      .fsync = ::fsync,
      .fallocate = ::fallocate,
      .ftruncate = ::ftruncate,
      .seek = ::lseek,
      .flock = ::flock,
      .statx = ::statx,
      .renameAt = ::renameat,
      .linkAt = ::linkat,
      .unlinkAt = ::unlinkat,
      .fchmod = ::fchmod,
      .fchown = ::fchown,
      .getAttribute = ::fgetxattr,
      .setAttribute = ::fsetxattr,
      .removeAttribute = ::fremovexattr,
      .getResourceLimit = callGetResourceLimit,
      .getRandom = ::getrandom,
      .clockGetTime = ::clock_gettime,
      .sleepFor = ::nanosleep,
  };
}

SystemCalls systemCalls = realSystemCalls();

}  // namespace zon
