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
  callStore<MDCustomTree, &MDCustomTree::retrieveKeys, RETRIEVE_KEYS>(trace::point("MDCustomTree_retrieveKeys"), block,
                                                                      sqlca);
}

MD_ENTRY MDCustomTree_retrieveAll(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCustomTree, &MDCustomTree::retrieveAll, RETRIEVE_ALL>(trace::point("MDCustomTree_retrieveAll"), block,
                                                                    sqlca);
}

MD_ENTRY MDCustomTree_remove(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCustomTree, &MDCustomTree::remove, REMOVE>(trace::point("MDCustomTree_remove"), block, sqlca);
}

MD_ENTRY MDCustomTree_retrieve(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCustomTree, &MDCustomTree::retrieve, RETRIEVE>(trace::point("MDCustomTree_retrieve"), block, sqlca);
}

MD_ENTRY MDCustomTree_update(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCustomTree, &MDCustomTree::update, UPDATE>(trace::point("MDCustomTree_update"), block, sqlca);
}

MD_ENTRY MDCustomTree_insert(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCustomTree, &MDCustomTree::insert, INSERT>(trace::point("MDCustomTree_insert"), block, sqlca);
}

MD_ENTRY MDSubSystemSetting_retrieveKeys(void*, void** block, struct sqlca* sqlca) {
  callStore<MDSubSystemSetting, &MDSubSystemSetting::retrieveKeys, RETRIEVE_KEYS>(
      trace::point("MDSubSystemSetting_retrieveKeys"), block, sqlca);
}

MD_ENTRY MDSubSystemSetting_retrieveAll(void*, void** block, struct sqlca* sqlca) {
  callStore<MDSubSystemSetting, &MDSubSystemSetting::retrieveAll, RETRIEVE_ALL>(
      trace::point("MDSubSystemSetting_retrieveAll"), block, sqlca);
}

MD_ENTRY MDSubSystemSetting_remove(void*, void** block, struct sqlca* sqlca) {
  callStore<MDSubSystemSetting, &MDSubSystemSetting::remove, REMOVE>(trace::point("MDSubSystemSetting_remove"), block,
                                                                     sqlca);
}

MD_ENTRY MDSubSystemSetting_retrieve(void*, void** block, struct sqlca* sqlca) {
  callStore<MDSubSystemSetting, &MDSubSystemSetting::retrieve, RETRIEVE>(trace::point("MDSubSystemSetting_retrieve"),
                                                                         block, sqlca);
}

MD_ENTRY MDSubSystemSetting_update(void*, void** block, struct sqlca* sqlca) {
  callStore<MDSubSystemSetting, &MDSubSystemSetting::update, UPDATE>(trace::point("MDSubSystemSetting_update"), block,
                                                                     sqlca);
}

MD_ENTRY MDSubSystemSetting_insert(void*, void** block, struct sqlca* sqlca) {
  callStore<MDSubSystemSetting, &MDSubSystemSetting::insert, INSERT>(trace::point("MDSubSystemSetting_insert"), block,
                                                                     sqlca);
}

MD_ENTRY MDUtilNameMapping_retrieveKeys(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilNameMapping, &MDUtilNameMapping::retrieveKeys, RETRIEVE_KEYS>(
      trace::point("MDUtilNameMapping_retrieveKeys"), block, sqlca);
}

MD_ENTRY MDUtilNameMapping_retrieveAll(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilNameMapping, &MDUtilNameMapping::retrieveAll, RETRIEVE_ALL>(
      trace::point("MDUtilNameMapping_retrieveAll"), block, sqlca);
}

MD_ENTRY MDUtilNameMapping_remove(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilNameMapping, &MDUtilNameMapping::remove, REMOVE>(trace::point("MDUtilNameMapping_remove"), block,
                                                                   sqlca);
}

MD_ENTRY MDUtilNameMapping_retrieve(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilNameMapping, &MDUtilNameMapping::retrieve, RETRIEVE>(trace::point("MDUtilNameMapping_retrieve"),
                                                                       block, sqlca);
}

