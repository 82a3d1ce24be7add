// A site of one store, and the files that it has after something has happened to it: nothing, a power cut, a writer's
// death, damage that the backup mends, damage that nothing mends.
//
// The rule: a site is made once, by the store's own calls; a test puts copies of its files into the folder that is set.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace zontest {

using Files = std::map<std::string, std::string>;
using Records = std::set<std::string>;

// The records of a store beside the few that the entry points name.
inline constexpr int FILLERS = 60;
inline constexpr int GROUPS = 6;

// The entry points of one class, which share a file.
struct StoreOfSite {
  const char* prefix;
  const char* fileName;
  std::function<void()> fill;
  std::function<Records()> records;
  // One record more, as one commit; by its entry point where there is none.
  std::function<void()> insertOne{};
};

const std::vector<StoreOfSite>& storesOfSites();
// The store that no entry point reaches.
const StoreOfSite& cloningMappings();

enum class Scene { NOTHING, POWER_CUT, DEAD_WRITER, DAMAGE, DAMAGE_TWICE };
const char* nameOfScene(Scene scene);

// Makes the folder hold these files and no other.
void writeFiles(const std::filesystem::path& folder, const Files& files);

class Site {
 public:
  explicit Site(const StoreOfSite& store);

  const Files& files(Scene scene) const { return scenes_.at(scene); }
  // Those in the folder that is set.
  Records records() const;

 private:
  bool withdrawsFromGroups() const;
  void insertOneMore() const;

  const StoreOfSite& store_;
  std::map<Scene, Files> scenes_;
};

}  // namespace zontest
