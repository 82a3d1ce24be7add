// The entry points of the one-key stores.
//
// The rule: each exported name is spelled out, and stands for exactly one operation of its store.
#include "api/MDRegFactory.h"
#include "api/one_key_slots.h"
#include "zonmdfile/MDCloningSubSystemSetting.h"
#include "zonmdfile/MDCustomTree.h"
#include "zonmdfile/MDLocationMapping.h"
#include "zonmdfile/MDSubSystemSetting.h"
#include "zonmdfile/MDUtilNameMapping.h"

using namespace zon;
using namespace zon::one_key;

MD_ENTRY MDCustomTree_retrieveKeys(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCustomTree, &MDCustomTree::retrieveKeys, RETRIEVE_KEYS>(trace::MDCustomTree_retrieveKeys, block, sqlca);
}

MD_ENTRY MDCustomTree_retrieveAll(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCustomTree, &MDCustomTree::retrieveAll, RETRIEVE_ALL>(trace::MDCustomTree_retrieveAll, block, sqlca);
}

MD_ENTRY MDCustomTree_remove(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCustomTree, &MDCustomTree::remove, REMOVE>(trace::MDCustomTree_remove, block, sqlca);
}

MD_ENTRY MDCustomTree_retrieve(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCustomTree, &MDCustomTree::retrieve, RETRIEVE>(trace::MDCustomTree_retrieve, block, sqlca);
}

MD_ENTRY MDCustomTree_update(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCustomTree, &MDCustomTree::update, UPDATE>(trace::MDCustomTree_update, block, sqlca);
}

MD_ENTRY MDCustomTree_insert(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCustomTree, &MDCustomTree::insert, INSERT>(trace::MDCustomTree_insert, block, sqlca);
}

MD_ENTRY MDSubSystemSetting_retrieveKeys(void*, void** block, struct sqlca* sqlca) {
  callStore<MDSubSystemSetting, &MDSubSystemSetting::retrieveKeys, RETRIEVE_KEYS>(
      trace::MDSubSystemSetting_retrieveKeys, block, sqlca);
}

MD_ENTRY MDSubSystemSetting_retrieveAll(void*, void** block, struct sqlca* sqlca) {
  callStore<MDSubSystemSetting, &MDSubSystemSetting::retrieveAll, RETRIEVE_ALL>(trace::MDSubSystemSetting_retrieveAll,
                                                                                block, sqlca);
}

MD_ENTRY MDSubSystemSetting_remove(void*, void** block, struct sqlca* sqlca) {
  callStore<MDSubSystemSetting, &MDSubSystemSetting::remove, REMOVE>(trace::MDSubSystemSetting_remove, block, sqlca);
}

MD_ENTRY MDSubSystemSetting_retrieve(void*, void** block, struct sqlca* sqlca) {
  callStore<MDSubSystemSetting, &MDSubSystemSetting::retrieve, RETRIEVE>(trace::MDSubSystemSetting_retrieve, block,
                                                                         sqlca);
}

MD_ENTRY MDSubSystemSetting_update(void*, void** block, struct sqlca* sqlca) {
  callStore<MDSubSystemSetting, &MDSubSystemSetting::update, UPDATE>(trace::MDSubSystemSetting_update, block, sqlca);
}

MD_ENTRY MDSubSystemSetting_insert(void*, void** block, struct sqlca* sqlca) {
  callStore<MDSubSystemSetting, &MDSubSystemSetting::insert, INSERT>(trace::MDSubSystemSetting_insert, block, sqlca);
}

MD_ENTRY MDUtilNameMapping_retrieveKeys(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilNameMapping, &MDUtilNameMapping::retrieveKeys, RETRIEVE_KEYS>(trace::MDUtilNameMapping_retrieveKeys,
                                                                                block, sqlca);
}

MD_ENTRY MDUtilNameMapping_retrieveAll(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilNameMapping, &MDUtilNameMapping::retrieveAll, RETRIEVE_ALL>(trace::MDUtilNameMapping_retrieveAll,
                                                                              block, sqlca);
}

