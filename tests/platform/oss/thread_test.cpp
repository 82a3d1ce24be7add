// The identity of threads.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "zonmdfile/platform/oss.h"

namespace {

TEST(ThreadID, IsTheProcessesOwnInItsFirstThread) { EXPECT_EQ(ossThreadID(), static_cast<std::uint64_t>(::getpid())); }

TEST(ThreadID, DiffersBetweenThreads) {
  std::uint64_t other = ossThreadID();
  std::thread([&other] { other = ossThreadID(); }).join();
  EXPECT_NE(other, ossThreadID());
}

TEST(ThreadID, IsTheChildsOwnAfterAFork) {
  const std::uint64_t parent = ossThreadID();
  const pid_t child = ::fork();
  if (child == 0) ::_exit(ossThreadID() != parent && ossThreadID() == static_cast<std::uint64_t>(::getpid()) ? 0 : 1);
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
