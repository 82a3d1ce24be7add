// Logs put together to cost time, memory or room.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/registry/files/system_calls.h"
#include "platform/registry/format/crc32c.h"
#include "platform/registry/format/format.h"
#include "platform/registry/format/frame.h"
#include "platform/registry/format/zero_runs.h"
#include "platform/registry/harness/forged_file.h"
#include "platform/registry/harness/forged_files.h"
#include "platform/registry/harness/test_records.h"
#include "platform/registry/log/index_blocks.h"

namespace zon::test {
namespace {

constexpr std::size_t RECORD_HEAD = FIXED_SIZE;

std::vector<std::byte> stored(const Value& value) {
  std::vector<std::byte> payload;
  encodeZeroRuns(encode(value), payload);
  return payload;
}

class ForgedLogs : public ForgedFiles {
 protected:
  ForgedLogs() {
    // The header is one that the engine makes.
    systemCalls.getRandom = evenRandom;
    TestStore store(folder_.path());
    EXPECT_EQ(store.add(PROBE), MD_RC_OK);
    EXPECT_EQ(store.remove(PROBE.group, PROBE.key), MD_RC_OK);
    systemCalls = realSystemCalls();
    header_ = ForgedFile(contentOf(folder_.file()), INDEXES).header();
  }

  std::uint64_t digestOf(std::size_t index, const Value& value) const {
    const unsigned long flags[] = {WHOLE_KEY, GROUP};
    return digestRecord(flags[index], encode(value, true).data(), header_.hashSeed + index * 0x9E3779B97F4A7C15u);
  }

  static Frame eventAt(std::uint64_t place, std::uint64_t previous) {
    Frame frame;
    frame.kind = place == 0 ? format::FrameKind::INSERT : format::FrameKind::CHANGE;
    frame.place = place;
    frame.previous = previous;
    frame.below = place == 0 ? 0 : previous;
    frame.links[0] = format::Link{.previous = previous, .events = 1, .live = 0xFFFFFF};
    return frame;
  }

  // What one question reads may be a few times the file, and a page for each frame.
  static std::uint64_t fewTimes(const FileBytes& file) { return 200 * std::uint64_t{file.size()} + (1 << 20); }

  std::string meetLog(const ForgedLog& log, std::uint64_t end = 0) const {
    ForgedCase forged{.file = log.file(end)};
    forged.mostRead = fewTimes(forged.file);
    return meet(forged);
  }

  // Frames of one long record each, that lie in each other: each ends where all end. Answers their offsets.
  std::vector<std::uint64_t> appendNested(ForgedLog& log, std::size_t count) const {
    constexpr std::size_t STEP = 192;
    const std::uint64_t start = log.end();
    const std::uint64_t end = start + count * STEP;
    FileBytes& bytes = log.bytes();
    bytes.resize(end, std::byte{'x'});
    std::vector<std::uint64_t> offsets;
    const std::uint32_t before = log.slot().chain;
    for (std::uint64_t offset = end - STEP;; offset -= STEP) {
      seal(log, bytes, offset, end, offset == start ? before : 0, offset > start ? offset - STEP : 0);
      offsets.insert(offsets.begin(), offset);
      if (offset == start) break;
    }
    return offsets;
  }

  // Lays a frame over the bytes from offset to end, whose record has them as its data.
  void seal(ForgedLog& log, FileBytes& bytes, std::uint64_t offset, std::uint64_t end, std::uint32_t chain,
            std::uint64_t previous) const {
    constexpr std::size_t HEAD = sizeof(format::FrameHeader) + sizeof(format::Link);
    const std::size_t room = end - offset - HEAD;
    // Two numbers of three bytes, the literal bytes, the zeros: one byte.
    const std::size_t literal = room - 7;
    const std::size_t size = literal + 5;
    Value value{"g1", "n" + std::to_string(offset), ""};
    std::vector<std::byte> record = encode(value);
    const auto dataSize = static_cast<std::uint32_t>(size - RECORD_HEAD - 4);
    std::memcpy(record.data() + offsetof(TestRecord, dataSize), &dataSize, sizeof dataSize);
    std::byte* at = bytes.data() + offset + HEAD;
    for (const std::size_t number : {size, literal}) {
      for (int part = 0; part < 3; ++part)
        *at++ = static_cast<std::byte>((number >> 7 * part & 0x7F) | (part < 2 ? 0x80 : 0));
    }
    std::memcpy(at, record.data(), RECORD_HEAD);
    bytes[end - 1] = std::byte{5};
    Frame frame = eventAt(0, previous);
    frame.offset = offset;
    frame.chain = chain;
    frame.last = true;
    std::vector<std::byte> sealed;
    appendFrame(frame, std::span<const std::byte>(bytes).subspan(offset + HEAD, room), log.key(), sealed);
    std::memcpy(bytes.data() + offset, sealed.data(), sealed.size());
    log.setChain(frame.crc);
  }

