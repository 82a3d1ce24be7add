// What every entry point does when its store object cannot be allocated.
//
// The rule: this program replaces operator new; a size to refuse is set only around the call under test.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "api/entry_points.h"
#include "support/metadata_test.h"
#include "zonmdfile/platform/GenRegBin.h"
#include "zonmdfile/platform/admin.h"

namespace {

// A store adds nothing to an engine object, and before there is one nothing else of this size is asked for.
std::atomic<bool> refusesStores{false};

bool isRefused(std::size_t size) { return refusesStores && size == sizeof(GenRegBin); }

}  // namespace

// Not inlined: where the compiler sees into one of a pair but not the other, it takes them for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (isRefused(size)) throw std::bad_alloc();
  if (void* memory = std::malloc(size != 0 ? size : 1)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return isRefused(size) ? nullptr : std::malloc(size != 0 ? size : 1);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

namespace {

using zontest::Call;
using zontest::EntryPointCase;

class NoStore : public testing::TestWithParam<EntryPointCase> {};

std::string nameOf(const testing::TestParamInfo<EntryPointCase>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(All, NoStore, testing::ValuesIn(zontest::allEntryPoints()), nameOf);

TEST_P(NoStore, ReportsNoDataAndTouchesNoOutput) {
  const zontest::MetadataDirectory directory;
  zontest::insertSite();
  Call call;
  GetParam().fill(call);
  refusesStores = true;
  call.run(GetParam().function, GetParam().reserved());
  refusesStores = false;
  EXPECT_EQ(call.sqlcode(), ecfToSqlError(MD_RC_NO_DATA));
  const std::size_t rcSlot = std::string(GetParam().slots).find('r');
  if (rcSlot != std::string::npos) {
    EXPECT_EQ(call.rcCell(rcSlot), ecfToSqlError(MD_RC_NO_DATA));
  }
  EXPECT_TRUE(call.areOutputsUntouched());
}

}  // namespace
