// Contact groups written as tests read them: "g:a g>h" are the contact a and the nested group h in group g.
//
// The rule: for names without blanks, ':' and '>'.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "support/cells.h"
#include "support/metadata_test.h"
#include "zonmdfile/MDContactGroup.h"
#include "zonmdfile/zonmdfile.h"

namespace zontest {

inline std::int32_t insertMember(const std::string& group, const std::string& kind, const std::string& member,
                                 const std::string& description = "d", const std::string& version = "1") {
  Call call;
  call.in(group).in(kind).in(member).in(description).in(version).rc().run(MDContactGroup_insert);
  return call.rcCell(5);
}

// Calls insertOne(group, kind, member) for each membership, in order.
template <class Insert>
void forEachMembership(const std::string& memberships, Insert insertOne) {
  for (std::size_t at = 0; at < memberships.size();) {
    const std::size_t end = std::min(memberships.find(' ', at), memberships.size());
    const std::string one = memberships.substr(at, end - at);
    const std::size_t mark = one.find_first_of(":>");
    ASSERT_NE(mark, std::string::npos) << one;
    insertOne(one.substr(0, mark), one[mark] == ':' ? "0" : "1", one.substr(mark + 1));
    at = end + 1;
  }
}

inline void insertGroups(const std::string& memberships) {
  forEachMembership(memberships, [](const std::string& group, const char* kind, const std::string& member) {
    EXPECT_EQ(insertMember(group, kind, member), 0) << group << ' ' << kind << ' ' << member;
  });
}

// All memberships of the file in the order of insertion, as insertGroups takes them.
inline std::string groups() {
  MDContactGroup store;
  DString groups;
  DString kinds;
  DString members;
  if (store.retrieveKeys(groups, kinds, members) != 0) return "";
  std::string all;
  const DString separator(char{0x0E});
  const unsigned long count = store.occurrencesOfToken(kinds, separator);
  for (unsigned long i = 1; i <= count; ++i) {
    DString group;
    DString kind;
    DString member;
    if (store.parseTokenizedString(groups, separator, i, group) != 0 ||
        store.parseTokenizedString(kinds, separator, i, kind) != 0 ||
        store.parseTokenizedString(members, separator, i, member) != 0) {
      return "lists of different lengths";
    }
    all += (all.empty() ? "" : " ") + textOf(group) + (textOf(kind) == "0" ? ":" : ">") + textOf(member);
  }
  return all;
}

}  // namespace zontest
