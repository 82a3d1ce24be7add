// Every entry point with a call of it that succeeds on one small site.
//
// The rule: an entry point that is missing here is missing from the tests of what holds for all of them; a test counts
// them.
#pragma once

#include <cstdint>
#include <ostream>
#include <vector>

#include "support/cells.h"
#include "zonmdfile/zonmdfile.h"

namespace zontest {

// How a slot is filled (of which kind each is, tests/model/steps.cpp says too; model/slots_test.cpp compares): k key, g
// group, m member, 0 or 1 kind, e description or data, v version, r rc, o output, # number, d detail switch set, c
// count.
struct EntryPointCase {
  const char* name;
  EntryPoint function;
  const char* slots;
  std::uint32_t emptyStoreRc;  // what it reports when there is no record at all
  std::uint32_t version = 3;   // for the reserved argument

  void fill(Call& call) const {
    for (const char* slot = slots; *slot != '\0'; ++slot) add(call, *slot);
  }
  void* reserved() const { return const_cast<std::uint32_t*>(&version); }

 private:
  static void add(Call& call, char slot) {
    switch (slot) {
      case 'k':
        call.in("key");
        break;
      case 'n':
        call.in("new key");
        break;
      case 'g':
        call.in("group");
        break;
      case 'm':
        call.in("member");
        break;
      case 'x':
        call.in("new member");
        break;
      case '0':
        call.in("0");
        break;
      case 'e':
        call.in("some other data");
        break;
      case 'v':
        call.in("2");
        break;
      case 'r':
        call.rc();
        break;
      case 'o':
        call.out();
        break;
      case 'd':
        call.number(1);
        break;
      default:
        call.number();
        break;
    }
  }
};

inline void PrintTo(const EntryPointCase& entry, std::ostream* out) { *out << entry.name; }

inline constexpr std::uint32_t MISSING = GENREG_RC_NOT_FOUND;

inline std::vector<EntryPointCase> allEntryPoints() {
  return {
      {"MDCustomTree_retrieveKeys", MDCustomTree_retrieveKeys, "ro", MISSING},
      {"MDCustomTree_retrieveAll", MDCustomTree_retrieveAll, "rooo", MISSING},
      {"MDCustomTree_remove", MDCustomTree_remove, "kr", MISSING},
      {"MDCustomTree_retrieve", MDCustomTree_retrieve, "kroo", MISSING},
      {"MDCustomTree_update", MDCustomTree_update, "kevr", MISSING},
      {"MDCustomTree_insert", MDCustomTree_insert, "nevr", 0},
      {"MDSubSystemSetting_retrieveKeys", MDSubSystemSetting_retrieveKeys, "ro", MISSING},
      {"MDSubSystemSetting_retrieveAll", MDSubSystemSetting_retrieveAll, "rooo", MISSING},
      {"MDSubSystemSetting_remove", MDSubSystemSetting_remove, "kr", MISSING},
      {"MDSubSystemSetting_retrieve", MDSubSystemSetting_retrieve, "kroo", MISSING},
      {"MDSubSystemSetting_update", MDSubSystemSetting_update, "kevr", MISSING},
      {"MDSubSystemSetting_insert", MDSubSystemSetting_insert, "nevr", 0},
      {"MDUtilNameMapping_retrieveKeys", MDUtilNameMapping_retrieveKeys, "ro", MISSING},
      {"MDUtilNameMapping_retrieveAll", MDUtilNameMapping_retrieveAll, "rooo", MISSING},
      {"MDUtilNameMapping_remove", MDUtilNameMapping_remove, "kr", MISSING},
      {"MDUtilNameMapping_retrieve", MDUtilNameMapping_retrieve, "kroo", MISSING},
      {"MDUtilNameMapping_update", MDUtilNameMapping_update, "kevr", MISSING},
      {"MDUtilNameMapping_insert", MDUtilNameMapping_insert, "nevr", 0},
      {"MDLocationMapping_retrieveKeys", MDLocationMapping_retrieveKeys, "ro", MISSING},
      {"MDLocationMapping_retrieveAll", MDLocationMapping_retrieveAll, "rooo", MISSING},
      {"MDLocationMapping_remove", MDLocationMapping_remove, "kr", MISSING},
      {"MDLocationMapping_retrieve", MDLocationMapping_retrieve, "kroo", MISSING},
      {"MDLocationMapping_update", MDLocationMapping_update, "kevr", MISSING},
      {"MDLocationMapping_insert", MDLocationMapping_insert, "nevr", 0},
      {"MDCloningSubSystemSetting_retrieveKeys", MDCloningSubSystemSetting_retrieveKeys, "ro", MISSING},
      {"MDCloningSubSystemSetting_retrieveAll", MDCloningSubSystemSetting_retrieveAll, "rooo", MISSING},
      {"MDCloningSubSystemSetting_remove", MDCloningSubSystemSetting_remove, "kr", MISSING},
      {"MDCloningSubSystemSetting_retrieve", MDCloningSubSystemSetting_retrieve, "kroo", MISSING},
      {"MDCloningSubSystemSetting_update", MDCloningSubSystemSetting_update, "kevr", MISSING},
      {"MDCloningSubSystemSetting_insert", MDCloningSubSystemSetting_insert, "nevr", 0},
      {"MDContact_retrieveKeys", MDContact_retrieveKeys, "ro", MISSING},
      {"MDContact_retrieveAll", MDContact_retrieveAll, "rooo", MISSING},
      {"MDContact_remove", MDContact_remove, "mr", MISSING},
      {"MDContact_retrieve", MDContact_retrieve, "mroo", MISSING},
      {"MDContact_update", MDContact_update, "mevr", MISSING},
      {"MDContact_insert", MDContact_insert, "nevr", 0},
      {"MDJCLSkeleton_retrieveKeys", MDJCLSkeleton_retrieveKeys, "roo", MISSING},
      {"MDJCLSkeleton_retrieveAll", MDJCLSkeleton_retrieveAll, "roooo", MISSING},
      {"MDJCLSkeleton_removeList", MDJCLSkeleton_removeList, "gr", MISSING},
      {"MDJCLSkeleton_retrieveList", MDJCLSkeleton_retrieveList, "grooo", MISSING},
      {"MDJCLSkeleton_remove", MDJCLSkeleton_remove, "gkr", MISSING},
      {"MDJCLSkeleton_retrieve", MDJCLSkeleton_retrieve, "gkroo", MISSING},
      {"MDJCLSkeleton_update", MDJCLSkeleton_update, "gkevr", MISSING},
      {"MDJCLSkeleton_insert", MDJCLSkeleton_insert, "gnevr", 0},
      {"MDCloningHistory_retrieveKeys", MDCloningHistory_retrieveKeys, "roo", MISSING},
      {"MDCloningHistory_retrieveAll", MDCloningHistory_retrieveAll, "roooo", MISSING},
      {"MDCloningHistory_removeList", MDCloningHistory_removeList, "gr", MISSING},
      {"MDCloningHistory_retrieveList", MDCloningHistory_retrieveList, "grooo", MISSING},
      {"MDCloningHistory_remove", MDCloningHistory_remove, "gkr", MISSING},
      {"MDCloningHistory_retrieve", MDCloningHistory_retrieve, "gkroo", MISSING},
      {"MDCloningHistory_update", MDCloningHistory_update, "gkevr", MISSING},
      {"MDCloningHistory_insert", MDCloningHistory_insert, "gnevr", 0},
      {"MDUtilityHistory_retrieveKeys", MDUtilityHistory_retrieveKeys, "roo", MISSING},
      {"MDUtilityHistory_retrieveAll", MDUtilityHistory_retrieveAll, "roooo", MISSING},
      {"MDUtilityHistory_removeList", MDUtilityHistory_removeList, "gr", MISSING},
      {"MDUtilityHistory_retrieveList", MDUtilityHistory_retrieveList, "grooo", MISSING},
      {"MDUtilityHistory_remove", MDUtilityHistory_remove, "gkr", MISSING},
      {"MDUtilityHistory_retrieve", MDUtilityHistory_retrieve, "gkroo", MISSING},
      {"MDUtilityHistory_update", MDUtilityHistory_update, "gkevr", MISSING},
      {"MDUtilityHistory_insert", MDUtilityHistory_insert, "gnevr", 0},
      {"MDContactGroup_retrieveAllContactNames", MDContactGroup_retrieveAllContactNames, "gro", MISSING},
      {"MDContactGroup_updateDescription", MDContactGroup_updateDescription, "gevr", MISSING},
      {"MDContactGroup_retrieveKeys", MDContactGroup_retrieveKeys, "rooo", MISSING},
      {"MDContactGroup_retrieveAll", MDContactGroup_retrieveAll, "rooooo", MISSING},
      {"MDContactGroup_removeList", MDContactGroup_removeList, "g0r", MISSING},
      {"MDContactGroup_removeAll", MDContactGroup_removeAll, "gr", MISSING},
      {"MDContactGroup_remove", MDContactGroup_remove, "g0mr", MISSING},
      {"MDContactGroup_retrieveParentGroupList", MDContactGroup_retrieveParentGroupList, "0mrooo", MISSING},
      {"MDContactGroup_retrieveContactOrGroupList", MDContactGroup_retrieveContactOrGroupList, "g0rooo", MISSING},
      {"MDContactGroup_retrieveList", MDContactGroup_retrieveList, "groooo", MISSING},
      {"MDContactGroup_insert", MDContactGroup_insert, "g0xevr", 0},
      {"ContactAPI_retrieveAll", ContactAPI_retrieveAll, "dco#o#o", 0},
      {"ContactAPI_retrieve", ContactAPI_retrieve, "m#o#o", MISSING},
      {"ContactAPI_update", ContactAPI_update, "m#e#e", MISSING},
      {"ContactAPI_insert", ContactAPI_insert, "n#e#e", 0},
      {"ContactGroupAPI_retrieveAllContactNames", ContactGroupAPI_retrieveAllContactNames, "gdco", MD_RC_NO_DATA},
      {"ContactGroupAPI_retrieveList", ContactGroupAPI_retrieveList, "dgcooo", MISSING},
      {"ContactGroupAPI_retrieveAll", ContactGroupAPI_retrieveAll, "dcoooo", 0},
  };
}

// Inserts what the calls above need: one record in each store; the contact "member" in "group", and "group" in
// "parent".
inline void insertSite() {
  for (const EntryPoint insert : {MDCustomTree_insert, MDSubSystemSetting_insert, MDUtilNameMapping_insert,
                                  MDLocationMapping_insert, MDCloningSubSystemSetting_insert}) {
    Call().in("key").in("data").in("1").rc().run(insert);
  }
  Call()
      .in("member")
      .in("mail\x0F"
          "1\x0Ftext\x0F"
          "60")
      .in("1")
      .rc()
      .run(MDContact_insert);
  for (const EntryPoint insert : {MDJCLSkeleton_insert, MDCloningHistory_insert, MDUtilityHistory_insert}) {
    Call().in("group").in("key").in("data").in("1").rc().run(insert);
  }
  Call().in("group").in("0").in("member").in("text").in("1").rc().run(MDContactGroup_insert);
  Call().in("parent").in("1").in("group").in("text").in("1").rc().run(MDContactGroup_insert);
}

}  // namespace zontest
