// The checks and callbacks of the three record types: one suite for what all three promise, then each one's own.
#include <gtest/gtest.h>

#include <string>

#include "stores/store_operations.h"
#include "zonmdfile/MDOneKeyReg.h"
#include "zonmdfile/MDThreeKeyReg.h"
#include "zonmdfile/MDTwoKeyReg.h"
#include "zonmdfile/platform/admin.h"

namespace {

// A record with the same text in all keys.
template <class Layout>
std::string recordOf(const char* key, const char* data, const char* version = "1") {
  DString keyText(key);
  zon::Keys<Layout> keys;
  keys.fill(&keyText);
  const DString dataText(data);
  std::string record(zon::recordSizeFor<Layout>(dataText), '\0');
  zon::putRecord<Layout>(record.data(), keys, dataText, DString(version));
  return record;
}

struct OneKey {
  using Type = MDOneKeyReg;
  using Layout = zon::OneKeyLayout;
  static constexpr unsigned long FIXED_SIZE = 148;
};
struct TwoKey {
  using Type = MDTwoKeyReg;
  using Layout = zon::TwoKeyLayout;
  static constexpr unsigned long FIXED_SIZE = 276;
};
struct ThreeKey {
  using Type = MDThreeKeyReg;
  using Layout = zon::ThreeKeyLayout;
  static constexpr unsigned long FIXED_SIZE = 404;
};

template <class Kind>
class RecordType : public testing::Test {
 protected:
  using Type = typename Kind::Type;

  static std::string record(const char* key, const char* data, const char* version = "1") {
    return recordOf<typename Kind::Layout>(key, data, version);
  }
  static int match(unsigned long flags, std::string left, std::string right) {
    return Type::MatchRecord(flags, left.data(), right.data());
  }
  std::uint32_t checkKey(std::size_t length) {
    DString key(std::string(length, 'k').c_str());
    return type_.checkKeyLength(key);
  }
  std::uint32_t checkData(std::size_t length) {
    DString data(std::string(length, 'd').c_str());
    return type_.checkDataLength(data);
  }

