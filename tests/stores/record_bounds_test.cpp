// No operation reads or writes behind a record: buffers that end where memory ends, for records of one, two and three
// keys.
//
// The rule: match and result have the sizes that callers are told, as numbers.
#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "stores/store_operations.h"
#include "support/guarded_buffer.h"
#include "support/metadata_test.h"
#include "zonmdfile/MDCloningMapping.h"
#include "zonmdfile/MDCustomTree.h"
#include "zonmdfile/MDJCLSkeleton.h"
#include "zonmdfile/platform/return_codes.h"

namespace {

using zontest::GuardedBuffer;

struct OneKey {
  using Store = MDCustomTree;
  using Layout = zon::OneKeyLayout;
  static constexpr std::size_t LARGEST_RECORD = 1'024'148;
};
struct TwoKeys {
  using Store = MDJCLSkeleton;
  using Layout = zon::TwoKeyLayout;
  static constexpr std::size_t LARGEST_RECORD = 1'024'276;
};
struct ThreeKeys {
  using Store = MDCloningMapping;
  using Layout = zon::ThreeKeyLayout;
  static constexpr std::size_t LARGEST_RECORD = 1'024'404;
};

template <class Kind>
class RecordBounds : public zontest::MetadataTest {
 protected:
  using Layout = typename Kind::Layout;
  static constexpr unsigned long WHOLE_KEY = Layout::WHOLE_KEY;

  RecordBounds() { keys_.fill(&key_); }

  // The largest record that there is, in memory of its own size.
  void put(GuardedBuffer& record) const { zon::putRecord<Layout>(record.get(), keys_, data_, DString("1")); }
  std::size_t recordSize() const { return zon::recordSizeFor<Layout>(data_); }
  void insert() {
    GuardedBuffer record(recordSize());
    put(record);
    ASSERT_EQ(store_.Add(WHOLE_KEY, record.get()), MD_RC_OK);
  }
  // The keys, and nothing behind the header.
  void putMatch(GuardedBuffer& match) const { zon::putKeys<Layout>(match.get(), keys_); }

  DString key_{std::string(128, 'k').c_str()};
  const DString data_{std::string(1'024'000, 'd').c_str()};
  zon::Keys<Layout> keys_{};
  typename Kind::Store store_;
  GuardedBuffer match_{zon::DATA_OFFSET<Layout>};
  GuardedBuffer result_{Kind::LARGEST_RECORD};
};

using Kinds = testing::Types<OneKey, TwoKeys, ThreeKeys>;
TYPED_TEST_SUITE(RecordBounds, Kinds);

TYPED_TEST(RecordBounds, HoldForAGetOfTheLargestRecord) {
  this->insert();
  this->putMatch(this->match_);
  ASSERT_EQ(this->store_.Get(this->WHOLE_KEY, this->match_.get(), this->result_.get()), MD_RC_OK);
  EXPECT_EQ(zon::RecordView<typename TypeParam::Layout>(this->result_.get()).data(),
            std::string_view(this->data_.c_str(), this->data_.length()));
}

TYPED_TEST(RecordBounds, HoldForAScanOfTheLargestRecord) {
  this->insert();
  this->putMatch(this->match_);
  ASSERT_EQ(this->store_.OpenScan(), MD_RC_OK);
  EXPECT_EQ(this->store_.GetNext(this->WHOLE_KEY, this->match_.get(), this->result_.get()), MD_RC_OK);
  EXPECT_EQ(this->store_.GetNext(this->WHOLE_KEY, this->match_.get(), this->result_.get()), GENREG_RC_END_OF_SCAN);
  EXPECT_EQ(this->store_.CloseScan(), MD_RC_OK);
}

TYPED_TEST(RecordBounds, HoldForAChangeOfTheLargestRecord) {
  this->insert();
  this->putMatch(this->match_);
  GuardedBuffer changed(this->recordSize());
  this->put(changed);
  changed.get()[zon::DATA_OFFSET<typename TypeParam::Layout>] = 'e';
  EXPECT_EQ(this->store_.Change(this->WHOLE_KEY, this->match_.get(), changed.get()), MD_RC_OK);
}

TYPED_TEST(RecordBounds, HoldForARemovalOfTheLargestRecord) {
  this->insert();
  this->putMatch(this->match_);
  EXPECT_EQ(this->store_.Delete(this->WHOLE_KEY, this->match_.get()), MD_RC_OK);
  EXPECT_EQ(this->store_.Get(this->WHOLE_KEY, this->match_.get(), this->result_.get()), GENREG_RC_NOT_FOUND);
}

}  // namespace
