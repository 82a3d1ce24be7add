// The readers of a contact's fields. In these tests / stands for the contact field separator.
#include <gtest/gtest.h>

#include <string>

#include "support/metadata_test.h"
#include "zonmdfile/MDContact.h"
#include "zonmdfile/platform/return_codes.h"

namespace {

using zontest::fieldsOf;
using zontest::Text;
using zontest::textOf;

class ContactFields : public zontest::MetadataTest {
 protected:
  // What the four readers answer, in the order of the fields.
  void read(const std::string& data) {
    Text text(fieldsOf(data));
    addressRc_ = store_.getEmailAddress(text, address_);
    typeRc_ = store_.getNotificationType(text, type_);
    descriptionRc_ = store_.getDescription(text, description_);
    lengthRc_ = store_.getMaxPageLength(text, length_);
  }

  MDContact store_;
  DString address_{"stale"};
  DString description_{"stale"};
  int type_ = -7;
  int length_ = -7;
  std::uint32_t addressRc_ = 99;
  std::uint32_t typeRc_ = 99;
  std::uint32_t descriptionRc_ = 99;
  std::uint32_t lengthRc_ = 99;
};

TEST_F(ContactFields, AreReadByTheirNumbers) {
  read("ops/2/text/60");
  EXPECT_EQ(addressRc_ + typeRc_ + descriptionRc_ + lengthRc_, 0U);
  EXPECT_EQ(textOf(address_), "ops");
  EXPECT_EQ(type_, 2);
  EXPECT_EQ(textOf(description_), "text");
  EXPECT_EQ(length_, 60);
}

TEST_F(ContactFields, LastFieldStandsForMissingOnes) {
  read("ops/2");
  EXPECT_EQ(descriptionRc_ + lengthRc_, 0U);
  EXPECT_EQ(textOf(description_), "2");
  EXPECT_EQ(length_, 2);
}

TEST_F(ContactFields, TextWithoutSeparatorIsEveryField) {
  read("12 people");
  EXPECT_EQ(addressRc_ + typeRc_ + descriptionRc_ + lengthRc_, 0U);
  EXPECT_EQ(textOf(address_), "12 people");
  EXPECT_EQ(type_, 12);
  EXPECT_EQ(textOf(description_), "12 people");
  EXPECT_EQ(length_, 12);
}

TEST_F(ContactFields, SeparatorAtTheEndMakesLaterFieldsMissing) {
  read("ops/2/");
  EXPECT_EQ(addressRc_ + typeRc_, 0U);
  EXPECT_EQ(descriptionRc_, MD_RC_TOKEN_MISSING);
  EXPECT_EQ(lengthRc_, MD_RC_TOKEN_MISSING);
  EXPECT_EQ(textOf(description_), "stale");
  EXPECT_EQ(length_, -7);
}

TEST_F(ContactFields, EmptyTextLeavesTheOutputs) {
  read("");
  EXPECT_EQ(addressRc_, MD_RC_TOKEN_MISSING);
  EXPECT_EQ(typeRc_, MD_RC_TOKEN_MISSING);
  EXPECT_EQ(descriptionRc_, MD_RC_TOKEN_MISSING);
  EXPECT_EQ(lengthRc_, MD_RC_TOKEN_MISSING);
  EXPECT_EQ(textOf(address_) + textOf(description_), "stalestale");
  EXPECT_EQ(type_, -7);
}

TEST_F(ContactFields, NumberWithoutLeadingDigitsIs0) {
  read("ops/none/text/60 lines");
  EXPECT_EQ(typeRc_, 0U);
  EXPECT_EQ(type_, 0);
  EXPECT_EQ(length_, 60);
}

TEST_F(ContactFields, UpdateWithIdenticalDataSucceeds) {
  Text name("duty");
  Text data(fieldsOf("ops/2/text/60"));
  ASSERT_EQ(store_.insert(name, data, DString("1")), 0U);
  EXPECT_EQ(store_.update(name, data, DString("1")), 0U);
}

}  // namespace
