// Writes what the fuzzers of files begin with, below DIR in a folder of the fuzzer's name: files as this very version
// makes them, so that they pass every check there is and each change to one leads somewhere.
//
// Usage: ZON_TRACE=DIR/ring_fuzz/ring,values fuzz_seeds DIR       the ring is the trace of the program itself
//
// The rule: what a fuzzer once found is not made here but kept, in corpus/.
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>

#include "zonmdfile/MDCustomTree.h"
#include "zonmdfile/platform/admin.h"

namespace {

namespace fs = std::filesystem;

void require(bool holds, const char* what) {
  if (holds) return;
  std::cerr << "fuzz_seeds: " << what << '\n';
  std::exit(1);
}

void insert(MDCustomTree& store, const std::string& name, std::size_t dataSize) {
  DString key(name.c_str());
  DString data(std::string(dataSize, 'd').c_str());
  require(store.insert(key, data, DString("1")) == 0, "a record could not be inserted");
}

void remove(MDCustomTree& store, const std::string& name) {
  DString key(name.c_str());
  require(store.remove(key) == 0, "a record could not be removed");
}

// A record file with a history: "key" is the record that the fuzzer looks for.
void recordFile(const fs::path& folder, const char* name, const std::function<void(MDCustomTree&)>& history) {
  const fs::path site = folder / "site";
  fs::create_directories(site);
  require(setMetadataPath(site.c_str()) == 0, "the folder was refused");
  MDCustomTree store;
  history(store);
  fs::rename(site / MDCustomTree::FILENAME, folder / name);
  fs::remove_all(site);
}

void recordFiles(const fs::path& folder) {
  recordFile(folder, "one_record", [](MDCustomTree& store) { insert(store, "key", 5); });
  recordFile(folder, "removed", [](MDCustomTree& store) {
    insert(store, "key", 5);
    remove(store, "key");
  });
  recordFile(folder, "batch", [](MDCustomTree& store) {
    require(store.beginBatch() == 0, "no batch");
    for (int i = 0; i < 4; ++i) insert(store, "key" + std::to_string(i), 20);
    require(store.commitBatch() == 0, "no commit");
  });
  // More keys than the slot's overlay holds, so that there are index blocks.
  recordFile(folder, "indexed", [](MDCustomTree& store) {
    insert(store, "key", 5);
    for (int i = 0; i < 60; ++i) insert(store, "k" + std::to_string(i), 1);
    for (int i = 0; i < 60; i += 7) remove(store, "k" + std::to_string(i));
  });
  recordFile(folder, "compacted", [](MDCustomTree& store) {
    for (int i = 0; i < 20; ++i) insert(store, "k" + std::to_string(i), 30);
    insert(store, "key", 5);
    for (int i = 0; i < 20; i += 2) remove(store, "k" + std::to_string(i));
    require(store.compact() == 0, "no compaction");
  });
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: fuzz_seeds DIR\n";
    return 2;
  }
  recordFiles(fs::path(argv[1]) / "record_file_fuzz");
  return 0;
}
