// The memory service, through its exported functions. The rule: every test uses a label of its own, so that what it
// counts is its own.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "zonmdfile/platform/oss.h"

namespace {

constexpr std::uint64_t RECORD_SIZE = 1024148;
constexpr std::uint64_t MEGABYTE = std::uint64_t{1} << 20;

void* allocate(std::uint64_t size, const char* label) {
  void* block = nullptr;
  EXPECT_EQ(_ossMemAlloc(&block, 0, size, 1, label, __LINE__), 0);
  return block;
}

void release(void*& block) { EXPECT_EQ(_ossMemFree(&block, 0, 0, "memory_test", __LINE__), 0); }

std::span<unsigned char> bytesOf(void* block) { return {static_cast<unsigned char*>(block), ossMemSize(block)}; }

bool isZero(void* block) {
  const std::span<const unsigned char> bytes = bytesOf(block);
  return bytes.empty() || (bytes[0] == 0 && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

void fill(void* block, unsigned char value) { std::memset(block, value, ossMemSize(block)); }

class MemoryFaults : public testing::Test {
 protected:
  void TearDown() override { ossMemFailAt(0, 0); }

  void* block_ = nullptr;
};

TEST(MemoryService, HandsOutBlocksOfNoUsableBytes) {
  void* block = allocate(0, "memory_test.empty");
  EXPECT_NE(block, nullptr);
  EXPECT_EQ(ossMemSize(block), 0U);
  EXPECT_EQ(ossMemOutstanding("memory_test.empty"), 1U);
  release(block);
  EXPECT_EQ(ossMemOutstanding("memory_test.empty"), 0U);
}

TEST(MemoryService, ReleasingSetsThePointerToNull) {
  void* block = allocate(10, "memory_test.null");
  release(block);
  EXPECT_EQ(block, nullptr);
}

TEST(MemoryService, ReleasesNullPointersWithoutHarm) {
  void* block = nullptr;
  EXPECT_EQ(_ossMemFree(&block, 0, 0, "memory_test", __LINE__), 0);
  EXPECT_EQ(_ossMemFree(nullptr, 0, 0, nullptr, 0), 0);
}

TEST(MemoryService, RefusesToStoreAtANullAddress) {
  EXPECT_NE(_ossMemAlloc(nullptr, 0, 10, 1, "memory_test", __LINE__), 0);
  EXPECT_NE(ossMemResize(nullptr, 10, "memory_test", __LINE__), 0);
}

TEST(MemoryService, CountsANullLabelAsTheEmptyOne) {
  const std::uint64_t before = ossMemOutstanding("");
  void* block = allocate(10, nullptr);
  EXPECT_EQ(ossMemOutstanding(""), before + 1);
  release(block);
}

TEST(MemoryService, AlignsEveryBlockToSixteenBytes) {
  for (const std::uint64_t size : {std::uint64_t{1}, std::uint64_t{40}, std::uint64_t{131072}, 4 * MEGABYTE}) {
    void* block = allocate(size, "memory_test.align");
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0U) << size;
    release(block);
  }
}

TEST(MemoryService, KeepsErrnoWhenItSucceeds) {
  errno = EXDEV;
  void* block = allocate(RECORD_SIZE, "memory_test.errno");
  EXPECT_EQ(ossMemResize(&block, 4 * MEGABYTE, "memory_test.errno", __LINE__), 0);
  release(block);
  EXPECT_EQ(errno, EXDEV);
}

TEST(MemoryService, RefusesSizesThatOverflow) {
  for (const std::uint64_t size :
       {std::numeric_limits<std::uint64_t>::max(), std::numeric_limits<std::uint64_t>::max() - 31,
        std::uint64_t{1} << 63, static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())}) {
    void* block = &block;
    EXPECT_NE(_ossMemAlloc(&block, 0, size, 1, "memory_test.overflow", __LINE__), 0);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(errno, ENOMEM);
  }
  EXPECT_EQ(ossMemOutstanding("memory_test.overflow"), 0U);
}

TEST(MemoryService, KeepsABlockThatCannotGrowSoFar) {
  for (const std::uint64_t size : {std::uint64_t{100}, RECORD_SIZE, 4 * MEGABYTE}) {
    void* block = allocate(size, "memory_test.unresizable");
    fill(block, 7);
    void* const before = block;
    EXPECT_NE(ossMemResize(&block, std::numeric_limits<std::uint64_t>::max(), "memory_test.unresizable", 1), 0);
    EXPECT_NE(ossMemResize(&block, std::uint64_t{1} << 60, "memory_test.unresizable", 1), 0);
    EXPECT_EQ(block, before);
    EXPECT_EQ(ossMemSize(block), size);
    EXPECT_EQ(bytesOf(block)[size - 1], 7);
    EXPECT_EQ(ossMemOutstandingBytes("memory_test.unresizable"), size);
    release(block);
  }
}

class ZeroFill : public testing::TestWithParam<std::uint64_t> {};

TEST_P(ZeroFill, HoldsForABlockThatWasWrittenAllOverBefore) {
  for (int round = 0; round < 3; ++round) {
    std::array<void*, 6> blocks{};
    for (void*& block : blocks) {
      block = allocate(GetParam(), "memory_test.zero");
      EXPECT_TRUE(isZero(block));
      fill(block, 0xEE);
    }
    for (void*& block : blocks) release(block);
  }
}

TEST_P(ZeroFill, HoldsBehindTheEndOfASmallerUser) {
  void* block = allocate(GetParam(), "memory_test.zero");
  ASSERT_EQ(ossMemResize(&block, GetParam() + 300, "memory_test.zero", __LINE__), 0);
  fill(block, 0xEE);
  ASSERT_EQ(ossMemRelabel(block, GetParam() / 2, "memory_test.zero", __LINE__), 0);
  release(block);
  block = allocate(GetParam() + 300, "memory_test.zero");
  EXPECT_TRUE(isZero(block));
  release(block);
}

INSTANTIATE_TEST_SUITE_P(Sizes, ZeroFill,
                         testing::Values(1, 33, 4096, 131071, 131072, 200000, RECORD_SIZE, 1024404, 1088 * 1024 - 32,
                                         1088 * 1024 - 31, 3 * MEGABYTE));

TEST(MemoryService, ReusesTheMappingOfAReleasedRecordBuffer) {
  void* block = allocate(RECORD_SIZE, "memory_test.reuse");
  const void* const first = block;
  int found = 0;
  for (int round = 0; round < 50; ++round) {
    release(block);
    block = allocate(RECORD_SIZE, "memory_test.reuse");
    found += block == first;
  }
  // The thread may have been moved to another processor now and then.
  EXPECT_GT(found, 0);
  release(block);
}

TEST(MemoryService, StillZeroFillsWhenPagesCannotBeGivenBack) {
  void* block = allocate(RECORD_SIZE, "memory_test.locked");
  if (::mlock(block, 4096 * 8) != 0) {
    release(block);
    GTEST_SKIP() << "no memory may be locked here";
  }
  fill(block, 0xEE);
  release(block);
  std::array<void*, 4> blocks{};
  for (void*& other : blocks) {
    other = allocate(RECORD_SIZE, "memory_test.locked");
    EXPECT_TRUE(isZero(other));
  }
  for (void*& other : blocks) release(other);
}

TEST(MemoryService, NeverHandsOneBlockToTwoThreads) {
  constexpr int THREADS = 4;
  constexpr int ROUNDS = 400;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int number = 1; number <= THREADS; ++number) {
    threads.emplace_back([number, &wrong] {
      for (int round = 0; round < ROUNDS; ++round) {
        std::array<void*, 3> blocks{};
        for (void*& block : blocks) {
          if (_ossMemAlloc(&block, 0, RECORD_SIZE, 1, "memory_test.threads", 1) != 0) ++wrong;
          unsigned char* bytes = static_cast<unsigned char*>(block);
          for (const std::size_t place : {std::size_t{0}, std::size_t{20000}, std::size_t{RECORD_SIZE - 1}}) {
            if (bytes[place] != 0) ++wrong;
            bytes[place] = static_cast<unsigned char>(number);
          }
        }
        for (void*& block : blocks) {
          const unsigned char* bytes = static_cast<unsigned char*>(block);
          if (bytes[0] != number || bytes[20000] != number || bytes[RECORD_SIZE - 1] != number) ++wrong;
          _ossMemFree(&block, 0, 0, "memory_test.threads", 1);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(ossMemOutstanding("memory_test.threads"), 0U);
  EXPECT_EQ(ossMemOutstandingBytes("memory_test.threads"), 0U);
}

TEST(MemoryService, ReleasesWhatAnotherThreadAllocated) {
  void* block = allocate(RECORD_SIZE, "memory_test.other_thread");
  std::thread([&block] { release(block); }).join();
  EXPECT_EQ(ossMemOutstanding("memory_test.other_thread"), 0U);
}

TEST(MemoryResize, KeepsTheContentAcrossEveryKindOfBlock) {
  const std::array<std::uint64_t, 9> sizes{10,           5000,          131071,       131072, RECORD_SIZE,
                                           3 * MEGABYTE, 20 * MEGABYTE, 2 * MEGABYTE, 100};
  void* block = nullptr;
  std::uint64_t kept = 0;
  for (const std::uint64_t size : sizes) {
    ASSERT_EQ(ossMemResize(&block, size, "memory_test.resize", __LINE__), 0);
    EXPECT_EQ(ossMemSize(block), size);
    const std::span<unsigned char> bytes = bytesOf(block);
    for (std::uint64_t i = 0; i < std::min(kept, size); ++i) ASSERT_EQ(bytes[i], static_cast<unsigned char>(i * 7 + 1));
    for (std::uint64_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + 1);
    kept = size;
    EXPECT_EQ(ossMemOutstanding("memory_test.resize"), 1U);
    EXPECT_EQ(ossMemOutstandingBytes("memory_test.resize"), size);
  }
  release(block);
  EXPECT_EQ(ossMemOutstandingBytes("memory_test.resize"), 0U);
}

TEST(MemoryResize, CountsTheBlockUnderItsNewLabel) {
  void* block = allocate(100, "memory_test.old");
  ASSERT_EQ(ossMemResize(&block, 200, "memory_test.new", __LINE__), 0);
  EXPECT_EQ(ossMemOutstanding("memory_test.old"), 0U);
  EXPECT_EQ(ossMemOutstandingBytes("memory_test.old"), 0U);
  EXPECT_EQ(ossMemOutstandingBytes("memory_test.new"), 200U);
  release(block);
}

TEST(MemoryRelabel, HandsABlockOnWithFewerBytes) {
  void* block = allocate(100, "memory_test.giver");
  fill(block, 3);
  ASSERT_EQ(ossMemRelabel(block, 40, "memory_test.receiver", __LINE__), 0);
  EXPECT_EQ(ossMemSize(block), 40U);
  EXPECT_EQ(bytesOf(block)[39], 3);
  EXPECT_EQ(ossMemOutstanding("memory_test.giver"), 0U);
  EXPECT_EQ(ossMemOutstandingBytes("memory_test.receiver"), 40U);
  release(block);
  EXPECT_EQ(ossMemOutstandingBytes("memory_test.receiver"), 0U);
}

TEST(MemoryRelabel, RefusesMoreBytesThanTheBlockHas) {
  void* block = allocate(100, "memory_test.giver");
  EXPECT_NE(ossMemRelabel(block, 101, "memory_test.receiver", __LINE__), 0);
  EXPECT_EQ(ossMemSize(block), 100U);
  EXPECT_EQ(ossMemOutstanding("memory_test.giver"), 1U);
  release(block);
}

TEST(MemoryAccounting, TellsLabelsApart) {
  void* first = allocate(10, "memory_test.first");
  void* second = allocate(20, "memory_test.second");
  void* third = allocate(30, "memory_test.second");
  EXPECT_EQ(ossMemOutstanding("memory_test.first"), 1U);
  EXPECT_EQ(ossMemOutstanding("memory_test.second"), 2U);
  EXPECT_EQ(ossMemOutstandingBytes("memory_test.second"), 50U);
  EXPECT_EQ(ossMemOutstanding("memory_test.never_used"), 0U);
  release(first);
  release(second);
  release(third);
  EXPECT_EQ(ossMemOutstanding("memory_test.second"), 0U);
}

TEST(MemoryAccounting, CountsAllLabelsTogetherForNull) {
  const std::uint64_t blocks = ossMemOutstanding(nullptr);
  const std::uint64_t bytes = ossMemOutstandingBytes(nullptr);
  void* first = allocate(10, "memory_test.any");
  void* second = allocate(RECORD_SIZE, "memory_test.other");
  EXPECT_EQ(ossMemOutstanding(nullptr), blocks + 2);
  EXPECT_EQ(ossMemOutstandingBytes(nullptr), bytes + 10 + RECORD_SIZE);
  release(first);
  release(second);
  EXPECT_EQ(ossMemOutstanding(nullptr), blocks);
}

TEST(MemoryAccounting, CopiesTheLabel) {
  std::string label = "memory_test.short_lived";
  void* block = allocate(10, label.c_str());
  std::ranges::fill(label, 'x');
  EXPECT_EQ(ossMemOutstanding("memory_test.short_lived"), 1U);
  release(block);
}

TEST(MemoryAccounting, CutsALabelAt63Bytes) {
  const std::string label(200, 'L');
  void* block = allocate(10, label.c_str());
  EXPECT_EQ(ossMemOutstanding(label.substr(0, 63).c_str()), 1U);
  EXPECT_EQ(ossMemOutstanding(label.substr(0, 62).c_str()), 0U);
  release(block);
}

TEST(MemoryAccounting, IsExactAfterManyThreads) {
  constexpr int THREADS = 4;
  constexpr std::uint64_t KEPT = 50;
  std::vector<std::vector<void*>> kept(THREADS);
  const std::uint64_t before = ossMemAllocationCount();
  std::vector<std::thread> threads;
  for (std::vector<void*>& blocks : kept) {
    threads.emplace_back([&blocks] {
      for (std::uint64_t i = 0; i < 2000; ++i) {
        void* block = nullptr;
        _ossMemAlloc(&block, 0, 24, 1, i % 2 == 0 ? "memory_test.even" : "memory_test.odd", 1);
        if (blocks.size() < KEPT) {
          blocks.push_back(block);
        } else {
          _ossMemFree(&block, 0, 0, "", 0);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(ossMemAllocationCount() - before, THREADS * 2000U);
  EXPECT_EQ(ossMemOutstanding("memory_test.even"), THREADS * KEPT / 2);
  EXPECT_EQ(ossMemOutstanding("memory_test.odd"), THREADS * KEPT / 2);
  EXPECT_EQ(ossMemOutstandingBytes("memory_test.odd"), THREADS * KEPT / 2 * 24);
  for (std::vector<void*>& blocks : kept) {
    for (void* block : blocks) release(block);
  }
  EXPECT_EQ(ossMemOutstandingBytes("memory_test.odd"), 0U);
}

// In a process of its own, for the labels stay for good.
TEST(MemoryAccounting, CountsLabelsBeyondTheTableAsOne) {
  const pid_t child = ::fork();
  if (child == 0) {
    std::vector<void*> blocks(600);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      _ossMemAlloc(&blocks[i], 0, 8, 1, ("label" + std::to_string(i)).c_str(), 1);
    }
    const bool hasOwnPlace = ossMemOutstanding("label0") == 1;
    const bool sharesPlace = ossMemOutstanding("label599") >= 600 - 256;
    const std::uint64_t all = ossMemOutstanding(nullptr);
    for (void*& block : blocks) _ossMemFree(&block, 0, 0, "", 0);
    const bool allReleased = ossMemOutstanding("label599") == 0 && ossMemOutstanding(nullptr) == all - 600;
    ::_exit(hasOwnPlace && sharesPlace && allReleased ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(MemoryFaults, FailsTheAllocationAskedForAndNoOther) {
  ossMemFailAt(3, 0);
  std::array<int, 5> results{};
  std::array<void*, 5> blocks{};
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    results[i] = _ossMemAlloc(&blocks[i], 0, 8, 1, "memory_test.fault", 1);
  }
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    EXPECT_EQ(results[i] != 0, i == 2);
    EXPECT_EQ(blocks[i] == nullptr, i == 2);
  }
  EXPECT_EQ(ossMemOutstanding("memory_test.fault"), 4U);
  for (void*& block : blocks) release(block);
}

TEST_F(MemoryFaults, FailsAllLaterOnesWhenSticky) {
  ossMemFailAt(2, 1);
  ASSERT_EQ(_ossMemAlloc(&block_, 0, 8, 1, "memory_test.sticky", 1), 0);
  void* other = nullptr;
  EXPECT_NE(_ossMemAlloc(&other, 0, 8, 1, "memory_test.sticky", 1), 0);
  EXPECT_NE(ossMemResize(&other, 8, "memory_test.sticky", 1), 0);
  ossMemFailAt(0, 0);
  EXPECT_EQ(_ossMemAlloc(&other, 0, 8, 1, "memory_test.sticky", 1), 0);
  release(other);
  release(block_);
}

TEST_F(MemoryFaults, SetsThePointerToNull) {
  ossMemFailAt(1, 0);
  block_ = this;
  EXPECT_NE(_ossMemAlloc(&block_, 0, 8, 1, "memory_test.fault", 1), 0);
  EXPECT_EQ(block_, nullptr);
}

TEST_F(MemoryFaults, LeaveABlockThatWasToBeResizedAsItWas) {
  block_ = allocate(10, "memory_test.fault");
  fill(block_, 9);
  ossMemFailAt(1, 0);
  void* const before = block_;
  EXPECT_NE(ossMemResize(&block_, 5000, "memory_test.fault", 1), 0);
  EXPECT_EQ(block_, before);
  EXPECT_EQ(ossMemSize(block_), 10U);
  EXPECT_EQ(bytesOf(block_)[9], 9);
  release(block_);
}

TEST_F(MemoryFaults, LeaveABlockThatWasToBeHandedOnAsItWas) {
  block_ = allocate(10, "memory_test.fault");
  ossMemFailAt(1, 0);
  EXPECT_NE(ossMemRelabel(block_, 5, "memory_test.taker", 1), 0);
  EXPECT_EQ(ossMemSize(block_), 10U);
  EXPECT_EQ(ossMemOutstanding("memory_test.taker"), 0U);
  release(block_);
}

TEST_F(MemoryFaults, AreCountedFromTheMomentOfAsking) {
  const std::uint64_t before = ossMemAllocationCount();
  block_ = allocate(10, "memory_test.count");
  EXPECT_EQ(ossMemResize(&block_, 20, "memory_test.count", 1), 0);
  EXPECT_EQ(ossMemRelabel(block_, 20, "memory_test.count", 1), 0);
  EXPECT_EQ(ossMemAllocationCount() - before, 3U);
  release(block_);
  EXPECT_EQ(ossMemAllocationCount() - before, 3U);
}

TEST(MemoryFork, LeavesTheChildAServiceThatWorks) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&stop] {
      while (!stop) {
        void* block = nullptr;
        if (_ossMemAlloc(&block, 0, RECORD_SIZE, 1, "memory_test.busy", 1) == 0) _ossMemFree(&block, 0, 0, "", 0);
      }
    });
  }
  int failures = 0;
  for (int round = 0; round < 30; ++round) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::alarm(20);
      for (int i = 0; i < 5; ++i) {
        void* block = nullptr;
        if (_ossMemAlloc(&block, 0, RECORD_SIZE, 1, "memory_test.child", 1) != 0 || !isZero(block)) ::_exit(1);
        fill(block, 0xEE);
        _ossMemFree(&block, 0, 0, "", 0);
      }
      ::_exit(ossMemOutstanding("memory_test.child") == 0 ? 0 : 2);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    failures += status != 0;
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
}

TEST(MemoryServiceDeathTest, StopsAtAPointerThatIsNoBlock) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  std::array<std::uint64_t, 16> foreign{};
  EXPECT_DEATH(
      {
        void* pointer = &foreign[8];
        _ossMemFree(&pointer, 0, 0, "memory_test", 1);
      },
      "no block of the memory service");
}

TEST(MemoryServiceDeathTest, StopsWhenARecordBufferIsReleasedTwice) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        void* block = nullptr;
        _ossMemAlloc(&block, 0, RECORD_SIZE, 1, "memory_test", 1);
        void* again = block;
        _ossMemFree(&block, 0, 0, "memory_test", 1);
        _ossMemFree(&again, 0, 0, "memory_test", 1);
      },
      "");
}

}  // namespace
