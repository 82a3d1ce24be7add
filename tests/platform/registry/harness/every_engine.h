// What the suites of engines run on: the file engine, and the one in memory that shows that nothing else is needed.
//
// The rule: a suite of these looks at no file; what only the file engine promises has tests of its own.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>

#include "platform/registry/harness/memory_engine.h"
#include "platform/registry/harness/store_in_memory.h"

namespace zon::test {

struct EngineUnderTest {
  const char* name;
  // Lets this engine have the records under this name, where nothing is yet.
  void (*prepare)(const std::filesystem::path& recordFile);
};

inline void PrintTo(const EngineUnderTest& engine, std::ostream* out) { *out << engine.name; }

// The engines, for INSTANTIATE_TEST_SUITE_P together with engineName.
inline auto everyEngine() {
  return ::testing::Values(EngineUnderTest{"File", [](const std::filesystem::path&) {}},
                           EngineUnderTest{"Memory", keepInMemory});
}
inline std::string engineName(const ::testing::TestParamInfo<EngineUnderTest>& info) { return info.param.name; }

class EveryEngine : public ::testing::TestWithParam<EngineUnderTest>, protected StoreInMemory {
 protected:
  EveryEngine() { GetParam().prepare(folder_.file()); }
};

}  // namespace zon::test
