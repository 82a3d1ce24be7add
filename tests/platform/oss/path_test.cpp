// The two halves of a path.
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "zonmdfile/platform/oss.h"

namespace {

struct PathCase {
  const char* path;
  const char* base;
  const char* directory;
};

class PathHalves : public testing::TestWithParam<PathCase> {
 protected:
  std::array<char, 64> buffer_{};
};

TEST_P(PathHalves, GiveTheBaseName) {
  EXPECT_EQ(ossBaseName(GetParam().path, buffer_.data(), buffer_.size()), std::string(GetParam().base).size());
  EXPECT_STREQ(buffer_.data(), GetParam().base);
}

TEST_P(PathHalves, GiveTheDirectory) {
  EXPECT_EQ(ossDirectoryName(GetParam().path, buffer_.data(), buffer_.size()),
            std::string(GetParam().directory).size());
  EXPECT_STREQ(buffer_.data(), GetParam().directory);
}

INSTANTIATE_TEST_SUITE_P(Paths, PathHalves,
                         testing::Values(PathCase{"/var/md/zoncontact", "zoncontact", "/var/md"},
                                         PathCase{"zoncontact", "zoncontact", "."},
                                         PathCase{"md/zoncontact", "zoncontact", "md"},
                                         PathCase{"/zoncontact", "zoncontact", "/"}, PathCase{"/a/", "a", "/"},
                                         PathCase{"a/", "a", "."}, PathCase{"a//b//", "b", "a"},
                                         PathCase{"//a", "a", "/"}, PathCase{"/", "/", "/"}, PathCase{"///", "/", "/"},
                                         PathCase{"", "", "."}, PathCase{nullptr, "", "."}, PathCase{".", ".", "."},
                                         PathCase{"..", "..", "."}, PathCase{"/a/.", ".", "/a"}));

TEST(PathHalf, IsCutAtTheBufferAndAnswersItsFullLength) {
  std::array<char, 5> buffer{'x', 'x', 'x', 'x', 'x'};
  EXPECT_EQ(ossBaseName("/md/zoncontact", buffer.data(), 4), 10U);
  EXPECT_STREQ(buffer.data(), "zon");
  EXPECT_EQ(buffer[4], 'x');
  EXPECT_EQ(ossDirectoryName("/metadata/zoncontact", buffer.data(), 1), 9U);
  EXPECT_EQ(buffer[0], '\0');
}

TEST(PathHalf, IsNotWrittenIntoABufferOfNoBytes) {
  char untouched = 'x';
  EXPECT_EQ(ossBaseName("/md/zoncontact", &untouched, 0), 10U);
  EXPECT_EQ(ossDirectoryName("/md/zoncontact", nullptr, 0), 3U);
  EXPECT_EQ(untouched, 'x');
}

TEST(PathHalf, MayReplaceThePathItself) {
  std::array<char, 32> path{"/var/md/zoncontact"};
  ossBaseName(path.data(), path.data(), path.size());
  EXPECT_STREQ(path.data(), "zoncontact");
}

}  // namespace
