// See random_history.h. Data never repeats, so that no change is without effect.
#include "evidence/random_history.h"

namespace zon::test {
namespace {

constexpr std::uint64_t GROUPS = 3;
constexpr std::uint64_t MOST_IN_BATCH = 7;

}  // namespace

std::string RandomHistory::newData() {
  // Mostly short: what is looked at in a file grows with its size.
  const std::size_t size = below(4) == 0 ? below(largest_) : below(largest_ / 8 + 1);
  return "d" + std::to_string(++texts_) + noise(size, static_cast<unsigned>(random_()));
}

Value RandomHistory::newRecord() {
  written_.push_back({"g" + std::to_string(below(GROUPS)), prefix_ + std::to_string(++names_), newData()});
  return written_.back();
}

Deed RandomHistory::next(const Values& now) {
  const std::uint64_t toss = now.empty() ? below(6) : below(26);
  if (toss < 6) return add(now);
  if (toss < 7) return addAgain(now);
  if (toss < 12) return change(now);
  if (toss < 15) return rename(now);
  if (toss < 18) return remove(now);
  if (toss < 20) return removeGroup(now);
  if (toss < 24) return batch(now);
  return compact(now);
}

Deed RandomHistory::add(const Values& now) {
  const Value value = newRecord();
  Values after = now;
  after.push_back(value);
  return {"add", [value](TestStore& store) { return store.add(value); }, {after}};
}

Deed RandomHistory::addAgain(const Values& now) {
  Value value = now[below(now.size())];
  value.data = newData();
  return {"add again", [value](TestStore& store) { return store.add(value); }, {now}, GENREG_RC_DUPLICATE_KEY};
}

Deed RandomHistory::change(const Values& now) {
  Values after = now;
  Value& value = after[below(now.size())];
  value.data = newData();
  written_.push_back(value);
  return {"change", [value](TestStore& store) { return store.change(value); }, {after}};
}

Deed RandomHistory::rename(const Values& now) {
  const std::size_t at = below(now.size());
  const Value from = now[at];
  const Value to = newRecord();
  Values after = now;
  after[at] = to;
  return {"rename", [from, to](TestStore& store) { return store.changeTo(from, to); }, {after}};
}

Deed RandomHistory::remove(const Values& now) {
  const std::size_t at = below(now.size());
  const Value value = now[at];
  Values after = now;
  after.erase(after.begin() + static_cast<std::ptrdiff_t>(at));
  return {"remove", [value](TestStore& store) { return store.remove(value.group, value.key); }, {after}};
}

Deed RandomHistory::removeGroup(const Values& now) {
  const std::string group = now[below(now.size())].group;
  Values after = now;
  std::erase_if(after, [&](const Value& value) { return value.group == group; });
  return {"remove group", [group](TestStore& store) { return store.removeAll(group, "", GROUP); }, {after}};
}

// Of a batch a crash may leave what was done first.
Deed RandomHistory::batch(const Values& now) {
  std::vector<std::function<std::uint32_t(TestStore&)>> works;
  std::vector<Values> after;
  Values values = now;
  for (std::uint64_t count = 2 + below(MOST_IN_BATCH - 1); count > 0; --count) {
    const std::uint64_t toss = values.empty() ? 0 : below(4);
    const Deed deed = toss < 2 ? add(values) : toss == 2 ? change(values) : remove(values);
    works.push_back(deed.work);
    after.push_back(deed.after.back());
    values = after.back();
  }
  const auto work = [works](TestStore& store) {
    if (const std::uint32_t rc = store.beginBatch()) return rc;
    for (const auto& part : works) {
      if (const std::uint32_t rc = part(store)) return rc;
    }
    return store.commitBatch();
  };
  return {"batch", work, after};
}

Deed RandomHistory::compact(const Values& now) {
  return {"compact", [](TestStore& store) { return store.compact(); }, {now}};
}

}  // namespace zon::test
