// The bases of fault_scenes.h: record files as different histories left them.
#include <algorithm>
#include <string>
#include <vector>

#include "platform/registry/harness/fault_scenes.h"

namespace zon::test {
namespace {

void addMany(TestStore& store, int count, std::size_t size) {
  ASSERT_EQ(store.beginBatch(), MD_RC_OK);
  for (int at = 0; at < count; ++at) {
    const Value value{"g" + std::to_string(at % 3), "k" + std::to_string(at), noise(size, static_cast<unsigned>(at))};
    ASSERT_EQ(store.add(value), MD_RC_OK);
  }
  ASSERT_EQ(store.commitBatch(), MD_RC_OK);
}

void addSingly(TestStore& store, int count, std::size_t size) {
  for (int at = 0; at < count; ++at) {
    const std::string number = std::to_string(at);
    ASSERT_EQ(store.add({"g" + number, "k" + number, noise(size, static_cast<unsigned>(at))}), MD_RC_OK);
  }
}

void churn(TestStore& store, int rounds) {
  for (int at = 0; at < rounds; ++at) {
    ASSERT_EQ(store.change({"g2", "k2", noise(7000, static_cast<unsigned>(at))}), MD_RC_OK);
  }
}

}  // namespace

const std::vector<Base>& bases() {
  static const std::vector<Base> ALL{
      {"no file", [](TestStore&) {}},
      {"small", [](TestStore& store) { addMany(store, 5, 40); }},
      {"overlay nearly full", [](TestStore& store) { addSingly(store, 20, 10); }},
      {"overlay just applied", [](TestStore& store) { addSingly(store, 21, 10); }},
      {"area nearly full",
       [](TestStore& store) {
         addMany(store, 380, 10);
         ASSERT_EQ(store.add({"g0", "s0", noise(10, 0)}), MD_RC_OK);
       },
       0.125},
      {"backup due", [](TestStore& store) { addMany(store, 10, 380); }},
      {"backup behind",
       [](TestStore& store) {
         addMany(store, 10, 600);
         for (unsigned at = 0; at < 3; ++at) {
           ASSERT_EQ(store.add({"big", std::to_string(at), noise(5200, at)}), MD_RC_OK);
         }
       }},
      {"compaction due",
       [](TestStore& store) {
         addMany(store, 5, 40);
         churn(store, 13);
       }},
      {"group with a history",
       [](TestStore& store) {
         addMany(store, 6, 40);
         for (unsigned at = 0; at < 40; ++at) {
           const std::string key = "t" + std::to_string(at % 2);
           if (at >= 2) {
             ASSERT_EQ(store.remove("g0", key), MD_RC_OK);
           }
           ASSERT_EQ(store.add({"g0", key, noise(20, at)}), MD_RC_OK);
         }
       }},
  };
  return ALL;
}

const Base& baseNamed(const std::string& name) {
  return *std::find_if(bases().begin(), bases().end(), [&](const Base& base) { return base.name == name; });
}

}  // namespace zon::test
