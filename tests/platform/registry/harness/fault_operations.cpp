// The operations of fault_operations.h. Records that they are about: (g0, k0), which most files have, and (new, new).
#include "platform/registry/harness/fault_operations.h"

#include <algorithm>

#include "platform/registry/harness/allocation_faults.h"

namespace zon::test {
namespace {

using Bytes = std::vector<std::byte>;

constexpr int MANY = 60;            // two new heads each: more than a slot holds
constexpr int MOST_CALLS = 100000;  // more than any listing here needs

const Value NEW{"new", "new", std::string(300, 'n')};
const Value FIRST{"g0", "k0", ""};
const Value CHANGED{"g0", "k0", std::string(500, 'c')};
const Value RENAMED{"renamed", "renamed", "r"};
const Value ABSENT{"nobody", "nobody", ""};

struct Records {
  Bytes added;
  Bytes changed;
  Bytes renamed;
  Bytes first;
  Bytes absent;
  Bytes out;
  std::vector<Bytes> many;
};
Records records;

Value manyAt(int number) { return {"many" + std::to_string(number), "m" + std::to_string(number), "d"}; }

bool isFirst(const Value& value) { return value.group == FIRST.group && value.key == FIRST.key; }
Values::iterator firstIn(Values& values) { return std::find_if(values.begin(), values.end(), isFirst); }
bool has(const Values& values, const Value& wanted) {
  return std::any_of(values.begin(), values.end(),
                     [&](const Value& value) { return value.group == wanted.group && value.key == wanted.key; });
}

Told get(TestStore& store, Bytes& key) {
  Told told;
  std::fill(records.out.begin(), records.out.end(), std::byte{0});
  told.rc = store.Get(WHOLE_KEY, key.data(), records.out.data());
  const Unfailing scope;
  if (told.rc == MD_RC_OK) told.delivered.push_back(decode(records.out));
  return told;
}

// Goes on after a failure, as a careless caller would: a failed scan is over, and its close tells why.
Told scan(TestStore& store, unsigned long flags) {
  Told told;
  if ((told.rc = store.OpenScan()) != MD_RC_OK) return told;
  bool hasFailed = false;
  for (int call = 0; call < MOST_CALLS; ++call) {
    const std::uint32_t rc = store.GetNext(flags, records.first.data(), records.out.data());
    if (rc == GENREG_RC_END_OF_SCAN) break;
    const Unfailing scope;
    if (rc == MD_RC_OK) told.delivered.push_back(hasFailed ? Value{"after a failure", "", ""} : decode(records.out));
    hasFailed = hasFailed || rc != MD_RC_OK;
  }
  told.rc = store.CloseScan();
  if (hasFailed && told.rc == MD_RC_OK) told.rc = GENREG_RC_INTERNAL;
  return told;
}

Told status(TestStore& store) {
  Told told;
  GenRegStatus status{};
  told.rc = store.status(status);
  const Unfailing scope;
  if (told.rc == MD_RC_OK)
    told.delivered.push_back({std::to_string(status.records), std::to_string(status.recordBytes), ""});
  return told;
}

std::uint32_t batch(TestStore& store) {
  if (const std::uint32_t rc = store.beginBatch()) return rc;
  if (const std::uint32_t rc = store.Add(WHOLE_KEY, records.added.data())) return rc;
  const std::uint32_t rc = store.Delete(WHOLE_KEY, records.first.data());
  return rc == MD_RC_OK || rc == GENREG_RC_NOT_FOUND ? store.commitBatch() : rc;
}

std::uint32_t batchOfMany(TestStore& store) {
  if (const std::uint32_t rc = store.beginBatch()) return rc;
  for (Bytes& record : records.many) {
    if (const std::uint32_t rc = store.Add(WHOLE_KEY, record.data())) return rc;
  }
  return store.commitBatch();
}

Expected unchanged(const Values& before, std::uint32_t rc = MD_RC_OK) { return {rc, {before}, {}}; }

Expected expectAdd(const Values& before) {
  if (has(before, NEW)) return unchanged(before, GENREG_RC_DUPLICATE_KEY);
  Values after = before;
  after.push_back(NEW);
  return {MD_RC_OK, {before, after}, {}};
}

Expected expectChange(const Values& before, const Value& to) {
  Values after = before;
  const auto found = firstIn(after);
  if (found == after.end()) return unchanged(before, GENREG_RC_NOT_FOUND);
  if (*found == to) return unchanged(before, GENREG_RC_NO_CHANGE);
  *found = to;
  return {MD_RC_OK, {before, after}, {}};
}

Expected expectRemove(const Values& before, bool wholeGroup) {
  Values after = before;
  if (wholeGroup) {
    std::erase_if(after, [](const Value& value) { return value.group == FIRST.group; });
  } else if (const auto found = firstIn(after); found != after.end()) {
    after.erase(found);
  }
  if (after.size() == before.size()) return unchanged(before, GENREG_RC_NOT_FOUND);
  return {MD_RC_OK, {before, after}, {}};
}

Expected expectBatch(const Values& before) {
  Expected expected = expectAdd(before);
  if (expected.rc != MD_RC_OK) return expected;
  const Expected removal = expectRemove(expected.states.back(), false);
  if (removal.rc == MD_RC_OK) expected.states.push_back(removal.states.back());
  return expected;
}

Expected expectMany(const Values& before) {
  if (has(before, manyAt(0))) return unchanged(before, GENREG_RC_DUPLICATE_KEY);
  Expected expected{MD_RC_OK, {before}, {}};
  Values after = before;
  for (int number = 0; number < MANY; ++number) {
    after.push_back(manyAt(number));
    expected.states.push_back(after);
  }
  return expected;
}

Expected expectGet(const Values& before) {
  Values values = before;
  const auto found = firstIn(values);
  if (found == values.end()) return unchanged(before, GENREG_RC_NOT_FOUND);
  return {MD_RC_OK, {before}, {*found}};
}

Expected expectGroup(const Values& before) {
  Expected expected = unchanged(before);
  std::copy_if(before.begin(), before.end(), std::back_inserter(expected.delivered),
               [](const Value& value) { return value.group == FIRST.group; });
  return expected;
}

Expected expectStatus(const Values& before) {
  std::uint64_t bytes = 0;
  for (const Value& value : before) bytes += encode(value).size();
  return {MD_RC_OK, {before}, {{std::to_string(before.size()), std::to_string(bytes), ""}}};
}

// An operation that only answers a code.
std::function<Told(TestStore&)> plain(std::function<std::uint32_t(TestStore&)> work) {
  return [work = std::move(work)](TestStore& store) { return Told{work(store), {}}; };
}

std::uint32_t removeGroup(TestStore& store) {
  store.setFeature(GenRegBase::FEATURE_DELETE_ALL);
  return store.Delete(GROUP, records.first.data());
}

}  // namespace

void prepareOperations() {
  records.added = encode(NEW, true);
  records.changed = encode(CHANGED, true);
  records.renamed = encode(RENAMED, true);
  records.first = encode(FIRST, true);
  records.absent = encode(ABSENT, true);
  records.out = Bytes(records.first.size());
  records.many.clear();
  for (int number = 0; number < MANY; ++number) records.many.push_back(encode(manyAt(number), true));
}

const std::vector<Operation>& operations() {
  static const std::vector<Operation> ALL{
      {"add", plain([](TestStore& store) { return store.Add(WHOLE_KEY, records.added.data()); }), expectAdd},
      {"change",
       plain([](TestStore& store) { return store.Change(WHOLE_KEY, records.first.data(), records.changed.data()); }),
       [](const Values& before) { return expectChange(before, CHANGED); }},
      {"rename",
       plain([](TestStore& store) { return store.Change(WHOLE_KEY, records.first.data(), records.renamed.data()); }),
       [](const Values& before) { return expectChange(before, RENAMED); }},
      {"remove", plain([](TestStore& store) { return store.Delete(WHOLE_KEY, records.first.data()); }),
       [](const Values& before) { return expectRemove(before, false); }},
      {"remove group", plain(removeGroup), [](const Values& before) { return expectRemove(before, true); }},
      {"batch", plain(batch), expectBatch},
      {"batch of many", plain(batchOfMany), expectMany},
      {"get", [](TestStore& store) { return get(store, records.first); }, expectGet},
      {"get what is absent", [](TestStore& store) { return get(store, records.absent); },
       [](const Values& before) { return unchanged(before, GENREG_RC_NOT_FOUND); }},
      {"list", [](TestStore& store) { return scan(store, 0); },
       [](const Values& before) {
         return Expected{MD_RC_OK, {before}, before};
       }},
      {"list group", [](TestStore& store) { return scan(store, GROUP); }, expectGroup},
      {"compact", plain([](TestStore& store) { return store.compact(); }),
       [](const Values& before) { return unchanged(before); }},
      {"repair", plain([](TestStore& store) { return store.repair(); }),
       [](const Values& before) { return unchanged(before); }},
      {"status", status, expectStatus},
  };
  return ALL;
}

const Operation& operationNamed(const std::string& name) {
  return *std::find_if(operations().begin(), operations().end(),
                       [&](const Operation& operation) { return operation.name == name; });
}

const Value& addedRecord() { return NEW; }

const Value& bystander(const Values& values) {
  return *std::find_if(values.begin(), values.end(),
                       [](const Value& value) { return value.group == "g1" && value.key == "k1"; });
}

Told listAll(TestStore& store) { return scan(store, 0); }

}  // namespace zon::test
