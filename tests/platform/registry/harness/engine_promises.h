// A store with a folder in memory, for the tests of what users of the engine may rely on, promise by promise, in plain
// cases on a real file system. Crashes, failing calls and damage have tests of their own.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <string>

#include "platform/registry/harness/store_in_memory.h"

namespace zon::test {

// Runs work in a child; the child's exit status, -1 when it did not end by itself within half a minute.
inline int inChild(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(30);
    _exit(work());
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

inline std::map<std::string, std::string> filesIn(const std::filesystem::path& folder) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::ifstream file(entry.path(), std::ios::binary);
    files[entry.path().filename()] = std::string((std::istreambuf_iterator<char>(file)), {});
  }
  return files;
}

class EnginePromises : public ::testing::Test, protected StoreInMemory {};

}  // namespace zon::test