MD_ENTRY MDUtilNameMapping_update(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilNameMapping, &MDUtilNameMapping::update, UPDATE>(trace::point("MDUtilNameMapping_update"), block,
                                                                   sqlca);
}

MD_ENTRY MDUtilNameMapping_insert(void*, void** block, struct sqlca* sqlca) {
  callStore<MDUtilNameMapping, &MDUtilNameMapping::insert, INSERT>(trace::point("MDUtilNameMapping_insert"), block,
                                                                   sqlca);
}

MD_ENTRY MDLocationMapping_retrieveKeys(void*, void** block, struct sqlca* sqlca) {
  callStore<MDLocationMapping, &MDLocationMapping::retrieveKeys, RETRIEVE_KEYS>(
      trace::point("MDLocationMapping_retrieveKeys"), block, sqlca);
}

MD_ENTRY MDLocationMapping_retrieveAll(void*, void** block, struct sqlca* sqlca) {
  callStore<MDLocationMapping, &MDLocationMapping::retrieveAll, RETRIEVE_ALL>(
      trace::point("MDLocationMapping_retrieveAll"), block, sqlca);
}

MD_ENTRY MDLocationMapping_remove(void*, void** block, struct sqlca* sqlca) {
  callStore<MDLocationMapping, &MDLocationMapping::remove, REMOVE>(trace::point("MDLocationMapping_remove"), block,
                                                                   sqlca);
}

MD_ENTRY MDLocationMapping_retrieve(void*, void** block, struct sqlca* sqlca) {
  callStore<MDLocationMapping, &MDLocationMapping::retrieve, RETRIEVE>(trace::point("MDLocationMapping_retrieve"),
                                                                       block, sqlca);
}

MD_ENTRY MDLocationMapping_update(void*, void** block, struct sqlca* sqlca) {
  callStore<MDLocationMapping, &MDLocationMapping::update, UPDATE>(trace::point("MDLocationMapping_update"), block,
                                                                   sqlca);
}

MD_ENTRY MDLocationMapping_insert(void*, void** block, struct sqlca* sqlca) {
  callStore<MDLocationMapping, &MDLocationMapping::insert, INSERT>(trace::point("MDLocationMapping_insert"), block,
                                                                   sqlca);
}

MD_ENTRY MDCloningSubSystemSetting_retrieveKeys(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningSubSystemSetting, &MDCloningSubSystemSetting::retrieveKeys, RETRIEVE_KEYS>(
      trace::point("MDCloningSubSystemSetting_retrieveKeys"), block, sqlca);
}

MD_ENTRY MDCloningSubSystemSetting_retrieveAll(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningSubSystemSetting, &MDCloningSubSystemSetting::retrieveAll, RETRIEVE_ALL>(
      trace::point("MDCloningSubSystemSetting_retrieveAll"), block, sqlca);
}

MD_ENTRY MDCloningSubSystemSetting_remove(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningSubSystemSetting, &MDCloningSubSystemSetting::remove, REMOVE>(
      trace::point("MDCloningSubSystemSetting_remove"), block, sqlca);
}

MD_ENTRY MDCloningSubSystemSetting_retrieve(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningSubSystemSetting, &MDCloningSubSystemSetting::retrieve, RETRIEVE>(
      trace::point("MDCloningSubSystemSetting_retrieve"), block, sqlca);
}

MD_ENTRY MDCloningSubSystemSetting_update(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningSubSystemSetting, &MDCloningSubSystemSetting::update, UPDATE>(
      trace::point("MDCloningSubSystemSetting_update"), block, sqlca);
}

MD_ENTRY MDCloningSubSystemSetting_insert(void*, void** block, struct sqlca* sqlca) {
  callStore<MDCloningSubSystemSetting, &MDCloningSubSystemSetting::insert, INSERT>(
      trace::point("MDCloningSubSystemSetting_insert"), block, sqlca);
}
