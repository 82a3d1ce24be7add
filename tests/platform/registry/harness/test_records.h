// A record type for the engine's tests, with a group and a key, and a folder of its own for every test.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/spoil.h"
#include "support/temporary_folder.h"
#include "zonmdfile/platform/GenRegBin.h"
#include "zonmdfile/platform/return_codes.h"

namespace zon::test {

constexpr unsigned long GROUP = 2;
constexpr unsigned long KEY = 8;
constexpr unsigned long DATA = 32;
constexpr unsigned long WHOLE_KEY = GROUP | KEY;
constexpr std::size_t MAX_DATA = 1 << 20;

// What a test may set about its records: everybody reads it, a SettingScope alone changes it.
template <class T>
class Setting {
 public:
  constexpr explicit Setting(T value) : value_(value) {}
  Setting(const Setting&) = delete;
  Setting& operator=(const Setting&) = delete;
  operator T() const { return value_; }

 private:
  template <class>
  friend class SettingScope;
  T value_;
};

// Gives a setting another value as long as the object is there, however the test ends.
template <class T>
class [[nodiscard]] SettingScope {
 public:
  SettingScope(Setting<T>& setting, std::type_identity_t<T> value)
      : setting_(setting), before_(std::exchange(setting.value_, value)) {}
  ~SettingScope() { setting_.value_ = before_; }
  SettingScope(const SettingScope&) = delete;
  SettingScope& operator=(const SettingScope&) = delete;

 private:
  Setting<T>& setting_;
  const T before_;
};

// What the record type gives as its largest data; smaller for speed.
inline Setting<std::size_t> largestData{MAX_DATA};
// Every digest meets every other.
inline Setting<bool> digestsCollide{false};
// All digests look alike to the index: it sees of a digest the upper 22 bits and the lower 32.
inline Setting<bool> digestsLookAlike{false};

// As it lies in memory and in the file: fixed fields, then the data with its closing NUL and four zero bytes.
struct TestRecord {
  char group[32];
  char key[32];
  std::uint32_t dataSize;
  char data[1];
};
constexpr std::size_t FIXED_SIZE = offsetof(TestRecord, data);

struct Value {
  std::string group;
  std::string key;
  std::string data;
  bool operator==(const Value&) const = default;
};

using Values = std::vector<Value>;

inline void PrintTo(const Value& value, std::ostream* out) {
  *out << '(' << value.group << ", " << value.key << ", " << value.data.substr(0, 20) << "... " << value.data.size()
       << ')';
}

inline int matchRecord(unsigned long flags, void* record, void* other) {
  const auto* a = static_cast<const TestRecord*>(record);
  const auto* b = static_cast<const TestRecord*>(other);
  if ((flags & GROUP) != 0 && std::strcmp(a->group, b->group) != 0) return 0;
  if ((flags & KEY) != 0 && std::strcmp(a->key, b->key) != 0) return 0;
  if ((flags & DATA) != 0 && std::strcmp(a->data, b->data) != 0) return 0;
  return 1;
}
inline int validateRecord(unsigned long, void* record) {
  return std::strcmp(static_cast<const TestRecord*>(record)->key, "refuse me") == 0 ? 1 : 0;
}
inline int printRecord(void*) { return 0; }
inline int recordSize(void* record, unsigned long* size) {
  *size = FIXED_SIZE + static_cast<const TestRecord*>(record)->dataSize + 4;
  return 0;
}
inline int maxRecordSize(unsigned long* size) {
  *size = FIXED_SIZE + largestData + 4;
  return 0;
}

// FNV-1a with a final mix.
inline std::uint64_t digestRecord(unsigned long flags, const void* record, std::uint64_t seed) {
  const auto* fields = static_cast<const TestRecord*>(record);
  if (digestsCollide) return flags;
  std::uint64_t hash = seed ^ 0xCBF29CE484222325u;
  const auto take = [&hash](const char* text) {
    for (; *text != '\0'; ++text) hash = (hash ^ static_cast<unsigned char>(*text)) * 0x100000001B3u;
    hash = (hash ^ 0xFF) * 0x100000001B3u;
  };
  if ((flags & GROUP) != 0) take(fields->group);
  if ((flags & KEY) != 0) take(fields->key);
  hash ^= hash >> 32;
  hash *= 0xD6E8FEB86659FD93u;
  hash ^= hash >> 32;
  return digestsLookAlike ? hash & std::uint64_t{0x3FF} << 32 : hash;
}

// The bytes of a record, zero-filled up to the largest size when `full`.
inline std::vector<std::byte> encode(const Value& value, bool full = false) {
  const std::size_t size = FIXED_SIZE + value.data.size() + 1 + 4;
  std::vector<std::byte> bytes(full ? FIXED_SIZE + largestData + 16 : size);
  auto* record = reinterpret_cast<TestRecord*>(bytes.data());
  std::memcpy(record->group, value.group.data(), value.group.size());
  std::memcpy(record->key, value.key.data(), value.key.size());
  record->dataSize = static_cast<std::uint32_t>(value.data.size() + 1);
  std::memcpy(bytes.data() + FIXED_SIZE, value.data.data(), value.data.size());
  return bytes;
}

inline Value decode(const std::vector<std::byte>& bytes) {
  const auto* record = reinterpret_cast<const TestRecord*>(bytes.data());
  return Value{record->group, record->key,
               std::string(reinterpret_cast<const char*>(bytes.data()) + FIXED_SIZE, record->dataSize - 1)};
}

class TestStore : public GenRegBin {
 public:
  explicit TestStore(const std::filesystem::path& folder, bool grouped = true, const std::string& name = "store") {
    callbacks_ = {matchRecord, validateRecord, printRecord, recordSize, maxRecordSize, digestRecord};
    indexFlags_[0] = grouped ? WHOLE_KEY : KEY;
    indexFlags_[1] = grouped ? GROUP : 0;
    const std::string file = folder / name;
    const std::string hidden = folder / ("." + name);
    const std::string temporary = file + ".tmp";
    const std::string corruptCopy = file + ".cor";
    const std::string lock = hidden + ".lock";
    const std::string backup = hidden + ".bkp";
    setFileNames({.file = file, .temporary = temporary, .corruptCopy = corruptCopy, .lock = lock, .backup = backup});
    options_ |= OPTION_DURABLE;
    setFeature(FEATURE_REPAIR);
    setFeature(FEATURE_BACKUP);
  }

