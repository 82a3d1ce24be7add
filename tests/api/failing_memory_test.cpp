// Every entry point with every request for memory failing in turn, once and from then on, on a site where something
// else has happened just before: nothing, a power cut, a writer's death, damage that the backup mends, damage that
// nothing mends.
//
// The method: the call is made once without a fault on a copy of the site, and what it answers and leaves is the truth.
// With a fault it may answer the truth, or fail and touch nothing; the records that it leaves lie between those before
// and those after; the same call then works; and no block is left behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "api/entry_points.h"
#include "platform/registry/format.h"
#include "support/failing_memory.h"
#include "support/metadata_test.h"
#include "zonmdfile/MDCloningHistory.h"
#include "zonmdfile/MDCloningSubSystemSetting.h"
#include "zonmdfile/MDContact.h"
#include "zonmdfile/MDContactGroup.h"
#include "zonmdfile/MDCustomTree.h"
#include "zonmdfile/MDJCLSkeleton.h"
#include "zonmdfile/MDLocationMapping.h"
#include "zonmdfile/MDSubSystemSetting.h"
#include "zonmdfile/MDUtilNameMapping.h"
#include "zonmdfile/MDUtilityHistory.h"
#include "zonmdfile/platform/admin.h"

namespace {

using zontest::Call;
using zontest::EntryPointCase;
using zontest::FailingMemory;
using zontest::Text;
using zontest::textOf;

using Files = std::map<std::string, std::string>;
using Records = std::set<std::string>;

constexpr int FILLERS = 200;
constexpr int GROUPS = 12;
const std::string CONTACT_DATA = zontest::fieldsOf("mail/1/text/60");

std::string numbered(const char* text, int number) { return text + std::to_string(number); }

// ---- The stores of a case: what fills them, and what they hold

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
  Store().retrieveAll(keys, data, versions);
  return recordsOf({&keys, &data, &versions});
}

template <class Store>
Records twoKeyRecords() {
  DString groups;
  DString keys;
  DString data;
  DString versions;
  Store().retrieveAll(groups, keys, data, versions);
  return recordsOf({&groups, &keys, &data, &versions});
}

Records groupRecords() {
  DString groups;
  DString kinds;
  DString members;
  DString descriptions;
  DString versions;
  MDContactGroup().retrieveAll(groups, kinds, members, descriptions, versions);
  return recordsOf({&groups, &kinds, &members, &descriptions, &versions});
}

struct StoreOfCase {
  const char* prefix;
  const char* fileName;
  std::function<void()> fill;
  std::function<Records()> records;
};

template <class Store>
StoreOfCase oneKeyStore(const char* prefix) {
  return {prefix, Store::FILENAME, [] { fillOneKey<Store>("key", "data of the record"); }, oneKeyRecords<Store>};
}

template <class Store>
StoreOfCase twoKeyStore(const char* prefix) {
  return {prefix, Store::FILENAME, fillTwoKey<Store>, twoKeyRecords<Store>};
}

const StoreOfCase& groupStore() {
  static const StoreOfCase STORE{"MDContactGroup_", MDContactGroup::FILENAME, fillGroups, groupRecords};
  return STORE;
}

const StoreOfCase& storeOf(const std::string& name) {
  static const std::vector<StoreOfCase> STORES{
      oneKeyStore<MDCustomTree>("MDCustomTree_"),
      oneKeyStore<MDSubSystemSetting>("MDSubSystemSetting_"),
      oneKeyStore<MDUtilNameMapping>("MDUtilNameMapping_"),
      oneKeyStore<MDLocationMapping>("MDLocationMapping_"),
      oneKeyStore<MDCloningSubSystemSetting>("MDCloningSubSystemSetting_"),
      twoKeyStore<MDJCLSkeleton>("MDJCLSkeleton_"),
      twoKeyStore<MDCloningHistory>("MDCloningHistory_"),
      twoKeyStore<MDUtilityHistory>("MDUtilityHistory_"),
      {"MDContact_", MDContact::FILENAME, [] { fillOneKey<MDContact>("member", CONTACT_DATA); },
       oneKeyRecords<MDContact>},
      {"ContactAPI_", MDContact::FILENAME, [] { fillOneKey<MDContact>("member", CONTACT_DATA); },
       oneKeyRecords<MDContact>}};
  for (const StoreOfCase& store : STORES) {
    if (name.rfind(store.prefix, 0) == 0) return store;
  }
  return groupStore();
}

// ---- What happened before

enum class Scene { NOTHING, POWER_CUT, DEAD_WRITER, DAMAGE, DAMAGE_TWICE };

const char* nameOfScene(Scene scene) {
  static constexpr const char* NAMES[] = {"nothing", "a power cut", "a writer's death", "damage", "damage twice"};
  return NAMES[static_cast<int>(scene)];
}

Files readFiles(const std::filesystem::path& folder) {
  Files files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::ifstream file(entry.path(), std::ios::binary);
    files[entry.path().filename()] = {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }
  return files;
}

