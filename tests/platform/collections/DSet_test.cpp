// Sets that remember their order. What membership costs is counted in comparisons, never in time.
#include "zonmdfile/platform/DSet.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <utility>

#include "zonmdfile/platform/DString.h"
#include "zonmdfile/platform/oss.h"

namespace {

// Counts what a set does with its members.
struct Counted {
  explicit Counted(int number) : value(number) {}
  Counted(const Counted& other) : value(other.value) {
    if (copiesLeft == 0) throw std::runtime_error("no further copy");
    if (copiesLeft > 0) --copiesLeft;
  }
  Counted& operator=(const Counted&) = default;
  bool operator==(const Counted& other) const {
    ++comparisons;
    return value == other.value;
  }

  int value;
  static inline long comparisons = 0;
  static inline int copiesLeft = -1;
};

}  // namespace

template <>
struct std::hash<Counted> {
  std::size_t operator()(const Counted& counted) const noexcept { return std::hash<int>()(counted.value); }
};

namespace {

using Names = DSet<DString>;

static_assert(std::is_base_of_v<std::out_of_range, Names::OutOfRange>);

TEST(Set, IsEmptyAtFirst) {
  const Names names;
  EXPECT_EQ(names.count(), 0U);
  EXPECT_EQ(names.capacity(), 1U);
  EXPECT_EQ(names.growthStep(), 1U);
  EXPECT_FALSE(names.contains("a"));
}

TEST(Set, KeepsTheOrderOfAdding) {
  Names names;
  for (const char* name : {"c", "a", "b"}) EXPECT_TRUE(names.add(name));
  EXPECT_EQ(names.elementAt(1), "c");
  EXPECT_EQ(names.elementAt(2), "a");
  EXPECT_EQ(names.elementAt(3), "b");
}

TEST(Set, DoesNotAddAMemberTwice) {
  Names names;
  EXPECT_TRUE(names.add("a"));
  EXPECT_TRUE(names.add("b"));
  EXPECT_FALSE(names.add("a"));
  EXPECT_EQ(names.count(), 2U);
  EXPECT_EQ(names.capacity(), 2U);
  EXPECT_EQ(names.elementAt(1), "a");
}

TEST(Set, OwnsCopies) {
  Names names;
  DString name("a");
  names.add(name);
  name += "b";
  EXPECT_EQ(names.elementAt(1), "a");
  EXPECT_TRUE(names.contains("a"));
  EXPECT_FALSE(names.contains("ab"));
}

TEST(Set, ComparesWholeStrings) {
  Names names;
  names.add("a");
  EXPECT_FALSE(names.contains("ab"));
  EXPECT_FALSE(names.contains(""));
  EXPECT_TRUE(names.add(DString("a\0", 2)));
  EXPECT_EQ(names.count(), 2U);
}

TEST(Set, HoldsTheEmptyString) {
  Names names;
  EXPECT_TRUE(names.add(""));
  EXPECT_FALSE(names.add(DString()));
  EXPECT_EQ(names.count(), 1U);
}

TEST(Set, GrowsByItsStepWheneverItIsFull) {
  Names names(2, 3);
  EXPECT_EQ(names.capacity(), 2U);
  const std::size_t expected[] = {2, 2, 5, 5, 5, 8};
  for (std::size_t i = 0; i < std::size(expected); ++i) {
    names.add(DString(std::to_string(i).c_str()));
    EXPECT_EQ(names.capacity(), expected[i]);
  }
}

TEST(Set, HasACapacityEqualToItsCountWithTheFirstSizes) {
  Names names(1, 1);
  for (std::size_t i = 1; i <= 100; ++i) {
    names.add(DString(std::to_string(i).c_str()));
    EXPECT_EQ(names.capacity(), names.count());
  }
}

TEST(Set, TakesAGrowthStepOfZeroAsOne) {
  Names names(0, 0);
  EXPECT_EQ(names.capacity(), 0U);
  names.add("a");
  EXPECT_EQ(names.capacity(), 1U);
  EXPECT_EQ(names.growthStep(), 1U);
}

TEST(Set, ThrowsItsOwnExceptionForAnIndexThatItDoesNotHave) {
  Names names;
  EXPECT_THROW(names.elementAt(1), Names::OutOfRange);
  names.add("a");
  EXPECT_THROW(names.elementAt(0), Names::OutOfRange);
  EXPECT_THROW(names.elementAt(2), Names::OutOfRange);
  EXPECT_THROW(names.elementAt(static_cast<std::size_t>(-1)), std::out_of_range);
  EXPECT_NO_THROW(names.elementAt(1));
}

TEST(Set, TellsIndexAndCountInItsException) {
  Names names;
  names.add("a");
  try {
    names.elementAt(7);
    FAIL() << "nothing was thrown";
  } catch (const Names::OutOfRange& error) {
    EXPECT_STREQ(error.what(), "DSet: element 7 of 1");
  }
}

TEST(Set, LeavesMembersWhereTheyAreWhileItGrows) {
  Names names;
  names.add("first");
  const DString* const first = &names.elementAt(1);
  for (int i = 0; i < 10'000; ++i) names.add(DString(std::to_string(i).c_str()));
  EXPECT_EQ(&names.elementAt(1), first);
}

TEST(Set, AddsAMemberOfItself) {
  Names names;
  names.add("a");
  EXPECT_FALSE(names.add(names.elementAt(1)));
  EXPECT_EQ(names.count(), 1U);
}

TEST(Set, IsEmptyAndUsableAfterClearing) {
  Names names;
  for (int i = 0; i < 100; ++i) names.add(DString(std::to_string(i).c_str()));
  names.clear();
  EXPECT_EQ(names.count(), 0U);
  EXPECT_EQ(names.capacity(), 100U);
  EXPECT_FALSE(names.contains("5"));
  EXPECT_TRUE(names.add("5"));
  EXPECT_EQ(names.elementAt(1), "5");
}

TEST(Set, CopiesDeeply) {
  Names names(1, 2);
  for (int i = 0; i < 20; ++i) names.add(DString(std::to_string(i).c_str()));
  Names copy(names);
  names.clear();
  EXPECT_EQ(copy.count(), 20U);
  EXPECT_EQ(copy.elementAt(20), "19");
  EXPECT_TRUE(copy.contains("7"));
  EXPECT_EQ(copy.capacity(), 21U);
  EXPECT_EQ(copy.growthStep(), 2U);
  names = copy;
  EXPECT_TRUE(names.contains("19"));
}

TEST(Set, IsEmptyAfterBeingMovedFrom) {
  Names names;
  for (int i = 0; i < 20; ++i) names.add(DString(std::to_string(i).c_str()));
  const Names moved(std::move(names));
  EXPECT_TRUE(moved.contains("19"));
  EXPECT_EQ(names.count(), 0U);  // NOLINT: the state after a move is promised
  EXPECT_FALSE(names.contains("19"));
  EXPECT_TRUE(names.add("19"));
}

TEST(Set, FindsMembersAmongManyWithAFewComparisons) {
  constexpr int MEMBERS = 100'000;
  DSet<Counted> set;
  Counted::comparisons = 0;
  for (int i = 0; i < MEMBERS; ++i) ASSERT_TRUE(set.add(Counted(i)));
  EXPECT_LT(Counted::comparisons, 4L * MEMBERS);
  Counted::comparisons = 0;
  for (int i = 0; i < MEMBERS; ++i) ASSERT_TRUE(set.contains(Counted(i)));
  for (int i = MEMBERS; i < 2 * MEMBERS; ++i) ASSERT_FALSE(set.contains(Counted(i)));
  EXPECT_LT(Counted::comparisons, 4L * MEMBERS);
  EXPECT_EQ(set.capacity(), static_cast<std::size_t>(MEMBERS));
}

TEST(Set, FindsEveryMemberAroundTheSizeAtWhichItIsIndexed) {
  for (int members = 0; members <= 20; ++members) {
    DSet<Counted> set;
    for (int i = 0; i < members; ++i) ASSERT_TRUE(set.add(Counted(i)));
    for (int i = 0; i < members; ++i) {
      EXPECT_TRUE(set.contains(Counted(i))) << i << " of " << members;
      EXPECT_FALSE(set.add(Counted(i))) << i << " of " << members;
    }
    EXPECT_FALSE(set.contains(Counted(members)));
  }
}

TEST(Set, StaysAsItWasWhenAMemberCannotBeCopied) {
  for (const int members : {0, 5, 8, 30}) {
    DSet<Counted> set;
    for (int i = 0; i < members; ++i) set.add(Counted(i));
    const std::size_t capacity = set.capacity();
    Counted::copiesLeft = 0;
    EXPECT_THROW(set.add(Counted(1000)), std::runtime_error);
    Counted::copiesLeft = -1;
    EXPECT_EQ(set.count(), static_cast<std::size_t>(members));
    EXPECT_EQ(set.capacity(), capacity);
    EXPECT_FALSE(set.contains(Counted(1000)));
    EXPECT_TRUE(set.add(Counted(1000)));
  }
}

TEST(Set, ReleasesItsMembers) {
  const std::uint64_t before = ossMemOutstanding("DBuffer");
  {
    Names names;
    for (int i = 0; i < 100; ++i) names.add(DString(std::to_string(i).c_str()));
    EXPECT_EQ(ossMemOutstanding("DBuffer"), before + 100);
  }
  EXPECT_EQ(ossMemOutstanding("DBuffer"), before);
}

}  // namespace
