// docs/file-format.md against files that the engine makes. The rule: the reader in this file follows the document alone
// and calls nothing of the engine; what it needs beyond the document is missing there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry/system_calls.h"
#include "support/metadata_test.h"
#include "zonmdfile/MDCustomTree.h"
#include "zonmdfile/MDOneKeyReg.h"
#include "zonmdfile/MDThreeKeyReg.h"
#include "zonmdfile/MDTwoKeyReg.h"
#include "zonmdfile/platform/return_codes.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// ---- The reader. Names are the document's.

constexpr std::uint64_t LOG_START = 8192;
constexpr std::uint64_t GOLDEN = 0x9E3779B97F4A7C15;

enum Kind : std::uint8_t { INSERT = 1, CHANGE = 2, REMOVE = 3, AREA = 4, SUMMARY = 5 };

[[noreturn]] void refuse(const std::string& why) { throw std::runtime_error(why); }

std::uint32_t crc(std::uint32_t start, const std::uint8_t* bytes, std::size_t count) {
  std::uint32_t state = ~start;
  for (std::size_t at = 0; at < count; ++at) {
    state ^= bytes[at];
    for (int bit = 0; bit < 8; ++bit) state = (state >> 1) ^ ((state & 1) != 0 ? 0x82F63B78U : 0U);
  }
  return ~state;
}

std::uint64_t rotate(std::uint64_t value, unsigned bits) { return value << bits | value >> (64 - bits); }

// SipHash-1-3.
std::uint64_t sipHash(std::uint64_t key0, std::uint64_t key1, const std::string& input) {
  std::array<std::uint64_t, 4> v{key0 ^ 0x736F6D6570736575, key1 ^ 0x646F72616E646F6D, key0 ^ 0x6C7967656E657261,
                                 key1 ^ 0x7465646279746573};
  const auto round = [&v] {
    v[0] += v[1];
    v[2] += v[3];
    v[1] = rotate(v[1], 13) ^ v[0];
    v[3] = rotate(v[3], 16) ^ v[2];
    v[0] = rotate(v[0], 32);
    v[2] += v[1];
    v[0] += v[3];
    v[1] = rotate(v[1], 17) ^ v[2];
    v[3] = rotate(v[3], 21) ^ v[0];
    v[2] = rotate(v[2], 32);
  };
  const std::size_t words = input.size() / 8 + 1;
  for (std::size_t word = 0; word < words; ++word) {
    std::uint64_t value = word + 1 == words ? std::uint64_t{input.size()} << 56 : 0;
    for (std::size_t at = word * 8; at < std::min(word * 8 + 8, input.size()); ++at)
      value |= std::uint64_t{static_cast<std::uint8_t>(input[at])} << (at % 8 * 8);
    v[3] ^= value;
    round();
    v[0] ^= value;
  }
  v[2] ^= 0xFF;
  for (int last = 0; last < 3; ++last) round();
  return v[0] ^ v[1] ^ v[2] ^ v[3];
}

// One of the document's record layouts.
struct Layout {
  std::vector<std::pair<unsigned, std::size_t>> keys;  // match flag and offset of each key field, in order
  std::size_t versionOffset;
  std::size_t dataSizeOffset;
  std::size_t dataOffset;
  std::vector<unsigned> indexes;  // match flags of each index
};

const Layout ONE_KEY{{{8, 0}}, 129, 140, 144, {8}};
const Layout TWO_KEYS{{{2, 0}, {8, 129}}, 258, 268, 272, {10, 2}};
const Layout THREE_KEYS{{{2, 0}, {4, 129}, {8, 258}}, 387, 396, 400, {14, 2, 12}};

