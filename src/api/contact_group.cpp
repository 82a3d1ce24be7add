// The entry points of the contact groups.
//
// The rule: the store changes its own group only; the removals here also withdraw from parents what they removed.
#include "api/MDRegFactory.h"
#include "api/group_cascade.h"
#include "zonmdfile/MDContactGroup.h"

using namespace zon;
using namespace zon::slot;

namespace {

constexpr SlotTable RETRIEVE_ALL_CONTACT_NAMES{KEY, RC, OUT};
constexpr SlotTable UPDATE_DESCRIPTION{KEY, IN, IN, RC};
constexpr SlotTable RETRIEVE_KEYS{RC, OUT, OUT, OUT};
constexpr SlotTable RETRIEVE_ALL{RC, OUT, OUT, OUT, OUT, OUT};
constexpr SlotTable REMOVE_LIST{KEY, IN, RC};
constexpr SlotTable REMOVE_ALL{KEY, RC};
constexpr SlotTable REMOVE{KEY, IN, KEY, RC};
constexpr SlotTable RETRIEVE_PARENT_GROUP_LIST{IN, KEY, RC, OUT, OUT, OUT};
constexpr SlotTable RETRIEVE_CONTACT_OR_GROUP_LIST{KEY, IN, RC, OUT, OUT, OUT};
constexpr SlotTable RETRIEVE_LIST{KEY, RC, OUT, OUT, OUT, OUT};
constexpr SlotTable INSERT{KEY, IN, KEY, IN, IN, RC};

// Operations whose parameters are not in the order of the slots, or whose name has two meanings.
[[nodiscard]] std::uint32_t removeMembersOfKind(MDContactGroup& store, DString& group, DString& kind) {
  return store.removeGroup(group, kind);
}

[[nodiscard]] std::uint32_t removeWholeGroup(MDContactGroup& store, DString& group) { return store.removeGroup(group); }

[[nodiscard]] std::uint32_t retrieveParents(MDContactGroup& store, DString& kind, DString& member, DString& groups,
                                            DString& descriptions, DString& versions) {
  return store.retrieveParentGroupList(groups, kind, member, descriptions, versions);
}

// Withdraws a group that lost its members from its parents; that it has none is no failure.
[[nodiscard]] std::uint32_t withdrawGroup(const char* group) {
  const std::uint32_t rc = withdrawMember(group, MDContactGroup::GROUP_KIND);
  return rc == GENREG_RC_MEMBER_ABSENT ? MD_RC_OK : rc;
}

}  // namespace

MD_ENTRY MDContactGroup_retrieveAllContactNames(void*, void** block, struct sqlca* sqlca) {
  callStore<MDContactGroup, &MDContactGroup::retrieveAllContactNames, RETRIEVE_ALL_CONTACT_NAMES>(
      trace::point("MDContactGroup_retrieveAllContactNames"), block, sqlca);
}

MD_ENTRY MDContactGroup_updateDescription(void*, void** block, struct sqlca* sqlca) {
  callStore<MDContactGroup, &MDContactGroup::update, UPDATE_DESCRIPTION>(
      trace::point("MDContactGroup_updateDescription"), block, sqlca);
}

MD_ENTRY MDContactGroup_retrieveKeys(void*, void** block, struct sqlca* sqlca) {
  callStore<MDContactGroup, &MDContactGroup::retrieveKeys, RETRIEVE_KEYS>(trace::point("MDContactGroup_retrieveKeys"),
                                                                          block, sqlca);
}

MD_ENTRY MDContactGroup_retrieveAll(void*, void** block, struct sqlca* sqlca) {
  callStore<MDContactGroup, &MDContactGroup::retrieveAll, RETRIEVE_ALL>(trace::point("MDContactGroup_retrieveAll"),
                                                                        block, sqlca);
}

// Withdraws the group from its parents whether or not it still has members of the other kind.
MD_ENTRY MDContactGroup_removeList(void*, void** slots, struct sqlca* sqlca) {
  TraceScope trace(trace::point("MDContactGroup_removeList"));
  const ParameterBlock block(slots);
  std::uint32_t rc = callOperation<MDContactGroup, removeMembersOfKind, REMOVE_LIST>(block);
  if (rc == MD_RC_OK) rc = withdrawGroup(block.text(0));
  report<MDContactGroup, REMOVE_LIST>(trace, rc, block, sqlca);
}

MD_ENTRY MDContactGroup_removeAll(void*, void** slots, struct sqlca* sqlca) {
  TraceScope trace(trace::point("MDContactGroup_removeAll"));
  const ParameterBlock block(slots);
  std::uint32_t rc = callOperation<MDContactGroup, removeWholeGroup, REMOVE_ALL>(block);
  if (rc == MD_RC_OK) rc = withdrawGroup(block.text(0));
  report<MDContactGroup, REMOVE_ALL>(trace, rc, block, sqlca);
}

// Two things that look wrong and are kept, since callers have come to rely on them: whatever kind of member is removed,
// a nested group of its name is withdrawn from all its parents; and the group that lost the member is not tested for
// emptiness. The code of the withdrawal stands as it is.
MD_ENTRY MDContactGroup_remove(void*, void** slots, struct sqlca* sqlca) {
  TraceScope trace(trace::point("MDContactGroup_remove"));
  const ParameterBlock block(slots);
  std::uint32_t rc = callOperation<MDContactGroup, &MDContactGroup::remove, REMOVE>(block);
  if (rc == MD_RC_OK) rc = withdrawMember(block.text(2), MDContactGroup::GROUP_KIND);
  report<MDContactGroup, REMOVE>(trace, rc, block, sqlca);
}

MD_ENTRY MDContactGroup_retrieveParentGroupList(void*, void** block, struct sqlca* sqlca) {
  callStore<MDContactGroup, retrieveParents, RETRIEVE_PARENT_GROUP_LIST>(
      trace::point("MDContactGroup_retrieveParentGroupList"), block, sqlca);
}

MD_ENTRY MDContactGroup_retrieveContactOrGroupList(void*, void** block, struct sqlca* sqlca) {
  callStore<MDContactGroup, &MDContactGroup::retrieveGroupOrContactList, RETRIEVE_CONTACT_OR_GROUP_LIST>(
      trace::point("MDContactGroup_retrieveContactOrGroupList"), block, sqlca);
}

MD_ENTRY MDContactGroup_retrieveList(void*, void** block, struct sqlca* sqlca) {
  callStore<MDContactGroup, &MDContactGroup::retrieveList, RETRIEVE_LIST>(trace::point("MDContactGroup_retrieveList"),
                                                                          block, sqlca);
}

MD_ENTRY MDContactGroup_insert(void*, void** block, struct sqlca* sqlca) {
  callStore<MDContactGroup, &MDContactGroup::insert, INSERT>(trace::point("MDContactGroup_insert"), block, sqlca);
}