  format::FileHeader header_{};
};

TEST_F(ForgedLogs, ThatAreSoundAreRead) {
  ForgedLog log(header_, INDEXES);
  log.appendArea(8);
  const std::uint64_t offset = log.append(eventAt(0, 0), stored({"g1", "a", "x"}));
  log.lead(0, digestOf(0, {"g1", "a", ""}), offset);
  log.lead(1, digestOf(1, {"g1", "", ""}), offset);
  log.slot().records = 1;
  log.slot().recordBytes = encode({"g1", "a", "x"}).size();
  log.slot().liveFrameBytes = log.end() - offset;
  put(ForgedCase{.file = log.file()});
  TestStore store(folder_.path());
  EXPECT_EQ(store.list(), (Values{{"g1", "a", "x"}}));
  EXPECT_EQ(store.list(GROUP, {"g1", "", ""}), (Values{{"g1", "a", "x"}}));
  Value value;
  EXPECT_EQ(store.get("g1", "a", value), MD_RC_OK);
  GenRegStatus status;
  ASSERT_EQ(store.status(status), MD_RC_OK);
  EXPECT_EQ(status.damaged, 0u);
  EXPECT_EQ(meetLog(log), "");
}

// Each change is of another place, so that none of them hides another.
TEST_F(ForgedLogs, WithOneChainOfChangesOfOtherPlaces) {
  ForgedLog log(header_, INDEXES);
  log.appendArea(8);
  std::vector<std::uint64_t> places;
  for (int at = 0; at < 6000; ++at)
    places.push_back(log.append(eventAt(0, 0), stored({"g1", "p" + std::to_string(at), ""})));
  std::uint64_t head = 0;
  for (const std::uint64_t place : places) head = log.append(eventAt(place, head), stored({"g1", "c", ""}));
  log.slot().firstEvent = format::LOG_START;
  for (const Value& value : {Value{"none", "none", ""}, Value{"g1", "a", ""}}) log.lead(0, digestOf(0, value), head);
  log.lead(1, digestOf(1, {"g1", "", ""}), head);
  EXPECT_EQ(meetLog(log), "");
}

TEST_F(ForgedLogs, WhoseChainLeadsThroughFramesInFrames) {
  const SettingScope large(largestData, MAX_DATA);
  ForgedLog log(header_, INDEXES);
  log.appendArea(8);
  const auto nested = appendNested(log, 1500);
  for (const Value& value : {Value{"none", "none", ""}, Value{"g1", "a", ""}})
    log.lead(0, digestOf(0, value), nested.back());
  log.lead(1, digestOf(1, {"g1", "", ""}), nested.back());
  EXPECT_EQ(meetLog(log), "");
}

TEST_F(ForgedLogs, WhoseSummaryNamesFramesInFrames) {
  const SettingScope large(largestData, MAX_DATA);
  ForgedLog log(header_, INDEXES);
  log.appendArea(8);
  const auto nested = appendNested(log, 1500);
  Frame summary;
  summary.kind = format::FrameKind::SUMMARY;
  summary.summary = format::SummaryBody{.digest = digestOf(1, {"g1", "", ""}), .index = 1, .count = 1500};
  std::vector<format::SummaryEntry> entries;
  for (const std::uint64_t offset : nested) entries.push_back({.place = offset, .offset = offset});
  log.lead(1, summary.summary.digest, log.append(summary, std::as_bytes(std::span(entries))));
  EXPECT_EQ(meetLog(log), "");
}

// Behind damage every head looks like one to go on from.
TEST_F(ForgedLogs, WhoseFramesInFramesAreDamaged) {
  const SettingScope large(largestData, MAX_DATA);
  ForgedLog log(header_, INDEXES);
  log.appendArea(8);
  appendNested(log, 1500);
  spoilByte(log.bytes(), log.bytes().size() - 1);
  EXPECT_EQ(meetLog(log), "");
}

// Each entry that may be of the key leads to the same long record.
TEST_F(ForgedLogs, WhoseBlocksAreCrowded) {
  const SettingScope large(largestData, MAX_DATA);
  ForgedLog log(header_, INDEXES);
  const std::uint64_t blocks = log.appendArea(32);
  const std::uint64_t record = log.append(eventAt(0, 0), stored({"g1", "other", noise(500000, 9)}));
  const std::uint64_t digests[] = {digestOf(0, {"none", "none", ""}), digestOf(1, {"g1", "", ""})};
  for (std::uint64_t at = 0; at < 32; ++at) {
    format::Block block{};
    block.count = format::BLOCK_ENTRIES;
    block.overflowed = 1;
    for (std::size_t entry = 0; entry < format::BLOCK_ENTRIES; ++entry) {
      const std::size_t index = entry % std::size(digests);
      block.entries[entry] = makeEntry(index, digests[index], record);
    }
    log.setBlock(blocks + at * format::BLOCK_SIZE, block);
  }
  EXPECT_EQ(meetLog(log), "");
}

TEST_F(ForgedLogs, WhoseSummaryCountsWhatMemoryCannotHold) {
  for (const std::uint32_t count : {0x0FFFFFFEu, 0x08000000u, 400u}) {
    ForgedLog log(header_, INDEXES);
    log.appendArea(8);
    Frame summary;
    summary.kind = format::FrameKind::SUMMARY;
    summary.summary = format::SummaryBody{.digest = digestOf(1, {"g1", "", ""}), .index = 1, .count = count};
    const std::uint64_t offset = log.append(summary, FileBytes(16 * 8));
    const auto size = static_cast<std::uint32_t>(40 + std::uint64_t{count} * 16);
    std::memcpy(log.bytes().data() + offset + 12, &size, sizeof size);
    const std::uint32_t crc = crc32c(checksumStart(log.key().salt, offset), log.bytes().data() + offset + 4, 36);
    std::memcpy(log.bytes().data() + offset, &crc, sizeof crc);
    log.setChain(crc);
    log.lead(1, summary.summary.digest, offset);
    EXPECT_EQ(meetLog(log), "") << count;
  }
}

// To remove each record its writer looks for what lies below it: here, one long run of removals.
TEST_F(ForgedLogs, WhoseRemovalsAllLieBelowEachRecord) {
  ForgedLog log(header_, INDEXES);
  log.appendArea(64);
  const std::uint64_t gone = log.append(eventAt(0, 0), stored({"g1", "gone", ""}));
  const std::uint64_t digests[] = {digestOf(0, {"g1", "gone", ""}), digestOf(1, {"g1", "", ""})};
  log.slot().firstEvent = log.end();
  std::uint64_t below = 0;
  for (int at = 0; at < 3000; ++at) {
    Frame removal = eventAt(gone, below);
    removal.kind = format::FrameKind::REMOVE;
    removal.clean = true;
    removal.links[0].previous = 0;
    below = log.append(removal, std::as_bytes(std::span(digests)));
  }
  std::uint64_t head = 0;
  for (int at = 0; at < 20; ++at) {
    const Value value{"g1", "k" + std::to_string(at), ""};
    Frame frame = eventAt(0, below);
    frame.links[0].previous = head;
    head = log.append(frame, stored(value));
    log.lead(0, digestOf(0, value), head);
  }
  log.lead(1, digests[1], head);
  log.slot().records = 20;
  log.slot().recordBytes = 1 << 20;
  log.slot().liveFrameBytes = 20 * 128;
  EXPECT_EQ(meetLog(log), "");
}

// Behind the published end each change asks for the form before it, down one long chain.
TEST_F(ForgedLogs, WhoseUnpublishedChangesAllFollowOneChain) {
  ForgedLog log(header_, INDEXES);
  log.appendArea(64);
  const std::uint64_t oldest = log.append(eventAt(0, 0), stored({"g1", "oldest", ""}));
  std::uint64_t head = oldest;
  for (int at = 0; at < 2500; ++at) head = log.append(eventAt(0, head), stored({"g1", "a", ""}));
  const std::uint32_t chain = log.slot().chain;
  const std::uint64_t end = log.end();
  for (int at = 0; at < 2500; ++at) log.append(eventAt(oldest, head), stored({"g1", "a", ""}));
  log.setChain(chain);
  log.slot().records = 2501;
  log.slot().recordBytes = 1 << 20;
  log.slot().liveFrameBytes = 2501 * 48;
  EXPECT_EQ(meetLog(log, end), "");
}

// A hole of a terabyte with records in it, if one believes the slot.
TEST_F(ForgedLogs, ThatAreMostlyHoles) {
  constexpr std::uint64_t HOLE = std::uint64_t{1} << 32;
  ForgedLog log(header_, INDEXES);
  log.appendArea(8);
  Frame area;
  area.kind = format::FrameKind::AREA;
  const std::uint64_t head = log.end() + sizeof(format::FrameHeader) + sizeof(format::AreaBody);
  area.area.blocksOffset = (head + format::BLOCK_SIZE - 1) / format::BLOCK_SIZE * format::BLOCK_SIZE;
  area.area.blockCount = format::MAX_BLOCKS;
  log.append(area, {});
  const std::uint64_t end = area.area.blocksOffset + area.area.blockCount * format::BLOCK_SIZE;
  log.slot().liveFrameBytes = HOLE / 2;
  log.slot().records = HOLE / 64;
  ForgedCase forged{.file = log.file(end), .size = HOLE + (1 << 20)};
  forged.mostRead = 64 << 20;
  EXPECT_EQ(meet(forged), "");
}

// The same where nobody tells holes from data: what is reserved follows the blocks that the file has.
TEST_F(ForgedLogs, ThatAreMostlyHolesWhichNobodyTells) {
  constexpr std::uint64_t HOLE = std::uint64_t{32} << 20;
  ForgedLog log(header_, INDEXES);
  log.appendArea(8);
  for (const char* key : {"a", "b"}) log.append(eventAt(0, 0), stored({"g1", key, "x"}));
  log.slot().liveFrameBytes = HOLE / 2;
  log.slot().records = HOLE / 64;
  ForgedCase forged{.file = log.file(HOLE), .size = HOLE + (1 << 20)};
  forged.tellsHoles = false;
  forged.mostRead = 16 * HOLE;
  EXPECT_EQ(meet(forged), "");
}

// Each takes a hundred bytes in the file, and a megabyte when it is read: one at a time.
TEST_F(ForgedLogs, WhoseRecordsAreZeros) {
  const SettingScope large(largestData, MAX_DATA);
  ForgedLog log(header_, INDEXES);
  log.appendArea(8);
  const std::uint64_t start = log.end();
  constexpr std::uint64_t RECORDS = 300;
  std::uint64_t head = 0;
  for (std::uint64_t at = 0; at < RECORDS; ++at) {
    const Value value{"g1", at == 0 ? "a" : "z" + std::to_string(at), std::string(MAX_DATA - 1, '\0')};
    Frame frame = eventAt(0, 0);
    frame.links[0] = format::Link{
        .previous = head, .events = static_cast<std::uint32_t>(at + 1), .live = static_cast<std::uint32_t>(at + 1)};
    head = log.append(frame, stored(value));
    if (at < 40) log.lead(0, digestOf(0, value), head);
  }
  log.lead(1, digestOf(1, {"g1", "", ""}), head);
  log.slot().records = RECORDS;
  log.slot().recordBytes = RECORDS * (RECORD_HEAD + MAX_DATA + 4);
  log.slot().liveFrameBytes = log.end() - start;
  EXPECT_LT(log.end(), 100000u);
  EXPECT_EQ(meetLog(log), "");
}

}  // namespace
}  // namespace zon::test
