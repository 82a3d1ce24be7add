// Files that the engine wrote, with numbers changed and all checksums right.
//
// ZON_FORGED_CASES raises the number of random files, ZON_FORGED_SEED begins elsewhere, ZON_FORGED_KEEP names a folder
// for the files that failed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>

#include "platform/registry/files/system_calls.h"
#include "platform/registry/format/format.h"
#include "platform/registry/harness/forged_file.h"
#include "platform/registry/harness/forged_files.h"
#include "platform/registry/harness/test_records.h"
#include "platform/registry/log/index_blocks.h"
#include "support/evidence.h"
#include "support/told_numbers.h"

namespace zon::test {
namespace {

// A file that the engine wrote, its backup, and all that was ever in it.
struct Original {
  FileBytes file;
  FileBytes backup;
  Values history;
};

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
  zontest::tellEvidence("forged files", count, first);
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

// ---- Numbers of the header, of the backup and of an index with several segments

class ForgedHeaders : public RandomlyForged {
 protected:
  ForgedHeaders() : original_(makeFew()) {}

  template <class Change>
  ForgedCase changed(Change change) {
    ForgedFile file(original_.file, INDEXES);
    format::FileHeader header = file.header();
    change(header);
    file.setHeader(header);
    file.seal();
    return ForgedCase{.file = file.bytes(), .backup = original_.backup, .history = &original_.history};
  }

  Original original_;
};

TEST_F(ForgedHeaders, WithTheNameOfAnotherStore) {
  for (const std::string& name :
       {std::string("other"), std::string(), std::string(sizeof(format::FileHeader::store), 'x'),
        std::string("store\0more", 10)}) {
    const ForgedCase forged = changed([&](format::FileHeader& header) {
      std::fill(std::begin(header.store), std::end(header.store), '\0');
      std::copy(name.begin(), name.end(), header.store);
    });
    EXPECT_EQ(meet(forged), "") << name;
    put(forged);
    TestStore store(folder_.path());
    EXPECT_EQ(store.add(PROBE), GENREG_RC_WRONG_RECORD_TYPE) << name;
    EXPECT_EQ(contentOf(folder_.file()), forged.file) << name;
  }
}

// However many repairs the header counts, one more loss is told.
TEST_F(ForgedHeaders, WithCountsThatCannotGrow) {
  constexpr std::uint64_t MOST = ~std::uint64_t{0};
  for (const std::uint64_t acknowledged : {std::uint64_t{0}, std::uint64_t{1}, MOST - 1}) {
    const ForgedCase forged = changed([](format::FileHeader& header) {
      header.repairs = MOST;
      header.lostBytes = MOST;
      header.lossyRepairs = MOST;
    });
    EXPECT_EQ(meet(forged), "");
    ForgedFile file(forged.file, INDEXES);
    for (std::size_t number = 0; number < 2; ++number) {
      format::Slot slot = file.slot(number);
      slot.acknowledgedLosses = acknowledged;
      file.setSlot(number, slot);
    }
    file.seal();
    FileBytes damaged = file.bytes();
    spoilByte(damaged, file.frames().back().offset + 30);
    put(ForgedCase{.file = damaged});
    TestStore store(folder_.path());
    EXPECT_EQ(store.add(PROBE), MD_RC_OK);
    EXPECT_EQ(store.repair(), MD_RC_OK);
    GenRegStatus status{};
    EXPECT_EQ(store.status(status), MD_RC_OK);
    EXPECT_NE(status.unacknowledgedLosses, 0u) << acknowledged;
    EXPECT_EQ(status.repairs, MOST);
    EXPECT_EQ(status.lostBytes, MOST);
  }
}

class ForgedBackups : public RandomlyForged {
 protected:
  ForgedBackups() : original_(makeMany()) { EXPECT_FALSE(original_.backup.empty()); }

  // The file itself is sound, has a damaged record, or is gone but for its name.
  template <class Change>
  void meetBackup(const std::string& what, Change change) {
    ForgedFile backup(original_.backup, INDEXES);
    change(backup);
    backup.seal();
    FileBytes damaged = original_.file;
    spoilByte(damaged, ForgedFile(original_.file, INDEXES).frames()[5].offset + 60);
    for (const FileBytes& file : {original_.file, damaged, FileBytes{}}) {
      const ForgedCase forged{.file = file, .backup = backup.bytes(), .history = &original_.history};
      EXPECT_EQ(meet(forged), "") << what << ", file of " << file.size();
    }
  }

