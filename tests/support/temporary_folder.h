// TemporaryFolder: a folder that is there as long as the object.
//
// The rule: what a test writes, it writes below one of these, and nothing of it stays.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace zontest {

// A place where a sync costs nothing, where there is one.
inline std::filesystem::path inMemory() {
  const std::filesystem::path memory = "/dev/shm";
  return ::access(memory.c_str(), W_OK) == 0 ? memory : std::filesystem::temp_directory_path();
}

class TemporaryFolder {
 public:
  explicit TemporaryFolder(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
    std::string name = parent / "zonmdfile-test-XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("no folder for the test: " + name);
    path_ = name;
  }
  // Tests take rights away; without them nothing could be removed.
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all, ignored);
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

}  // namespace zontest
