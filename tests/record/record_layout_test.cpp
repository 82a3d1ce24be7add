// The bytes of a record as the stores build them.
#include "record/record_layout.h"

#include <gtest/gtest.h>

#include <string>

#include "stores/store_operations.h"

namespace {

template <class Layout>
std::string build(zon::Keys<Layout> keys, const char* data, const char* version) {
  const DString dataText(data);
  std::string record(zon::recordSizeFor<Layout>(dataText), '\0');
  zon::putRecord<Layout>(record.data(), keys, dataText, DString(version));
  return record;
}

// The bytes from `offset`: the text, then zeros up to `size`.
testing::AssertionResult hasField(const std::string& record, std::size_t offset, std::size_t size,
                                  const std::string& text) {
  const std::string expected = text + std::string(size - text.size(), '\0');
  if (record.substr(offset, size) == expected) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "field at " << offset << " is not " << text;
}

TEST(OneKeyLayout, HasEachFieldAtItsPlace) {
  DString key("tree");
  const std::string record = build<zon::OneKeyLayout>({&key}, "abc", "1.0");
  EXPECT_EQ(record.size(), 152U);
  EXPECT_TRUE(hasField(record, 0, 129, "tree"));
  EXPECT_TRUE(hasField(record, 129, 11, "1.0"));
  EXPECT_TRUE(hasField(record, 140, 4, "\x04"));
  EXPECT_TRUE(hasField(record, 144, 8, "abc"));
}

TEST(TwoKeyLayout, HasEachFieldAtItsPlace) {
  DString group("group");
  DString key("key");
  const std::string record = build<zon::TwoKeyLayout>({&group, &key}, "abc", "1.0");
  EXPECT_EQ(record.size(), 280U);
  EXPECT_TRUE(hasField(record, 0, 129, "group"));
  EXPECT_TRUE(hasField(record, 129, 129, "key"));
  EXPECT_TRUE(hasField(record, 258, 10, "1.0"));
  EXPECT_TRUE(hasField(record, 268, 4, "\x04"));
  EXPECT_TRUE(hasField(record, 272, 8, "abc"));
}

TEST(ThreeKeyLayout, HasEachFieldAtItsPlace) {
  DString group("group");
  DString subGroup("sub");
  DString key("key");
  const std::string record = build<zon::ThreeKeyLayout>({&group, &subGroup, &key}, "abc", "1.0");
  EXPECT_EQ(record.size(), 408U);
  EXPECT_TRUE(hasField(record, 0, 129, "group"));
  EXPECT_TRUE(hasField(record, 129, 129, "sub"));
  EXPECT_TRUE(hasField(record, 258, 129, "key"));
  EXPECT_TRUE(hasField(record, 387, 9, "1.0"));
  EXPECT_TRUE(hasField(record, 396, 4, "\x04"));
  EXPECT_TRUE(hasField(record, 400, 8, "abc"));
}

TEST(RecordView, EndsATextWithItsFieldWhenTheNulIsMissing) {
  std::string record(zon::FIXED_SIZE<zon::TwoKeyLayout> + 1, 'x');
  record.back() = '\0';
  const zon::RecordView<zon::TwoKeyLayout> view(record.data());
  EXPECT_EQ(view.key(zon::TwoKeyLayout::KEYS[0]).size(), 129U);
  EXPECT_EQ(view.version().size(), 10U);
}

TEST(RecordView, ReadsARecordAtAnyAddress) {
  DString key("tree");
  const std::string record = "?" + build<zon::OneKeyLayout>({&key}, "abc", "1.0");
  const zon::RecordView<zon::OneKeyLayout> view(record.data() + 1);
  EXPECT_EQ(view.text(zon::Field::KEY), "tree");
  EXPECT_EQ(view.text(zon::Field::VERSION), "1.0");
  EXPECT_EQ(view.text(zon::Field::DATA), "abc");
  EXPECT_EQ(view.dataSize(), 4U);
}

TEST(RecordView, FieldThatALayoutLacksIsEmpty) {
  DString key("tree");
  const std::string record = build<zon::OneKeyLayout>({&key}, "abc", "1.0");
  EXPECT_EQ(zon::RecordView<zon::OneKeyLayout>(record.data()).text(zon::Field::GROUP_KEY), "");
}

}  // namespace
