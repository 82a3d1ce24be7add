// Files made by somebody who can compute checksums. Whatever the numbers in a file and its backup say: no crash, no
// hang, the work in proportion to the file, memory and disk bounded; what is answered was in the file, or a code says
// why nothing is; what a writer acknowledged is found afterwards; and once a writer repaired the file, it works.
//
// Each file is met by every question and every change, in a process of its own. ZON_FORGED_CASES raises the number of
// random files, ZON_FORGED_SEED begins elsewhere, ZON_FORGED_KEEP names a folder for the files that failed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <utility>

#include "bounded_child.h"
#include "forged_file.h"
#include "platform/registry/crc32c.h"
#include "platform/registry/index_blocks.h"
#include "platform/registry/system_calls.h"
#include "platform/registry/zero_runs.h"
#include "support/told_numbers.h"
#include "test_records.h"

namespace zon::test {
namespace {

constexpr std::size_t SMALL_RECORDS = 4096;
constexpr std::size_t INDEXES = 2;
constexpr std::uint64_t MEMORY_SLACK = std::uint64_t{8} << 20;
constexpr std::uint64_t OF_THE_TEST = 4;  // buffers as long as the longest record
const Value PROBE{"probe", "probe", "acknowledged"};

FileBytes contentOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string content((std::istreambuf_iterator<char>(file)), {});
  FileBytes bytes(content.size());
  std::memcpy(bytes.data(), content.data(), content.size());
  return bytes;
}

void putContent(const std::filesystem::path& path, const FileBytes& bytes) {
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

struct ForgedCase {
  FileBytes file{};
  FileBytes backup{};               // none when empty
  std::uint64_t size = 0;           // to which the file is made longer by a hole
  const Values* history = nullptr;  // all that was ever in it; null when nobody knows
  Value wanted{"g1", "a", ""};
  std::uint64_t mostRead = 0;  // 0: as for a small file
};

// The folder's owner; the work is done by children.
class ForgedFiles : public ::testing::Test {
 protected:
  void put(const ForgedCase& forged) const {
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) std::filesystem::remove(entry.path());
    putContent(folder_.file(), forged.file);
    if (!forged.backup.empty()) putContent(folder_.backup(), forged.backup);
    if (forged.size > forged.file.size()) std::filesystem::resize_file(folder_.file(), forged.size);
  }

  // Meets the file with everything; complains of what must not be.
  std::string meet(const ForgedCase& forged) const;

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
  TestFolder folder_{inMemory()};
};

// One operation after the other, each on the forged file as it was.
class Meeting {
 public:
  Meeting(const ForgedCase& forged, const TestFolder& folder, std::function<void()> put)
      : forged_(forged), folder_(folder), put_(std::move(put)) {}

  std::string run() {
    put_();
    read();
    change();
    repair();
    return complaint_;
  }

 private:
  using Operation = std::function<std::uint32_t(TestStore&)>;

  void complain(const std::string& what) {
    if (complaint_.size() < 1000) complaint_ += "  " + operation_ + ": " + what + '\n';
  }

  std::uint64_t used() const { return forged_.file.size() + forged_.backup.size(); }

  // No code of our own mistakes, no memory that ran out; the cost within the bounds.
  std::uint32_t cost(const std::string& name, TestStore& store, const Operation& operation) {
    operation_ = name;
    CallCounter::reset();
    const std::uint32_t rc = operation(store);
    const Bounds spent = CallCounter::counted();
    if (rc == GENREG_RC_INTERNAL || rc == GENREG_RC_NO_MEMORY || rc == GENREG_RC_DURABILITY_UNKNOWN ||
        rc == GENREG_RC_FILE_TOO_LARGE || rc == GENREG_RC_NO_SPACE) {
      complain("answered " + std::to_string(rc));
    }
    const std::uint64_t mostRead = forged_.mostRead != 0 ? forged_.mostRead : 64 * used() + (1 << 20);
    if (spent.bytesRead > mostRead) complain("read " + std::to_string(spent.bytesRead) + " bytes");
    if (spent.bytesWritten > 12 * used() + (1 << 20)) {
      complain("wrote " + std::to_string(spent.bytesWritten) + " bytes");
    }
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
      const bool isForged = forged_.size != 0 && (entry.path() == folder_.file() || entry.path().extension() == ".cor");
      if (!isForged && entry.file_size() > 2 * used() + (1 << 17)) {
        complain(entry.path().filename().string() + " has " + std::to_string(entry.file_size()) + " bytes");
      }
    }
    return rc;
  }