  Type type_{"zontest"};
};

using Kinds = testing::Types<OneKey, TwoKey, ThreeKey>;
TYPED_TEST_SUITE(RecordType, Kinds);

template <class Type>
class OptionsOf : public Type {
 public:
  using Type::Type;
  bool isDurable() const { return (this->options_ & GenRegBase::OPTION_DURABLE) != 0; }
};

TYPED_TEST(RecordType, MakesItsChangesDurable) {
  const OptionsOf<typename TypeParam::Type> type("zontest");
  EXPECT_TRUE(type.isDurable());
}

TYPED_TEST(RecordType, AcceptsKeysOf1To128Bytes) {
  EXPECT_EQ(this->checkKey(1), 0U);
  EXPECT_EQ(this->checkKey(128), 0U);
}

TYPED_TEST(RecordType, RefusesAnEmptyKey) { EXPECT_EQ(this->checkKey(0), 31004U); }

TYPED_TEST(RecordType, RefusesAKeyOf129Bytes) { EXPECT_EQ(this->checkKey(129), 31003U); }

TYPED_TEST(RecordType, AcceptsDataOf1To1024000Bytes) {
  EXPECT_EQ(this->checkData(1), 0U);
  EXPECT_EQ(this->checkData(1'024'000), 0U);
}

TYPED_TEST(RecordType, RefusesEmptyData) { EXPECT_EQ(this->checkData(0), 31006U); }

TYPED_TEST(RecordType, RefusesDataOf1024001Bytes) { EXPECT_EQ(this->checkData(1'024'001), 31005U); }

TYPED_TEST(RecordType, CountsStoredBytesAndNotCharacters) {
  DString withNul(std::string(129, '\0').c_str(), 0);
  EXPECT_EQ(this->type_.checkKeyLength(withNul), 31004U);
  const std::string nuls(129, '\0');
  DString manyNuls(nuls.data(), nuls.size());
  EXPECT_EQ(this->type_.checkKeyLength(manyNuls), 31003U);
}

TYPED_TEST(RecordType, RecordSizeCountsTheClosingNulAndTheTrailer) {
  std::string record = this->record("k", "abc");
  unsigned long size = 0;
  EXPECT_EQ(TypeParam::Type::GetRecordSize(record.data(), &size), 0);
  EXPECT_EQ(size, 4 + TypeParam::FIXED_SIZE);
  EXPECT_EQ(size, record.size());
}

TYPED_TEST(RecordType, MaximumRecordSizeCountsTheTextAlone) {
  unsigned long size = 0;
  EXPECT_EQ(TypeParam::Type::GetMaxRecordSize(&size), 0);
  EXPECT_EQ(size, 1'024'000 + TypeParam::FIXED_SIZE);
}

TYPED_TEST(RecordType, MatchesOnTheKeyAlone) {
  EXPECT_EQ(this->match(8, this->record("k", "one"), this->record("k", "two")), 1);
  EXPECT_EQ(this->match(8, this->record("k", "one"), this->record("l", "one")), 0);
}

TYPED_TEST(RecordType, MatchesOnKeyAndData) {
  EXPECT_EQ(this->match(8 | 32, this->record("k", "one"), this->record("k", "two")), 0);
  EXPECT_EQ(this->match(8 | 32, this->record("k", "one"), this->record("k", "one")), 1);
}

TYPED_TEST(RecordType, MatchesEverythingWithoutFlags) {
  EXPECT_EQ(this->match(0, this->record("k", "one", "1"), this->record("l", "longer", "2")), 1);
}

TYPED_TEST(RecordType, MatchesOnDataSize) {
  EXPECT_EQ(this->match(16, this->record("k", "one"), this->record("l", "two")), 1);
  EXPECT_EQ(this->match(16, this->record("k", "one"), this->record("k", "four")), 0);
}

TYPED_TEST(RecordType, MatchesDataUpToItsNul) {
  std::string left = this->record("k", "ab");
  std::string right = this->record("k", "ab cd");
  right[right.size() - 4 - 4] = '\0';
  EXPECT_EQ(this->match(32, left, right), 1);
  EXPECT_EQ(this->match(32 | 16, left, right), 0);
}

TYPED_TEST(RecordType, MatchesOnVersion) {
  EXPECT_EQ(this->match(64, this->record("k", "one", "1"), this->record("l", "two", "1")), 1);
  EXPECT_EQ(this->match(64, this->record("k", "one", "1"), this->record("k", "one", "2")), 0);
}

TYPED_TEST(RecordType, IgnoresOtherFlags) {
  const unsigned long unused = ~(2UL | 4 | 8 | 16 | 32 | 64);
  EXPECT_EQ(this->match(unused, this->record("k", "one", "1"), this->record("l", "four", "2")), 1);
}

TYPED_TEST(RecordType, EveryRecordIsValid) {
  std::string record = this->record("k", "one");
  EXPECT_EQ(TypeParam::Type::ValidateRecord(8, record.data()), 0);
}

TYPED_TEST(RecordType, PrintsNothingForReturnCode0) {
  testing::internal::CaptureStdout();
  this->type_.checkRC(0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TYPED_TEST(RecordType, PrintsReturnCodeAndDescription) {
  testing::internal::CaptureStdout();
  this->type_.checkRC(31003);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            std::string("RC = 31003 (") + ecfErrorGetDescription(31003) + ")\n");
}

TEST(OneKeyReg, IgnoresTheFlagsOfKeysItLacks) {
  std::string left = recordOf<zon::OneKeyLayout>("k", "one");
  std::string right = recordOf<zon::OneKeyLayout>("l", "one");
  EXPECT_EQ(MDOneKeyReg::MatchRecord(2, left.data(), right.data()), 1);
  EXPECT_EQ(MDOneKeyReg::MatchRecord(4, left.data(), right.data()), 1);
}

TEST(OneKeyReg, PrintsItsFields) {
  std::string record = recordOf<zon::OneKeyLayout>("tree", "abc", "1.0");
  testing::internal::CaptureStdout();
  EXPECT_EQ(MDOneKeyReg::PrintRecord(record.data()), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Key = |tree| Version = |1.0| DataSize = |4| Data = |abc| \n");
}

class TwoKeyReg : public testing::Test {
 protected:
  static std::string record(const char* group, const char* key) {
    DString groupText(group);
    DString keyText(key);
    const DString data("abc");
    std::string bytes(zon::recordSizeFor<zon::TwoKeyLayout>(data), '\0');
    zon::putRecord<zon::TwoKeyLayout>(bytes.data(), {&groupText, &keyText}, data, DString("1.0"));
    return bytes;
  }
  MDTwoKeyReg type_{"zontest"};
};

TEST_F(TwoKeyReg, MatchesGroupAndKeyApart) {
  std::string left = record("g", "k");
  std::string sameGroup = record("g", "l");
  std::string sameKey = record("h", "k");
  EXPECT_EQ(MDTwoKeyReg::MatchRecord(2, left.data(), sameGroup.data()), 1);
  EXPECT_EQ(MDTwoKeyReg::MatchRecord(2, left.data(), sameKey.data()), 0);
  EXPECT_EQ(MDTwoKeyReg::MatchRecord(8, left.data(), sameKey.data()), 1);
  EXPECT_EQ(MDTwoKeyReg::MatchRecord(10, left.data(), sameGroup.data()), 0);
  EXPECT_EQ(MDTwoKeyReg::MatchRecord(4, left.data(), sameKey.data()), 1);
}

TEST_F(TwoKeyReg, ChecksTheGroupKeyLikeAKey) {
  DString empty;
  DString full(std::string(128, 'g').c_str());
  DString tooLong(std::string(129, 'g').c_str());
  EXPECT_EQ(type_.checkGroupKeyLength(empty), MD_RC_KEY_EMPTY);
  EXPECT_EQ(type_.checkGroupKeyLength(full), MD_RC_OK);
  EXPECT_EQ(type_.checkGroupKeyLength(tooLong), MD_RC_KEY_TOO_LONG);
}

TEST_F(TwoKeyReg, PrintsItsFields) {
  std::string bytes = record("g", "k");
  testing::internal::CaptureStdout();
  EXPECT_EQ(MDTwoKeyReg::PrintRecord(bytes.data()), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "GroupKey = |g| Key = |k| Version = |1.0| DataSize = |4| Data = |abc| \n");
}

class ThreeKeyReg : public testing::Test {
 protected:
  static std::string record(const char* group, const char* subGroup, const char* key) {
    DString texts[] = {group, subGroup, key};
    const DString data("abc");
    std::string bytes(zon::recordSizeFor<zon::ThreeKeyLayout>(data), '\0');
    zon::putRecord<zon::ThreeKeyLayout>(bytes.data(), {&texts[0], &texts[1], &texts[2]}, data, DString("1.0"));
    return bytes;
  }
  MDThreeKeyReg type_{"zontest"};
};

TEST_F(ThreeKeyReg, MatchesEachKeyApart) {
  std::string left = record("g", "s", "k");
  std::string sameGroup = record("g", "t", "l");
  std::string sameMember = record("h", "s", "k");
  EXPECT_EQ(MDThreeKeyReg::MatchRecord(2, left.data(), sameGroup.data()), 1);
  EXPECT_EQ(MDThreeKeyReg::MatchRecord(6, left.data(), sameGroup.data()), 0);
  EXPECT_EQ(MDThreeKeyReg::MatchRecord(12, left.data(), sameMember.data()), 1);
  EXPECT_EQ(MDThreeKeyReg::MatchRecord(14, left.data(), sameMember.data()), 0);
}

TEST_F(ThreeKeyReg, ChecksTheSubGroupKeyLikeAKey) {
  DString empty;
  DString full(std::string(128, 's').c_str());
  DString tooLong(std::string(129, 's').c_str());
  EXPECT_EQ(type_.checkSubGroupKeyLength(empty), MD_RC_KEY_EMPTY);
  EXPECT_EQ(type_.checkSubGroupKeyLength(full), MD_RC_OK);
  EXPECT_EQ(type_.checkSubGroupKeyLength(tooLong), MD_RC_KEY_TOO_LONG);
  EXPECT_EQ(type_.checkGroupKeyLength(tooLong), MD_RC_KEY_TOO_LONG);
}

TEST_F(ThreeKeyReg, PrintsItsFields) {
  std::string bytes = record("g", "s", "k");
  testing::internal::CaptureStdout();
  EXPECT_EQ(MDThreeKeyReg::PrintRecord(bytes.data()), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "GroupKey = |g| SubGroupKey = |s| Key = |k| Version = |1.0| DataSize = |4| Data = |abc| \n");
}

}  // namespace
