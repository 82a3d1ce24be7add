// The metadata directory of this process. The rule: a text that readers may hold is never changed and never released,
// so that nobody waits, neither for a writer nor, in a child, for a thread that the fork left behind.
//
// Each text that was ever set is kept once and found again when it is set again; what stays is bounded by the number of
// different directories that a process uses.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "platform/admin/trace_points.h"
#include "platform/trace_scope.h"
#include "zonmdfile/platform/admin.h"

namespace {

constexpr std::size_t PATH_SIZE = 4096;  // with the closing NUL
constexpr const char* VARIABLE = "ZON_METADATA_PATH";

struct KeptPath {
  KeptPath* next;
  std::size_t length;
  char text[PATH_SIZE];
};

std::atomic<KeptPath*> keptPaths{nullptr};
std::atomic<const KeptPath*> currentPath{nullptr};

const KeptPath* findKept(std::string_view path) {
  for (const KeptPath* kept = keptPaths.load(std::memory_order_acquire); kept != nullptr; kept = kept->next) {
    if (std::string_view(kept->text, kept->length) == path) return kept;
  }
  return nullptr;
}

// Null without memory. Two threads may keep the same text twice, which does no harm.
const KeptPath* keep(std::string_view path) {
  if (const KeptPath* kept = findKept(path)) return kept;
  KeptPath* added = new (std::nothrow) KeptPath{keptPaths.load(std::memory_order_relaxed), path.size(), {}};
  if (added == nullptr) return nullptr;
  std::memcpy(added->text, path.data(), path.size());
  while (!keptPaths.compare_exchange_weak(added->next, added, std::memory_order_release, std::memory_order_relaxed)) {
  }
  return added;
}

// Empty when there is none. An empty variable counts as none: it would put the files into the root directory.
std::string_view directory() {
  if (const KeptPath* kept = currentPath.load(std::memory_order_acquire)) return {kept->text, kept->length};
  const char* value = std::getenv(VARIABLE);
  return value != nullptr ? value : std::string_view();
}

}  // namespace

extern "C" int getMetadataPath(char* path, size_t size) {
  zon::TraceScope trace(zon::trace::adminPoint("getMetadataPath"));
  if (path == nullptr || size == 0) return trace.exit(1);
  const std::string_view found = directory();
  path[0] = '\0';
  if (found.empty() || found.size() >= size) return trace.exit(1);
  std::memcpy(path, found.data(), found.size());
  path[found.size()] = '\0';
  return trace.exit(0);
}

extern "C" int setMetadataPath(const char* path) {
  zon::TraceScope trace(zon::trace::adminPoint("setMetadataPath"));
  const std::string_view wanted(path != nullptr ? path : "", path != nullptr ? ::strnlen(path, PATH_SIZE) : 0);
  if (wanted.size() >= PATH_SIZE) return trace.exit(1);
  const KeptPath* kept = wanted.empty() ? nullptr : keep(wanted);
  if (kept == nullptr && !wanted.empty()) return trace.exit(1);
  currentPath.store(kept, std::memory_order_release);
  return trace.exit(0);
}