  void expectKnown(const Value& value) {
    if (forged_.history == nullptr || value == PROBE) return;
    const Values& known = *forged_.history;
    if (std::find(known.begin(), known.end(), value) == known.end()) complain("invented a record");
  }

  void read() {
    TestStore store(folder_.path());
    std::vector<Value> keys{{"none", "none", ""}, forged_.wanted};
    if (forged_.history != nullptr) {
      std::set<std::pair<std::string, std::string>> names;
      for (const Value& value : *forged_.history) names.emplace(value.group, value.key);
      for (const auto& [group, key] : names) keys.push_back({group, key, ""});
    }
    for (const Value& key : keys) {
      Value value;
      const std::uint32_t rc =
          cost("get", store, [&](TestStore& asked) { return asked.get(key.group, key.key, value); });
      if (rc != MD_RC_OK) continue;
      if (value.group != key.group || value.key != key.key) complain("answered another record");
      expectKnown(value);
    }
    for (const unsigned long flags : {0ul, GROUP, DATA}) {
      cost("list by " + std::to_string(flags), store, [&](TestStore& asked) { return list(asked, flags); });
    }
    GenRegStatus status;
    cost("status", store, [&](TestStore& asked) { return asked.status(status); });
  }

  // Keeps none of what is listed: the bound on memory is for the engine.
  std::uint32_t list(TestStore& store, unsigned long flags) {
    std::uint32_t rc = store.OpenScan();
    if (rc != MD_RC_OK) return rc;
    const auto match = encode({"g1", "", "x"}, true);
    std::vector<std::byte> out(match.size());
    while ((rc = store.GetNext(flags, const_cast<std::byte*>(match.data()), out.data())) == MD_RC_OK) {
      if (forged_.history != nullptr) expectKnown(decode(out));
    }
    const std::uint32_t closed = store.CloseScan();
    return rc == GENREG_RC_END_OF_SCAN ? closed : rc;
  }

  void change() {
    const std::string key = forged_.wanted.key;
    const std::string group = forged_.wanted.group;
    const Operation changes[] = {
        [](TestStore& store) { return store.add(PROBE); },
        [&](TestStore& store) {
          return store.change({group, key, "changed"});
        },
        [&](TestStore& store) {
          return store.changeTo({group, key, ""}, {"g9", "renamed", "changed"});
        },
        [&](TestStore& store) { return store.remove(group, key); },
        [&](TestStore& store) { return store.removeAll(group, "", GROUP); },
        [](TestStore& store) { return store.compact(); },
    };
    const char* const names[] = {"add", "change", "rename", "remove", "remove a group", "compact"};
    for (std::size_t at = 0; at < std::size(changes); ++at) {
      if (at > 0) put_();
      TestStore store(folder_.path());
      const std::uint32_t rc = cost(names[at], store, changes[at]);
      if (at == 0 && rc != MD_RC_OK && !isRefused(rc)) complain("answered " + std::to_string(rc));
      if (rc == MD_RC_OK) expectToWork(store, at == 0);
    }
  }

  void repair() {
    put_();
    TestStore store(folder_.path());
    const std::uint32_t rc = cost("repair", store, [](TestStore& damaged) { return damaged.repair(); });
    if (rc != MD_RC_OK) {
      if (!isRefused(rc)) complain("answered " + std::to_string(rc));
      return;
    }
    expectToWork(store, false);
    GenRegStatus status;
    if (store.status(status) != MD_RC_OK || status.damaged != 0) complain("left damage");
  }

  static bool isRefused(std::uint32_t rc) {
    return rc == GENREG_RC_NEWER_FORMAT || rc == GENREG_RC_WRONG_RECORD_TYPE || rc == GENREG_RC_NOT_RECORD_FILE;
  }

