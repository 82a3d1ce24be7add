// What a caller meets when the constructor of a store throws: the one exception that an entry point lets out.
//
// The rule: this program replaces getMetadataPath, which every store's constructor asks; it throws only around the call
// under test.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "api/entry_points.h"
#include "support/metadata_test.h"
#include "zonmdfile/platform/admin.h"

namespace {

struct StoreWouldNotBeMade {};

bool isThrowing = false;

}  // namespace

extern "C" __attribute__((visibility("default"))) int getMetadataPath(char* path, size_t size) {
  if (isThrowing) throw StoreWouldNotBeMade();
  static auto* const original = reinterpret_cast<int (*)(char*, size_t)>(dlsym(RTLD_NEXT, "getMetadataPath"));
  if (original == nullptr) std::abort();
  return original(path, size);
}

namespace {

using zontest::Call;
using zontest::EntryPointCase;

class ThrowingStore : public testing::TestWithParam<EntryPointCase> {};

std::string nameOf(const testing::TestParamInfo<EntryPointCase>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(All, ThrowingStore, testing::ValuesIn(zontest::allEntryPoints()), nameOf);

TEST_P(ThrowingStore, LetsTheExceptionOutAndLeavesCellsAndSqlcaAlone) {
  const zontest::MetadataDirectory directory;
  zontest::insertSite();
  const zontest::MemoryAccount all(nullptr);
  Call call;
  GetParam().fill(call);
  isThrowing = true;
  EXPECT_THROW(call.run(GetParam().function, GetParam().reserved()), StoreWouldNotBeMade);
  isThrowing = false;
  EXPECT_TRUE(call.areOutputsUntouched());
  EXPECT_TRUE(call.isSqlcaUntouched());
  const std::size_t rcSlot = std::string(GetParam().slots).find('r');
  if (rcSlot != std::string::npos) {
    EXPECT_EQ(call.numberAt(rcSlot), Call::MARK_NUMBER);
  }
  EXPECT_EQ(all.buffers(), 0U);
}

TEST_P(ThrowingStore, IsForgottenByTheNextCall) {
  const zontest::MetadataDirectory directory;
  zontest::insertSite();
  Call failing;
  GetParam().fill(failing);
  isThrowing = true;
  EXPECT_THROW(failing.run(GetParam().function, GetParam().reserved()), StoreWouldNotBeMade);
  isThrowing = false;
  Call call;
  GetParam().fill(call);
  call.run(GetParam().function, GetParam().reserved());
  EXPECT_EQ(call.sqlcode(), 0);
}

}  // namespace
