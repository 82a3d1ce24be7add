// The names of a record file and its companions, taken relative to their directory, so that one call works in one
// directory even when the directory's own name changes meanwhile.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zon {

struct FilePaths {
  std::string directory;
  std::string file;
  std::string backup;
  std::string temporary;
  std::string corrupt;
  std::string lock;
  // A path was cut at the size of its field and does not name what was meant.
  bool isCut = false;
};

inline std::string lastComponent(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

inline std::string directoryOf(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return ".";
  return std::string(slash == 0 ? path.substr(0, 1) : path.substr(0, slash));
}

}  // namespace zon
