// Unloading the library. The rule: this program is not linked with it, so that dlclose really takes it away.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <fstream>
#include <string>

#include "zonmdfile/platform/oss.h"

namespace {

#if defined(__SANITIZE_THREAD__)
#define ZON_RUNTIME_MAPS_MEMORY 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZON_RUNTIME_MAPS_MEMORY 1
#endif
#endif
#ifndef ZON_RUNTIME_MAPS_MEMORY
#define ZON_RUNTIME_MAPS_MEMORY 0
#endif

// Kept record buffers are mappings of 1,088 KB, alone or side by side.
std::uint64_t anonymousBytes() {
  std::ifstream maps("/proc/self/maps");
  std::uint64_t sum = 0;
  for (std::string line; std::getline(maps, line);) {
    if (line.find('/') != std::string::npos || line.find('[') != std::string::npos) continue;
    const std::size_t dash = line.find('-');
    sum += std::stoull(line.substr(dash + 1), nullptr, 16) - std::stoull(line.substr(0, dash), nullptr, 16);
  }
  return sum;
}

TEST(Unloading, LeavesNoKeptRecordBufferBehind) {
  if (ZON_RUNTIME_MAPS_MEMORY) GTEST_SKIP() << "the thread sanitizer maps memory of its own meanwhile";
  const std::uint64_t before = anonymousBytes();
  void* library = ::dlopen(ZON_OSS_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << ::dlerror();
  const auto allocate = reinterpret_cast<decltype(&_ossMemAlloc)>(::dlsym(library, "_ossMemAlloc"));
  const auto release = reinterpret_cast<decltype(&_ossMemFree)>(::dlsym(library, "_ossMemFree"));
  ASSERT_NE(allocate, nullptr);
  ASSERT_NE(release, nullptr);
  std::array<void*, 3> blocks{};
  for (void*& block : blocks) ASSERT_EQ(allocate(&block, 0, 1024148, 1, "unload_test", 1), 0);
  for (void*& block : blocks) release(&block, 0, 0, "unload_test", 1);
  EXPECT_GE(anonymousBytes(), before + 1024148) << "nothing was kept, so this test shows nothing";
  ASSERT_EQ(::dlclose(library), 0);
  EXPECT_EQ(::dlopen(ZON_OSS_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
  EXPECT_LT(anonymousBytes(), before + 1024148);
}

}  // namespace
