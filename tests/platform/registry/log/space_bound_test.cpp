// How much space file and backup may take: in proportion to what lives, after any history. What happens where the disk
// has no space has a test of its own.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <system_error>

#include "platform/registry/harness/engine_promises.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

class Space : public EnginePromises {
 protected:
  // File and backup, measured against what lives.
  void check() {
    GenRegStatus status;
    ASSERT_EQ(store_.status(status), MD_RC_OK);
    const std::uint64_t limit = 2 * (status.recordBytes + 65536);
    ASSERT_LT(status.fileBytes, limit) << "with " << status.recordBytes << " bytes alive";
    std::error_code none;
    const auto backup = std::filesystem::file_size(folder_.backup(), none);
    if (!none) {
      ASSERT_LT(backup, limit) << "with " << status.recordBytes << " bytes alive";
    }
    EXPECT_FALSE(std::filesystem::exists(folder_.path() / "store.tmp"));
  }
};

TEST_F(Space, StaysBoundedWhileOneRecordChanges) {
  ASSERT_EQ(store_.add({"g", "k", ""}), MD_RC_OK);
  for (unsigned at = 0; at < 400; ++at) {
    ASSERT_EQ(store_.change({"g", "k", noise(at % 9 * 1500 + 1, at)}), MD_RC_OK);
    ASSERT_NO_FATAL_FAILURE(check()) << at;
  }
}

TEST_F(Space, StaysBoundedWhileLargeRecordsChange) {
  for (int at = 0; at < 3; ++at) ASSERT_EQ(store_.add({"g", numbered("k", at), "x"}), MD_RC_OK);
  for (unsigned at = 0; at < 30; ++at) {
    ASSERT_EQ(store_.change({"g", numbered("k", static_cast<int>(at) % 3), noise(700000, at)}), MD_RC_OK);
    ASSERT_NO_FATAL_FAILURE(check()) << at;
  }
}

TEST_F(Space, IsTakenByABackupOnlyWhenAskedTo) {
  store_.unsetFeature(GenRegBin::FEATURE_BACKUP);
  fill(300);
  ASSERT_EQ(store_.compact(), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "k", noise(30000, 1)}), MD_RC_OK);
  EXPECT_FALSE(std::filesystem::exists(folder_.backup()));
  store_.setFeature(GenRegBin::FEATURE_BACKUP);
  ASSERT_EQ(store_.add({"g", "k2", noise(30000, 1)}), MD_RC_OK);
  EXPECT_TRUE(std::filesystem::exists(folder_.backup()));
}

TEST_F(Space, ShrinksWithWhatLives) {
  fill(3000, 30);
  ASSERT_NO_FATAL_FAILURE(check());
  for (int group = 0; group < 30; ++group) {
    ASSERT_EQ(store_.removeAll(numbered("g", group), "", GROUP), MD_RC_OK);
    ASSERT_NO_FATAL_FAILURE(check()) << group;
  }
}

TEST_F(Space, ShrinksWhenEverythingGoesAtOnce) {
  fill(5000, 5);
  ASSERT_EQ(store_.removeAll("", "", 0), MD_RC_OK);
  ASSERT_NO_FATAL_FAILURE(check());
  ASSERT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
  ASSERT_NO_FATAL_FAILURE(check());
}

TEST_F(Space, StaysBoundedWhileRecordsComeAndGo) {
  for (int at = 0; at < 3000; ++at) {
    ASSERT_EQ(store_.add({"g", numbered("k", at), noise(60, static_cast<unsigned>(at))}), MD_RC_OK);
    if (at >= 20) {
      ASSERT_EQ(store_.remove("g", numbered("k", at - 20)), MD_RC_OK);
    }
    if (at % 5 == 0) {
      ASSERT_NO_FATAL_FAILURE(check()) << at;
    }
  }
}

TEST_F(Space, StaysBoundedForManySmallRecords) {
  for (int at = 0; at < 4000; ++at) {
    ASSERT_EQ(store_.add({numbered("g", at), numbered("k", at), ""}), MD_RC_OK);
    if (at % 50 == 0) {
      ASSERT_NO_FATAL_FAILURE(check()) << at;
    }
  }
}

}  // namespace
}  // namespace zon::test
