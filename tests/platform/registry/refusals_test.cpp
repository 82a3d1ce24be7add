// What is refused: each cause has its own code, nothing is written, and the next call works.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>

#include "platform/registry/files/system_calls.h"
#include "platform/registry/harness/engine_promises.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

class Refusals : public EnginePromises {};

TEST_F(Refusals, TellOfADirectoryThatIsMissing) {
  TestStore elsewhere(folder_.path() / "missing");
  EXPECT_EQ(elsewhere.add({"g", "k", "x"}), GENREG_RC_NO_DIRECTORY);
}

TEST_F(Refusals, OfAFileSizeLimitComeAsAnAnswerAndNotAsASignal) {
  for (rlim_t most = 35000; most < 65000; most += 2500) {
    std::filesystem::remove(folder_.file());
    ASSERT_EQ(store_.add({"g", "first", "x"}), MD_RC_OK);
    const int result = inChild([&] {
      const struct rlimit limit { .rlim_cur = most, .rlim_max = most };
      if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 90;
      TestStore store(folder_.path());
      if (store.add({"g", "large", noise(60000, 1)}) != GENREG_RC_FILE_TOO_LARGE) return 1;
      for (int at = 0; at < 2000; ++at) {
        const std::uint32_t rc = store.add({numbered("g", at), numbered("k", at), ""});
        if (rc != MD_RC_OK) return rc == GENREG_RC_FILE_TOO_LARGE && at > 5 ? 0 : 2;
      }
      return 3;
    });
    EXPECT_EQ(result, 0) << most;
    std::uint32_t rc = MD_RC_OK;
    EXPECT_GT(store_.list(0, {}, &rc).size(), 5u);
    EXPECT_EQ(rc, MD_RC_OK);
    EXPECT_EQ(store_.add({"g", "later", noise(60000, 1)}), MD_RC_OK);
  }
}

TEST_F(Refusals, OfADiskThatTakesNothingComeToAnEnd) {
  fill(5);
  systemCalls.pwrite = [](int, const void*, std::size_t, off_t) { return ssize_t{0}; };
  alarm(20);
  EXPECT_EQ(store_.add({"g", "k", "x"}), GENREG_RC_DURABILITY_UNKNOWN);
  alarm(0);
  systemCalls = realSystemCalls();
  EXPECT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
}

TEST_F(Refusals, WriteNothing) {
  ASSERT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
  const auto before = filesIn(folder_.path());
  store_.add({"g", "k", "y"});
  store_.change({"g", "k", "x"});
  store_.change({"g", "none", "x"});
  store_.remove("g", "none");
  store_.removeAll("none", "", GROUP);
  EXPECT_EQ(filesIn(folder_.path()), before);
}

}  // namespace
}  // namespace zon::test