std::string keyOf(const Bytes& record, std::size_t offset) {
  const char* text = reinterpret_cast<const char*>(record.data()) + offset;
  return {text, ::strnlen(text, 129)};
}

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
  Reader(Bytes file, const Layout& layout, const Bytes& bootId, Met& met)
      : file_(std::move(file)), layout_(layout), met_(met) {
    readHeader();
    readSlots();
    for (std::uint64_t offset = indexedEnd_; offset < end_;) {
      const Frame frame = frameAt(offset);
      takeHeads(frame);
      offset = frame.end;
    }
    const bool clean = std::all_of(file_.begin() + offsetIn(end_),
                                   file_.begin() + offsetIn(std::min<std::uint64_t>(end_ + 24, file_.size())),
                                   [](std::uint8_t byte) { return byte == 0; });
    const bool sameRun = bootId == bootId_ && bootId != Bytes(16);
    if (!clean && !sameRun) rollForward();
  }

  std::uint64_t records() const { return records_; }
  std::uint64_t end() const { return end_; }
  bool isUnique() const { return isUnique_; }

  // All live records in scan order, by one pass over the log.
  std::vector<Bytes> list() const {
    struct Newest {
      std::uint64_t offset;
      bool removed;
    };
    std::map<std::uint64_t, Newest> places;
    for (std::uint64_t offset = LOG_START; offset < end_;) {
      const Frame frame = frameAt(offset);
      met_.kinds.insert(frame.kind);
      if (frame.isEvent()) places[frame.place] = Newest{offset, frame.kind == REMOVE};
      offset = frame.end;
    }
    std::vector<Bytes> live;
    for (const auto& [place, newest] : places) {
      if (!newest.removed) live.push_back(recordAt(newest.offset));
    }
    return live;
  }

  // The live records, in scan order, whose fields of an index are those of `match`.
  std::vector<Bytes> find(std::size_t index, const Bytes& match) const {
    struct Event {
      std::uint64_t place;
      std::uint64_t offset;
      bool removed;
    };
    std::map<std::uint64_t, Event> newest;
    std::uint32_t events = 0;
    std::optional<Frame> head;
    for (std::uint64_t offset = headOf(index, digestOf(index, match)); offset != 0;) {
      const Frame frame = frameAt(offset);
      if (offset < end_ && frame.isEvent()) {
        newest.try_emplace(frame.place, Event{frame.place, offset, frame.kind == REMOVE});
        if (!head) head = frame;
        ++events;
      }
      if (offset < end_ && frame.kind == SUMMARY) {
        for (std::uint32_t entry = 0; entry < frame.count; ++entry) {
          const auto place = number<std::uint64_t>(frame.payload + entry * 16U);
          newest.try_emplace(place, Event{place, number<std::uint64_t>(frame.payload + entry * 16U + 8), false});
        }
        met_.summaryEndedWalk = true;
        break;
      }
      offset = frame.previous[index];
    }
    std::vector<Bytes> found;
    for (const auto& [place, event] : newest) {
      if (event.removed) continue;
      Bytes record = recordAt(event.offset);
      if (matches(index, record, match)) found.push_back(std::move(record));
    }
    if (head && index > 0 && (head->events[index - 1] != events || head->live[index - 1] != found.size()))
      refuse("counts of a link");
    return found;
  }

  // The one record with the whole key of `match`, found over the shorter way of the `below` links.
  std::optional<Bytes> findWholeKey(const Bytes& match) const {
    std::set<std::uint64_t> seen;
    for (std::uint64_t offset = headOf(0, digestOf(0, match)); offset != 0;) {
      const Frame frame = frameAt(offset);
      if (offset >= end_) {
        offset = frame.previous[0];
        continue;
      }
      if (seen.insert(frame.place).second && frame.kind != REMOVE) {
        Bytes record = recordAt(offset);
        if (matches(0, record, match)) return record;
      }
      offset = frame.kind == INSERT ? frame.previous[0] : frame.below;
    }
    return std::nullopt;
  }

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

  std::uint32_t sum(std::uint32_t start, std::uint64_t from, std::uint64_t to) const {
    if (to < from || to > file_.size()) refuse("checksum beyond the file");
    return crc(start, file_.data() + from, static_cast<std::size_t>(to - from));
  }

  std::uint32_t startAt(std::uint64_t offset) const {
    return salt_ ^ static_cast<std::uint32_t>((offset / 8 * GOLDEN) >> 32);
  }

  void readHeader() {
    std::uint64_t at = 0;
    if (!headerIsIntact(at)) at = 5120;
    if (!headerIsIntact(at)) refuse("no header");
    if (number<std::uint32_t>(at + 8) != 1) refuse("another version");
    const auto fileId = number<std::uint64_t>(at + 16);
    salt_ = static_cast<std::uint32_t>(fileId) ^ static_cast<std::uint32_t>(fileId >> 32);
    seed_ = number<std::uint64_t>(at + 24);
    for (std::size_t index = 0; index < 8; ++index) {
      const unsigned flags = index < layout_.indexes.size() ? layout_.indexes[index] : 0;
      if (file_[at + 32 + index] != flags) refuse("another record type");
    }
  }

  bool headerIsIntact(std::uint64_t at) const {
    static constexpr std::string_view MAGIC = "ZONREG\r\n";
    return std::equal(MAGIC.begin(), MAGIC.end(), file_.begin() + offsetIn(at)) &&
           number<std::uint32_t>(at + 132) == sum(0, at, at + 132);
  }

  bool slotIsIntact(std::uint64_t at) const {
    const auto entries = number<std::uint16_t>(at + 4);
    const auto end = number<std::uint64_t>(at + 16);
    const auto indexedEnd = number<std::uint64_t>(at + 112);
    return entries <= 48 && indexedEnd >= LOG_START && indexedEnd <= end && number<std::uint16_t>(at + 6) <= entries &&
           end >= LOG_START && end < 1ULL << 43 &&
           number<std::uint32_t>(at) == sum(salt_, at + 4, at + 256 + entries * 16ULL);
  }

  void readSlots() {
    std::optional<Slot> newest;
    for (const std::uint64_t at : {3072U, 4096U}) {
      if (!slotIsIntact(at)) continue;
      const auto sequence = number<std::uint64_t>(at + 8);
      if (!newest || sequence > newest->sequence) newest = Slot{at, sequence};
    }
    if (!newest) refuse("no slot");
    const std::uint64_t at = newest->at;
    end_ = number<std::uint64_t>(at + 16);
    indexedEnd_ = number<std::uint64_t>(at + 112);
    chain_ = number<std::uint32_t>(at + 24);
    isUnique_ = (number<std::uint32_t>(at + 28) & 1) == 0;
    records_ = number<std::uint64_t>(at + 32);
    bootId_.assign(file_.begin() + offsetIn(at + 72), file_.begin() + offsetIn(at + 88));
    for (std::uint64_t entry = at + 128; entry < at + 256 && number<std::uint64_t>(entry) != 0; entry += 8)
      addSegment(number<std::uint64_t>(entry));
    for (std::uint64_t entry = at + 256; entry < at + 256 + number<std::uint16_t>(at + 4) * 16ULL; entry += 16) {
      const auto offsetAndIndex = number<std::uint64_t>(entry + 8);
      heads_[{offsetAndIndex & 7, number<std::uint64_t>(entry)}] = offsetAndIndex & ~7ULL;
    }
  }

  void addSegment(std::uint64_t packed) { segments_.push_back({(packed & ((1ULL << 40) - 1)) * 512, packed >> 40}); }

  Frame frameAt(std::uint64_t offset) const {
    Frame frame{};
    const auto link = number<std::uint64_t>(offset + 16);
    const std::size_t links = layout_.indexes.size() - 1;
    frame.offset = offset;
    frame.crc = number<std::uint32_t>(offset);
    frame.kind = static_cast<Kind>(link >> 56);
    frame.last = (link >> 48 & 1) != 0;
    frame.place = offset;
    frame.previous.assign(links + 1, link & ((1ULL << 48) - 1));
    std::uint64_t at = offset + 24;
    if (frame.kind < INSERT || frame.kind > SUMMARY) refuse("no frame kind");
    if (frame.kind == CHANGE || frame.kind == REMOVE) {
      frame.place = number<std::uint64_t>(at);
      frame.below = number<std::uint64_t>(at + 8);
      at += 16;
    }
    if (frame.kind == AREA) {
      frame.blocksOffset = number<std::uint64_t>(at);
      frame.blockCount = number<std::uint64_t>(at + 8);
      at += 16;
    } else if (frame.kind == SUMMARY) {
      frame.digest = number<std::uint64_t>(at);
      frame.index = number<std::uint32_t>(at + 8);
      frame.count = number<std::uint32_t>(at + 12);
      at += 16;
    } else {
      for (std::size_t index = 1; index <= links; ++index, at += 16) {
        frame.previous[index] = number<std::uint64_t>(at);
        frame.events.push_back(number<std::uint32_t>(at + 8));
        frame.live.push_back(number<std::uint32_t>(at + 12));
      }
    }
    if (frame.crc != sum(startAt(offset), offset + 4, at)) refuse("head checksum");
    frame.payload = at;
    frame.end = offset + number<std::uint32_t>(offset + 12);
    if (frame.end < at || frame.end % 8 != 0) refuse("frame size");
    if (frame.kind != AREA && number<std::uint32_t>(offset + 8) != sum(0, at, frame.end)) refuse("payload checksum");
    return frame;
  }

  Bytes recordAt(std::uint64_t offset) const {
    const Frame frame = frameAt(offset);
    if (frame.kind != INSERT && frame.kind != CHANGE) refuse("no record");
    std::uint64_t at = frame.payload;
    const auto next = [&] {
      std::uint64_t value = 0;
      for (unsigned shift = 0;; shift += 7) {
        const std::uint8_t byte = file_.at(at++);
        value |= std::uint64_t{byte & 0x7FU} << shift;
        if ((byte & 0x80) == 0) return value;
      }
    };
    const std::uint64_t size = next();
    Bytes record;
    while (record.size() < size) {
      const std::uint64_t literals = next();
      if (at + literals > frame.end) refuse("literals beyond the frame");
      record.insert(record.end(), file_.begin() + offsetIn(at), file_.begin() + offsetIn(at + literals));
      at += literals;
      record.resize(record.size() + next());
    }
    if (record.size() != size || at > frame.end) refuse("record form");
    return record;
  }

  std::uint64_t digestOf(std::size_t index, const Bytes& record) const {
    std::string input;
    for (const auto& [flag, offset] : layout_.keys) {
      if ((layout_.indexes[index] & flag) != 0) input += keyOf(record, offset) + '\0';
    }
    const std::uint64_t seed = seed_ + index * GOLDEN;
    return sipHash(seed, seed ^ 0x6D646B6579646967, input);
  }

  bool matches(std::size_t index, const Bytes& record, const Bytes& match) const {
    return std::all_of(layout_.keys.begin(), layout_.keys.end(), [&](const auto& key) {
      return (layout_.indexes[index] & key.first) == 0 || keyOf(record, key.second) == keyOf(match, key.second);
    });
  }

  bool frameHasDigest(std::uint64_t offset, std::size_t index, std::uint64_t digest) const {
    const Frame frame = frameAt(offset);
    if (frame.kind == SUMMARY) return frame.index == index && frame.digest == digest;
    if (frame.kind == REMOVE) return number<std::uint64_t>(frame.payload + index * 8) == digest;
    return frame.kind != AREA && digestOf(index, recordAt(offset)) == digest;
  }

  std::uint64_t headOf(std::size_t index, std::uint64_t digest) const {
    if (const auto head = heads_.find({index, digest}); head != heads_.end()) {
      met_.overlay = true;
      return head->second;
    }
    std::vector<std::uint64_t> candidates;
    for (auto segment = segments_.rbegin(); segment != segments_.rend(); ++segment)
      lookInto(*segment, index, digest, candidates);
    for (const std::uint64_t candidate : candidates) {
      if (frameHasDigest(candidate, index, digest)) {
        met_.block = true;
        return candidate;
      }
      met_.falseEntry = true;
    }
    return 0;
  }

  struct Segment {
    std::uint64_t offset;
    std::uint64_t blocks;
  };

  void lookInto(const Segment& segment, std::size_t index, std::uint64_t digest,
                std::vector<std::uint64_t>& candidates) const {
    std::uint64_t block = (digest & 0xFFFFFFFF) * segment.blocks >> 32;
    for (std::uint64_t probe = 0; probe < std::min<std::uint64_t>(16, segment.blocks); ++probe) {
      const std::uint64_t at = segment.offset + block * 512;
      checkBlock(at);
      for (std::uint64_t entry = at + 8; entry < at + 8 + file_[at + 4] * 8ULL; entry += 8) {
        const auto value = number<std::uint64_t>(entry);
        if (value >> 62 != index || (value >> 40 & 0x3FFFFF) != digest >> 42) continue;
        candidates.push_back((value & ((1ULL << 40) - 1)) * 8);
        if (&segment != &segments_.back()) met_.olderSegment = true;
        if (probe > 0) met_.overflow = true;
      }
      if (file_[at + 5] == 0) break;
      block = (block + 1) % segment.blocks;
    }
  }

  void checkBlock(std::uint64_t at) const {
    const std::uint64_t used = 8 + file_.at(at + 4) * 8ULL;
    if (used > 512 || number<std::uint32_t>(at) != sum(startAt(at), at + 4, at + used)) refuse("block checksum");
  }

  // Takes complete commits behind `end_` into the state.
  void rollForward() {
    for (;;) {
      std::vector<Frame> commit;
      std::uint32_t chain = chain_;
      std::uint64_t offset = end_;
      try {
        do {
          if (number<std::uint32_t>(offset + 4) != chain) refuse("chain");
          commit.push_back(frameAt(offset));
          const Frame& frame = commit.back();
          for (std::uint64_t block = 0; block < frame.blockCount; ++block) checkBlock(frame.blocksOffset + block * 512);
          chain = frame.crc;
          offset = frame.end;
        } while (!commit.back().last);
      } catch (const std::runtime_error&) {
        return;
      }
      for (const Frame& frame : commit) takeFrame(frame);
      end_ = offset;
      chain_ = chain;
      met_.rolledForward = true;
    }
  }

  void takeFrame(const Frame& frame) {
    if (frame.kind == AREA) segments_.push_back({frame.blocksOffset, frame.blockCount});
    takeHeads(frame);
  }

  void takeHeads(const Frame& frame) {
    if (frame.kind == SUMMARY) heads_[{frame.index, frame.digest}] = frame.offset;
    if (!frame.isEvent()) return;
    for (std::size_t index = 0; index < layout_.indexes.size(); ++index) {
      const std::uint64_t digest = frame.kind == REMOVE ? number<std::uint64_t>(frame.payload + index * 8)
                                                        : digestOf(index, recordAt(frame.offset));
      heads_[{index, digest}] = frame.offset;
    }
  }

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

