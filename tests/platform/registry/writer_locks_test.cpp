// How writers exclude each other: waits that end, locks that die with their writer, names that somebody deletes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/registry/files/system_calls.h"
#include "platform/registry/harness/engine_promises.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

class WriterLocks : public EnginePromises {};

TEST_F(WriterLocks, AreWaitedForNoLongerThanToldAndTellSo) {
  fill(3);
  for (const char* name : {".store.lock", "store"}) {
    const int held = open((folder_.path() / name).c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(held, 0);
    ASSERT_EQ(flock(held, LOCK_EX), 0);
    store_.setLockWait(150);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(store_.add({"g", name, "x"}), GENREG_RC_LOCK_TIMEOUT);
    EXPECT_EQ(store_.remove("g0", "k0"), GENREG_RC_LOCK_TIMEOUT);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(290));
    EXPECT_LT(took, std::chrono::milliseconds(900));
    close(held);
    EXPECT_EQ(store_.add({"g", name, "x"}), MD_RC_OK);
  }
}

TEST_F(WriterLocks, OfADeadWriterAreGoneWithIt) {
  fill(3);
  ASSERT_EQ(inChild([&] {
              TestStore writer(folder_.path());
              if (writer.beginBatch() != MD_RC_OK || writer.add({"g", "never", "x"}) != MD_RC_OK) return 1;
              _exit(0);
            }),
            0);
  store_.setLockWait(0);
  EXPECT_EQ(store_.add({"g", "next", "x"}), MD_RC_OK);
  EXPECT_EQ(store_.list().size(), 4u);
}

TEST_F(WriterLocks, HoldWhenTheLockFileIsDeletedUnderThem) {
  constexpr int WRITERS = 4;
  constexpr int RECORDS = 60;
  std::vector<pid_t> writers;
  for (int writer = 0; writer < WRITERS; ++writer) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(60);
      TestStore store(folder_.path());
      for (int at = 0; at < RECORDS; ++at) {
        if (store.add({numbered("w", writer), numbered("k", at), "x"}) != MD_RC_OK) _exit(1);
      }
      _exit(0);
    }
    writers.push_back(child);
  }
  for (std::size_t ended = 0; ended < writers.size();) {
    std::error_code ignored;
    std::filesystem::remove(folder_.path() / ".store.lock", ignored);
    int status = 0;
    const pid_t child = waitpid(-1, &status, WNOHANG);
    if (child > 0) {
      ++ended;
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
  }
  EXPECT_EQ(store_.list().size(), static_cast<std::size_t>(WRITERS * RECORDS));
  GenRegStatus status;
  ASSERT_EQ(store_.status(status), MD_RC_OK);
  EXPECT_EQ(status.records, static_cast<std::uint64_t>(WRITERS * RECORDS));
  EXPECT_EQ(status.damaged, 0u);
  EXPECT_EQ(status.repairs, 0u);
}

// Who lost the lock file to a deletion may find, when it makes the file, that another writer was faster.
TEST_F(WriterLocks, LetNoWriterMakeTheFileOverAnothersOne) {
  static std::filesystem::path folder;
  static int made;
  folder = folder_.path();
  made = 0;
  systemCalls.openAt = [](int directory, const char* path, int flags, mode_t mode) {
    if ((flags & O_CREAT) != 0 && std::string_view(path) == "store.tmp" && made++ == 0) {
      std::filesystem::remove(folder / ".store.lock");
      TestStore faster(folder);
      EXPECT_EQ(faster.add({"g", "of the faster one", "x"}), MD_RC_OK);
    }
    return realSystemCalls().openAt(directory, path, flags, mode);
  };
  EXPECT_EQ(store_.add({"g", "of the slower one", "x"}), MD_RC_OK);
  systemCalls = realSystemCalls();
  EXPECT_EQ(store_.list(), Values({{"g", "of the faster one", "x"}, {"g", "of the slower one", "x"}}));
}

}  // namespace
}  // namespace zon::test
