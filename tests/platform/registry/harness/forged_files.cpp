// How a forged file is met: one operation after the other, each within bounds.
#include "platform/registry/harness/forged_files.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <set>
#include <utility>

#include "platform/registry/files/system_calls.h"
#include "platform/registry/harness/bounded_child.h"

namespace zon::test {
namespace {

constexpr std::uint64_t MEMORY_SLACK = std::uint64_t{8} << 20;
constexpr std::uint64_t OF_THE_TEST = 4;  // buffers as long as the longest record

// One operation after the other, each on the forged file as it was.
class Meeting {
 public:
  Meeting(const ForgedCase& forged, const TestFolder& folder, std::function<void()> put)
      : forged_(forged), folder_(folder), put_(std::move(put)) {}

  std::string run() {
    if (!forged_.tellsHoles) {
      systemCalls.seek = [](int, off_t, int) -> off_t {
        errno = EINVAL;
        return -1;
      };
    }
    put_();
    read();
    change();
    repair();
    return complaint_;
  }

 private:
  using Operation = std::function<std::uint32_t(TestStore&)>;

  void complain(const std::string& what) {
    if (complaint_.size() < 1000) complaint_ += "  " + operation_ + ": " + what + '\n';
  }

  std::uint64_t used() const { return forged_.file.size() + forged_.backup.size(); }

  // No code of our own mistakes, no memory that ran out; the cost within the bounds.
  std::uint32_t cost(const std::string& name, TestStore& store, const Operation& operation) {
    operation_ = name;
    CallCounter::reset();
    const std::uint32_t rc = operation(store);
    const Bounds spent = CallCounter::counted();
    if (rc == GENREG_RC_INTERNAL || rc == GENREG_RC_NO_MEMORY || rc == GENREG_RC_DURABILITY_UNKNOWN ||
        rc == GENREG_RC_FILE_TOO_LARGE || rc == GENREG_RC_NO_SPACE) {
      complain("answered " + std::to_string(rc));
    }
    const std::uint64_t mostRead = forged_.mostRead != 0 ? forged_.mostRead : 64 * used() + (1 << 20);
    if (spent.bytesRead > mostRead) complain("read " + std::to_string(spent.bytesRead) + " bytes");
    if (spent.bytesWritten > 12 * used() + (1 << 20)) {
      complain("wrote " + std::to_string(spent.bytesWritten) + " bytes");
    }
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
      const bool isForged = forged_.size != 0 && (entry.path() == folder_.file() || entry.path().extension() == ".cor");
      if (!isForged && entry.file_size() > 2 * used() + (1 << 17)) {
        complain(entry.path().filename().string() + " has " + std::to_string(entry.file_size()) + " bytes");
      }
    }
    return rc;
  }

  void expectKnown(const Value& value) {
    if (forged_.history == nullptr || value == PROBE) return;
    const Values& known = *forged_.history;
    if (std::find(known.begin(), known.end(), value) == known.end()) complain("invented a record");
  }

  void read() {
    TestStore store(folder_.path());
    std::vector<Value> keys{{"none", "none", ""}, forged_.wanted};
    if (forged_.history != nullptr) {
      std::set<std::pair<std::string, std::string>> names;
      for (const Value& value : *forged_.history) names.emplace(value.group, value.key);
      for (const auto& [group, key] : names) keys.push_back({group, key, ""});
    }
    for (const Value& key : keys) {
      Value value;
      const std::uint32_t rc =
          cost("get", store, [&](TestStore& asked) { return asked.get(key.group, key.key, value); });
      if (rc != MD_RC_OK) continue;
      if (value.group != key.group || value.key != key.key) complain("answered another record");
      expectKnown(value);
    }
    for (const unsigned long flags : {0ul, GROUP, DATA}) {
      cost("list by " + std::to_string(flags), store, [&](TestStore& asked) { return list(asked, flags); });
    }
    GenRegStatus status;
    cost("status", store, [&](TestStore& asked) { return asked.status(status); });
  }

  // Keeps none of what is listed: the bound on memory is for the engine.
  std::uint32_t list(TestStore& store, unsigned long flags) {
    std::uint32_t rc = store.OpenScan();
    if (rc != MD_RC_OK) return rc;
    const auto match = encode({"g1", "", "x"}, true);
    std::vector<std::byte> out(match.size());
    while ((rc = store.GetNext(flags, const_cast<std::byte*>(match.data()), out.data())) == MD_RC_OK) {
      if (forged_.history != nullptr) expectKnown(decode(out));
    }
    const std::uint32_t closed = store.CloseScan();
    return rc == GENREG_RC_END_OF_SCAN ? closed : rc;
  }

