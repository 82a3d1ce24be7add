// The catalogue of trace points: what readers of recorded traces rely on.
#include "catalogue.h"

#include <gtest/gtest.h>

#include <set>

#include "record/trace_points.h"

namespace {

using zontrace::catalogue;
using zontrace::Result;
using zontrace::TracedFunction;

std::string nameOf(std::uint32_t point) {
  const TracedFunction* const function = zontrace::findFunction(point);
  return function != nullptr ? function->name : "";
}

class Catalogue : public testing::Test {};

TEST_F(Catalogue, EveryNumberIsUnique) {
  std::set<std::uint32_t> seen;
  for (const TracedFunction& row : catalogue()) EXPECT_TRUE(seen.insert(row.point).second) << row.name;
}

TEST_F(Catalogue, EveryNameIsUnique) {
  std::set<std::string> seen;
  for (const TracedFunction& row : catalogue()) EXPECT_TRUE(seen.insert(row.name).second) << row.name;
}

TEST_F(Catalogue, TheMappingFunctionsHaveTheirPublishedNumbers) {
  EXPECT_EQ(nameOf(451412908), "mapMDFileRcToSqlcode");
  EXPECT_EQ(nameOf(451412909), "mapMDFileRcToSqlca");
}

// One of each kind; recorded traces hold these numbers.
TEST_F(Catalogue, NumbersStayWhatTheyAre) {
  EXPECT_EQ(nameOf(451412911), "printSet");
  EXPECT_EQ(nameOf(451413001), "MDCustomTree::~MDCustomTree");
  EXPECT_EQ(nameOf(451413113), "MDContact::getMaxPageLength");
  EXPECT_EQ(nameOf(451413210), "MDContactGroup::removeGroup(group, kind)");
  EXPECT_EQ(nameOf(451413408), "MDJCLSkeleton::removeList");
  EXPECT_EQ(nameOf(451413906), "MDCloningMapping::update");
  EXPECT_EQ(nameOf(451414304), "MDThreeKeyReg::checkSubGroupKeyLength");
  EXPECT_EQ(nameOf(451414400), "MDStringParser::MDStringParser");
  EXPECT_EQ(nameOf(451415005), "MDCustomTree_insert");
  EXPECT_EQ(nameOf(451415807), "MDUtilityHistory_insert");
  EXPECT_EQ(nameOf(451415910), "MDContactGroup_insert");
  EXPECT_EQ(nameOf(451416102), "ContactGroupAPI_retrieveAll");
  EXPECT_EQ(nameOf(451417002), "GenRegBin::Add");
  EXPECT_EQ(nameOf(451417108), "GenRegFile::compact");
  EXPECT_EQ(nameOf(451417203), "GenRegBase::unsetFeature");
  EXPECT_EQ(nameOf(451418004), "ecfErrorGetDescription");
  EXPECT_EQ(catalogue().size(), 251U);
}

TEST_F(Catalogue, APointIsFoundByItsNameInFullOrByClassAndOperation) {
  constexpr std::uint32_t UPDATE = zon::trace::point("MDCloningMapping::update");
  static_assert(zon::trace::point("MDCloningMapping", "update") == UPDATE);
  static_assert(zon::trace::point("MDContact::MDContact") == zon::trace::point("MDContact", zon::trace::CONSTRUCTOR));
  static_assert(zon::trace::point("MDContact::~MDContact") == zon::trace::point("MDContact", zon::trace::DESTRUCTOR));
  static_assert(zon::trace::point("MDContact_insert") != zon::trace::point("MDContact", "insert"));
  EXPECT_EQ(nameOf(UPDATE), "MDCloningMapping::update");
}

TEST_F(Catalogue, EntryPointsAnswerSqlcodes) {
  std::size_t count = 0;
  for (const TracedFunction& row : catalogue()) {
    if (row.name.find('_') == std::string::npos) continue;
    EXPECT_EQ(row.result, Result::SQLCODE) << row.name;
    ++count;
  }
  EXPECT_EQ(count, 78U);
}

TEST_F(Catalogue, AnUnknownNumberHasNoName) { EXPECT_EQ(zontrace::findFunction(1), nullptr); }

}  // namespace
