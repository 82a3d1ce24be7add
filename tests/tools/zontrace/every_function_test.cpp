// Every function of the catalogue records itself when it is called.
//
// The method: this program stands in for the trace facility and notes what is entered, while every entry point, every
// operation of the classes and every administration function is called once.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "api/entry_points.h"
#include "catalogue.h"
#include "support/metadata_test.h"
#include "zonmdfile/MDCloningMapping.h"
#include "zonmdfile/MDContact.h"
#include "zonmdfile/MDContactGroup.h"
#include "zonmdfile/MDCustomTree.h"
#include "zonmdfile/MDOneKeyReg.h"
#include "zonmdfile/MDThreeKeyReg.h"
#include "zonmdfile/MDTwoKeyReg.h"
#include "zonmdfile/platform/admin.h"
#include "zonmdfile/platform/trace.h"

namespace {

std::vector<std::uint32_t> entered;
std::vector<std::uint32_t> left;

}  // namespace

extern "C" int gtraceIsAttached(void) { return 1; }
extern "C" int gtraceIsEnabled(void) { return 1; }
extern "C" void _gtraceEntry(uint64_t, uint32_t point, uint32_t, uint32_t) { entered.push_back(point); }
extern "C" void _gtraceVar(uint64_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint64_t, const void*) {}
extern "C" void _gtraceExit(uint64_t, uint32_t point, const void*, uint32_t) { left.push_back(point); }

namespace {

using Names = std::vector<std::string>;

class EveryTracedFunction : public zontest::MetadataTest {
 protected:
  void SetUp() override {
    entered.clear();
    left.clear();
  }

  static Names namesOf(const std::vector<std::uint32_t>& points) {
    Names names;
    for (const std::uint32_t point : points) {
      const zontrace::TracedFunction* const function = zontrace::findFunction(point);
      names.push_back(function != nullptr ? function->name : std::to_string(point));
    }
    std::ranges::sort(names);
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
  }

  // The functions of the catalogue that are not among the points.
  static Names missingIn(const std::vector<std::uint32_t>& points) {
    Names missing;
    const Names names = namesOf(points);
    for (const zontrace::TracedFunction& function : zontrace::catalogue()) {
      if (!std::ranges::binary_search(names, function.name)) missing.push_back(function.name);
    }
    return missing;
  }

  static void callEntryPoints() {
    zontest::insertSite();
    for (const zontest::EntryPointCase& entry : zontest::allEntryPoints()) {
      zontest::Call call;
      entry.fill(call);
      call.run(entry.function, entry.reserved());
    }
  }

  // What no entry point calls.
  static void callMappingStore() {
    MDCloningMapping store;
    DString group("g");
    DString subGroup("s");
    DString key("k");
    DString data("data");
    DString version("1");
    EXPECT_EQ(store.insert(group, subGroup, key, data, version), MD_RC_OK);
    EXPECT_EQ(store.update(group, subGroup, key, data, version), MD_RC_OK);
    EXPECT_EQ(store.retrieve(group, subGroup, key, data, version), MD_RC_OK);
    DString lists[5];
    EXPECT_EQ(store.retrieveKeys(lists[0], lists[1], lists[2]), MD_RC_OK);
    EXPECT_EQ(store.retrieveAll(lists[0], lists[1], lists[2], lists[3], lists[4]), MD_RC_OK);
    EXPECT_EQ(store.remove(group, subGroup, key), MD_RC_OK);
  }

  static void callFieldReaders() {
    MDContact store;
    DString data(
        "mail\x0F"
        "1\x0Ftext\x0F"
        "60");
    DString text;
    int number = 0;
    EXPECT_EQ(store.getEmailAddress(data, text), MD_RC_OK);
    EXPECT_EQ(store.getNotificationType(data, number), MD_RC_OK);
    EXPECT_EQ(store.getDescription(data, text), MD_RC_OK);
    EXPECT_EQ(store.getMaxPageLength(data, number), MD_RC_OK);
    store.occurrencesOfToken(data, DString("a"));
    DString rest;
    EXPECT_EQ(store.splitTokenizedString(data, DString("a"), text, rest), MD_RC_OK);
    EXPECT_EQ(store.parseTokenizedString(data, DString("a"), 1, text), MD_RC_OK);
  }

  template <class Type>
  static void callRecordType() {
    std::string record(2000, '\0');
    unsigned long size = 0;
    Type::MatchRecord(8, record.data(), record.data());
    Type::ValidateRecord(0, record.data());
    Type::PrintRecord(record.data());
    Type::GetRecordSize(record.data(), &size);
    Type::GetMaxRecordSize(&size);
    Type type("zontypes");
    type.checkRC(static_cast<long>(MD_RC_KEY_EMPTY));
  }

  static void callWholeFile() {
    MDCustomTree store;
    GenRegStatus status;
    EXPECT_EQ(store.beginBatch(), MD_RC_OK);
    EXPECT_EQ(store.commitBatch(), MD_RC_OK);
    EXPECT_EQ(store.status(status), MD_RC_OK);
    EXPECT_EQ(store.repair(), MD_RC_OK);
    EXPECT_EQ(store.compact(), MD_RC_OK);
    EXPECT_EQ(store.acknowledgeLoss(), MD_RC_OK);
  }

  static void callFreeFunctions() {
    DSet<DString> names(1, 1);
    printSet(names);
    DString member("nobody");
    removeMemberFromGroups(member, DString("0"));
    ecfErrorGetDescription(MD_RC_KEY_EMPTY);
    ecfToSqlError(MD_RC_KEY_EMPTY);
  }
};

TEST_F(EveryTracedFunction, IsRecordedWhenItIsCalled) {
  const std::string path = directory_.path().string();
  ASSERT_EQ(setMetadataPath(path.c_str()), 0);
  callEntryPoints();
  callMappingStore();
  callFieldReaders();
  callRecordType<MDOneKeyReg>();
  callRecordType<MDTwoKeyReg>();
  callRecordType<MDThreeKeyReg>();
  callWholeFile();
  callFreeFunctions();
  EXPECT_EQ(missingIn(entered), Names());
  EXPECT_EQ(missingIn(left), Names());
  EXPECT_EQ(entered.size(), left.size());
  EXPECT_EQ(namesOf(entered).size(), zontrace::catalogue().size()) << "a point that the catalogue does not know";
}

TEST_F(EveryTracedFunction, OfAnInsertIsRecordedDownToTheEngine) {
  zontest::Call().in("key").in("data").in("1").rc().run(MDCustomTree_insert);
  const Names names = namesOf(entered);
  for (const char* name : {"MDCustomTree_insert", "MDCustomTree::insert", "MDOneKeyReg::checkKeyLength",
                           "GenRegBin::Add", "GenRegBase::setFeature", "getMetadataPath", "vekFillSqlca"}) {
    EXPECT_TRUE(std::ranges::binary_search(names, name)) << name;
  }
}

}  // namespace
