// The entry points of the two-key stores.
//
// The rule: each exported name is spelled out, and stands for exactly one operation of its store. Listings of the whole
// file have the rc cell first; whatever takes a key has it right after its inputs.
#include "api/MDRegFactory.h"
#include "zonmdfile/MDCloningHistory.h"
#include "zonmdfile/MDJCLSkeleton.h"
#include "zonmdfile/MDUtilityHistory.h"

using namespace zon;
using namespace zon::slot;

namespace {

constexpr SlotTable RETRIEVE_KEYS{RC, OUT, OUT};
constexpr SlotTable RETRIEVE_ALL{RC, OUT, OUT, OUT, OUT};
constexpr SlotTable REMOVE_LIST{KEY, RC};
constexpr SlotTable RETRIEVE_LIST{KEY, RC, OUT, OUT, OUT};
constexpr SlotTable REMOVE{KEY, KEY, RC};
constexpr SlotTable RETRIEVE{KEY, KEY, RC, OUT, OUT};
constexpr SlotTable UPDATE{KEY, KEY, IN, IN, RC};
constexpr SlotTable INSERT{KEY, KEY, IN, IN, RC};

}  // namespace

MD_ENTRY MDJCLSkeleton_retrieveKeys(void*, void** block, struct sqlca* sqlca) {
  callStore<MDJCLSkeleton, &MDJCLSkeleton::retrieveKeys, RETRIEVE_KEYS>(trace::point("MDJCLSkeleton_retrieveKeys"),
                                                                        block, sqlca);
}

MD_ENTRY MDJCLSkeleton_retrieveAll(void*, void** block, struct sqlca* sqlca) {
  callStore<MDJCLSkeleton, &MDJCLSkeleton::retrieveAll, RETRIEVE_ALL>(trace::point("MDJCLSkeleton_retrieveAll"), block,
                                                                      sqlca);
}

MD_ENTRY MDJCLSkeleton_removeList(void*, void** block, struct sqlca* sqlca) {
  callStore<MDJCLSkeleton, &MDJCLSkeleton::removeList, REMOVE_LIST>(trace::point("MDJCLSkeleton_removeList"), block,
                                                                    sqlca);
}

MD_ENTRY MDJCLSkeleton_retrieveList(void*, void** block, struct sqlca* sqlca) {
  callStore<MDJCLSkeleton, &MDJCLSkeleton::retrieveList, RETRIEVE_LIST>(trace::point("MDJCLSkeleton_retrieveList"),
                                                                        block, sqlca);
}

MD_ENTRY MDJCLSkeleton_remove(void*, void** block, struct sqlca* sqlca) {
  callStore<MDJCLSkeleton, &MDJCLSkeleton::remove, REMOVE>(trace::point("MDJCLSkeleton_remove"), block, sqlca);
}

MD_ENTRY MDJCLSkeleton_retrieve(void*, void** block, struct sqlca* sqlca) {
  callStore<MDJCLSkeleton, &MDJCLSkeleton::retrieve, RETRIEVE>(trace::point("MDJCLSkeleton_retrieve"), block, sqlca);
}

MD_ENTRY MDJCLSkeleton_update(void*, void** block, struct sqlca* sqlca) {
  callStore<MDJCLSkeleton, &MDJCLSkeleton::update, UPDATE>(trace::point("MDJCLSkeleton_update"), block, sqlca);
}

MD_ENTRY MDJCLSkeleton_insert(void*, void** block, struct sqlca* sqlca) {
  callStore<MDJCLSkeleton, &MDJCLSkeleton::insert, INSERT>(trace::point("MDJCLSkeleton_insert"), block, sqlca);
}

MD_ENTRY MDCloningHistory_retrieveKeys(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningHistory, &MDCloningHistory::retrieveKeys, RETRIEVE_KEYS>(
      trace::point("MDCloningHistory_retrieveKeys"), block, sqlca);
}

MD_ENTRY MDCloningHistory_retrieveAll(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningHistory, &MDCloningHistory::retrieveAll, RETRIEVE_ALL>(
      trace::point("MDCloningHistory_retrieveAll"), block, sqlca);
}

MD_ENTRY MDCloningHistory_removeList(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningHistory, &MDCloningHistory::removeList, REMOVE_LIST>(trace::point("MDCloningHistory_removeList"),
                                                                          block, sqlca);
}

MD_ENTRY MDCloningHistory_retrieveList(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningHistory, &MDCloningHistory::retrieveList, RETRIEVE_LIST>(
      trace::point("MDCloningHistory_retrieveList"), block, sqlca);
}

MD_ENTRY MDCloningHistory_remove(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningHistory, &MDCloningHistory::remove, REMOVE>(trace::point("MDCloningHistory_remove"), block, sqlca);
}

MD_ENTRY MDCloningHistory_retrieve(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningHistory, &MDCloningHistory::retrieve, RETRIEVE>(trace::point("MDCloningHistory_retrieve"), block,
                                                                     sqlca);
}

MD_ENTRY MDCloningHistory_update(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningHistory, &MDCloningHistory::update, UPDATE>(trace::point("MDCloningHistory_update"), block, sqlca);
}

MD_ENTRY MDCloningHistory_insert(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningHistory, &MDCloningHistory::insert, INSERT>(trace::point("MDCloningHistory_insert"), block, sqlca);
}

MD_ENTRY MDUtilityHistory_retrieveKeys(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilityHistory, &MDUtilityHistory::retrieveKeys, RETRIEVE_KEYS>(
      trace::point("MDUtilityHistory_retrieveKeys"), block, sqlca);
}

MD_ENTRY MDUtilityHistory_retrieveAll(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilityHistory, &MDUtilityHistory::retrieveAll, RETRIEVE_ALL>(
      trace::point("MDUtilityHistory_retrieveAll"), block, sqlca);
}

MD_ENTRY MDUtilityHistory_removeList(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilityHistory, &MDUtilityHistory::removeList, REMOVE_LIST>(trace::point("MDUtilityHistory_removeList"),
                                                                          block, sqlca);
}

MD_ENTRY MDUtilityHistory_retrieveList(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilityHistory, &MDUtilityHistory::retrieveList, RETRIEVE_LIST>(
      trace::point("MDUtilityHistory_retrieveList"), block, sqlca);
}

MD_ENTRY MDUtilityHistory_remove(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilityHistory, &MDUtilityHistory::remove, REMOVE>(trace::point("MDUtilityHistory_remove"), block, sqlca);
}

MD_ENTRY MDUtilityHistory_retrieve(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilityHistory, &MDUtilityHistory::retrieve, RETRIEVE>(trace::point("MDUtilityHistory_retrieve"), block,
                                                                     sqlca);
}

MD_ENTRY MDUtilityHistory_update(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilityHistory, &MDUtilityHistory::update, UPDATE>(trace::point("MDUtilityHistory_update"), block, sqlca);
}

MD_ENTRY MDUtilityHistory_insert(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilityHistory, &MDUtilityHistory::insert, INSERT>(trace::point("MDUtilityHistory_insert"), block, sqlca);
}
