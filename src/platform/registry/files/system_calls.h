// The one table through which the registry engine reaches the operating system, so that tests can record, fail, delay
// or cut short every call. No other file of the engine may call the system.
#pragma once

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include <cstddef>

namespace zon {

// Each member behaves as the POSIX function of its name, errno included.
struct SystemCalls {
  int (*openAt)(int directory, const char* path, int flags, mode_t mode);
  int (*close)(int descriptor);
  int (*duplicateFrom)(int descriptor, int lowest);
  ssize_t (*pread)(int descriptor, void* data, std::size_t size, off_t offset);
  ssize_t (*pwrite)(int descriptor, const void* data, std::size_t size, off_t offset);
  int (*fdatasync)(int descriptor);
  int (*fsync)(int descriptor);
  int (*fallocate)(int descriptor, int mode, off_t offset, off_t size);
  int (*ftruncate)(int descriptor, off_t size);
  off_t (*seek)(int descriptor, off_t offset, int origin);
  int (*flock)(int descriptor, int operation);
  int (*statx)(int directory, const char* path, int flags, unsigned mask, struct statx* status);
  int (*renameAt)(int fromDirectory, const char* from, int toDirectory, const char* to);
  int (*linkAt)(int fromDirectory, const char* from, int toDirectory, const char* to, int flags);
  int (*unlinkAt)(int directory, const char* path, int flags);
  int (*fchmod)(int descriptor, mode_t mode);
  int (*fchown)(int descriptor, uid_t owner, gid_t group);
  ssize_t (*getAttribute)(int descriptor, const char* name, void* value, std::size_t size);
  int (*setAttribute)(int descriptor, const char* name, const void* value, std::size_t size, int flags);
  int (*removeAttribute)(int descriptor, const char* name);
  int (*getResourceLimit)(int resource, struct rlimit* limit);
  ssize_t (*getRandom)(void* data, std::size_t size, unsigned flags);
  int (*clockGetTime)(clockid_t clock, struct timespec* now);
  int (*sleepFor)(const struct timespec* time, struct timespec* left);
};

// The table in use. Only tests change it, before they start threads.
extern SystemCalls systemCalls;

// The table as the system provides it.
SystemCalls realSystemCalls();

}  // namespace zon
