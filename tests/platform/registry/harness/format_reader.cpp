// The reader of the document: header and slots first, then frames where they are asked for.
#include "platform/registry/harness/format_reader.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace zontest::format_document {
namespace {

constexpr std::uint64_t GOLDEN = 0x9E3779B97F4A7C15;

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

}  // namespace

void refuse(const std::string& why) { throw std::runtime_error(why); }

const Layout ONE_KEY{{{8, 0}}, 129, 140, 144, {8}};
const Layout TWO_KEYS{{{2, 0}, {8, 129}}, 258, 268, 272, {10, 2}};
const Layout THREE_KEYS{{{2, 0}, {4, 129}, {8, 258}}, 387, 396, 400, {14, 2, 12}};

std::string keyOf(const Bytes& record, std::size_t offset) {
  const char* text = reinterpret_cast<const char*>(record.data()) + offset;
  return {text, ::strnlen(text, 129)};
}

Reader::Reader(Bytes file, const Layout& layout, const Bytes& bootId, Met& met)
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

std::vector<Bytes> Reader::list() const {
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

std::vector<Bytes> Reader::find(std::size_t index, const Bytes& match) const {
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

std::optional<Bytes> Reader::findWholeKey(const Bytes& match) const {
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

std::uint32_t Reader::sum(std::uint32_t start, std::uint64_t from, std::uint64_t to) const {
  if (to < from || to > file_.size()) refuse("checksum beyond the file");
  return crc(start, file_.data() + from, static_cast<std::size_t>(to - from));
}

std::uint32_t Reader::startAt(std::uint64_t offset) const {
  return salt_ ^ static_cast<std::uint32_t>((offset / 8 * GOLDEN) >> 32);
}

void Reader::readHeader() {
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

bool Reader::headerIsIntact(std::uint64_t at) const {
  static constexpr std::string_view MAGIC = "ZONREG\r\n";
  return std::equal(MAGIC.begin(), MAGIC.end(), file_.begin() + offsetIn(at)) &&
         number<std::uint32_t>(at + 132) == sum(0, at, at + 132);
}

bool Reader::slotIsIntact(std::uint64_t at) const {
  const auto entries = number<std::uint16_t>(at + 4);
  const auto end = number<std::uint64_t>(at + 16);
  const auto indexedEnd = number<std::uint64_t>(at + 112);
  return entries <= 48 && indexedEnd >= LOG_START && indexedEnd <= end && number<std::uint16_t>(at + 6) <= entries &&
         end >= LOG_START && end < 1ULL << 43 &&
         number<std::uint32_t>(at) == sum(salt_, at + 4, at + 256 + entries * 16ULL);
}

void Reader::readSlots() {
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

Frame Reader::frameAt(std::uint64_t offset) const {
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

Bytes Reader::recordAt(std::uint64_t offset) const {
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

std::uint64_t Reader::digestOf(std::size_t index, const Bytes& record) const {
  std::string input;
  for (const auto& [flag, offset] : layout_.keys) {
    if ((layout_.indexes[index] & flag) != 0) input += keyOf(record, offset) + '\0';
  }
  const std::uint64_t seed = seed_ + index * GOLDEN;
  return sipHash(seed, seed ^ 0x6D646B6579646967, input);
}

bool Reader::matches(std::size_t index, const Bytes& record, const Bytes& match) const {
  return std::all_of(layout_.keys.begin(), layout_.keys.end(), [&](const auto& key) {
    return (layout_.indexes[index] & key.first) == 0 || keyOf(record, key.second) == keyOf(match, key.second);
  });
}

bool Reader::frameHasDigest(std::uint64_t offset, std::size_t index, std::uint64_t digest) const {
  const Frame frame = frameAt(offset);
  if (frame.kind == SUMMARY) return frame.index == index && frame.digest == digest;
  if (frame.kind == REMOVE) return number<std::uint64_t>(frame.payload + index * 8) == digest;
  return frame.kind != AREA && digestOf(index, recordAt(offset)) == digest;
}

std::uint64_t Reader::headOf(std::size_t index, std::uint64_t digest) const {
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

void Reader::lookInto(const Segment& segment, std::size_t index, std::uint64_t digest,
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

void Reader::checkBlock(std::uint64_t at) const {
  const std::uint64_t used = 8 + file_.at(at + 4) * 8ULL;
  if (used > 512 || number<std::uint32_t>(at) != sum(startAt(at), at + 4, at + used)) refuse("block checksum");
}

void Reader::rollForward() {
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

void Reader::takeFrame(const Frame& frame) {
  if (frame.kind == AREA) segments_.push_back({frame.blocksOffset, frame.blockCount});
  takeHeads(frame);
}

void Reader::takeHeads(const Frame& frame) {
  if (frame.kind == SUMMARY) heads_[{frame.index, frame.digest}] = frame.offset;
  if (!frame.isEvent()) return;
  for (std::size_t index = 0; index < layout_.indexes.size(); ++index) {
    const std::uint64_t digest = frame.kind == REMOVE ? number<std::uint64_t>(frame.payload + index * 8)
                                                      : digestOf(index, recordAt(frame.offset));
    heads_[{index, digest}] = frame.offset;
  }
}

}  // namespace zontest::format_document