// ---- What stands around the engine.

Bytes bytesOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void write(const std::filesystem::path& path, const Bytes& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// The engine gets its boot id, its mount and its random numbers from here.
class FixedSurroundings {
 public:
  explicit FixedSurroundings(const std::filesystem::path& folder) {
    bootIdPath = (folder / "boot-id").string();
    nextRandom = 0;
    setBootId(0xB0);
    real = zon::realSystemCalls();
    zon::systemCalls.openAt = openAt;
    zon::systemCalls.getRandom = getRandom;
    zon::systemCalls.statx = statx;
  }
  ~FixedSurroundings() { zon::systemCalls = real; }
  FixedSurroundings(const FixedSurroundings&) = delete;
  FixedSurroundings& operator=(const FixedSurroundings&) = delete;

  // The run whose boot id counts up from `first`.
  static Bytes bootId(std::uint8_t first) {
    Bytes id;
    for (std::uint8_t at = 0; at < 16; ++at) id.push_back(static_cast<std::uint8_t>(first + at));
    return id;
  }

  static void setBootId(std::uint8_t first) {
    std::ofstream file(bootIdPath, std::ios::trunc);
    const Bytes id = bootId(first);
    for (std::size_t at = 0; at < id.size(); ++at) {
      if (at == 4 || at == 6 || at == 8 || at == 10) file << '-';
      char digits[3];
      std::snprintf(digits, sizeof digits, "%02x", unsigned{id[at]});
      file << digits;
    }
    file << '\n';
  }

 private:
  static int openAt(int directory, const char* path, int flags, mode_t mode) {
    const bool isBootId = std::string_view(path) == "/proc/sys/kernel/random/boot_id";
    return real.openAt(directory, isBootId ? bootIdPath.c_str() : path, flags, mode);
  }

  // A system that does not tell one mount from the next.
  static int statx(int directory, const char* path, int flags, unsigned mask, struct statx* status) {
    const int result = real.statx(directory, path, flags, mask, status);
    status->stx_mask &= ~0x4000U;
    return result;
  }

  static ssize_t getRandom(void* data, std::size_t size, unsigned) {
    const std::uint64_t value = 0x1122334455667700 + ++nextRandom * 0x11;
    std::memcpy(data, &value, std::min(size, sizeof value));
    return static_cast<ssize_t>(size);
  }

  inline static std::string bootIdPath;
  inline static std::uint64_t nextRandom;
  inline static zon::SystemCalls real;
};

// ---- The worked example

// The example's rows: eight hexadecimal digits, two spaces, bytes with one space between, two spaces, and a note.
std::map<std::uint64_t, Bytes> rowsOfDocument() {
  std::map<std::uint64_t, Bytes> rows;
  std::ifstream document(ZON_FILE_FORMAT_DOCUMENT);
  for (std::string line; std::getline(document, line);) {
    const std::size_t start = line.find_first_not_of(' ');
    if (start == std::string::npos || line.size() < start + 12) continue;
    const std::string offset = line.substr(start, 8);
    const auto isHex = [](unsigned char digit) { return std::isxdigit(digit) != 0; };
    if (!std::all_of(offset.begin(), offset.end(), isHex) || line.compare(start + 8, 2, "  ") != 0) continue;
    const std::size_t first = start + 10;
    std::istringstream digits(line.substr(first, line.find("  ", first) - first));
    Bytes& bytes = rows[std::stoull(offset, nullptr, 16)];
    for (std::string byte; digits >> byte;) bytes.push_back(static_cast<std::uint8_t>(std::stoul(byte, nullptr, 16)));
  }
  return rows;
}

std::string rowOf(std::uint64_t offset, const Bytes& bytes) {
  char digits[16];
  std::snprintf(digits, sizeof digits, "%08x ", static_cast<unsigned>(offset));
  std::string row = digits;
  for (const std::uint8_t byte : bytes) {
    std::snprintf(digits, sizeof digits, " %02x", unsigned{byte});
    row += digits;
  }
  return row;
}

constexpr std::uint64_t EXAMPLE_END = 0x32a0;

class FormatExample : public testing::Test {
 protected:
  FormatExample() {
    MDCustomTree store;
    EXPECT_EQ(store.insert(text("region"), text("north"), text("1")), MD_RC_OK);
    EXPECT_EQ(store.insert(text("tenant"), text("red"), text("1")), MD_RC_OK);
    EXPECT_EQ(store.compact(), MD_RC_OK);
    EXPECT_EQ(store.update(text("region"), text("south"), text("2")), MD_RC_OK);
    file_ = bytesOf(directory_ / MDCustomTree::FILENAME);
  }

  DString& text(const char* content) { return texts_.emplace_back(content); }

  Bytes bytesAt(std::uint64_t offset, std::size_t count) const {
    const auto from = file_.begin() + static_cast<std::ptrdiff_t>(offset);
    return {from, from + static_cast<std::ptrdiff_t>(count)};
  }

  zontest::MetadataDirectory directory_;
  FixedSurroundings surroundings_{directory_.path()};
  std::deque<DString> texts_;
  Bytes file_;
};

TEST_F(FormatExample, HasEveryByteThatTheDocumentShows) {
  const auto rows = rowsOfDocument();
  ASSERT_GT(rows.size(), 50U);
  ASSERT_GE(file_.size(), EXAMPLE_END);
  for (const auto& [offset, bytes] : rows) {
    ASSERT_LE(offset + bytes.size(), EXAMPLE_END);
    EXPECT_EQ(rowOf(offset, bytes), rowOf(offset, bytesAt(offset, bytes.size())));
  }
}

TEST_F(FormatExample, HasOnlyZerosElsewhere) {
  for (const auto& [offset, bytes] : rowsOfDocument())
    std::fill_n(file_.begin() + static_cast<std::ptrdiff_t>(offset), bytes.size(), std::uint8_t{0});
  for (std::uint64_t offset = 0; offset < file_.size(); offset += 16)
    EXPECT_EQ(rowOf(offset, bytesAt(offset, 16)), rowOf(offset, Bytes(16)));
}

TEST_F(FormatExample, IsReadAsTheDocumentTells) {
  Met met;
  const Reader reader(file_, ONE_KEY, FixedSurroundings::bootId(0xB0), met);
  const std::vector<Bytes> records = reader.list();
  EXPECT_EQ(reader.end(), EXAMPLE_END);
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(keyOf(records[0], 0), "region");
  EXPECT_STREQ(reinterpret_cast<const char*>(records[0].data()) + 144, "south");
  EXPECT_EQ(keyOf(records[1], 0), "tenant");
  EXPECT_EQ(reader.find(0, records[1]), std::vector<Bytes>{records[1]});
  EXPECT_TRUE(met.block);
  EXPECT_FALSE(met.overlay);
  EXPECT_EQ(reader.find(0, records[0]), std::vector<Bytes>{records[0]});
  EXPECT_TRUE(met.overlay);
}

// ---- Files of all record types after random changes

// What the engine answers, record by record, of a file with one of the three record types.
template <class Type>
class Store : public Type {
 public:
  explicit Store(const Layout& layout) : Type("formats"), layout_(layout) {
    this->options_ = 0;  // a sync changes no byte
  }

  std::uint32_t add(Bytes record) { return this->Add(wholeKey(), record.data()); }
  std::uint32_t change(Bytes match, Bytes record) { return this->Change(wholeKey(), match.data(), record.data()); }
  std::uint32_t remove(std::size_t index, Bytes match) {
    if (index != 0) this->setFeature(GenRegBase::FEATURE_DELETE_ALL);
    const std::uint32_t rc = this->Delete(layout_.indexes[index], match.data());
    this->unsetFeature(GenRegBase::FEATURE_DELETE_ALL);
    return rc;
  }

  // All records, or those whose fields of an index are those of `match`, in scan order.
  std::vector<Bytes> list(unsigned flags = 0, Bytes match = {}) {
    std::vector<Bytes> records;
    EXPECT_EQ(this->OpenScan(), MD_RC_OK);
    while (this->GetNext(flags, match.data(), out_.data()) == MD_RC_OK) records.push_back(sized());
    EXPECT_EQ(this->CloseScan(), MD_RC_OK);
    return records;
  }
  std::optional<Bytes> get(Bytes match) {
    const std::uint32_t rc = this->Get(wholeKey(), match.data(), out_.data());
    EXPECT_TRUE(rc == MD_RC_OK || rc == GENREG_RC_NOT_FOUND) << rc;
    return rc == MD_RC_OK ? std::optional(sized()) : std::nullopt;
  }

 private:
  unsigned long wholeKey() const { return layout_.indexes[0]; }

  Bytes sized() {
    unsigned long size = 0;
    Type::GetRecordSize(out_.data(), &size);
    return {out_.begin(), out_.begin() + static_cast<std::ptrdiff_t>(size)};
  }

  const Layout& layout_;
  Bytes out_ = Bytes(2'000'000);
};

template <class Type>
struct Described;
template <>
struct Described<MDOneKeyReg> {
  static const Layout& layout() { return ONE_KEY; }
};
template <>
struct Described<MDTwoKeyReg> {
  static const Layout& layout() { return TWO_KEYS; }
};
template <>
struct Described<MDThreeKeyReg> {
  static const Layout& layout() { return THREE_KEYS; }
};

template <class Type>
class FormatDocument : public testing::Test {
 protected:
  const Layout& layout() const { return Described<Type>::layout(); }
  unsigned below(unsigned limit) { return std::uniform_int_distribution<unsigned>(0, limit - 1)(random_); }
  Bytes file() const { return bytesOf(path_); }
  std::string groupText() { return "group " + std::to_string(below(groups_)); }

  // A record as the document lays it out, with random keys and data.
  Bytes record(unsigned keys) {
    std::string data = std::string(below(30) == 0 ? below(20000) : below(40), static_cast<char>('a' + below(26)));
    if (below(4) == 0) data.insert(data.size() / 2, 3, '.');
    Bytes bytes(layout().dataOffset + data.size() + 5);
    for (const auto& [flag, offset] : layout().keys) {
      const std::string text = flag == 8 ? "key " + std::to_string(below(keys)) : groupText();
      std::copy(text.begin(), text.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    bytes[layout().versionOffset] = '1';
    const auto size = static_cast<std::uint32_t>(data.size() + 1);
    for (std::size_t at = 0; at < 4; ++at)
      bytes[layout().dataSizeOffset + at] = static_cast<std::uint8_t>(size >> 8 * at);
    std::copy(data.begin(), data.end(), bytes.begin() + static_cast<std::ptrdiff_t>(layout().dataOffset));
    return bytes;
  }

  void step(unsigned keys) {
    const unsigned kind = below(100);
    if (kind < 40) {
      store_.add(record(keys));
    } else if (kind < 70) {
      Bytes newer = record(keys);
      store_.change(newer, newer);
    } else if (kind < 80) {
      // The keys change as well, to some that are free.
      const Bytes newer = record(keys);
      if (!store_.get(newer)) store_.change(record(keys), newer);
    } else if (kind < 99) {
      store_.remove(0, record(keys));
    } else {
      store_.remove(layout().indexes.size() - 1, record(keys));
    }
  }

  void expectSameAnswers(const Bytes& bootId, unsigned keys) {
    const Reader reader(file(), layout(), bootId, met_);
    ASSERT_TRUE(reader.isUnique());
    const std::vector<Bytes> records = store_.list();
    ASSERT_EQ(reader.list(), records);
    for (int round = 0; round < 40; ++round) {
      const Bytes match = record(keys);
      const std::optional<Bytes> answer = store_.get(match);
      ASSERT_EQ(reader.findWholeKey(match), answer);
      for (std::size_t index = 0; index < layout().indexes.size(); ++index)
        ASSERT_EQ(reader.find(index, match), store_.list(layout().indexes[index], match)) << "index " << index;
    }
  }

  // The file as a crash of the machine leaves it that lost the last slot: the header page is of a moment ago.
  void loseSlots(const Bytes& before) {
    Bytes now = file();
    std::copy_n(before.begin(), LOG_START, now.begin());
    write(path_, now);
  }

  zontest::MetadataDirectory directory_;
  FixedSurroundings surroundings_{directory_.path()};
  std::filesystem::path path_ = directory_ / "formats";
  Store<Type> store_{Described<Type>::layout()};
  std::mt19937 random_{20};
  unsigned groups_ = 6;
  Met met_;
};

struct TypeNames {
  template <class Type>
  static std::string GetName(int) {
    return std::is_same_v<Type, MDOneKeyReg> ? "OneKey" : std::is_same_v<Type, MDTwoKeyReg> ? "TwoKeys" : "ThreeKeys";
  }
};
using Types = testing::Types<MDOneKeyReg, MDTwoKeyReg, MDThreeKeyReg>;
TYPED_TEST_SUITE(FormatDocument, Types, TypeNames);

TYPED_TEST(FormatDocument, ReadsWhatRandomChangesLeave) {
  constexpr unsigned KEYS = 12;
  this->groups_ = 2;
  for (int at = 0; at < 1500; ++at) {
    this->step(KEYS);
    if (at % 50 == 49) {
      ASSERT_NO_FATAL_FAILURE(this->expectSameAnswers(FixedSurroundings::bootId(0xB0), KEYS)) << "step " << at;
    }
  }
  EXPECT_THAT(this->met_.kinds, testing::IsSupersetOf({INSERT, CHANGE, REMOVE, AREA}));
  if (this->layout().indexes.size() > 1) {
    EXPECT_TRUE(this->met_.kinds.contains(SUMMARY) && this->met_.summaryEndedWalk);
  }
  EXPECT_TRUE(this->met_.overlay && this->met_.block);
}

TYPED_TEST(FormatDocument, ReadsFilesWithManyRecords) {
  constexpr unsigned KEYS = 20000;
  ASSERT_EQ(this->store_.add(this->record(KEYS)), MD_RC_OK);
  for (int batch = 0; batch < 24; ++batch) {
    ASSERT_EQ(this->store_.beginBatch(), MD_RC_OK);
    for (int at = 0; at < 300; ++at) this->store_.add(this->record(KEYS));
    ASSERT_EQ(this->store_.commitBatch(), MD_RC_OK);
  }
  for (const Bytes& record : this->store_.list()) {
    if (this->below(20) == 0) this->store_.remove(0, record);
  }
  ASSERT_NO_FATAL_FAILURE(this->expectSameAnswers(FixedSurroundings::bootId(0xB0), KEYS));
  const Reader reader(this->file(), this->layout(), FixedSurroundings::bootId(0xB0), this->met_);
  const std::vector<Bytes> records = reader.list();
  EXPECT_EQ(reader.records(), records.size());
  for (const Bytes& record : records) ASSERT_EQ(reader.findWholeKey(record), record);
  EXPECT_TRUE(this->met_.olderSegment);
  EXPECT_TRUE(this->met_.overflow);
}

TYPED_TEST(FormatDocument, RollsForwardOnlyInAnotherRunOfTheMachine) {
  constexpr unsigned KEYS = 30;
  for (int at = 0; at < 200; ++at) {
    const Bytes before = this->file();
    this->step(KEYS);
    this->step(KEYS);
    const Bytes after = this->file();
    const bool isSameFile =
        before.size() > LOG_START && std::equal(before.begin(), before.begin() + 136, after.begin());
    if (at % 10 != 0 || !isSameFile) continue;
    this->loseSlots(before);
    ASSERT_NO_FATAL_FAILURE(this->expectSameAnswers(FixedSurroundings::bootId(0xB0), KEYS)) << "same run, step " << at;
    FixedSurroundings::setBootId(0xC0);
    ASSERT_NO_FATAL_FAILURE(this->expectSameAnswers(FixedSurroundings::bootId(0xC0), KEYS)) << "next run, step " << at;
    FixedSurroundings::setBootId(0xB0);
    write(this->path_, after);
  }
  EXPECT_TRUE(this->met_.rolledForward);
}

TYPED_TEST(FormatDocument, ReadsTheBackupAsFarAsItReaches) {
  for (int at = 0; at < 400; ++at) this->step(40);
  Met met;
  const Reader file(this->file(), this->layout(), FixedSurroundings::bootId(0xB0), met);
  const Bytes backup = bytesOf(this->directory_ / ".formats.bkp");
  const Reader reader(backup, this->layout(), FixedSurroundings::bootId(0xB0), met);
  EXPECT_EQ(reader.list().size(), reader.records());
  EXPECT_LE(reader.end(), file.end());
  EXPECT_GT(reader.end(), LOG_START);
}

}  // namespace
