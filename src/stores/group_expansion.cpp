// The walk through nested contact groups.
//
// The rule: a failing branch never ends the walk; its code is reported by the order of precedence in Branch::result.
#include "stores/group_expansion.h"

#include <string_view>

#include "stores/contact_group_lists.h"
#include "zonmdfile/MDContactGroup.h"

namespace zon {

namespace {

constexpr bool isFailure(std::uint32_t rc) { return rc != MD_RC_OK && rc != GENREG_RC_NOT_FOUND; }

}  // namespace

// An empty branch is no failure; of several failures the last is remembered.
void GroupExpansion::Branch::noteNested(std::uint32_t rc) {
  if (rc == MD_RC_OK) ++found;
  if (isFailure(rc)) nestedRc = rc;
}

std::uint32_t GroupExpansion::Branch::result() const {
  if (isFailure(groupsRc)) return groupsRc;
  if (nestedRc != MD_RC_OK) return nestedRc;
  if (isFailure(contactsRc)) return contactsRc;
  return found > 0 ? MD_RC_OK : GENREG_RC_NOT_FOUND;
}

std::uint32_t GroupExpansion::run(DString& group) {
  enter(group);
  for (;;) {
    DString nested;
    if (takeUnvisited(branches_.back(), nested)) {
      enter(nested);
      continue;
    }
    const std::uint32_t rc = branches_.back().result();
    branches_.pop_back();
    if (branches_.empty()) return rc;
    branches_.back().noteNested(rc);
  }
}

void GroupExpansion::enter(DString& group) {
  Branch& branch = branches_.emplace_back();
  DString contactKind(MDContactGroup::CONTACT_KIND);
  DString names;
  branch.contactsRc = listMembers(file_, group, contactKind, names);
  if (branch.contactsRc == MD_RC_OK) {
    ListReader reader(names);
    for (std::string_view name; reader.next(name) == MD_RC_OK; ++branch.found) contacts_.add(DString(name));
  }
  DString groupKind(MDContactGroup::GROUP_KIND);
  branch.groupsRc = listMembers(file_, group, groupKind, branch.nestedGroups);
  if (branch.groupsRc == MD_RC_OK) branch.unvisited = ListReader(branch.nestedGroups);
}

bool GroupExpansion::takeUnvisited(Branch& branch, DString& group) {
  for (std::string_view name; branch.unvisited.next(name) == MD_RC_OK;) {
    group.assign(name);
    if (visited_.add(group)) return true;
  }
  return false;
}

}  // namespace zon
