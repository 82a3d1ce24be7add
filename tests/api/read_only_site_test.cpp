// A metadata directory that the caller may read and not write: another user's, or one on a medium that is read-only.
//
// The rule: the rights of an unprivileged user last for one call; all that a test looks at and removes it does with its
// own.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include "api/entry_points.h"
#include "support/metadata_test.h"
#include "zonmdfile/platform/admin.h"

namespace {

using zontest::Call;
using zontest::EntryPointCase;

constexpr uid_t UNPRIVILEGED = 65534;

// Root may write anywhere; everybody else is unprivileged already.
class UnprivilegedRights {
 public:
  UnprivilegedRights() { EXPECT_EQ(own_ == 0 ? seteuid(UNPRIVILEGED) : 0, 0); }
  ~UnprivilegedRights() { EXPECT_EQ(seteuid(own_), 0); }
  UnprivilegedRights(const UnprivilegedRights&) = delete;
  UnprivilegedRights& operator=(const UnprivilegedRights&) = delete;

 private:
  uid_t own_ = geteuid();
};

class ReadOnlySite : public testing::TestWithParam<EntryPointCase> {
 protected:
  ReadOnlySite() {
    zontest::insertSite();
    takeWriteRightsAway();
    before_ = contents();
  }

  void takeWriteRightsAway() {
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) chmod(entry.path().c_str(), 0444);
    chmod(directory_.path().c_str(), 0555);
  }

  // Names and bytes of all files.
  std::map<std::string, std::string> contents() const {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
      std::ifstream file(entry.path(), std::ios::binary);
      files[entry.path().filename()] = {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    return files;
  }

  void run(Call& call) {
    GetParam().fill(call);
    const UnprivilegedRights rights;
    call.run(GetParam().function, GetParam().reserved());
  }

  const zontest::MetadataDirectory directory_;
  std::map<std::string, std::string> before_;
};

class ReadOnlySiteReader : public ReadOnlySite {};
class ReadOnlySiteWriter : public ReadOnlySite {};

std::string nameOf(const testing::TestParamInfo<EntryPointCase>& info) { return info.param.name; }

std::vector<EntryPointCase> entryPoints(bool readers) {
  std::vector<EntryPointCase> chosen;
  for (const EntryPointCase& entry : zontest::allEntryPoints()) {
    const bool isReader = std::string(entry.name).find("_retrieve") != std::string::npos;
    if (isReader == readers) chosen.push_back(entry);
  }
  return chosen;
}

INSTANTIATE_TEST_SUITE_P(All, ReadOnlySiteReader, testing::ValuesIn(entryPoints(true)), nameOf);
INSTANTIATE_TEST_SUITE_P(All, ReadOnlySiteWriter, testing::ValuesIn(entryPoints(false)), nameOf);

TEST_P(ReadOnlySiteReader, AnswersAndMakesNoFile) {
  Call call;
  run(call);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(contents(), before_);
}

TEST_P(ReadOnlySiteWriter, ReportsThePermissionAndChangesNothing) {
  Call call;
  run(call);
  EXPECT_EQ(call.sqlcode(), ecfToSqlError(GENREG_RC_NO_PERMISSION));
  const std::size_t rcSlot = std::string(GetParam().slots).find('r');
  if (rcSlot != std::string::npos) {
    EXPECT_EQ(call.rcCell(rcSlot), call.sqlcode());
  }
  EXPECT_EQ(contents(), before_);
}

TEST_P(ReadOnlySiteWriter, WorksAgainWithTheRights) {
  Call refused;
  run(refused);
  chmod(directory_.path().c_str(), 0755);
  for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) chmod(entry.path().c_str(), 0644);
  Call call;
  GetParam().fill(call);
  call.run(GetParam().function, GetParam().reserved());
  EXPECT_EQ(call.sqlcode(), 0);
}

}  // namespace