  std::uint32_t add(const Value& value, unsigned long flags = WHOLE_KEY) {
    auto record = encode(value);
    return Add(flags, record.data());
  }
  std::uint32_t change(const Value& value, unsigned long flags = WHOLE_KEY) {
    auto key = encode(value, true);
    auto record = encode(value);
    return Change(flags, key.data(), record.data());
  }
  std::uint32_t changeTo(const Value& from, const Value& to, unsigned long flags = WHOLE_KEY) {
    auto key = encode(from, true);
    auto record = encode(to);
    return Change(flags, key.data(), record.data());
  }
  std::uint32_t remove(const std::string& group, const std::string& key, unsigned long flags = WHOLE_KEY) {
    auto match = encode({group, key, ""}, true);
    return Delete(flags, match.data());
  }
  std::uint32_t removeAll(const std::string& group, const std::string& key, unsigned long flags) {
    setFeature(FEATURE_DELETE_ALL);
    const std::uint32_t rc = remove(group, key, flags);
    unsetFeature(FEATURE_DELETE_ALL);
    return rc;
  }
  std::uint32_t get(const std::string& group, const std::string& key, Value& value, unsigned long flags = WHOLE_KEY,
                    const std::string& data = "") {
    auto match = encode({group, key, data}, true);
    std::vector<std::byte> out(match.size());
    const std::uint32_t rc = Get(flags, match.data(), out.data());
    if (rc == MD_RC_OK) value = decode(out);
    return rc;
  }

  // All records that match, in scan order; rc is the scan's.
  Values list(unsigned long flags = 0, const Value& match = {}, std::uint32_t* result = nullptr) {
    Values values;
    std::uint32_t rc = OpenScan();
    if (rc == MD_RC_OK) {
      auto key = encode(match, true);
      std::vector<std::byte> out(key.size());
      while ((rc = GetNext(flags, key.data(), out.data())) == MD_RC_OK) values.push_back(decode(out));
      const std::uint32_t closed = CloseScan();
      rc = rc == GENREG_RC_END_OF_SCAN ? closed : rc;
    }
    if (result != nullptr) *result = rc;
    return values;
  }
};

// Letters without a pattern, the same for the same seed.
inline std::string noise(std::size_t size, unsigned seed) {
  std::string out(size, ' ');
  for (char& letter : out) {
    seed = seed * 1103515245 + 12345;
    letter = static_cast<char>('a' + (seed >> 16) % 26);
  }
  return out;
}

inline std::string numbered(const char* prefix, int number) { return prefix + std::to_string(number); }

using zontest::inMemory;
using zontest::spoilByte;
using zontest::spoilByteOfFile;

class TestFolder : public zontest::TemporaryFolder {
 public:
  using TemporaryFolder::TemporaryFolder;

  std::filesystem::path file() const { return path() / "store"; }
  std::filesystem::path backup() const { return path() / ".store.bkp"; }
};

// A test with a folder and a store in it.
class EngineTest : public ::testing::Test {
 protected:
  TestFolder folder_;
  TestStore store_{folder_.path()};
};

}  // namespace zon::test
