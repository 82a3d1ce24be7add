// The metadata directory: who wins, what does not fit, and what threads and children see.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "zonmdfile/platform/admin.h"

namespace {

class MetadataPath : public testing::Test {
 protected:
  MetadataPath() {
    ::unsetenv("ZON_METADATA_PATH");
    setMetadataPath(nullptr);
    path_.fill('x');
  }
  ~MetadataPath() override {
    ::unsetenv("ZON_METADATA_PATH");
    setMetadataPath(nullptr);
  }

  int get(std::size_t size = 4096) { return getMetadataPath(path_.data(), size); }

  std::array<char, 4200> path_;
};

TEST_F(MetadataPath, FailsWithAnEmptyPathWhenThereIsNone) {
  EXPECT_NE(get(), 0);
  EXPECT_STREQ(path_.data(), "");
}

TEST_F(MetadataPath, ComesFromTheEnvironment) {
  ::setenv("ZON_METADATA_PATH", "/from/environment", 1);
  EXPECT_EQ(get(), 0);
  EXPECT_STREQ(path_.data(), "/from/environment");
}

TEST_F(MetadataPath, ComesFromTheProcessBeforeTheEnvironment) {
  ::setenv("ZON_METADATA_PATH", "/from/environment", 1);
  EXPECT_EQ(setMetadataPath("/from/process"), 0);
  EXPECT_EQ(get(), 0);
  EXPECT_STREQ(path_.data(), "/from/process");
}

TEST_F(MetadataPath, IsTakenBackByNull) {
  ::setenv("ZON_METADATA_PATH", "/from/environment", 1);
  setMetadataPath("/from/process");
  EXPECT_EQ(setMetadataPath(nullptr), 0);
  EXPECT_EQ(get(), 0);
  EXPECT_STREQ(path_.data(), "/from/environment");
}

TEST_F(MetadataPath, IsTakenBackByTheEmptyText) {
  setMetadataPath("/from/process");
  EXPECT_EQ(setMetadataPath(""), 0);
  EXPECT_NE(get(), 0);
}

TEST_F(MetadataPath, IsNotAnEmptyVariable) {
  ::setenv("ZON_METADATA_PATH", "", 1);
  EXPECT_NE(get(), 0);
  EXPECT_STREQ(path_.data(), "");
}

TEST_F(MetadataPath, IsAskedForAtEveryCall) {
  ::setenv("ZON_METADATA_PATH", "/one", 1);
  get();
  ::setenv("ZON_METADATA_PATH", "/two", 1);
  get();
  EXPECT_STREQ(path_.data(), "/two");
  setMetadataPath("/three");
  get();
  EXPECT_STREQ(path_.data(), "/three");
  setMetadataPath("/four");
  get();
  EXPECT_STREQ(path_.data(), "/four");
  setMetadataPath("/three");
  get();
  EXPECT_STREQ(path_.data(), "/three");
}

TEST_F(MetadataPath, IsCopiedWhenSet) {
  std::string directory = "/from/process";
  setMetadataPath(directory.c_str());
  directory[1] = 'X';
  get();
  EXPECT_STREQ(path_.data(), "/from/process");
}

TEST_F(MetadataPath, FitsExactlyWithItsNul) {
  setMetadataPath("/abc");
  EXPECT_EQ(get(5), 0);
  EXPECT_STREQ(path_.data(), "/abc");
  EXPECT_EQ(path_[5], 'x');
}

TEST_F(MetadataPath, FailsWithAnEmptyPathWhenItDoesNotFit) {
  setMetadataPath("/abc");
  EXPECT_NE(get(4), 0);
  EXPECT_STREQ(path_.data(), "");
  EXPECT_EQ(path_[1], 'x');
}

TEST_F(MetadataPath, IsNotWrittenIntoABufferOfNoBytes) {
  setMetadataPath("/abc");
  EXPECT_NE(get(0), 0);
  EXPECT_EQ(path_[0], 'x');
  EXPECT_NE(getMetadataPath(nullptr, 10), 0);
}

TEST_F(MetadataPath, MayHave4095Bytes) {
  const std::string longest(4095, 'd');
  EXPECT_EQ(setMetadataPath(longest.c_str()), 0);
  EXPECT_EQ(get(4096), 0);
  EXPECT_EQ(std::string(path_.data()), longest);
}

TEST_F(MetadataPath, IsKeptWhenOneOf4096BytesIsRefused) {
  setMetadataPath("/abc");
  EXPECT_NE(setMetadataPath(std::string(4096, 'd').c_str()), 0);
  EXPECT_EQ(get(), 0);
  EXPECT_STREQ(path_.data(), "/abc");
}

TEST_F(MetadataPath, IsAlwaysWholeWhileThreadsChangeIt) {
  const std::array<std::string, 3> directories{"/short", std::string(3000, 'm'), std::string(4000, 'n')};
  setMetadataPath(directories[0].c_str());
  std::atomic<bool> stop{false};
  std::atomic<int> torn{0};
  std::vector<std::thread> threads;
  for (std::size_t number = 0; number < 2; ++number) {
    threads.emplace_back([&, number] {
      for (std::size_t i = number; !stop; ++i) setMetadataPath(directories[i % directories.size()].c_str());
    });
  }
  for (int i = 0; i < 20'000; ++i) {
    if (get() != 0 || std::ranges::find(directories, std::string_view(path_.data())) == directories.end()) ++torn;
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(torn, 0);
}

TEST_F(MetadataPath, CanBeSetAndReadInAChildWhateverOtherThreadsDid) {
  std::atomic<bool> stop{false};
  std::thread writer([&stop] {
    for (int i = 0; !stop; ++i) setMetadataPath(i % 2 == 0 ? "/even" : "/odd");
  });
  int failures = 0;
  for (int round = 0; round < 30; ++round) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::alarm(20);
      const bool works = setMetadataPath("/child") == 0 && get() == 0 && std::string_view(path_.data()) == "/child";
      ::_exit(works ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    failures += status != 0;
  }
  stop = true;
  writer.join();
  EXPECT_EQ(failures, 0);
}

}  // namespace
