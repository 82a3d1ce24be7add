// docs/file-format.md against files that the engine makes: a reader that knows nothing but the document finds the same
// records, by one pass over the log and over the index.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/registry/harness/fixed_surroundings.h"
#include "platform/registry/harness/format_reader.h"
#include "platform/registry/harness/format_stores.h"
#include "zonmdfile/MDOneKeyReg.h"
#include "zonmdfile/MDThreeKeyReg.h"
#include "zonmdfile/MDTwoKeyReg.h"
#include "zonmdfile/platform/return_codes.h"

namespace zontest::format_document {
namespace {

struct TypeNames {
  template <class Type>
  static std::string GetName(int) {
    return std::is_same_v<Type, MDOneKeyReg> ? "OneKey" : std::is_same_v<Type, MDTwoKeyReg> ? "TwoKeys" : "ThreeKeys";
  }
};
using Types = testing::Types<MDOneKeyReg, MDTwoKeyReg, MDThreeKeyReg>;
TYPED_TEST_SUITE(FormatDocument, Types, TypeNames);

TYPED_TEST(FormatDocument, ReadsWhatRandomChangesLeave) {
  constexpr unsigned KEYS = 12;
  this->groups_ = 2;
  for (int at = 0; at < 1500; ++at) {
    this->step(KEYS);
    if (at % 50 == 49) {
      ASSERT_NO_FATAL_FAILURE(this->expectSameAnswers(FixedSurroundings::bootId(0xB0), KEYS)) << "step " << at;
    }
  }
  EXPECT_THAT(this->met_.kinds, testing::IsSupersetOf({INSERT, CHANGE, REMOVE, AREA}));
  if (this->layout().indexes.size() > 1) {
    EXPECT_TRUE(this->met_.kinds.contains(SUMMARY) && this->met_.summaryEndedWalk);
  }
  EXPECT_TRUE(this->met_.overlay && this->met_.block);
}

TYPED_TEST(FormatDocument, ReadsFilesWithManyRecords) {
  constexpr unsigned KEYS = 20000;
  ASSERT_EQ(this->store_.add(this->record(KEYS)), MD_RC_OK);
  for (int batch = 0; batch < 24; ++batch) {
    ASSERT_EQ(this->store_.beginBatch(), MD_RC_OK);
    for (int at = 0; at < 300; ++at) this->store_.add(this->record(KEYS));
    ASSERT_EQ(this->store_.commitBatch(), MD_RC_OK);
  }
  for (const Bytes& record : this->store_.list()) {
    if (this->below(20) == 0) this->store_.remove(0, record);
  }
  ASSERT_NO_FATAL_FAILURE(this->expectSameAnswers(FixedSurroundings::bootId(0xB0), KEYS));
  const Reader reader(this->file(), this->layout(), FixedSurroundings::bootId(0xB0), this->met_);
  const std::vector<Bytes> records = reader.list();
  EXPECT_EQ(reader.records(), records.size());
  for (const Bytes& record : records) ASSERT_EQ(reader.findWholeKey(record), record);
  EXPECT_TRUE(this->met_.olderSegment);
  EXPECT_TRUE(this->met_.overflow);
}

TYPED_TEST(FormatDocument, RollsForwardOnlyInAnotherRunOfTheMachine) {
  constexpr unsigned KEYS = 30;
  for (int at = 0; at < 200; ++at) {
    const Bytes before = this->file();
    this->step(KEYS);
    this->step(KEYS);
    const Bytes after = this->file();
    const bool isSameFile =
        before.size() > LOG_START && std::equal(before.begin(), before.begin() + 136, after.begin());
    if (at % 10 != 0 || !isSameFile) continue;
    this->loseSlots(before);
    ASSERT_NO_FATAL_FAILURE(this->expectSameAnswers(FixedSurroundings::bootId(0xB0), KEYS)) << "same run, step " << at;
    FixedSurroundings::setBootId(0xC0);
    ASSERT_NO_FATAL_FAILURE(this->expectSameAnswers(FixedSurroundings::bootId(0xC0), KEYS)) << "next run, step " << at;
    FixedSurroundings::setBootId(0xB0);
    write(this->path_, after);
  }
  EXPECT_TRUE(this->met_.rolledForward);
}

TYPED_TEST(FormatDocument, ReadsTheBackupAsFarAsItReaches) {
  for (int at = 0; at < 400; ++at) this->step(40);
  Met met;
  const Reader file(this->file(), this->layout(), FixedSurroundings::bootId(0xB0), met);
  const Bytes backup = bytesOf(this->directory_ / ".formats.bkp");
  const Reader reader(backup, this->layout(), FixedSurroundings::bootId(0xB0), met);
  EXPECT_EQ(reader.list().size(), reader.records());
  EXPECT_LE(reader.end(), file.end());
  EXPECT_GT(reader.end(), LOG_START);
}

}  // namespace
}  // namespace zontest::format_document
