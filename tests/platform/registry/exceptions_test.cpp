// Exceptions of a record type's callbacks: none leaves an operation of the engine, of whatever type it is.
#include <new>
#include <stdexcept>

#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

// What the callbacks throw; a number is no std::exception.
enum class Thrown { NUMBER, EXCEPTION, NO_MEMORY };
Thrown thrown = Thrown::NUMBER;

int throwIt(unsigned long, void*) {
  if (thrown == Thrown::NO_MEMORY) throw std::bad_alloc();
  if (thrown == Thrown::EXCEPTION) throw std::runtime_error("refused");
  throw 42;
}

// So many records match before a callback throws.
int quietMatches = 0;

int throwFromMatch(unsigned long flags, void* record, void*) { return quietMatches-- > 0 ? 1 : throwIt(flags, record); }

class ThrowingStore : public TestStore {
 public:
  using TestStore::TestStore;
  void throwWhileValidating() { callbacks_.validate = throwIt; }
  void throwWhileMatching() { callbacks_.match = throwFromMatch; }
};

class CallbackThatThrows : public ::testing::Test {
 protected:
  CallbackThatThrows() { quietMatches = 0; }

  TestFolder folder_;
  ThrowingStore store_{folder_.path()};
};

TEST_F(CallbackThatThrows, MakesAnAdditionFailWhateverItThrows) {
  store_.throwWhileValidating();
  thrown = Thrown::NUMBER;
  EXPECT_EQ(store_.add({"g", "k", "data"}), GENREG_RC_INTERNAL);
  thrown = Thrown::EXCEPTION;
  EXPECT_EQ(store_.add({"g", "k", "data"}), GENREG_RC_INTERNAL);
  thrown = Thrown::NO_MEMORY;
  EXPECT_EQ(store_.add({"g", "k", "data"}), GENREG_RC_NO_MEMORY);
}

TEST_F(CallbackThatThrows, LeavesTheFileAsItWas) {
  ASSERT_EQ(store_.add({"g", "first", "data"}), MD_RC_OK);
  store_.throwWhileValidating();
  thrown = Thrown::NUMBER;
  EXPECT_EQ(store_.add({"g", "second", "data"}), GENREG_RC_INTERNAL);
  TestStore other(folder_.path());
  EXPECT_EQ(other.list(), (std::vector<Value>{{"g", "first", "data"}}));
  EXPECT_EQ(other.add({"g", "second", "data"}), MD_RC_OK);
}

TEST_F(CallbackThatThrows, MakesReadingFailWhateverItThrows) {
  ASSERT_EQ(store_.add({"g", "k", "data"}), MD_RC_OK);
  store_.throwWhileMatching();
  thrown = Thrown::NUMBER;
  Value value;
  EXPECT_EQ(store_.get("g", "k", value), GENREG_RC_INTERNAL);
  std::uint32_t rc = MD_RC_OK;
  EXPECT_TRUE(store_.list(WHOLE_KEY, {"g", "k", "data"}, &rc).empty());
  EXPECT_EQ(rc, GENREG_RC_INTERNAL);
}

// A scan that failed is over: whoever goes on asking gets no record that he had already, or that is none.
TEST_F(CallbackThatThrows, EndsTheScanWhichTellsItAgainWhenItCloses) {
  for (const char* key : {"a", "b", "c"}) ASSERT_EQ(store_.add({"g", key, "data"}), MD_RC_OK);
  store_.throwWhileMatching();
  thrown = Thrown::NO_MEMORY;
  auto key = encode({}, true);
  std::vector<std::byte> out(key.size());
  for (const int delivered : {0, 1, 2}) {
    quietMatches = delivered;
    ASSERT_EQ(store_.OpenScan(), MD_RC_OK);
    for (int i = 0; i < delivered; ++i) ASSERT_EQ(store_.GetNext(0, key.data(), out.data()), MD_RC_OK);
    EXPECT_EQ(store_.GetNext(0, key.data(), out.data()), GENREG_RC_NO_MEMORY) << "after " << delivered;
    EXPECT_EQ(store_.GetNext(0, key.data(), out.data()), GENREG_RC_END_OF_SCAN);
    EXPECT_EQ(store_.GetNext(0, key.data(), out.data()), GENREG_RC_END_OF_SCAN);
    EXPECT_EQ(store_.CloseScan(), GENREG_RC_NO_MEMORY);
  }
}

}  // namespace
}  // namespace zon::test