  template <class Change>
  void meetSlots(const std::string& what, Change change) {
    meetBackup(what, [&](ForgedFile& backup) {
      for (std::size_t number = 0; number < 2; ++number) {
        format::Slot slot = backup.slot(number);
        change(slot);
        backup.setSlot(number, slot);
      }
    });
  }

  Original original_;
};

TEST_F(ForgedBackups, ThatReachSomewhereElse) {
  for (const std::int64_t by : {8, -8, 4, 4096, -4096, 1 << 20, 1 << 30}) {
    meetSlots("end by " + std::to_string(by),
              [by](format::Slot& slot) { slot.indexedEnd = slot.end += static_cast<std::uint64_t>(by); });
  }
  meetSlots("chain", [](format::Slot& slot) { ++slot.chain; });
  meetSlots("sequence", [](format::Slot& slot) { slot.sequence += format::LAST_SEQUENCE; });
}

TEST_F(ForgedBackups, WithCountsOfAnotherFile) {
  for (const std::uint64_t count : {std::uint64_t{0}, std::uint64_t{1} << 27, ~std::uint64_t{0}}) {
    meetSlots("counts " + std::to_string(count), [count](format::Slot& slot) {
      slot.records = slot.recordBytes = slot.liveFrameBytes = slot.commits = slot.acknowledgedLosses = count;
    });
    meetBackup("header " + std::to_string(count), [count](ForgedFile& backup) {
      format::FileHeader header = backup.header();
      header.repairs = header.lostBytes = header.lossyRepairs = count;
      backup.setHeader(header);
    });
  }
}

class ForgedSegments : public RandomlyForged {
 protected:
  // An index that has grown twice at least.
  ForgedSegments() {
    TestStore store(folder_.path());
    store.unsetFeature(GenRegBase::FEATURE_BACKUP);
    for (int batch = 0; batch < 30; ++batch) {
      EXPECT_EQ(store.beginBatch(), MD_RC_OK);
      for (int at = 0; at < 50; ++at)
        add(store, original_, {"s" + std::to_string(batch), "k" + std::to_string(at), "x"});
      EXPECT_EQ(store.commitBatch(), MD_RC_OK);
    }
    add(store, original_, {"g1", "a", "x"});
    original_ = take(original_);
    EXPECT_GE(segmentCount(ForgedFile(original_.file, INDEXES).slot(0)), 3u);
  }

  template <class Change>
  std::string meetSegments(Change change) {
    ForgedFile file(original_.file, INDEXES);
    for (std::size_t number = 0; number < 2; ++number) {
      format::Slot slot = file.slot(number);
      change(slot.segments);
      file.setSlot(number, slot);
    }
    file.seal();
    // What is found out by reading alone: the harness asks for every record there ever was.
    return meet(ForgedCase{.file = file.bytes(), .mostRead = std::uint64_t{200} * file.bytes().size()});
  }

  Original original_;
};

TEST_F(ForgedSegments, InAnotherOrder) {
  EXPECT_EQ(meetSegments([](std::uint64_t* segments) { std::swap(segments[0], segments[1]); }), "");
  EXPECT_EQ(meetSegments([](std::uint64_t* segments) { std::swap(segments[1], segments[2]); }), "");
  EXPECT_EQ(meetSegments([](std::uint64_t* segments) { segments[1] = segments[0]; }), "");
}

TEST_F(ForgedSegments, WithOneLeftOut) {
  EXPECT_EQ(meetSegments([](std::uint64_t* segments) { segments[0] = 0; }), "");
  EXPECT_EQ(meetSegments([](std::uint64_t* segments) { segments[1] = segments[2], segments[2] = 0; }), "");
  EXPECT_EQ(meetSegments([](std::uint64_t* segments) { segments[2] = 0; }), "");
}

TEST_F(ForgedSegments, OfAnotherSize) {
  for (const std::size_t at : {0u, 1u, 2u}) {
    for (const std::int64_t by : {-1, 1, 8, 1 << 20}) {
      EXPECT_EQ(meetSegments([&](std::uint64_t* segments) {
                  Segment segment = unpackSegment(segments[at]);
                  segment.blockCount += static_cast<std::uint64_t>(by);
                  segments[at] = packSegment(segment);
                }),
                "")
          << at << " by " << by;
    }
  }
}

}  // namespace
}  // namespace zon::test
