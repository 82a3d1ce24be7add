// What the suites of engines run on: the file engine, and the one in memory that shows that nothing else is needed.
//
// The rule: a suite of these looks at no file; what only the file engine promises has tests of its own.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>

#include "platform/registry/harness/memory_engine.h"
#include "platform/registry/harness/test_records.h"

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

class EveryEngine : public ::testing::TestWithParam<EngineUnderTest> {
 protected:
  EveryEngine() { GetParam().prepare(folder_.file()); }

  void fill(int records, int groups = 10) {
    ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
    for (int at = 0; at < records; ++at) {
      ASSERT_EQ(store_.add({numbered("g", at % groups), numbered("k", at), noise(100, static_cast<unsigned>(at))}),
                MD_RC_OK);
    }
    ASSERT_EQ(store_.commitBatch(), MD_RC_OK);
  }

  TestFolder folder_{inMemory()};
  TestStore store_{folder_.path()};
};

}  // namespace zon::test
