// The two halves of a path, as POSIX basename and dirname see them. The rule: texts alone decide, no file is looked at.
#include <algorithm>
#include <cstring>
#include <string_view>

#include "zonmdfile/platform/oss.h"

namespace {

std::string_view withoutTrailingSlashes(std::string_view path) {
  const std::size_t last = path.find_last_not_of('/');
  return last == std::string_view::npos ? path.substr(0, path.empty() ? 0 : 1) : path.substr(0, last + 1);
}

std::string_view baseNameOf(std::string_view path) {
  path = withoutTrailingSlashes(path);
  const std::size_t slash = path.find_last_of('/');
  return slash == std::string_view::npos || path.size() == 1 ? path : path.substr(slash + 1);
}

std::string_view directoryNameOf(std::string_view path) {
  path = withoutTrailingSlashes(path);
  const std::size_t slash = path.find_last_of('/');
  if (slash == std::string_view::npos) return ".";
  return withoutTrailingSlashes(path.substr(0, slash + 1));
}

// The part may lie in the buffer that it goes to.
std::size_t copyPart(std::string_view part, char* buffer, std::size_t size) {
  if (buffer == nullptr || size == 0) return part.size();
  const std::size_t fitting = std::min(part.size(), size - 1);
  std::memmove(buffer, part.data(), fitting);
  buffer[fitting] = '\0';
  return part.size();
}

}  // namespace

extern "C" size_t ossBaseName(const char* path, char* name, size_t size) {
  return copyPart(baseNameOf(path != nullptr ? path : ""), name, size);
}

extern "C" size_t ossDirectoryName(const char* path, char* directory, size_t size) {
  return copyPart(directoryNameOf(path != nullptr ? path : ""), directory, size);
}