  // What a writer acknowledged is found, and so is what is added until the index blocks have to take it.
  void expectToWork(TestStore& store, bool hasProbe) {
    operation_ += ", then";
    Value found;
    if (hasProbe && (store.get(PROBE.group, PROBE.key, found) != MD_RC_OK || !(found == PROBE))) {
      return complain("lost what it acknowledged");
    }
    if (!hasProbe && store.add(PROBE) != MD_RC_OK) return complain("refused a record");
    Values more;
    for (int at = 0; at < 30; ++at) more.push_back({"more", "m" + std::to_string(at), "x"});
    if (!addAtOnce(store, more)) {
      // A batch refuses what it meets half way; each alone is taken, after a repair if need be.
      for (const Value& value : more) {
        const std::uint32_t rc = store.add(value);
        if (rc != MD_RC_OK && rc != GENREG_RC_DUPLICATE_KEY)
          return complain("refused " + value.key + " with " + std::to_string(rc));
      }
    }
    more.push_back(PROBE);
    for (const Value& value : more) {
      if (store.get(value.group, value.key, found) != MD_RC_OK || !(found == value)) {
        return complain("lost " + value.key);
      }
    }
    std::uint32_t rc = MD_RC_OK;
    if (store.list(GROUP, {"more", "", ""}, &rc).size() != 30 || rc != MD_RC_OK) return complain("lists too little");
    if (store.remove(PROBE.group, PROBE.key) != MD_RC_OK) complain("does not remove");
    if (store.get(PROBE.group, PROBE.key, found) != GENREG_RC_NOT_FOUND) complain("has what was removed");
  }

  bool addAtOnce(TestStore& store, const Values& values) {
    std::uint32_t rc = store.beginBatch();
    if (rc != MD_RC_OK) complain("refused a batch");
    for (const Value& value : values) rc = rc == MD_RC_OK ? store.add(value) : rc;
    const std::uint32_t committed = store.commitBatch();
    if (rc == MD_RC_OK) rc = committed;
    if (rc != MD_RC_OK && rc != GENREG_RC_DAMAGED) complain("refused a batch with " + std::to_string(rc));
    return rc == MD_RC_OK;
  }

  const ForgedCase& forged_;
  const TestFolder& folder_;
  std::function<void()> put_;
  std::string operation_;
  std::string complaint_;
};

std::string ForgedFiles::meet(const ForgedCase& forged) const {
  const std::uint64_t memory =
      forged.file.size() + forged.backup.size() + MEMORY_SLACK + 2 * largestData + OF_THE_TEST * largestData;
  return runBounded(memory, [&] { return Meeting(forged, folder_, [&] { put(forged); }).run(); });
}

// ---- Files of the engine, changed

// A file that the engine wrote, its backup, and all that was ever in it.
struct Original {
  FileBytes file;
  FileBytes backup;
  Values history;
};

// The engine's random numbers are the same in every run, so that the same seed makes the same file.
ssize_t evenRandom(void* data, std::size_t size, unsigned) {
  static Dice dice(1);
  for (std::size_t at = 0; at < size; ++at)
    static_cast<unsigned char*>(data)[at] = static_cast<unsigned char>(dice.next());
  return static_cast<ssize_t>(size);
}

class RandomlyForged : public ForgedFiles {
 protected:
  RandomlyForged() { systemCalls.getRandom = evenRandom; }
  ~RandomlyForged() override { systemCalls = realSystemCalls(); }

  void add(TestStore& store, Original& original, const Value& value) {
    ASSERT_EQ(store.add(value), MD_RC_OK);
    original.history.push_back(value);
  }