MD_ENTRY MDUtilNameMapping_remove(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilNameMapping, &MDUtilNameMapping::remove, REMOVE>(trace::MDUtilNameMapping_remove, block, sqlca);
}

MD_ENTRY MDUtilNameMapping_retrieve(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilNameMapping, &MDUtilNameMapping::retrieve, RETRIEVE>(trace::MDUtilNameMapping_retrieve, block, sqlca);
}

MD_ENTRY MDUtilNameMapping_update(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilNameMapping, &MDUtilNameMapping::update, UPDATE>(trace::MDUtilNameMapping_update, block, sqlca);
}

MD_ENTRY MDUtilNameMapping_insert(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilNameMapping, &MDUtilNameMapping::insert, INSERT>(trace::MDUtilNameMapping_insert, block, sqlca);
}

MD_ENTRY MDLocationMapping_retrieveKeys(void*, void** block, struct sqlca* sqlca) {
  callStore<MDLocationMapping, &MDLocationMapping::retrieveKeys, RETRIEVE_KEYS>(trace::MDLocationMapping_retrieveKeys,
                                                                                block, sqlca);
}

MD_ENTRY MDLocationMapping_retrieveAll(void*, void** block, struct sqlca* sqlca) {
  callStore<MDLocationMapping, &MDLocationMapping::retrieveAll, RETRIEVE_ALL>(trace::MDLocationMapping_retrieveAll,
                                                                              block, sqlca);
}

MD_ENTRY MDLocationMapping_remove(void*, void** block, struct sqlca* sqlca) {
  callStore<MDLocationMapping, &MDLocationMapping::remove, REMOVE>(trace::MDLocationMapping_remove, block, sqlca);
}

MD_ENTRY MDLocationMapping_retrieve(void*, void** block, struct sqlca* sqlca) {
  callStore<MDLocationMapping, &MDLocationMapping::retrieve, RETRIEVE>(trace::MDLocationMapping_retrieve, block, sqlca);
}

MD_ENTRY MDLocationMapping_update(void*, void** block, struct sqlca* sqlca) {
  callStore<MDLocationMapping, &MDLocationMapping::update, UPDATE>(trace::MDLocationMapping_update, block, sqlca);
}

MD_ENTRY MDLocationMapping_insert(void*, void** block, struct sqlca* sqlca) {
  callStore<MDLocationMapping, &MDLocationMapping::insert, INSERT>(trace::MDLocationMapping_insert, block, sqlca);
}

MD_ENTRY MDCloningSubSystemSetting_retrieveKeys(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningSubSystemSetting, &MDCloningSubSystemSetting::retrieveKeys, RETRIEVE_KEYS>(
      trace::MDCloningSubSystemSetting_retrieveKeys, block, sqlca);
}

MD_ENTRY MDCloningSubSystemSetting_retrieveAll(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningSubSystemSetting, &MDCloningSubSystemSetting::retrieveAll, RETRIEVE_ALL>(
      trace::MDCloningSubSystemSetting_retrieveAll, block, sqlca);
}

MD_ENTRY MDCloningSubSystemSetting_remove(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningSubSystemSetting, &MDCloningSubSystemSetting::remove, REMOVE>(
      trace::MDCloningSubSystemSetting_remove, block, sqlca);
}

MD_ENTRY MDCloningSubSystemSetting_retrieve(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningSubSystemSetting, &MDCloningSubSystemSetting::retrieve, RETRIEVE>(
      trace::MDCloningSubSystemSetting_retrieve, block, sqlca);
}

MD_ENTRY MDCloningSubSystemSetting_update(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningSubSystemSetting, &MDCloningSubSystemSetting::update, UPDATE>(
      trace::MDCloningSubSystemSetting_update, block, sqlca);
}

MD_ENTRY MDCloningSubSystemSetting_insert(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningSubSystemSetting, &MDCloningSubSystemSetting::insert, INSERT>(
      trace::MDCloningSubSystemSetting_insert, block, sqlca);
}
