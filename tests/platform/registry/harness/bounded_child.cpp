// See bounded_child.h.
#include "platform/registry/harness/bounded_child.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <exception>

#include "platform/registry/files/system_calls.h"

namespace zon::test {

namespace {

constexpr rlim_t MOST_SECONDS = 60;

// With a sanitizer in it a process maps terabytes of its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool HAS_SHADOW_MEMORY = true;
#elif defined(__has_feature)
constexpr bool HAS_SHADOW_MEMORY = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool HAS_SHADOW_MEMORY = false;
#endif

Bounds counts;
SystemCalls calls;

ssize_t countedPread(int descriptor, void* data, std::size_t size, off_t offset) {
  const ssize_t got = calls.pread(descriptor, data, size, offset);
  ++counts.calls;
  counts.bytesRead += got > 0 ? static_cast<std::uint64_t>(got) : 0;
  return got;
}

ssize_t countedPwrite(int descriptor, const void* data, std::size_t size, off_t offset) {
  ++counts.calls;
  counts.bytesWritten += size;
  return calls.pwrite(descriptor, data, size, offset);
}

int countedFallocate(int descriptor, int mode, off_t offset, off_t size) {
  ++counts.calls;
  counts.bytesWritten += static_cast<std::uint64_t>(size);
  return calls.fallocate(descriptor, mode, offset, size);
}

off_t countedSeek(int descriptor, off_t offset, int origin) {
  ++counts.calls;
  return calls.seek(descriptor, offset, origin);
}

std::uint64_t addressSpace() {
  std::uint64_t pages = 0;
  if (std::FILE* file = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(file, "%lu", &pages) != 1) pages = 0;
    std::fclose(file);
  }
  return pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

void limit(__rlimit_resource resource, rlim_t value) {
  const struct rlimit both { .rlim_cur = value, .rlim_max = value };
  setrlimit(resource, &both);
}

[[noreturn]] void runInChild(int out, std::uint64_t memory, const std::function<std::string()>& work) {
  limit(RLIMIT_CORE, 0);
  limit(RLIMIT_CPU, MOST_SECONDS);
  if (memory != 0 && !HAS_SHADOW_MEMORY) limit(RLIMIT_AS, addressSpace() + memory);
  CallCounter::install();
  std::string complaint;
  try {
    complaint = work();
  } catch (const std::exception& exception) {
    complaint = std::string("threw ") + exception.what();
  }
  const ssize_t put = write(out, complaint.data(), complaint.size());
  _exit(put == static_cast<ssize_t>(complaint.size()) ? 0 : 1);
}

}  // namespace

void CallCounter::install() {
  calls = realSystemCalls();
  systemCalls.pread = countedPread;
  systemCalls.pwrite = countedPwrite;
  systemCalls.fallocate = countedFallocate;
  systemCalls.seek = countedSeek;
}

Bounds CallCounter::counted() { return counts; }

void CallCounter::reset() { counts = Bounds{}; }

std::string runBounded(std::uint64_t memory, const std::function<std::string()>& work) {
  int ends[2];
  if (pipe(ends) != 0) return "no pipe";
  const pid_t child = fork();
  if (child < 0) return "no child";
  if (child == 0) runInChild(ends[1], memory, work);
  close(ends[1]);
  std::string complaint;
  std::array<char, 4096> piece;
  for (ssize_t got = 0; (got = read(ends[0], piece.data(), piece.size())) > 0;) {
    complaint.append(piece.data(), static_cast<std::size_t>(got));
  }
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFSIGNALED(status)) return std::string("died of ") + strsignal(WTERMSIG(status));
  if (WEXITSTATUS(status) != 0) return "ended with " + std::to_string(WEXITSTATUS(status)) + ' ' + complaint;
  return complaint;
}

}  // namespace zon::test
