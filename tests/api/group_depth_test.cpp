// A chain of 100,000 nested groups, on a small stack: what depth costs is memory and time in proportion.
#include <gtest/gtest.h>

#include <string>

#include "support/metadata_test.h"
#include "support/small_stack.h"
#include "zonmdfile/MDContactGroup.h"

namespace {

using zontest::listOf;
using zontest::Text;
using zontest::textOf;

constexpr int DEPTH = 100'000;

std::string groupAt(int depth) { return "g" + std::to_string(depth); }

class DeepGroups : public zontest::MetadataTest {
 protected:
  // The contact "a" is in g0, g0 in g1, and so on.
  void SetUp() override {
    ASSERT_EQ(store_.beginBatch(), 0U);
    ASSERT_EQ(store_.insert(Text(groupAt(0)), DString("0"), Text("a"), Text("d"), DString("1")), 0U);
    for (int i = 1; i <= DEPTH; ++i) {
      ASSERT_EQ(store_.insert(Text(groupAt(i)), DString("1"), Text(groupAt(i - 1)), Text("d"), DString("1")), 0U);
    }
    ASSERT_EQ(store_.commitBatch(), 0U);
  }

  MDContactGroup store_;
};

TEST_F(DeepGroups, AreExpandedAndWithdrawnOnASmallStack) {
  std::uint32_t rc = 99;
  DString names;
  zontest::runOnSmallStack([&] { rc = store_.retrieveAllContactNames(Text(groupAt(DEPTH)), names); });
  EXPECT_EQ(rc, 0U);
  EXPECT_EQ(textOf(names), listOf("a|"));

  rc = 99;
  zontest::runOnSmallStack([&] { rc = removeMemberFromGroups(Text("a"), DString("0")); });
  EXPECT_EQ(rc, 0U);
  EXPECT_EQ(store_.retrieveAllContactNames(Text(groupAt(DEPTH)), names), GENREG_RC_NOT_FOUND);
  DString groups;
  DString kinds;
  DString members;
  EXPECT_EQ(store_.retrieveKeys(groups, kinds, members), GENREG_RC_NOT_FOUND);
}

}  // namespace
