// Nothing lives between two calls but an open scan and an open batch, and those belong to their object alone.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/registry/harness/engine_promises.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

class BetweenCalls : public EnginePromises {};

std::size_t entriesOf(const char* folder) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) count += entry.exists() ? 1 : 1;
  return count;
}

TEST_F(BetweenCalls, NothingStaysOpenOrRunning) {
  fill(200);
  const std::size_t files = entriesOf("/proc/self/fd");
  const std::size_t threads = entriesOf("/proc/self/task");
  Value value;
  GenRegStatus status;
  store_.get("g1", "k1", value);
  store_.list();
  store_.list(GROUP, {"g1", "", ""});
  EXPECT_EQ(store_.add({"g", "k", noise(20000, 1)}), MD_RC_OK);
  EXPECT_EQ(store_.change({"g", "k", "x"}), MD_RC_OK);
  EXPECT_EQ(store_.remove("g", "k"), MD_RC_OK);
  EXPECT_EQ(store_.remove("g", "k"), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(store_.status(status), MD_RC_OK);
  EXPECT_EQ(store_.compact(), MD_RC_OK);
  EXPECT_EQ(store_.repair(), MD_RC_OK);
  EXPECT_EQ(entriesOf("/proc/self/fd"), files);
  EXPECT_EQ(entriesOf("/proc/self/task"), threads);
  std::ifstream maps("/proc/self/maps");
  const std::string mapped((std::istreambuf_iterator<char>(maps)), {});
  EXPECT_EQ(mapped.find(folder_.path().string()), std::string::npos);
}

TEST_F(BetweenCalls, AnAbandonedScanOrBatchLeavesNothing) {
  fill(20);
  const std::size_t files = entriesOf("/proc/self/fd");
  {
    TestStore scanning(folder_.path());
    ASSERT_EQ(scanning.OpenScan(), MD_RC_OK);
    TestStore batching(folder_.path());
    ASSERT_EQ(batching.beginBatch(), MD_RC_OK);
    ASSERT_EQ(batching.add({"g", "never", "x"}), MD_RC_OK);
  }
  EXPECT_EQ(entriesOf("/proc/self/fd"), files);
  EXPECT_EQ(store_.list().size(), 20u);
}

// A batch keeps files open, and so does a scan: no program that is started meanwhile gets them.
TEST_F(BetweenCalls, ProgramsThatAreStartedWithinABatchGetNoneOfItsFiles) {
  fill(5);
  const auto descriptors = [] {
    std::vector<int> flags;
    for (int file = 0; file < 64; ++file) flags.push_back(fcntl(file, F_GETFD));
    return flags;
  };
  const std::vector<int> before = descriptors();
  TestStore scanning(folder_.path());
  ASSERT_EQ(scanning.OpenScan(), MD_RC_OK);
  ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "in a batch", "x"}), MD_RC_OK);
  const std::vector<int> within = descriptors();
  int opened = 0;
  for (std::size_t file = 0; file < within.size(); ++file) {
    if (within[file] == before[file]) continue;
    ++opened;
    EXPECT_EQ(within[file], FD_CLOEXEC) << file;
  }
  EXPECT_GE(opened, 3);  // of the scan and the batch the record file, and the lock file
  EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
  EXPECT_EQ(scanning.CloseScan(), MD_RC_OK);
}

TEST_F(BetweenCalls, ClosedStandardStreamsDoNoHarm) {
  fill(5);
  const int result = inChild([&] {
    close(0);
    close(1);
    close(2);
    TestStore store(folder_.path());
    if (store.add({"g", "without streams", noise(9000, 5)}) != MD_RC_OK) return 1;
    Value value;
    if (store.get("g", "without streams", value) != MD_RC_OK) return 2;
    std::vector<bool> before;
    for (int file = 0; file < 64; ++file) before.push_back(fcntl(file, F_GETFD) != -1);
    if (store.OpenScan() != MD_RC_OK) return 3;
    for (int file = 0; file < 64; ++file) {
      const int flags = fcntl(file, F_GETFD);
      if (!before[static_cast<std::size_t>(file)] && flags != -1 && (flags & FD_CLOEXEC) == 0) return 6;
    }
    if (fcntl(0, F_GETFD) != -1 || fcntl(1, F_GETFD) != -1 || fcntl(2, F_GETFD) != -1) return 4;
    return store.CloseScan() == MD_RC_OK ? 0 : 5;
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(store_.list().size(), 6u);
}

TEST_F(BetweenCalls, AForkedProcessGoesItsOwnWay) {
  fill(50);
  const Values before = store_.list();
  ASSERT_EQ(store_.OpenScan(), MD_RC_OK);
  auto key = encode({}, true);
  std::vector<std::byte> out(key.size());
  ASSERT_EQ(store_.GetNext(0, key.data(), out.data()), MD_RC_OK);
  const int result = inChild([&] {
    std::size_t count = 1;
    while (store_.GetNext(0, key.data(), out.data()) == MD_RC_OK) ++count;
    TestStore own(folder_.path());
    if (own.add({"g", "of the child", "x"}) != MD_RC_OK) return 1;
    return count == before.size() ? 0 : 2;
  });
  EXPECT_EQ(result, 0);
  std::size_t count = 1;
  while (store_.GetNext(0, key.data(), out.data()) == MD_RC_OK) ++count;
  EXPECT_EQ(count, before.size());
  EXPECT_EQ(store_.CloseScan(), MD_RC_OK);
  EXPECT_EQ(store_.list().size(), before.size() + 1);
}

TEST_F(BetweenCalls, ABatchThatGrowsLargeIsSyncedInBetween) {
  ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
  for (int at = 0; at < 30; ++at) {
    ASSERT_EQ(store_.add({"g", numbered("k", at), noise(100000, static_cast<unsigned>(at))}), MD_RC_OK);
  }
  TestStore reader(folder_.path());
  const Values prefix = reader.list();
  EXPECT_GT(prefix.size(), 10u);
  EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
  const Values all = reader.list();
  EXPECT_EQ(all.size(), 30u);
  EXPECT_TRUE(std::equal(prefix.begin(), prefix.end(), all.begin()));
}

}  // namespace
}  // namespace zon::test
