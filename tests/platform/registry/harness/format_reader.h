// A reader of record files that was written from docs/file-format.md. The rule: it follows the document alone and calls
// nothing of the engine; what it needs beyond the document is missing there. Names are the document's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace zontest::format_document {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint64_t LOG_START = 8192;

enum Kind : std::uint8_t { INSERT = 1, CHANGE = 2, REMOVE = 3, AREA = 4, SUMMARY = 5 };

// What a file has that cannot be read as the document tells.
[[noreturn]] void refuse(const std::string& why);

// One of the document's record layouts.
struct Layout {
  std::vector<std::pair<unsigned, std::size_t>> keys;  // match flag and offset of each key field, in order
  std::size_t versionOffset;
  std::size_t dataSizeOffset;
  std::size_t dataOffset;
  std::vector<unsigned> indexes;  // match flags of each index
};

extern const Layout ONE_KEY;
extern const Layout TWO_KEYS;
extern const Layout THREE_KEYS;

std::string keyOf(const Bytes& record, std::size_t offset);

struct Frame {
  std::uint64_t offset;
  std::uint64_t end;
  std::uint64_t payload;  // where it begins
  std::uint32_t crc;
  Kind kind;
  bool last;
  std::uint64_t place;
  std::vector<std::uint64_t> previous;  // for each index
  std::uint64_t below;
  std::vector<std::uint32_t> events;  // for each index but the first
  std::vector<std::uint32_t> live;
  std::uint64_t blocksOffset;
  std::uint64_t blockCount;
  std::uint64_t digest;
  std::uint32_t index;
  std::uint32_t count;

  bool isEvent() const { return kind <= REMOVE; }
};

// What a test wants to have met before it believes that it tested something.
struct Met {
  std::set<Kind> kinds;
  bool overlay = false;
  bool block = false;
  bool olderSegment = false;
  bool overflow = false;
  bool falseEntry = false;
  bool summaryEndedWalk = false;
  bool rolledForward = false;
};

class Reader {
 public:
  Reader(Bytes file, const Layout& layout, const Bytes& bootId, Met& met);

  std::uint64_t records() const { return records_; }
  std::uint64_t end() const { return end_; }
  bool isUnique() const { return isUnique_; }

  // All live records in scan order, by one pass over the log.
  std::vector<Bytes> list() const;

  // The live records, in scan order, whose fields of an index are those of `match`.
  std::vector<Bytes> find(std::size_t index, const Bytes& match) const;

  // The one record with the whole key of `match`, found over the shorter way of the `below` links.
  std::optional<Bytes> findWholeKey(const Bytes& match) const;

 private:
  struct Slot {
    std::uint64_t at;
    std::uint64_t sequence;
  };

  static std::ptrdiff_t offsetIn(std::uint64_t offset) { return static_cast<std::ptrdiff_t>(offset); }

  template <class T>
  T number(std::uint64_t offset) const {
    if (offset + sizeof(T) > file_.size()) refuse("beyond the file");
    T value = 0;
    for (std::size_t at = sizeof(T); at-- > 0;) value = static_cast<T>(value << 8 | file_[offset + at]);
    return value;
  }

  std::uint32_t sum(std::uint32_t start, std::uint64_t from, std::uint64_t to) const;
  std::uint32_t startAt(std::uint64_t offset) const;
  void readHeader();
  bool headerIsIntact(std::uint64_t at) const;
  bool slotIsIntact(std::uint64_t at) const;
  void readSlots();
  void addSegment(std::uint64_t packed) { segments_.push_back({(packed & ((1ULL << 40) - 1)) * 512, packed >> 40}); }

  Frame frameAt(std::uint64_t offset) const;
  Bytes recordAt(std::uint64_t offset) const;
  std::uint64_t digestOf(std::size_t index, const Bytes& record) const;
  bool matches(std::size_t index, const Bytes& record, const Bytes& match) const;
  bool frameHasDigest(std::uint64_t offset, std::size_t index, std::uint64_t digest) const;
  std::uint64_t headOf(std::size_t index, std::uint64_t digest) const;

  struct Segment {
    std::uint64_t offset;
    std::uint64_t blocks;
  };
  void lookInto(const Segment& segment, std::size_t index, std::uint64_t digest,
                std::vector<std::uint64_t>& candidates) const;
  void checkBlock(std::uint64_t at) const;

  // Takes complete commits behind `end_` into the state.
  void rollForward();
  void takeFrame(const Frame& frame);
  void takeHeads(const Frame& frame);

  Bytes file_;
  const Layout& layout_;
  Met& met_;
  std::uint32_t salt_ = 0;
  std::uint64_t seed_ = 0;
  std::uint64_t end_ = 0;
  std::uint64_t indexedEnd_ = 0;
  std::uint32_t chain_ = 0;
  bool isUnique_ = true;
  std::uint64_t records_ = 0;
  Bytes bootId_;
  std::vector<Segment> segments_;
  std::map<std::pair<std::uint64_t, std::uint64_t>, std::uint64_t> heads_;
};

}  // namespace zontest::format_document
