// The warning in the SQLCA: a call that lost records does not answer plain success.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/cells.h"
#include "support/metadata_test.h"
#include "zonmdfile/platform/admin.h"

namespace {

using zontest::Call;

const std::string NO_WARNING(11, ' ');
const std::string LOSS = "W      W   ";

// Enough for a backup to be made.
const std::string LARGE(6000, 'x');

void insertTree(Call& call, const std::string& key) { call.in(key).in(LARGE).in("1").rc().run(MDCustomTree_insert); }
void removeTree(Call& call, const std::string& key) { call.in(key).rc().run(MDCustomTree_remove); }

// A site whose file of trees is empty or gone, and its backup is not.
class LossWarnings : public testing::Test {
 protected:
  LossWarnings() {
    Call call;
    insertTree(call, "first");
    EXPECT_EQ(call.sqlcode(), 0);
    EXPECT_EQ(call.warnings(), NO_WARNING);
  }

  std::filesystem::path file() const { return directory_.path() / "zoncustomtree"; }

  const zontest::MetadataDirectory directory_;
};

TEST_F(LossWarnings, AreGivenByTheChangeThatRepairsAndByNoOther) {
  std::filesystem::resize_file(file(), 0);
  Call lossy;
  insertTree(lossy, "second");
  EXPECT_EQ(lossy.sqlcode(), 0);
  EXPECT_EQ(lossy.warnings(), LOSS);
  Call next;
  insertTree(next, "third");
  EXPECT_EQ(next.sqlcode(), 0);
  EXPECT_EQ(next.warnings(), NO_WARNING);
}

TEST_F(LossWarnings, AreGivenWhereAFileIsMadeBesideTheBackupOfAnother) {
  std::filesystem::remove(file());
  Call call;
  insertTree(call, "second");
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.warnings(), LOSS);
}

TEST_F(LossWarnings, AreGivenBesideAFailureToo) {
  std::filesystem::resize_file(file(), 0);
  Call call;
  removeTree(call, "never there");
  EXPECT_NE(call.sqlcode(), 0);
  EXPECT_EQ(call.warnings(), LOSS);
}

TEST_F(LossWarnings, AreNotGivenByReadersWhoTellTheDamage) {
  std::filesystem::resize_file(file(), 0);
  Call call;
  call.in("first").rc().out().out().run(MDCustomTree_retrieve);
  EXPECT_EQ(call.sqlcode(), ecfToSqlError(GENREG_RC_DAMAGED));
  EXPECT_EQ(call.warnings(), NO_WARNING);
}

}  // namespace
