// The table of trace points: what readers of recorded traces rely on.
#include "platform/trace_points.h"

#include <gtest/gtest.h>

#include <set>

namespace {

namespace trace = zon::trace;

class TracePoints : public testing::Test {};

TEST_F(TracePoints, EveryIdentifierIsUnique) {
  std::set<std::uint32_t> seen;
  for (const trace::TracePoint& row : trace::POINTS) EXPECT_TRUE(seen.insert(row.identifier).second) << row.name;
}

TEST_F(TracePoints, EveryNameIsUnique) {
  std::set<std::string_view> seen;
  for (const trace::TracePoint& row : trace::POINTS) EXPECT_TRUE(seen.insert(row.name).second) << row.name;
}

TEST_F(TracePoints, TheMappingFunctionsHaveTheirPublishedNumbers) {
  EXPECT_EQ(trace::nameOf(451412908), "mapMDFileRcToSqlcode");
  EXPECT_EQ(trace::nameOf(451412909), "mapMDFileRcToSqlca");
}

TEST_F(TracePoints, AStoresOperationIsItsBasePlusAnOffset) {
  EXPECT_EQ(trace::point("MDCloningMapping::update"), trace::MD_CLONING_MAPPING + trace::UPDATE_OP);
  EXPECT_EQ(trace::nameOf(trace::MD_JCL_SKELETON + trace::REMOVE_LIST_OP), "MDJCLSkeleton::removeList");
}

TEST_F(TracePoints, AllEntryPointsLieInTheirRangeAndAnswerSqlcodes) {
  std::size_t count = 0;
  for (const trace::TracePoint& row : trace::POINTS) {
    if (row.identifier < trace::FIRST_ENTRY_POINT || row.identifier > trace::LAST_ENTRY_POINT) continue;
    EXPECT_NE(row.name.find('_'), std::string_view::npos) << row.name;
    EXPECT_EQ(trace::resultOf(row.identifier), trace::Result::SQLCODE);
    ++count;
  }
  EXPECT_EQ(count, 78U);
}

TEST_F(TracePoints, AnUnknownNumberHasNoName) { EXPECT_EQ(trace::nameOf(1), ""); }

}  // namespace
