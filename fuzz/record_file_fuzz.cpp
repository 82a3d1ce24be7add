// A record file and a backup made by somebody else: reading them, and then writing to them, must never crash, hang, or
// answer with data that is not in them; what a writer acknowledged is found. The input is the file, and behind it, if
// a trailer says so, the backup. Inputs are changed number by number, with checksums that are right again.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "platform/registry/harness/forged_file.h"
#include "support/temporary_folder.h"
#include "zonmdfile/MDCustomTree.h"
#include "zonmdfile/platform/admin.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t room);

namespace {

using zon::test::contentOf;
using zon::test::Dice;
using zon::test::FileBytes;
using zon::test::ForgedFile;
using zon::test::putContent;

constexpr std::size_t INDEXES = 1;
constexpr const char* KEY = "key";

const std::filesystem::path& folder() {
  static const zontest::TemporaryFolder made(zontest::inMemory());
  static const bool isSet = setMetadataPath(made.path().c_str()) == 0;
  if (!isSet) std::abort();
  return made.path();
}

std::filesystem::path filePath() { return folder() / MDCustomTree::FILENAME; }
std::filesystem::path backupPath() { return folder() / ("." + std::string(MDCustomTree::FILENAME) + ".bkp"); }

void makeFolder() {
  std::filesystem::remove_all(folder());
  std::filesystem::create_directory(folder());
}

// Ends an input that has a backup: so many of the bytes before it are the backup's.
struct Trailer {
  char mark[4] = {'B', 'K', 'U', 'P'};
  std::uint32_t backupSize = 0;
};

struct Input {
  FileBytes file;
  FileBytes backup;

  static Input from(const std::uint8_t* data, std::size_t size) {
    const auto* bytes = reinterpret_cast<const std::byte*>(data);
    Trailer trailer;
    Input input;
    if (size >= sizeof trailer && std::memcmp(data + size - sizeof trailer, trailer.mark, sizeof trailer.mark) == 0) {
      size -= sizeof trailer;
      std::memcpy(&trailer, data + size, sizeof trailer);
    }
    const std::size_t length = size - std::min<std::size_t>(trailer.backupSize, size);
    input.file.assign(bytes, bytes + length);
    input.backup.assign(bytes + length, bytes + size);
    return input;
  }

  // How much of the room was taken, 0 when it is too small.
  std::size_t to(std::uint8_t* data, std::size_t room) const {
    Trailer trailer;
    trailer.backupSize = static_cast<std::uint32_t>(backup.size());
    const std::size_t size = file.size() + backup.size();
    if (size + sizeof trailer > room) return 0;
    std::copy(file.begin(), file.end(), reinterpret_cast<std::byte*>(data));
    std::copy(backup.begin(), backup.end(), reinterpret_cast<std::byte*>(data) + file.size());
    std::memcpy(data + size, &trailer, sizeof trailer);
    return size + sizeof trailer;
  }
};

// A file with enough in it that blocks are in use and a backup is there.
const Input& original() {
  static const Input made = [] {
    makeFolder();
    DString data(std::string(90, 'x').c_str());
    for (int at = 0; at < 60; ++at) {
      DString key(("key" + std::to_string(at)).c_str());
      if (MDCustomTree().insert(key, data, DString("1")) != 0) std::abort();
    }
    for (int at = 0; at < 20; ++at) {
      DString key(("key" + std::to_string(at % 3)).c_str());
      DString changed(std::to_string(at).c_str());
      if (MDCustomTree().update(key, changed, DString("2")) != 0) std::abort();
    }
    return Input{.file = contentOf(filePath()), .backup = contentOf(backupPath())};
  }();
  return made;
}

// Whatever is answered: it must come to an end without an access that a sanitizer objects to.
void readEverything() {
  DString keys;
  DString data;
  DString versions;
  static_cast<void>(MDCustomTree().retrieveAll(keys, data, versions));
  for (const char* text : {KEY, "key0", "key7"}) {
    DString key(text);
    static_cast<void>(MDCustomTree().retrieve(key, data, versions));
  }
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t room, unsigned seed) {
  Dice dice(seed);
  if (dice.below(16) == 0) return LLVMFuzzerMutate(data, size, room);
  Input input = Input::from(data, size);
  if (input.file.size() < zon::format::LOG_START) input = original();
  FileBytes& changed = dice.below(4) == 0 && input.backup.size() > zon::format::LOG_START ? input.backup : input.file;
  ForgedFile forged(changed, INDEXES);
  for (std::uint64_t changes = 1 + dice.below(3); changes > 0; --changes) forged.mutate(dice);
  changed = forged.bytes();
  const std::size_t used = input.to(data, room);
  return used == 0 ? LLVMFuzzerMutate(data, size, room) : used;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const Input input = Input::from(bytes, size);
  makeFolder();
  putContent(filePath(), input.file);
  if (!input.backup.empty()) putContent(backupPath(), input.backup);
  readEverything();
  DString key(KEY);
  DString data("acknowledged");
  DString found;
  DString version;
  if (MDCustomTree().insert(key, data, DString("1")) == 0) {
    if (MDCustomTree().retrieve(key, found, version) != 0) std::abort();
    if (MDCustomTree().remove(key) != 0) std::abort();
  }
  readEverything();
  return 0;
}
