// Every engine against a list in memory: the same random changes to both, after which every question must get the same
// answer. Every sequence follows from its seed, which a failure tells.
#include <algorithm>
#include <random>

#include "platform/registry/harness/every_engine.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

// What a record file holds, as simply as it can be told.
class Model {
 public:
  std::uint32_t add(const Value& value) {
    if (find(value.group, value.key) != records_.end()) return GENREG_RC_DUPLICATE_KEY;
    records_.push_back(value);
    return MD_RC_OK;
  }
  std::uint32_t change(const Value& value) {
    const auto found = find(value.group, value.key);
    if (found == records_.end()) return GENREG_RC_NOT_FOUND;
    if (*found == value) return GENREG_RC_NO_CHANGE;
    *found = value;
    return MD_RC_OK;
  }
  std::uint32_t rename(const Value& from, const Value& to) {
    const auto found = find(from.group, from.key);
    if (found == records_.end()) return GENREG_RC_NOT_FOUND;
    if (*found == to) return GENREG_RC_NO_CHANGE;
    *found = to;
    return MD_RC_OK;
  }
  std::uint32_t remove(const std::string& group, const std::string& key) {
    const auto found = find(group, key);
    if (found == records_.end()) return GENREG_RC_NOT_FOUND;
    records_.erase(found);
    return MD_RC_OK;
  }
  std::uint32_t removeGroup(const std::string& group) {
    const auto removed = std::erase_if(records_, [&](const Value& value) { return value.group == group; });
    return removed == 0 ? GENREG_RC_NOT_FOUND : MD_RC_OK;
  }
  bool has(const std::string& group, const std::string& key) { return find(group, key) != records_.end(); }
  std::vector<Value> list(unsigned long flags, const Value& match) const {
    std::vector<Value> values;
    for (const Value& value : records_) {
      if ((flags & GROUP) != 0 && value.group != match.group) continue;
      if ((flags & KEY) != 0 && value.key != match.key) continue;
      if ((flags & DATA) != 0 && value.data != match.data) continue;
      values.push_back(value);
    }
    return values;
  }

 private:
  std::vector<Value>::iterator find(const std::string& group, const std::string& key) {
    return std::find_if(records_.begin(), records_.end(),
                        [&](const Value& value) { return value.group == group && value.key == key; });
  }
  std::vector<Value> records_;
};

class RandomChanges {
 public:
  RandomChanges(std::uint32_t seed, unsigned groups, unsigned keys) : random_(seed), groups_(groups), keys_(keys) {}

  std::string group() { return "g" + std::to_string(below(groups_)); }
  std::string key() { return "k" + std::to_string(below(keys_)); }
  std::string data() {
    const unsigned kind = below(40);
    const std::size_t size = kind == 0 ? below(100000) : kind < 4 ? below(3000) : below(60);
    return std::string(size, static_cast<char>('a' + below(26))) + std::to_string(below(1000));
  }
  unsigned below(unsigned limit) { return std::uniform_int_distribution<unsigned>(0, limit - 1)(random_); }

 private:
  std::mt19937 random_;
  unsigned groups_;
  unsigned keys_;
};

void compareAll(TestStore& store, const Model& model, RandomChanges& random) {
  ASSERT_EQ(store.list(), model.list(0, {}));
  const Value match{random.group(), random.key(), ""};
  for (const unsigned long flags : {GROUP, KEY, WHOLE_KEY})
    ASSERT_EQ(store.list(flags, match), model.list(flags, match));
}

void step(TestStore& store, Model& model, RandomChanges& random) {
  const Value value{random.group(), random.key(), random.data()};
  const unsigned kind = random.below(100);
  if (kind < 40) {
    ASSERT_EQ(store.add(value), model.add(value));
  } else if (kind < 65) {
    ASSERT_EQ(store.change(value), model.change(value));
  } else if (kind < 85) {
    ASSERT_EQ(store.remove(value.group, value.key), model.remove(value.group, value.key));
  } else if (kind < 87) {
    ASSERT_EQ(store.removeAll(value.group, "", GROUP), model.removeGroup(value.group));
  } else if (kind < 90) {
    const Value to{random.group(), random.key(), random.data()};
    if (!model.has(to.group, to.key)) {
      ASSERT_EQ(store.changeTo(value, to), model.rename(value, to));
    }
  } else {
    Value found;
    const auto expected = model.list(WHOLE_KEY, value);
    ASSERT_EQ(store.get(value.group, value.key, found), expected.empty() ? GENREG_RC_NOT_FOUND : MD_RC_OK);
    if (!expected.empty()) {
      ASSERT_EQ(found, expected.front());
    }
  }
}

