// How a site is filled, and what happens to its files.
#include "api/site_scenes.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "api/entry_points.h"
#include "platform/registry/format/format.h"
#include "support/metadata_test.h"
#include "zonmdfile/MDCloningHistory.h"
#include "zonmdfile/MDCloningMapping.h"
#include "zonmdfile/MDCloningSubSystemSetting.h"
#include "zonmdfile/MDContact.h"
#include "zonmdfile/MDContactGroup.h"
#include "zonmdfile/MDCustomTree.h"
#include "zonmdfile/MDJCLSkeleton.h"
#include "zonmdfile/MDLocationMapping.h"
#include "zonmdfile/MDSubSystemSetting.h"
#include "zonmdfile/MDUtilNameMapping.h"
#include "zonmdfile/MDUtilityHistory.h"

namespace zontest {

namespace {

const std::string CONTACT_DATA = fieldsOf("mail/1/text/60");

std::string numbered(const char* text, int number) { return text + std::to_string(number); }

template <class Store>
void insertOneKey(Store& store, const std::string& key, const std::string& data) {
  EXPECT_EQ(store.insert(Text(key), Text(data), DString("1")), 0U);
}

template <class Store>
void fillOneKey(const char* key, const std::string& data) {
  Store store;
  ASSERT_EQ(store.beginBatch(), 0U);
  for (int i = 0; i < FILLERS / 2; ++i) insertOneKey(store, numbered("before", i), data);
  insertOneKey(store, key, data);
  for (int i = 0; i < FILLERS / 2; ++i) insertOneKey(store, numbered("behind", i), data);
  ASSERT_EQ(store.commitBatch(), 0U);
}

template <class Store>
void fillTwoKey() {
  Store store;
  ASSERT_EQ(store.beginBatch(), 0U);
  const auto insert = [&store](const std::string& group, const std::string& key) {
    EXPECT_EQ(store.insert(Text(group), Text(key), Text("data of the record"), DString("1")), 0U);
  };
  for (int i = 0; i < FILLERS; ++i) insert(i % 3 == 0 ? "group" : "other", numbered("filler", i));
  insert("group", "key");
  ASSERT_EQ(store.commitBatch(), 0U);
}

void fillMappings() {
  MDCloningMapping store;
  ASSERT_EQ(store.beginBatch(), 0U);
  const auto insert = [&store](const std::string& subGroup, const std::string& key) {
    EXPECT_EQ(store.insert(Text("group"), Text(subGroup), Text(key), Text("data"), DString("1")), 0U);
  };
  for (int i = 0; i < FILLERS; ++i) insert(i % 3 == 0 ? "sub" : "other", numbered("filler", i));
  insert("sub", "key");
  ASSERT_EQ(store.commitBatch(), 0U);
}

void fillGroups() {
  MDContactGroup store;
  ASSERT_EQ(store.beginBatch(), 0U);
  const auto insert = [&store](const std::string& group, const char* kind, const std::string& member) {
    EXPECT_EQ(store.insert(Text(group), DString(kind), Text(member), Text("text"), DString("1")), 0U);
  };
  for (int i = 0; i < GROUPS; ++i) {
    insert(numbered("g", i), "0", "member");
    insert("parent", "1", numbered("g", i));
    if (i % 2 == 0) insert(numbered("g", i), "0", "keeps");
    insert("group", "1", numbered("g", i));
  }
  insert("group", "0", "member");
  insert("parent", "1", "group");
  insert("above", "1", "parent");
  ASSERT_EQ(store.commitBatch(), 0U);
}

// The entries of parallel lists, record by record.
Records recordsOf(std::vector<DString*> lists) {
  Records records;
  std::vector<std::string> rest;
  for (const DString* list : lists) rest.push_back(textOf(*list));
  while (!rest[0].empty()) {
    std::string record;
    for (std::string& list : rest) {
      const std::size_t end = list.find('\x0E');
      record += list.substr(0, end) + "/";
      list.erase(0, end == std::string::npos ? end : end + 1);
    }
    records.insert(record);
  }
  return records;
}

template <class Store>
Records oneKeyRecords() {
  DString keys;
  DString data;
  DString versions;
  static_cast<void>(Store().retrieveAll(keys, data, versions));  // what it cannot list is missing
  return recordsOf({&keys, &data, &versions});
}

template <class Store>
Records twoKeyRecords() {
  DString groups;
  DString keys;
  DString data;
  DString versions;
  static_cast<void>(Store().retrieveAll(groups, keys, data, versions));  // as above
  return recordsOf({&groups, &keys, &data, &versions});
}

template <class Store>
Records threeKeyRecords() {
  DString groups;
  DString subGroups;
  DString keys;
  DString data;
  DString versions;
  static_cast<void>(Store().retrieveAll(groups, subGroups, keys, data, versions));  // as above
  return recordsOf({&groups, &subGroups, &keys, &data, &versions});
}

template <class Store>
StoreOfSite oneKeyStore(const char* prefix) {
  return {prefix, Store::FILENAME, [] { fillOneKey<Store>("key", "data of the record"); }, oneKeyRecords<Store>};
}

template <class Store>
StoreOfSite twoKeyStore(const char* prefix) {
  return {prefix, Store::FILENAME, fillTwoKey<Store>, twoKeyRecords<Store>};
}

Files readFiles(const std::filesystem::path& folder) {
  Files files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::ifstream file(entry.path(), std::ios::binary);
    files[entry.path().filename()] = {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }
  return files;
}

// The newest slot goes back to what it was before the last insertion, whose commit lies behind it then.
Files withoutNewestSlot(const Files& before, Files after, const std::string& fileName) {
  std::string& file = after[fileName];
  file.replace(0, zon::format::LOG_START, before.at(fileName), 0, zon::format::LOG_START);
  return after;
}

void flip(std::string& bytes, std::size_t at) { bytes[at] = static_cast<char>(bytes[at] ^ 0x55); }

Files damaged(Files files, const std::string& fileName, bool twice) {
  const std::string& file = files[fileName];
  const std::size_t at = file.find("before1") != std::string::npos ? file.find("before17") : file.find("filler17");
  const std::size_t place = at != std::string::npos ? at : file.find("keeps");
  EXPECT_NE(place, std::string::npos);
  flip(files[fileName], place);
  std::string& backup = files["." + fileName + ".bkp"];
  if (twice && backup.size() > place) flip(backup, place);
  return files;
}

}  // namespace

const std::vector<StoreOfSite>& storesOfSites() {
  const auto fillContacts = [] { fillOneKey<MDContact>("member", CONTACT_DATA); };
  static const std::vector<StoreOfSite> STORES{
      oneKeyStore<MDCustomTree>("MDCustomTree_"),
      oneKeyStore<MDSubSystemSetting>("MDSubSystemSetting_"),
      oneKeyStore<MDUtilNameMapping>("MDUtilNameMapping_"),
      oneKeyStore<MDLocationMapping>("MDLocationMapping_"),
      oneKeyStore<MDCloningSubSystemSetting>("MDCloningSubSystemSetting_"),
      twoKeyStore<MDJCLSkeleton>("MDJCLSkeleton_"),
      twoKeyStore<MDCloningHistory>("MDCloningHistory_"),
      twoKeyStore<MDUtilityHistory>("MDUtilityHistory_"),
      {"MDContact_", MDContact::FILENAME, fillContacts, oneKeyRecords<MDContact>},
      {"ContactAPI_", MDContact::FILENAME, fillContacts, oneKeyRecords<MDContact>},
      {"MDContactGroup_", MDContactGroup::FILENAME, fillGroups, threeKeyRecords<MDContactGroup>},
      {"ContactGroupAPI_", MDContactGroup::FILENAME, fillGroups, threeKeyRecords<MDContactGroup>}};
  return STORES;
}

const StoreOfSite& cloningMappings() {
  static const StoreOfSite STORE{
      "MDCloningMapping_", MDCloningMapping::FILENAME, fillMappings, threeKeyRecords<MDCloningMapping>, [] {
        EXPECT_EQ(MDCloningMapping().insert(Text("group"), Text("sub"), Text("one more"), Text("data"), DString("1")),
                  0U);
      }};
  return STORE;
}

const char* nameOfScene(Scene scene) {
  static constexpr const char* NAMES[] = {"nothing", "a power cut", "a writer's death", "damage", "damage twice"};
  return NAMES[static_cast<int>(scene)];
}

void writeFiles(const std::filesystem::path& folder, const Files& files) {
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (files.count(entry.path().filename()) == 0) std::filesystem::remove(entry.path());
  }
  for (const auto& [name, bytes] : files) std::ofstream(folder / name, std::ios::binary) << bytes;
}