void writeFiles(const std::filesystem::path& folder, const Files& files) {
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (files.count(entry.path().filename()) == 0) std::filesystem::remove(entry.path());
  }
  for (const auto& [name, bytes] : files) std::ofstream(folder / name, std::ios::binary) << bytes;
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

class Site {
 public:
  explicit Site(const StoreOfCase& store) : store_(store) {
    const zontest::MetadataDirectory folder;
    store.fill();
    if (!isOfGroups()) fillGroups();
    const Files before = readFiles(folder.path());
    insertOneMore();
    const Files after = readFiles(folder.path());
    scenes_[Scene::NOTHING] = after;
    scenes_[Scene::POWER_CUT] = scenes_[Scene::DEAD_WRITER] = withoutNewestSlot(before, after, store.fileName);
    scenes_[Scene::DAMAGE] = damaged(after, store.fileName, false);
    scenes_[Scene::DAMAGE_TWICE] = damaged(after, store.fileName, true);
  }

  const Files& files(Scene scene) const { return scenes_.at(scene); }
  Records records() const {
    Records records = store_.records();
    if (!isOfGroups()) records.merge(groupRecords());
    return records;
  }

 private:
  bool isOfGroups() const { return store_.fileName == MDContactGroup::FILENAME; }

  // Through the entry point, as one commit of its own.
  void insertOneMore() const {
    for (const EntryPointCase& entry : zontest::allEntryPoints()) {
      const std::string name = entry.name;
      if (name != std::string(store_.prefix) + "insert") continue;
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

  const StoreOfCase& store_;
  std::map<Scene, Files> scenes_;
};

// ---- The calls

// The combined interfaces get slots for every entry that the site can have.
std::string slotsOf(const EntryPointCase& entry) {
  const std::string name = entry.name;
  std::string slots = entry.slots;
  const auto addMany = [&slots](const std::string& row) {
    for (int i = 0; i < FILLERS + 10; ++i) slots += row;
  };
  if (name == "ContactAPI_retrieveAll") addMany("o#o#o");
  if (name == "ContactGroupAPI_retrieveAllContactNames") addMany("o");
  if (name == "ContactGroupAPI_retrieveList" || name == "ContactGroupAPI_retrieveAll") addMany("oo");
  return slots;
}

struct Answer {
  std::int32_t sqlcode = 0;
  std::vector<std::string> outputs;
  bool isUntouched = true;

  bool operator==(const Answer& other) const { return sqlcode == other.sqlcode && outputs == other.outputs; }
};

class CallOfCase {
 public:
  explicit CallOfCase(const EntryPointCase& entry) : entry_(entry), slots_(slotsOf(entry)) {
    EntryPointCase whole = entry;
    whole.slots = slots_.c_str();
    whole.fill(call_);
  }

  Answer run(std::uint64_t n, FailingMemory::Kind kind, bool& hasFailed) {
    block_ = call_.block();
    struct sqlca sqlca {};
    {
      const std::int64_t blocks = zontest::liveBlocks();
      FailingMemory fault(n, kind);
      entry_.function(entry_.reserved(), block_.data(), &sqlca);
      fault.disarm();
      gained_ = zontest::liveBlocks() - blocks;
      hasFailed = fault.hasFailed();
    }
    Answer answer;
    answer.sqlcode = sqlca.sqlcode;
    for (std::size_t i = 0; i < slots_.size(); ++i) {
      const char kindOfSlot = slots_[i];
      if (kindOfSlot == 'o') {
        answer.outputs.push_back(call_.textAt(i));
        answer.isUntouched = answer.isUntouched && call_.isUntouched(i);
      } else if (kindOfSlot == '#' || kindOfSlot == 'c') {
        answer.outputs.push_back(std::to_string(call_.numberAt(i)));
        answer.isUntouched = answer.isUntouched && (isInputNumber() || call_.numberAt(i) == Call::MARK_NUMBER);
      }
    }
    return answer;
  }
  // Releases the outputs; what is left of the blocks that the call took.
  std::int64_t release() {
    const std::int64_t blocks = zontest::liveBlocks();
    call_.releaseOutputs();
    return gained_ - (blocks - zontest::liveBlocks());
  }

 private:
  bool isInputNumber() const { return slots_ == "m#e#e" || slots_ == "n#e#e"; }

  const EntryPointCase& entry_;
  std::string slots_;
  Call call_;
  std::vector<void*> block_;
  std::int64_t gained_ = 0;
};

class FailingMemoryBelow : public testing::TestWithParam<EntryPointCase> {
 protected:
  FailingMemoryBelow() : store_(storeOf(GetParam().name)), site_(store_) {
    std::ofstream(bootFolder_ / "id") << "01234567-89ab-cdef-0123-456789abcdef\n";
    bootId_ = (bootFolder_ / "id").string();
  }

  void sweep(Scene scene);

  // Blocks that the call may leave: a record kept on purpose, and those of a two-key scan that could not begin.
  static std::uint64_t mostKept() {
    const std::string name = GetParam().name;
    if (name == "MDUtilityHistory_update") return 1;
    const bool isTwoKey = name.rfind("MDJCL", 0) == 0 || name.find("History_") != std::string::npos;
    return isTwoKey && name.find("_retrieve") != std::string::npos ? 2 : 0;
  }

  const StoreOfCase& store_;
  const Site site_;
  const zontest::MetadataDirectory bootFolder_;
  const zontest::MetadataDirectory folder_;  // the one that is set
  std::string bootId_;
};

// `dying`: with what a dead writer was about to add; that is there or not.
bool isBetween(const Records& records, const Records& before, const Records& after, const Records& dying) {
  return std::all_of(records.begin(), records.end(),
                     [&](const std::string& record) {
                       return before.count(record) + after.count(record) + dying.count(record) > 0;
                     }) &&
         std::all_of(before.begin(), before.end(),
                     [&](const std::string& record) { return after.count(record) == 0 || records.count(record) == 1; });
}

void FailingMemoryBelow::sweep(Scene scene) {
  SCOPED_TRACE(nameOfScene(scene));
  const Files& files = site_.files(scene);
  const std::unique_ptr<zontest::AnotherBoot> restarted(
      scene == Scene::POWER_CUT ? std::make_unique<zontest::AnotherBoot>(bootId_.c_str()) : nullptr);
  writeFiles(folder_.path(), site_.files(Scene::NOTHING));
  const Records dying = scene == Scene::DEAD_WRITER ? site_.records() : Records();
  writeFiles(folder_.path(), files);
  const Records before = site_.records();
  bool hasFailed = false;
  Answer truth;
  {
    CallOfCase call(GetParam());
    truth = call.run(0, FailingMemory::Kind::ONCE, hasFailed);
  }
  const Records after = site_.records();
  for (const auto kind : {FailingMemory::Kind::ONCE, FailingMemory::Kind::FROM_THEN_ON}) {
    hasFailed = true;
    for (std::uint64_t n = 1; hasFailed; ++n) {
      SCOPED_TRACE("request " + std::to_string(n) + (kind == FailingMemory::Kind::ONCE ? "" : " and all later ones"));
      writeFiles(folder_.path(), files);
      CallOfCase call(GetParam());
      const zontest::MemoryAccount account(nullptr);
      const Answer answer = call.run(n, kind, hasFailed);
      if (!(answer == truth)) {
        ASSERT_TRUE(hasFailed);
        ASSERT_NE(answer.sqlcode, 0);
        ASSERT_TRUE(answer.isUntouched) << answer.sqlcode;
      }
      ASSERT_LE(call.release(), static_cast<std::int64_t>(mostKept()));
      ASSERT_LE(account.buffers(), mostKept());
      const Records left = site_.records();
      if (answer.sqlcode == 0) {
        ASSERT_EQ(left, after);
      } else {
        ASSERT_TRUE(isBetween(left, before, after, dying)) << answer.sqlcode;
      }
      bool ignored = false;
      CallOfCase again(GetParam());
      const std::int32_t next = again.run(0, kind, ignored).sqlcode;
      ASSERT_NE(next, ecfToSqlError(GENREG_RC_NO_MEMORY));
      ASSERT_NE(next, ecfToSqlError(GENREG_RC_INTERNAL));
      ASSERT_NE(next, ecfToSqlError(GENREG_RC_NO_SCAN));
    }
  }
}

std::string nameOf(const testing::TestParamInfo<EntryPointCase>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(All, FailingMemoryBelow, testing::ValuesIn(zontest::allEntryPoints()), nameOf);

// The entry points that change nothing.
std::vector<EntryPointCase> readingEntryPoints() {
  std::vector<EntryPointCase> reading;
  for (const EntryPointCase& entry : zontest::allEntryPoints()) {
    if (std::string(entry.name).find("_retrieve") != std::string::npos) reading.push_back(entry);
  }
  return reading;
}

class FailingMemoryBelowReading : public FailingMemoryBelow {};
INSTANTIATE_TEST_SUITE_P(All, FailingMemoryBelowReading, testing::ValuesIn(readingEntryPoints()), nameOf);

TEST_P(FailingMemoryBelow, IsToldAndLosesNothing) { sweep(Scene::NOTHING); }
TEST_P(FailingMemoryBelowReading, IsToldAndLosesNothingAfterAPowerCut) { sweep(Scene::POWER_CUT); }
TEST_P(FailingMemoryBelow, IsToldAndLosesNothingAfterAWritersDeath) { sweep(Scene::DEAD_WRITER); }
TEST_P(FailingMemoryBelow, IsToldAndLosesNothingInADamagedFile) { sweep(Scene::DAMAGE); }
TEST_P(FailingMemoryBelow, IsToldAndLosesNothingInAFileThatNothingMends) { sweep(Scene::DAMAGE_TWICE); }

}  // namespace