void run(const EngineUnderTest& engine, std::uint32_t seed, unsigned groups, unsigned keys, int steps,
         int batchLength) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  const TestFolder folder;
  engine.prepare(folder.file());
  TestStore store(folder.path());
  Model model;
  RandomChanges random(seed, groups, keys);
  for (int at = 0; at < steps; ++at) {
    if (batchLength > 0 && at % batchLength == 0) {
      if (at > 0) {
        ASSERT_EQ(store.commitBatch(), MD_RC_OK);
      }
      ASSERT_EQ(store.beginBatch(), MD_RC_OK);
    }
    ASSERT_NO_FATAL_FAILURE(step(store, model, random)) << "step " << at;
    if (at % 97 == 0) {
      ASSERT_NO_FATAL_FAILURE(compareAll(store, model, random)) << "step " << at;
    }
    if (at % 997 == 996 && batchLength == 0) {
      ASSERT_EQ(store.compact(), MD_RC_OK);
    }
  }
  if (batchLength > 0) {
    ASSERT_EQ(store.commitBatch(), MD_RC_OK);
  }
  ASSERT_NO_FATAL_FAILURE(compareAll(store, model, random));
  GenRegStatus status;
  ASSERT_EQ(store.status(status), MD_RC_OK);
  EXPECT_EQ(status.records, model.list(0, {}).size());
  std::uint64_t bytes = 0;
  for (const Value& value : model.list(0, {})) bytes += encode(value).size();
  EXPECT_EQ(status.recordBytes, bytes);
  EXPECT_EQ(status.damaged, 0u);
  EXPECT_EQ(status.repairs, 0u);
}

class EngineModel : public ::testing::TestWithParam<EngineUnderTest> {};
INSTANTIATE_TEST_SUITE_P(Engines, EngineModel, everyEngine(), engineName);

TEST_P(EngineModel, FewKeysManyChanges) { run(GetParam(), 1, 3, 5, 3000, 0); }
TEST_P(EngineModel, ManyKeys) { run(GetParam(), 2, 20, 200, 4000, 0); }
TEST_P(EngineModel, OneGroup) { run(GetParam(), 3, 1, 300, 3000, 0); }
TEST_P(EngineModel, Batches) { run(GetParam(), 4, 10, 50, 6000, 50); }
TEST_P(EngineModel, OneLongBatch) { run(GetParam(), 5, 50, 400, 40000, 40000); }

TEST_P(EngineModel, DigestsThatAllMeet) {
  const SettingScope oneChain(digestsCollide, true);
  run(GetParam(), 6, 4, 10, 1500, 0);
}

// In the chain that they share, a removed record has older forms below those of others.
TEST_P(EngineModel, DigestsThatMeetBringNothingBack) {
  const SettingScope oneChain(digestsCollide, true);
  const TestFolder folder(inMemory());
  GetParam().prepare(folder.file());
  TestStore store(folder.path());
  Value value;
  for (const bool changesAgain : {false, true}) {
    ASSERT_EQ(store.add({"g", "a", "first"}), MD_RC_OK);
    ASSERT_EQ(store.add({"g", "b", "x"}), MD_RC_OK);
    ASSERT_EQ(store.change({"g", "a", "second"}), MD_RC_OK);
    if (changesAgain) {
      ASSERT_EQ(store.change({"g", "a", "third"}), MD_RC_OK);
    }
    ASSERT_EQ(store.remove("g", "a"), MD_RC_OK);
    ASSERT_EQ(store.add({"g", "c", "x"}), MD_RC_OK);
    ASSERT_EQ(store.remove("g", "c"), MD_RC_OK);
    EXPECT_EQ(store.get("g", "a", value), GENREG_RC_NOT_FOUND) << value.data;
    EXPECT_EQ(store.get("g", "b", value), MD_RC_OK);
    ASSERT_EQ(store.remove("g", "b"), MD_RC_OK);
    EXPECT_EQ(store.get("g", "a", value), GENREG_RC_NOT_FOUND) << value.data;
  }
}

// A chain that was just cut short, whose digest looks like that of another group.
TEST_P(EngineModel, DigestsOfSummariesThatLookAlike) {
  const SettingScope alike(digestsLookAlike, true);
  const TestFolder folder(inMemory());
  GetParam().prepare(folder.file());
  TestStore store(folder.path());
  for (int group = 0; group < 4; ++group) {
    ASSERT_EQ(store.add({"g" + std::to_string(group), "k", "x"}), MD_RC_OK);
  }
  for (int at = 0; at < 50; ++at) {
    const std::string number = std::to_string(at);
    ASSERT_EQ(store.change({"g1", "k", number}), MD_RC_OK);
    ASSERT_EQ(store.change({"g2", "k", number}), MD_RC_OK);
    // So many others that the slot has no room left for those groups.
    ASSERT_EQ(store.beginBatch(), MD_RC_OK);
    for (int other = 0; other < 26; ++other) {
      store.add({"o" + std::to_string(other), "k" + number, ""});
    }
    ASSERT_EQ(store.commitBatch(), MD_RC_OK);
    for (int group = 0; group < 4; ++group) {
      const std::string name = "g" + std::to_string(group);
      const auto listed = store.list(GROUP, {name, "", ""});
      ASSERT_EQ(listed.size(), 1u) << name << " after " << at;
      ASSERT_EQ(listed[0].group, name);
    }
  }
}

TEST_P(EngineModel, DigestsThatLookAlike) {
  const SettingScope alike(digestsLookAlike, true);
  run(GetParam(), 7, 4, 10, 1500, 0);
}

}  // namespace
}  // namespace zon::test