  void change() {
    const std::string key = forged_.wanted.key;
    const std::string group = forged_.wanted.group;
    const Operation changes[] = {
        [](TestStore& store) { return store.add(PROBE); },
        [&](TestStore& store) {
          return store.change({group, key, "changed"});
        },
        [&](TestStore& store) {
          return store.changeTo({group, key, ""}, {"g9", "renamed", "changed"});
        },
        [&](TestStore& store) { return store.remove(group, key); },
        [&](TestStore& store) { return store.removeAll(group, "", GROUP); },
        [](TestStore& store) { return store.compact(); },
    };
    const char* const names[] = {"add", "change", "rename", "remove", "remove a group", "compact"};
    for (std::size_t at = 0; at < std::size(changes); ++at) {
      if (at > 0) put_();
      TestStore store(folder_.path());
      const std::uint32_t rc = cost(names[at], store, changes[at]);
      if (at == 0 && rc != MD_RC_OK && !isRefused(rc)) complain("answered " + std::to_string(rc));
      if (rc == MD_RC_OK) expectToWork(store, at == 0);
    }
  }

  void repair() {
    put_();
    TestStore store(folder_.path());
    const std::uint32_t rc = cost("repair", store, [](TestStore& damaged) { return damaged.repair(); });
    if (rc != MD_RC_OK) {
      if (!isRefused(rc)) complain("answered " + std::to_string(rc));
      return;
    }
    expectToWork(store, false);
    GenRegStatus status;
    if (store.status(status) != MD_RC_OK || status.damaged != 0) complain("left damage");
  }

  static bool isRefused(std::uint32_t rc) {
    return rc == GENREG_RC_NEWER_FORMAT || rc == GENREG_RC_WRONG_RECORD_TYPE || rc == GENREG_RC_NOT_RECORD_FILE;
  }

  // What a writer acknowledged is found, and so is what is added until the index blocks have to take it.
  void expectToWork(TestStore& store, bool hasProbe) {
    operation_ += ", then";
    Value found;
    if (hasProbe && (store.get(PROBE.group, PROBE.key, found) != MD_RC_OK || !(found == PROBE))) {
      return complain("lost what it acknowledged");
    }
    if (!hasProbe && store.add(PROBE) != MD_RC_OK) return complain("refused a record");
    Values more;
    for (int at = 0; at < 30; ++at) more.push_back({"more", "m" + std::to_string(at), "x"});
    if (!addAtOnce(store, more)) {
      // A batch refuses what it meets half way; each alone is taken, after a repair if need be.
      for (const Value& value : more) {
        const std::uint32_t rc = store.add(value);
        if (rc != MD_RC_OK && rc != GENREG_RC_DUPLICATE_KEY)
          return complain("refused " + value.key + " with " + std::to_string(rc));
      }
    }
    more.push_back(PROBE);
    for (const Value& value : more) {
      if (store.get(value.group, value.key, found) != MD_RC_OK || !(found == value)) {
        return complain("lost " + value.key);
      }
    }
    std::uint32_t rc = MD_RC_OK;
    if (store.list(GROUP, {"more", "", ""}, &rc).size() != 30 || rc != MD_RC_OK) return complain("lists too little");
    if (store.remove(PROBE.group, PROBE.key) != MD_RC_OK) complain("does not remove");
    if (store.get(PROBE.group, PROBE.key, found) != GENREG_RC_NOT_FOUND) complain("has what was removed");
  }

  bool addAtOnce(TestStore& store, const Values& values) {
    std::uint32_t rc = store.beginBatch();
    if (rc != MD_RC_OK) complain("refused a batch");
    for (const Value& value : values) rc = rc == MD_RC_OK ? store.add(value) : rc;
    const std::uint32_t committed = store.commitBatch();
    if (rc == MD_RC_OK) rc = committed;
    if (rc != MD_RC_OK && rc != GENREG_RC_DAMAGED) complain("refused a batch with " + std::to_string(rc));
    return rc == MD_RC_OK;
  }

  const ForgedCase& forged_;
  const TestFolder& folder_;
  std::function<void()> put_;
  std::string operation_;
  std::string complaint_;
};

}  // namespace

ssize_t evenRandom(void* data, std::size_t size, unsigned) {
  static Dice dice(1);
  for (std::size_t at = 0; at < size; ++at)
    static_cast<unsigned char*>(data)[at] = static_cast<unsigned char>(dice.next());
  return static_cast<ssize_t>(size);
}

void ForgedFiles::put(const ForgedCase& forged) const {
  for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) std::filesystem::remove(entry.path());
  putContent(folder_.file(), forged.file);
  if (!forged.backup.empty()) putContent(folder_.backup(), forged.backup);
  if (forged.size > forged.file.size()) std::filesystem::resize_file(folder_.file(), forged.size);
}

std::string ForgedFiles::meet(const ForgedCase& forged) const {
  const std::uint64_t memory =
      forged.file.size() + forged.backup.size() + MEMORY_SLACK + 2 * largestData + OF_THE_TEST * largestData;
  return runBounded(memory, [&] { return Meeting(forged, folder_, [&] { put(forged); }).run(); });
}

}  // namespace zon::test