  Original take(Original original) {
    original.file = contentOf(folder_.file());
    if (std::filesystem::exists(folder_.backup())) original.backup = contentOf(folder_.backup());
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) std::filesystem::remove(entry.path());
    return original;
  }

  // A few records that were added, changed, renamed and removed; all heads are in the overlay.
  Original makeFew() {
    Original original;
    TestStore store(folder_.path());
    for (const char* key : {"a", "b", "c", "d"}) add(store, original, {"g1", key, noise(50, 7)});
    EXPECT_EQ(store.change({"g1", "a", "changed"}), MD_RC_OK);
    EXPECT_EQ(store.remove("g1", "b"), MD_RC_OK);
    EXPECT_EQ(store.changeTo({"g1", "c", ""}, {"g2", "renamed", "r"}), MD_RC_OK);
    original.history.push_back({"g1", "a", "changed"});
    original.history.push_back({"g2", "renamed", "r"});
    return take(original);
  }

  // Heads in blocks, a summary, and a backup that trails.
  Original makeMany() {
    Original original;
    TestStore store(folder_.path());
    for (int at = 0; at < 40; ++at) add(store, original, {"g1", "k" + std::to_string(at), noise(30, 3)});
    add(store, original, {"g1", "a", "first"});
    for (int at = 0; at < 120; ++at) {
      const Value value{"g1", at % 3 == 0 ? "a" : "k1", "changed " + std::to_string(at)};
      EXPECT_EQ(store.change(value), MD_RC_OK);
      original.history.push_back(value);
    }
    EXPECT_EQ(store.remove("g1", "k2"), MD_RC_OK);
    return take(original);
  }

  // As a compaction leaves it, with a few changes since.
  Original makeCompact() {
    Original original;
    TestStore store(folder_.path());
    for (int at = 0; at < 12; ++at)
      add(store, original, {"g1", std::string(1, static_cast<char>('a' + at)), noise(90, 5)});
    EXPECT_EQ(store.compact(), MD_RC_OK);
    for (const char* key : {"a", "b", "a"}) {
      const Value value{"g1", key, "since"};
      EXPECT_EQ(store.change(value) == MD_RC_OK,
                std::find(original.history.begin(), original.history.end(), value) == original.history.end());
      original.history.push_back(value);
    }
    return take(original);
  }

  static void keep(const ForgedCase& forged, std::uint64_t seed) {
    const char* folder = std::getenv("ZON_FORGED_KEEP");
    if (folder == nullptr) return;
    const std::filesystem::path name = std::filesystem::path(folder) / ("seed" + std::to_string(seed));
    putContent(name, forged.file);
    if (!forged.backup.empty()) putContent(name.string() + ".bkp", forged.backup);
  }
};

constexpr std::uint64_t CASES = 1500;
constexpr int MOST_COMPLAINTS = 5;

TEST_F(RandomlyForged, DoNoHarm) {
  const Original originals[] = {makeFew(), makeMany(), makeCompact()};
  const std::uint64_t first = zontest::toldNumber<std::uint64_t>("ZON_FORGED_SEED", 1);
  const std::uint64_t count = zontest::toldNumber<std::uint64_t>("ZON_FORGED_CASES", CASES);
  int complaints = 0;
  for (std::uint64_t seed = first; seed < first + count && complaints < MOST_COMPLAINTS; ++seed) {
    Dice dice(seed);
    const Original& original = originals[seed % std::size(originals)];
    ForgedFile file(original.file, INDEXES);
    bool isKnown = true;
    for (std::uint64_t changes = 1 + dice.below(3); changes > 0; --changes) isKnown = file.mutate(dice) && isKnown;
    ForgedCase forged{.file = file.bytes(), .backup = {}};
    if (dice.below(2) == 0 && !original.backup.empty()) {
      ForgedFile backup(original.backup, INDEXES);
      if (dice.below(2) == 0) isKnown = backup.mutate(dice) && isKnown;
      forged.backup = backup.bytes();
    }
    if (isKnown) forged.history = &original.history;
    const std::string complaint = meet(forged);
    if (complaint.empty()) continue;
    ADD_FAILURE() << "seed " << seed << ":\n" << complaint;
    keep(forged, seed);
    ++complaints;
  }
  std::cout << "forged files " << count << '\n';
}

TEST_F(RandomlyForged, AreSoundBefore) {
  for (const Original& original : {makeFew(), makeMany(), makeCompact()}) {
    EXPECT_EQ(meet(ForgedCase{.file = original.file, .history = &original.history}), "");
    EXPECT_EQ(meet(ForgedCase{.file = original.file, .backup = original.backup, .history = &original.history}), "");
    ForgedFile sealed(original.file, INDEXES);
    sealed.seal();
    EXPECT_EQ(sealed.bytes(), original.file);
  }
}