Site::Site(const StoreOfSite& store) : store_(store) {
  const MetadataDirectory folder(inMemory());
  store.fill();
  if (withdrawsFromGroups()) fillGroups();
  const Files before = readFiles(folder.path());
  insertOneMore();
  const Files after = readFiles(folder.path());
  scenes_[Scene::NOTHING] = after;
  scenes_[Scene::POWER_CUT] = scenes_[Scene::DEAD_WRITER] = withoutNewestSlot(before, after, store.fileName);
  scenes_[Scene::DAMAGE] = damaged(after, store.fileName, false);
  scenes_[Scene::DAMAGE_TWICE] = damaged(after, store.fileName, true);
}

Records Site::records() const {
  Records records = store_.records();
  if (withdrawsFromGroups()) records.merge(threeKeyRecords<MDContactGroup>());
  return records;
}

// Whoever removes a contact changes the file of the groups too.
bool Site::withdrawsFromGroups() const { return store_.fileName == MDContact::FILENAME; }

void Site::insertOneMore() const {
  if (store_.insertOne) return store_.insertOne();
  const bool isOfGroups = store_.fileName == MDContactGroup::FILENAME;
  const std::string name = std::string(isOfGroups ? "MDContactGroup_" : store_.prefix) + "insert";
  for (const EntryPointCase& entry : allEntryPoints()) {
    if (name != entry.name) continue;
    Call call;
    for (const char* slot = entry.slots; *slot != '\0'; ++slot) {
      if (*slot == 'n' || *slot == 'x') {
        call.in("one more");
      } else {
        EntryPointCase one = entry;
        const char single[2] = {*slot, '\0'};
        one.slots = single;
        one.fill(call);
      }
    }
    call.run(entry.function, entry.reserved());
    EXPECT_EQ(call.sqlcode(), 0);
  }
}

}  // namespace zontest
