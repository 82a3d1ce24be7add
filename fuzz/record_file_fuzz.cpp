// A record file made by somebody else: reading it, and then writing to it, must never crash, hang, or answer with data
// that is not in it. The input is the whole file.
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "zonmdfile/MDCustomTree.h"
#include "zonmdfile/platform/admin.h"

namespace {

const std::filesystem::path& folder() {
  static const std::filesystem::path path = [] {
    std::string name = (std::filesystem::temp_directory_path() / "record_file_fuzz.XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) std::abort();
    setMetadataPath(name.c_str());
    return std::filesystem::path(name);
  }();
  return path;
}

void readEverything() {
  DString keys;
  DString data;
  DString versions;
  MDCustomTree().retrieveAll(keys, data, versions);
  DString key("key");
  MDCustomTree().retrieve(key, data, versions);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  std::filesystem::remove_all(folder());
  std::filesystem::create_directory(folder());
  std::ofstream(folder() / MDCustomTree::FILENAME, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(size));
  readEverything();
  DString key("key");
  DString data("data");
  MDCustomTree().insert(key, data, DString("1"));
  MDCustomTree().remove(key);
  readEverything();
  return 0;
}