// ---- One number, changed in both slots

class ForgedSlots : public RandomlyForged {
 protected:
  ForgedSlots() : original_(makeFew()) {}

  template <class Change>
  std::string meetSlots(Change change) {
    ForgedFile file(original_.file, INDEXES);
    for (std::size_t number = 0; number < 2; ++number) {
      format::Slot slot = file.slot(number);
      change(slot);
      file.setSlot(number, slot);
    }
    file.seal();
    return meet(ForgedCase{.file = file.bytes(), .backup = original_.backup, .history = &original_.history});
  }

  Original original_;
};

TEST_F(ForgedSlots, WithAnIndexThatIsNone) {
  for (std::uint64_t index = 2; index < 8; ++index) {
    EXPECT_EQ(meetSlots([index](format::Slot& slot) {
                slot.overlay[0].offsetAndIndex = slot.overlay[0].offsetAndIndex / 8 * 8 + index;
              }),
              "")
        << index;
  }
}

TEST_F(ForgedSlots, WithASequenceThatCannotGrow) {
  for (const std::uint64_t high : {format::LAST_SEQUENCE - 4, format::LAST_SEQUENCE, format::MAX_SEQUENCE - 4,
                                   format::MAX_SEQUENCE, ~std::uint64_t{3}}) {
    for (std::uint64_t low = 0; low < 4; ++low) {
      const auto change = [high, low](format::Slot& slot) {
        slot.sequence = high + (low & 2) + (slot.sequence ^ (low & 1)) % 2;
      };
      EXPECT_EQ(meetSlots(change), "") << high << " and " << low;
    }
  }
}

TEST_F(ForgedSlots, WhoseEndIsNoFrames) {
  for (const std::int64_t by : {1, 2, 4, 7, -1, -4, 8, -8, 4096, 1 << 20, 1 << 30}) {
    EXPECT_EQ(meetSlots([by](format::Slot& slot) { slot.end += static_cast<std::uint64_t>(by); }), "") << by;
  }
}

TEST_F(ForgedSlots, WithSegmentsThatAreNone) {
  constexpr std::uint64_t UNIT = format::BLOCK_SIZE;
  const Segment segments[] = {{.offset = format::LOG_START + UNIT, .blockCount = 0},
                              {.offset = 0, .blockCount = 1},
                              {.offset = format::LOG_START, .blockCount = 1},
                              {.offset = format::LOG_START + UNIT, .blockCount = (1 << 24) - 1},
                              {.offset = std::uint64_t{1} << 48, .blockCount = 8},
                              {.offset = ((std::uint64_t{1} << 40) - 1) * UNIT, .blockCount = 1},
                              {.offset = format::LOG_START + 2 * UNIT, .blockCount = 7},
                              {.offset = format::LOG_START + UNIT, .blockCount = 9}};
  for (const Segment& segment : segments) {
    for (const std::size_t at : {0u, 1u, 2u, 15u}) {
      EXPECT_EQ(meetSlots([&](format::Slot& slot) { slot.segments[at] = packSegment(segment); }), "")
          << segment.offset << ' ' << segment.blockCount << " at " << at;
    }
  }
}

TEST_F(ForgedSlots, WithCountsOfAnotherFile) {
  for (const std::uint64_t count : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{1} << 27, ~std::uint64_t{0}}) {
    EXPECT_EQ(meetSlots([count](format::Slot& slot) { slot.records = count; }), "") << count;
    EXPECT_EQ(meetSlots([count](format::Slot& slot) { slot.recordBytes = count; }), "") << count;
    EXPECT_EQ(meetSlots([count](format::Slot& slot) { slot.liveFrameBytes = count; }), "") << count;
    EXPECT_EQ(meetSlots([count](format::Slot& slot) { slot.segmentEntries = count; }), "") << count;
    EXPECT_EQ(meetSlots([count](format::Slot& slot) { slot.backupEnd = count; }), "") << count;
  }
}

// ---- Logs put together to cost time, memory or room

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

}  // namespace
}  // namespace zon::test
