// What a cascade costs, in reads of the file: in proportion to the records that it removes.
//
// The rule: reads are counted, not timed, by a definition that stands before the C library's; so this is a program of
// its own.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "support/metadata_test.h"
#include "zonmdfile/MDContactGroup.h"

namespace {

std::atomic<std::uint64_t> preads{0};

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t pread(int descriptor, void* bytes, size_t size,
                                                                off_t offset) {
  ++preads;
  return syscall(SYS_pread64, descriptor, bytes, size, offset);
}

namespace {

using zontest::Text;

// The contact "a" is the only member of all groups but "top", which holds them and, where it is to stay, "b"; "roof"
// holds "top".
std::uint64_t readsOfCascade(std::size_t groupCount, bool topStays) {
  const zontest::MetadataDirectory directory;
  MDContactGroup store;
  EXPECT_EQ(store.beginBatch(), 0U);
  for (std::size_t i = 0; i < groupCount; ++i) {
    Text group("g" + std::to_string(i));
    EXPECT_EQ(store.insert(group, DString("0"), Text("a"), Text("d"), DString("1")), 0U);
    EXPECT_EQ(store.insert(Text("top"), DString("1"), group, Text("d"), DString("1")), 0U);
  }
  EXPECT_EQ(store.insert(Text("roof"), DString("1"), Text("top"), Text("d"), DString("1")), 0U);
  if (topStays) {
    EXPECT_EQ(store.insert(Text("top"), DString("0"), Text("b"), Text("d"), DString("1")), 0U);
  }
  EXPECT_EQ(store.commitBatch(), 0U);

  const std::uint64_t before = preads;
  EXPECT_EQ(removeMemberFromGroups(Text("a"), DString("0")), 0U);
  const std::uint64_t reads = preads - before;
  DString groups;
  DString kinds;
  DString members;
  EXPECT_EQ(store.retrieveKeys(groups, kinds, members), topStays ? 0U : GENREG_RC_NOT_FOUND);
  EXPECT_EQ(zontest::textOf(groups), topStays ? zontest::listOf("roof|top|") : "");
  return reads;
}

TEST(GroupCascadeCost, GrowsWithTheGroupsThatOneParentLoses) {
  constexpr std::size_t GROUPS = 300;
  for (const bool topStays : {false, true}) {
    const std::uint64_t some = readsOfCascade(GROUPS, topStays);
    EXPECT_GT(some, GROUPS);  // the reads are counted
    EXPECT_LT(readsOfCascade(4 * GROUPS, topStays), 6 * some);
  }
}

}  // namespace
