// MetadataTest: a test with a metadata directory of its own.
//
// The rule: a test leaves nothing behind, no file and no setting of the process.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <typeinfo>

#include "support/temporary_folder.h"
#include "zonmdfile/platform/DString.h"
#include "zonmdfile/platform/admin.h"
#include "zonmdfile/platform/oss.h"

namespace zontest {

// Done with each new metadata directory; a program whose stores another engine serves puts its stubs there.
inline void (*prepareMetadataDirectory)(const std::filesystem::path& directory) = nullptr;

// While it lives, it is the metadata directory of the process.
class MetadataDirectory : public TemporaryFolder {
 public:
  explicit MetadataDirectory(const std::filesystem::path& parent = std::filesystem::temp_directory_path())
      : TemporaryFolder(parent) {
    setMetadataPath(path().c_str());
    if (prepareMetadataDirectory != nullptr) prepareMetadataDirectory(path());
  }
  ~MetadataDirectory() { setMetadataPath(nullptr); }
  MetadataDirectory(const MetadataDirectory&) = delete;
  MetadataDirectory& operator=(const MetadataDirectory&) = delete;
};

class MetadataTest : public testing::Test {
 protected:
  // Makes every operation on the store fail: a directory stands where its file should be.
  void blockFile(const char* fileName) {
    std::filesystem::remove(directory_ / fileName);
    std::filesystem::create_directory(directory_ / fileName);
  }

  // No file was made or taken away.
  bool isUntouched() const { return namesIn(directory_.path()) == namesAtFirst_; }

  std::string bytesOf(const char* fileName) const {
    std::ifstream file(directory_ / fileName, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  MetadataDirectory directory_;

 private:
  static std::set<std::filesystem::path> namesIn(const std::filesystem::path& directory) {
    std::set<std::filesystem::path> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) names.insert(entry.path().filename());
    return names;
  }

  const std::set<std::filesystem::path> namesAtFirst_ = namesIn(directory_.path());
};

// What a store labels its allocations with: the name of its class.
template <class Store>
const char* labelOf() {
  // The mangled name of a class outside all namespaces: its length, then its text.
  const char* name = typeid(Store).name();
  while (*name >= '0' && *name <= '9') ++name;
  return name;
}

// What a test writes as red|green| is the list of red and green.
inline std::string listOf(std::string text) {
  for (char& byte : text) {
    if (byte == '|') byte = 0x0E;
  }
  return text;
}

// What a test writes as ops/2 are the contact fields ops and 2.
inline std::string fieldsOf(std::string text) {
  for (char& byte : text) {
    if (byte == '/') byte = 0x0F;
  }
  return text;
}

inline std::string textOf(const DString& text) { return {text.c_str(), text.length()}; }

// A DString of its own for each use: store operations take their arguments by reference.
class Text {
 public:
  Text(const char* text) : text_(text) {}
  Text(const std::string& text) : text_(text.data(), text.size()) {}
  operator DString&() { return text_; }

 private:
  DString text_;
};

// Buffers that a label has outstanding since the account was opened.
class MemoryAccount {
 public:
  explicit MemoryAccount(const char* label) : label_(label) {}
  std::uint64_t buffers() const { return ossMemOutstanding(label_) - buffers_; }
  std::uint64_t bytes() const { return ossMemOutstandingBytes(label_) - bytes_; }

 private:
  const char* label_;
  std::uint64_t buffers_ = ossMemOutstanding(label_);
  std::uint64_t bytes_ = ossMemOutstandingBytes(label_);
};

// Faults of the memory service end with the scope.
class MemoryFault {
 public:
  explicit MemoryFault(std::uint64_t n) { ossMemFailAt(n, 0); }
  ~MemoryFault() { ossMemFailAt(0, 0); }
  MemoryFault(const MemoryFault&) = delete;
  MemoryFault& operator=(const MemoryFault&) = delete;
};

}  // namespace zontest
