// A writer that is stopped while it has the lock: readers go on, writers wait for as long as they were told to.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "platform/registry/harness/store_in_memory.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

constexpr int BATCH_SIZE = 30;  // two heads each: more than a slot holds

class AStoppedWriter : public ::testing::Test, protected StoreInMemory {
 protected:
  AStoppedWriter() {
    EXPECT_EQ(store_.add({"g", "before", "x"}), MD_RC_OK);
    EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0);
    writer_ = fork();
    if (writer_ == 0) _exit(holdTheLock());
    char ready = 0;
    EXPECT_EQ(read(ends_[0], &ready, 1), 1);
    ::kill(writer_, SIGSTOP);
    int status = 0;
    EXPECT_EQ(waitpid(writer_, &status, WUNTRACED), writer_);
    EXPECT_TRUE(WIFSTOPPED(status));
  }
  ~AStoppedWriter() override {
    close(ends_[0]);
    close(ends_[1]);
  }

  int holdTheLock() {
    TestStore store(folder_.path());
    std::uint32_t rc = store.beginBatch();
    for (int at = 0; at < BATCH_SIZE; ++at) rc |= store.add({numbered("g", at), "of the stopped", "x"});
    if (write(ends_[1], "r", 1) != 1) return 3;
    // Stopped here, or soon after: the batch stays open until somebody says so.
    raise(SIGSTOP);
    return (rc | store.commitBatch()) == MD_RC_OK ? 0 : 1;
  }

  int end(int signal) {
    ::kill(writer_, signal);
    int status = 0;
    // The second stop is the writer's own.
    while (waitpid(writer_, &status, WUNTRACED) == writer_ && WIFSTOPPED(status)) ::kill(writer_, signal);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  const SettingScope<std::size_t> small_{largestData, 8192};
  int ends_[2]{};
  pid_t writer_ = -1;
};

TEST_F(AStoppedWriter, HoldsUpNoReader) {
  std::uint32_t rc = MD_RC_OK;
  EXPECT_EQ(store_.list(0, {}, &rc), (Values{{"g", "before", "x"}}));
  EXPECT_EQ(rc, MD_RC_OK);
  EXPECT_EQ(end(SIGCONT), 0);
}

TEST_F(AStoppedWriter, HoldsUpWritersForTheirWaitAndNoLonger) {
  store_.setLockWait(50);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(store_.add({"g", "waits", "x"}), GENREG_RC_LOCK_TIMEOUT);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  EXPECT_EQ(store_.list(), (Values{{"g", "before", "x"}}));
  EXPECT_EQ(end(SIGCONT), 0);
  store_.setLockWait(10000);
  EXPECT_EQ(store_.add({"g", "waits", "x"}), MD_RC_OK);
  EXPECT_EQ(store_.list().size(), static_cast<std::size_t>(BATCH_SIZE) + 2);
}

TEST_F(AStoppedWriter, LeavesNothingWhenItIsKilled) {
  EXPECT_EQ(end(SIGKILL), -1);
  store_.setLockWait(0);
  EXPECT_EQ(store_.add({"g0", "of the stopped", "another"}), MD_RC_OK);
  EXPECT_EQ(store_.list(), (Values{{"g", "before", "x"}, {"g0", "of the stopped", "another"}}));
}

}  // namespace
}  // namespace zon::test
