// The binary facts that C++ callers rely on: every public header compiles by itself in one program, and layouts hold.
#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

#include "zonmdfile/MDCloningHistory.h"
#include "zonmdfile/MDCloningMapping.h"
#include "zonmdfile/MDCloningSubSystemSetting.h"
#include "zonmdfile/MDContact.h"
#include "zonmdfile/MDContactGroup.h"
#include "zonmdfile/MDCustomTree.h"
#include "zonmdfile/MDJCLSkeleton.h"
#include "zonmdfile/MDLocationMapping.h"
#include "zonmdfile/MDOneKeyReg.h"
#include "zonmdfile/MDStringParser.h"
#include "zonmdfile/MDSubSystemSetting.h"
#include "zonmdfile/MDThreeKeyReg.h"
#include "zonmdfile/MDTwoKeyReg.h"
#include "zonmdfile/MDUtilNameMapping.h"
#include "zonmdfile/MDUtilityHistory.h"
#include "zonmdfile/zonmdfile.h"

namespace {

static_assert(sizeof(zonInputCell) == 16 && offsetof(zonInputCell, text) == 8);
static_assert(sizeof(zonOutputCell) == 16 && offsetof(zonOutputCell, text) == 8);
static_assert(sizeof(struct sqlca) == 136 && offsetof(struct sqlca, sqlcode) == 12);

template <class Store>
class StoreClass : public testing::Test {};

using Stores =
    testing::Types<MDCustomTree, MDContact, MDContactGroup, MDSubSystemSetting, MDJCLSkeleton, MDUtilNameMapping,
                   MDLocationMapping, MDCloningSubSystemSetting, MDCloningHistory, MDCloningMapping, MDUtilityHistory>;
TYPED_TEST_SUITE(StoreClass, Stores);

TYPED_TEST(StoreClass, AddsNothingToTheEngineObject) {
  EXPECT_EQ(sizeof(TypeParam), sizeof(GenRegBin));
  EXPECT_FALSE(std::is_polymorphic_v<TypeParam>);
}

// One is made for each call.
TYPED_TEST(StoreClass, HoldsItsSettingsAndNoRoomForNames) { EXPECT_LE(sizeof(TypeParam), 256U); }

TYPED_TEST(StoreClass, ParsesTokenizedStrings) { EXPECT_TRUE((std::is_base_of_v<MDStringParser, TypeParam>)); }

}  // namespace
