// The two halves of a test on a real file system that is cut off under load (real_disk.py): a writer who does the deeds
// of a random history and writes one byte for each that was acknowledged; and a checker who goes through the same
// history and holds what the file system kept against it.
//
//   real_disk_worker write FOLDER SEED STATE ACKNOWLEDGED
//   real_disk_worker check FOLDER SEED STATE ACKNOWLEDGED
//
// STATE holds the records from which the history goes on. The checker writes there what it has found.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "evidence/random_history.h"

namespace zon::test {
namespace {

constexpr std::size_t LARGEST = 6000;
constexpr std::uint32_t NO_WAIT_MS = 0;

struct Task {
  std::filesystem::path folder;
  std::uint64_t seed;
  std::string state;
  std::string acknowledged;
};

Values load(const std::string& path) {
  Values values;
  std::ifstream file(path);
  for (Value value; file >> value.group >> value.key >> value.data;) values.push_back(value);
  return values;
}

void save(const std::string& path, const Values& values) {
  std::ofstream file(path, std::ios::trunc);
  for (const Value& value : values) file << value.group << ' ' << value.key << ' ' << value.data << '\n';
}

RandomHistory historyOf(const Task& task) { return {task.seed, LARGEST, "s" + std::to_string(task.seed) + "k"}; }

// Until a deed fails, as all do once the file system is cut off, or until it is killed.
int writeOn(const Task& task) {
  const int told = open(task.acknowledged.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (told < 0) return 1;
  Values now = load(task.state);
  RandomHistory history = historyOf(task);
  TestStore store(task.folder);
  for (;;) {
    const Deed deed = history.next(now);
    if (deed.work(store) != deed.expected) return 0;
    if (write(told, "A", 1) != 1) return 1;
    now = deed.after.back();
  }
}

int complain(const std::string& what) {
  std::cout << what << '\n';
  return 1;
}

int check(const Task& task) {
  const std::uint64_t acknowledged = std::filesystem::file_size(task.acknowledged);
  RandomHistory history = historyOf(task);
  std::vector<Values> allowed{load(task.state)};
  for (std::uint64_t number = 0; number < acknowledged; ++number) allowed = {history.next(allowed.back()).after.back()};
  const Deed underWay = history.next(allowed.back());
  allowed.insert(allowed.end(), underWay.after.begin(), underWay.after.end());

  TestStore store(task.folder);
  store.setLockWait(NO_WAIT_MS);
  std::uint32_t rc = MD_RC_OK;
  const Values found = store.list(0, {}, &rc);
  if (rc != MD_RC_OK) return complain("the listing answers " + std::to_string(rc & 0xFFF));
  if (std::find(allowed.begin(), allowed.end(), found) == allowed.end()) {
    return complain("after " + std::to_string(acknowledged) + " acknowledged deeds there are " +
                    std::to_string(found.size()) + " records, not those " + std::to_string(allowed.front().size()));
  }
  const Value probe{"probe", "probe", "p"};
  if ((rc = store.add(probe)) != MD_RC_OK) return complain("the next writer answers " + std::to_string(rc & 0xFFF));
  if ((rc = store.remove("probe", "probe")) != MD_RC_OK)
    return complain("its removal answers " + std::to_string(rc & 0xFFF));
  if (store.list() != found) return complain("the next writer changes other records");
  GenRegStatus status{};
  if (store.status(status) != MD_RC_OK || status.damaged != 0 || status.repairs != 0)
    return complain("there is damage");
  save(task.state, found);
  return 0;
}

}  // namespace
}  // namespace zon::test

int main(int count, char** arguments) {
  const std::vector<std::string> told(arguments + 1, arguments + count);
  if (told.size() != 5 || (told[0] != "write" && told[0] != "check")) {
    std::cerr << "usage: real_disk_worker write|check FOLDER SEED STATE ACKNOWLEDGED\n";
    return 2;
  }
  const zon::test::Task task{told[1], std::stoull(told[2]), told[3], told[4]};
  return told[0] == "write" ? zon::test::writeOn(task) : zon::test::check(task);
}
