// What holds for every entry point: null arguments, failing allocations, ownership of outputs.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "api/entry_points.h"
#include "support/metadata_test.h"
#include "zonmdfile/platform/admin.h"

namespace {

using zontest::Call;
using zontest::EntryPointCase;

class EveryEntryPoint : public testing::TestWithParam<EntryPointCase> {
 protected:
  // Number and count cells must be as they were when a call fails.
  static bool areNumbersUntouched(const Call& call) {
    const std::string slots = GetParam().slots;
    for (std::size_t i = 0; i < slots.size(); ++i) {
      if ((slots[i] == '#' || slots[i] == 'c') && call.numberAt(i) != Call::MARK_NUMBER) return false;
    }
    return true;
  }
  static std::int32_t rcCell(const Call& call, std::int32_t otherwise) {
    const std::size_t slot = std::string(GetParam().slots).find('r');
    return slot == std::string::npos ? otherwise : call.rcCell(slot);
  }
  static bool isContactCase() { return std::string(GetParam().name).find("Contact") != std::string::npos; }
};

std::string nameOf(const testing::TestParamInfo<EntryPointCase>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(All, EveryEntryPoint, testing::ValuesIn(zontest::allEntryPoints()), nameOf);

TEST(EntryPoints, AreAllListed) {
  std::set<std::string> names;
  for (const EntryPointCase& entry : zontest::allEntryPoints()) names.insert(entry.name);
  EXPECT_EQ(names.size(), 78U);
}

TEST_P(EveryEntryPoint, SucceedsOnASmallSite) {
  const zontest::MetadataDirectory directory;
  zontest::insertSite();
  Call call;
  GetParam().fill(call);
  call.run(GetParam().function, GetParam().reserved());
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(rcCell(call, 0), 0);
  EXPECT_EQ(call.message(), "");
  for (std::size_t i = 0; GetParam().slots[i] != '\0'; ++i) {
    EXPECT_FALSE(GetParam().slots[i] == 'o' && call.isUntouched(i)) << "slot " << i;
  }
}

TEST_P(EveryEntryPoint, ReportsAnEmptySiteAndTouchesNoOutput) {
  const zontest::MetadataDirectory directory;
  Call call;
  GetParam().fill(call);
  call.run(GetParam().function, GetParam().reserved());
  const std::int32_t expected = mapMDFileRcToSqlcode(GetParam().emptyStoreRc, isContactCase() ? 1 : 0);
  EXPECT_EQ(call.sqlcode(), expected);
  EXPECT_EQ(rcCell(call, expected), expected);
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_P(EveryEntryPoint, SurvivesANullParameterBlock) {
  const zontest::MetadataDirectory directory;
  zontest::insertSite();
  struct sqlca sqlca {};
  GetParam().function(nullptr, nullptr, &sqlca);
  EXPECT_EQ(sqlca.sqlcabc, 136);
}

TEST_P(EveryEntryPoint, SurvivesNullSlotsAndANullSqlca) {
  const zontest::MetadataDirectory directory;
  zontest::insertSite();
  void* slots[16] = {};
  GetParam().function(nullptr, slots, nullptr);
  GetParam().function(nullptr, nullptr, nullptr);
}

TEST_P(EveryEntryPoint, SurvivesNullOutputs) {
  const zontest::MetadataDirectory directory;
  zontest::insertSite();
  Call call;
  for (const char* slot = GetParam().slots; *slot != '\0'; ++slot) {
    if (*slot == 'o' || *slot == 'r' || *slot == 'c') {
      call.null();
    } else {
      EntryPointCase one = GetParam();
      const char single[2] = {*slot, '\0'};
      one.slots = single;
      one.fill(call);
    }
  }
  const zontest::MemoryAccount account("MDRegFactory");
  call.run(GetParam().function, GetParam().reserved());
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(account.buffers(), 0U);
}

TEST_P(EveryEntryPoint, GivesTheCallerExactlyItsOutputs) {
  const zontest::MetadataDirectory directory;
  zontest::insertSite();
  const zontest::MemoryAccount outputs("MDRegFactory");
  const zontest::MemoryAccount all(nullptr);
  {
    Call call;
    GetParam().fill(call);
    call.run(GetParam().function, GetParam().reserved());
    std::uint64_t count = 0;
    std::uint64_t bytes = 0;
    for (std::size_t i = 0; GetParam().slots[i] != '\0'; ++i) {
      if (GetParam().slots[i] != 'o' || call.isUntouched(i)) continue;
      ++count;
      bytes += call.cellAt(i).length;
      EXPECT_EQ(ossMemSize(call.cellAt(i).text), call.cellAt(i).length);
    }
    EXPECT_EQ(outputs.buffers(), count);
    EXPECT_EQ(outputs.bytes(), bytes);
  }
  // One update of the utility history leaves its record allocated on purpose.
  const bool keepsRecord = std::string(GetParam().name) == "MDUtilityHistory_update";
  EXPECT_EQ(all.buffers(), keepsRecord ? 1U : 0U);
}

// The n-th allocation fails, for every n up to a run without a failure.
TEST_P(EveryEntryPoint, EachFailedAllocationBecomesACode) {
  const std::string name = GetParam().name;
  const std::int32_t noMemory = ecfToSqlError(GENREG_RC_NO_MEMORY);
  // The expansion's own code never reaches these callers.
  const bool hidesCodes = name == "ContactGroupAPI_retrieveAllContactNames";
  const zontest::MetadataDirectory site;
  zontest::insertSite();
  std::uint64_t failures = 0;
  for (std::uint64_t n = 1;; ++n) {
    const zontest::MetadataDirectory directory;
    std::filesystem::copy(site.path(), directory.path());
    Call call;
    GetParam().fill(call);
    const zontest::MemoryAccount all(nullptr);
    const std::uint64_t before = ossMemAllocationCount();
    {
      const zontest::MemoryFault fault(n);
      call.run(GetParam().function, GetParam().reserved());
    }
    const bool wasHit = ossMemAllocationCount() - before >= n;
    if (call.sqlcode() != 0) {
      ++failures;
      const bool isNoData = hidesCodes && call.sqlcode() == ecfToSqlError(MD_RC_NO_DATA);
      ASSERT_TRUE(call.sqlcode() == noMemory || isNoData) << "allocation " << n << ": " << call.sqlcode();
      ASSERT_EQ(rcCell(call, noMemory), noMemory) << "allocation " << n;
      ASSERT_TRUE(call.areOutputsUntouched()) << "allocation " << n;
      ASSERT_TRUE(areNumbersUntouched(call)) << "allocation " << n;
      if (name != "MDUtilityHistory_update") {
        ASSERT_EQ(all.buffers(), 0U) << "allocation " << n;
      }
    }
    if (!wasHit) {
      ASSERT_EQ(call.sqlcode(), 0);
      break;
    }
    ASSERT_LT(n, 1000U);
  }
  EXPECT_GT(failures, 0U);
}

}  // namespace
