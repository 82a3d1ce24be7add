// The byte layouts of one-, two- and three-key records, told once for every reader and writer of them.
//
// The rule: these bytes are on disk. Every offset and size is pinned below; a change here is a new record type.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace zon {

inline constexpr std::size_t MAX_KEY_LENGTH = 128;  // bytes of text
inline constexpr std::size_t KEY_FIELD_SIZE = MAX_KEY_LENGTH + 1;
inline constexpr std::size_t MAX_DATA_LENGTH = 1'024'000;  // bytes of text
inline constexpr std::size_t TRAILER_SIZE = 4;             // zero bytes behind the data

// Which fields a comparison concerns. On disk as index flags.
inline constexpr unsigned long MATCH_ALL = 0;
inline constexpr unsigned long MATCH_GROUP_KEY = 2;
inline constexpr unsigned long MATCH_SUB_GROUP_KEY = 4;
inline constexpr unsigned long MATCH_KEY = 8;
inline constexpr unsigned long MATCH_DATA_SIZE = 16;
inline constexpr unsigned long MATCH_DATA = 32;
inline constexpr unsigned long MATCH_VERSION = 64;

// What the stores name when they fill records and gather lists.
enum class Field : std::uint8_t { GROUP_KEY, SUB_GROUP_KEY, KEY, DATA, VERSION };

// One key field: its name to us and to readers, the flag that selects it, and where it lies.
struct KeyField {
  Field field;
  const char* name;
  unsigned long flag;
  std::size_t offset;
};

// A layout names its header, its keys from the first, the flags of a whole key, and the sets of fields that its file is
// indexed by. The data follows the header; the trailer follows the data.
struct OneKeyLayout {
  struct Header {
    char key[KEY_FIELD_SIZE];
    char version[11];
    std::uint32_t dataSize;  // bytes of data, its closing NUL included
  };
  static constexpr std::array<KeyField, 1> KEYS{{{Field::KEY, "Key", MATCH_KEY, offsetof(Header, key)}}};
  static constexpr unsigned long WHOLE_KEY = MATCH_KEY;
  static constexpr std::array<std::uint8_t, 3> INDEX_FLAGS{MATCH_KEY, 0, 0};
};

struct TwoKeyLayout {
  struct Header {
    char groupKey[KEY_FIELD_SIZE];
    char key[KEY_FIELD_SIZE];
    char version[10];
    std::uint32_t dataSize;
  };
  static constexpr std::array<KeyField, 2> KEYS{
      {{Field::GROUP_KEY, "GroupKey", MATCH_GROUP_KEY, offsetof(Header, groupKey)},
       {Field::KEY, "Key", MATCH_KEY, offsetof(Header, key)}}};
  static constexpr unsigned long WHOLE_KEY = MATCH_GROUP_KEY | MATCH_KEY;
  static constexpr std::array<std::uint8_t, 3> INDEX_FLAGS{WHOLE_KEY, MATCH_GROUP_KEY, 0};
};

struct ThreeKeyLayout {
  struct Header {
    char groupKey[KEY_FIELD_SIZE];
    char subGroupKey[KEY_FIELD_SIZE];
    char key[KEY_FIELD_SIZE];
    char version[9];
    std::uint32_t dataSize;
  };
  static constexpr std::array<KeyField, 3> KEYS{
      {{Field::GROUP_KEY, "GroupKey", MATCH_GROUP_KEY, offsetof(Header, groupKey)},
       {Field::SUB_GROUP_KEY, "SubGroupKey", MATCH_SUB_GROUP_KEY, offsetof(Header, subGroupKey)},
       {Field::KEY, "Key", MATCH_KEY, offsetof(Header, key)}}};
  static constexpr unsigned long WHOLE_KEY = MATCH_GROUP_KEY | MATCH_SUB_GROUP_KEY | MATCH_KEY;
  static constexpr std::array<std::uint8_t, 3> INDEX_FLAGS{WHOLE_KEY, MATCH_GROUP_KEY, MATCH_SUB_GROUP_KEY | MATCH_KEY};
};

static_assert(offsetof(OneKeyLayout::Header, key) == 0);
static_assert(offsetof(OneKeyLayout::Header, version) == 129);
static_assert(offsetof(OneKeyLayout::Header, dataSize) == 140);
static_assert(sizeof(OneKeyLayout::Header) == 144);

static_assert(offsetof(TwoKeyLayout::Header, groupKey) == 0);
static_assert(offsetof(TwoKeyLayout::Header, key) == 129);
static_assert(offsetof(TwoKeyLayout::Header, version) == 258);
static_assert(offsetof(TwoKeyLayout::Header, dataSize) == 268);
static_assert(sizeof(TwoKeyLayout::Header) == 272);

static_assert(offsetof(ThreeKeyLayout::Header, groupKey) == 0);
static_assert(offsetof(ThreeKeyLayout::Header, subGroupKey) == 129);
static_assert(offsetof(ThreeKeyLayout::Header, key) == 258);
static_assert(offsetof(ThreeKeyLayout::Header, version) == 387);
static_assert(offsetof(ThreeKeyLayout::Header, dataSize) == 396);
static_assert(sizeof(ThreeKeyLayout::Header) == 400);

template <class Layout>
inline constexpr std::size_t DATA_OFFSET = sizeof(typename Layout::Header);
template <class Layout>
inline constexpr std::size_t FIXED_SIZE = DATA_OFFSET<Layout> + TRAILER_SIZE;
template <class Layout>
inline constexpr std::size_t MAX_RECORD_SIZE = FIXED_SIZE<Layout> + MAX_DATA_LENGTH;
template <class Layout>
inline constexpr std::size_t VERSION_FIELD_SIZE = sizeof(Layout::Header::version);

static_assert(MAX_RECORD_SIZE<OneKeyLayout> == 1'024'148);
static_assert(MAX_RECORD_SIZE<TwoKeyLayout> == 1'024'276);
static_assert(MAX_RECORD_SIZE<ThreeKeyLayout> == 1'024'404);

// Reads the fields of a record that lies anywhere in memory; texts end before their NUL and never beyond their field.
template <class Layout>
class RecordView {
  using Header = typename Layout::Header;

 public:
  explicit RecordView(const void* record) : bytes_(static_cast<const char*>(record)) {}

  std::string_view key(const KeyField& key) const { return text(key.offset, KEY_FIELD_SIZE); }
  std::string_view version() const { return text(offsetof(Header, version), VERSION_FIELD_SIZE<Layout>); }
  std::uint32_t dataSize() const {
    std::uint32_t size = 0;
    std::memcpy(&size, bytes_ + offsetof(Header, dataSize), sizeof size);
    return size;
  }
  // Up to its NUL, whatever the data size says. REQUIRES: a NUL in or behind the data, or room for a record of the
  // maximum size, where a text without one ends.
  std::string_view data() const { return text(DATA_OFFSET<Layout>, MAX_RECORD_SIZE<Layout> - DATA_OFFSET<Layout>); }

  std::string_view text(Field field) const {
    if (field == Field::DATA) return data().substr(0, dataSize());
    if (field == Field::VERSION) return version();
    for (const KeyField& key : Layout::KEYS) {
      if (key.field == field) return this->key(key);
    }
    return {};
  }

 private:
  std::string_view text(std::size_t offset, std::size_t size) const {
    return {bytes_ + offset, ::strnlen(bytes_ + offset, size)};
  }

  const char* bytes_;
};

}  // namespace zon
