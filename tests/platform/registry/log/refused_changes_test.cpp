// Power cuts after changes that were refused: a failed sync, or a name in doubt, and what a cut must not bring back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/registry/format/format.h"
#include "platform/registry/harness/crash_explorer.h"
#include "platform/registry/harness/simulated_disk.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

// A failed sync takes pages for clean that never reached the disk: what is acknowledged later must not rest on them.
TEST_F(PowerCuts, AfterAFailedSync) {
  statesPerPoint_ = 100;
  for (int at = 0; at < 21; ++at) addQuietly({"g" + std::to_string(at), "k" + std::to_string(at), "d"});
  for (int round = 0; round < 6; ++round) {
    const Value value{"failing" + std::to_string(round), "key", noise(900, static_cast<unsigned>(round))};
    std::vector<Values> after{with(now(), value), now()};
    step(
        "failing add", [&](TestStore& store) { return addWithFailedSync(store, value); }, after, GENREG_RC_IO_ERROR);
    add({"next" + std::to_string(round), "key", noise(100, static_cast<unsigned>(round))});
  }
}

// The blocks lie on many pages, of which what comes later touches few: the others must be written again as they are.
TEST_F(PowerCuts, AfterAFailedSyncOfManyBlocks) {
  statesPerPoint_ = 8;
  Values values;
  for (int at = 0; at < 500; ++at) values.push_back({"g" + std::to_string(at), "k" + std::to_string(at), ""});
  addInOneBatch(values);
  for (int at = 0; at < 25; ++at) {
    const std::string name = std::to_string(at);
    if (at == 21) {
      const Work failing = [&](TestStore& store) {
        const std::uint32_t rc = addWithFailedSync(store, {"failing", "failing", ""});
        return rc == GENREG_RC_IO_ERROR ? MD_RC_OK : rc + 1;
      };
      quietly(failing, now());
    }
    addQuietly({"new" + name, "new" + name, ""});
    watched_.push_back(now().back());
  }
  add({"last", "last", ""});
}

// An index block that is exactly full when one more entry belongs there says from then on that a search goes on in the
// next block. Here the two lie on pages of their own, so that what comes later touches the next one alone: keys are
// chosen by the blocks where they belong.
class FailedSyncs : public PowerCuts {
 protected:
  static constexpr std::uint64_t PAGE = 4096;

  // The file's first records make it; its one segment tells where the blocks lie.
  void SetUp() override {
    addQuietly({"first", "first", ""});
    const format::Slot slot = newestSlot();
    firstBlock_ = (slot.segments[0] & ((std::uint64_t{1} << 40) - 1)) * format::BLOCK_SIZE;
    blockCount_ = slot.segments[0] >> 40;
    // The last block of its page whose next one belongs to the segment too.
    full_ = (PAGE - firstBlock_ % PAGE) / format::BLOCK_SIZE - 1;
    ASSERT_LT(full_ + 1, blockCount_);
    group_ = findName([&](const std::string& name) { return blockOf(GROUP, {name, "", ""}) == full_ + 1; });
  }

  format::Block block(std::uint64_t number) const {
    return fromFile<format::Block>(firstBlock_ + number * format::BLOCK_SIZE);
  }

  // A record whose whole key belongs to this block; another one at each call.
  Value recordFor(std::uint64_t block) {
    return {group_, findName([&](const std::string& name) {
              return blockOf(WHOLE_KEY, {group_, name, ""}) == block;
            }),
            ""};
  }

  Values recordsFor(std::uint64_t block, std::size_t count) {
    Values records;
    while (records.size() < count) records.push_back(recordFor(block));
    return records;
  }

  std::uint64_t full_ = 0;  // the number of the block that gets full

 private:
  template <class T>
  T fromFile(std::uint64_t offset) const {
    const DiskImage image = disk_.image();
    T structure;
    std::memcpy(&structure, image.files.at(image.names.at("store"))->data() + offset, sizeof structure);
    return structure;
  }

  std::uint64_t blockOf(unsigned long fields, const Value& value) const {
    const auto record = encode(value);
    const std::uint64_t digest = digestRecord(fields, record.data(), fromFile<format::FileHeader>(0).hashSeed);
    return (digest & 0xFFFFFFFF) * blockCount_ >> 32;
  }

  template <class Belongs>
  std::string findName(const Belongs& belongs) {
    std::string name;
    do {
      name = numbered("n", nextName_++);
    } while (!belongs(name));
    return name;
  }

  std::uint64_t firstBlock_ = 0;
  std::uint64_t blockCount_ = 0;
  std::string group_;
  int nextName_ = 0;
};

TEST_F(FailedSyncs, DoNotTakeTheWayToAnEntryBehindAFullBlock) {
  statesPerPoint_ = 40;
  addInOneBatch(recordsFor(full_, format::BLOCK_ENTRIES));
  ASSERT_EQ(block(full_).count, format::BLOCK_ENTRIES);
  ASSERT_EQ(block(full_).overflowed, 0);
  const Value behind = recordFor(full_);
  addQuietly(behind);
  watched_.push_back(behind);
  while (block(full_).overflowed == 0) addQuietly(recordFor(full_ + 1));
  // The blocks have the entry, and wait for the next sync, which fails.
  ASSERT_GT(newestSlot().overlayApplied, 0);
  const Value refused = recordFor(full_ + 1);
  quietly([&](TestStore& store) { return addWithFailedSync(store, refused) == GENREG_RC_IO_ERROR ? MD_RC_OK : 1u; },
          now());
  while (newestSlot().overlayApplied == 0) addQuietly(recordFor(full_ + 1));
  add(recordFor(full_ + 1));
  EXPECT_EQ(newestSlot().overlayApplied, 0);
  ASSERT_LE(block(full_ + 1).count, format::BLOCK_ENTRIES);
  add({"elsewhere", "elsewhere", ""});
}

// A refused batch leaves its second part on the disk. When the first part is done again alone, its bytes are the same
// at the same place: the second part fits behind it, and must not come back with it. The first part ends at or near the
// end of a unit, so that a cut can take it without the zeros behind it.
class RefusedBatches : public PowerCuts {
 protected:
  RefusedBatches() { statesPerPoint_ = 200; }

  void SetUp() override {
    addQuietly({"g", "before", noise(400, 8)});
    const std::uint64_t before = publishedEnd();
    addQuietly({"g", "probe", noise(400, 9)});
    overhead_ = publishedEnd() - before - 400;
  }

  // Refuses a batch of two, of which the first has so much data and a little more, by the faults that `makeFault`
  // answers; does `between`; then adds the first part alone. Its frame ends so many bytes behind the start of a unit.
  void refuseAndRedo(
      std::size_t dataSize, std::uint64_t reach, const std::function<std::function<int(Call)>()>& makeFault,
      const std::function<void()>& between = [] {}) {
    const std::uint64_t least = publishedEnd() + overhead_ + dataSize;
    const std::uint64_t more = (UNIT - (least - reach) % UNIT) % UNIT;
    const std::string name = std::to_string(1000 + now().size());
    const Value first{"g", "a" + name, noise(dataSize + static_cast<std::size_t>(more), 10)};
    const Value second{"g", "other" + name, noise(100, 11)};
    quietly(
        [&](TestStore& store) {
          std::uint32_t rc = store.beginBatch() | store.add(first) | store.add(second);
          disk_.fault = makeFault();
          rc |= store.commitBatch();
          disk_.fault = nullptr;
          return rc == MD_RC_OK ? 1u : MD_RC_OK;
        },
        now());
    writeBack();
    between();
    add(first);
    ASSERT_EQ((publishedEnd() - reach) % UNIT, 0u);
  }

  // Of the taking back only the mark reaches the file.
  static std::function<int(Call)> failedSyncAndSlot() {
    return [sync = failedSync(), failed = false, writes = 0](Call call) mutable {
      if (sync(call) != 0) {
        failed = true;
        return EIO;
      }
      return failed && call == Call::WRITE && ++writes == 2 ? EIO : 0;
    };
  }

  std::uint64_t overhead_ = 0;  // of a frame beside the record's data
};

TEST_F(RefusedBatches, AreTakenBackBeforeOnePartIsDoneAgain) {
  for (const std::uint64_t reach : {0u, 8u, 16u, 504u}) refuseAndRedo(400, reach, failedSync);
}

// The whole batch is durable when its publishing fails, and its second part lies far behind its start.
TEST_F(RefusedBatches, AreTakenBackWholeWhateverTheirLength) {
  const auto failedSlot = [] {
    return [synced = false, failed = false](Call call) mutable {
      synced = synced || call == Call::SYNC_DATA;
      const bool fails = synced && !failed && call == Call::WRITE;
      failed = failed || fails;
      return fails ? EIO : 0;
    };
  };
  const SettingScope large(largestData, 2 * SMALL_RECORDS);
  for (const std::uint64_t reach : {0u, 504u}) refuseAndRedo(9000, reach, failedSlot);
}

TEST_F(RefusedBatches, AreClearedAwayByTheNextWriter) {
  for (const std::uint64_t reach : {0u, 8u, 16u, 504u}) refuseAndRedo(400, reach, failedSyncAndSlot);
}

// A power cut takes the first part of a batch under way and leaves the second, out of sight.
TEST_F(RefusedBatches, AreClearedAwayWhenAPowerCutHidThem) {
  const auto dieAtSync = [] {
    return [dead = false](Call call) mutable {
      dead = dead || call == Call::SYNC_DATA;
      return dead ? EINTR : 0;
    };
  };
  for (const std::uint64_t reach : {0u, 8u, 16u, 504u}) {
    const auto cutFirstPart = [&] {
      const std::uint64_t end = publishedEnd();
      DiskImage image = disk_.image();
      const auto bytes = std::make_shared<Bytes>(*image.files.at(image.names.at("store")));
      std::fill_n(bytes->begin() + static_cast<std::ptrdiff_t>(end), UNIT - end % UNIT, std::byte{0});
      image.files[image.names.at("store")] = bytes;
      startAnew(image);
    };
    refuseAndRedo(400, reach, dieAtSync, cutFirstPart);
  }
}

// A writer that dies while it clears up must leave enough for the next one to see that it did not get done. An
// interrupted call has no effect, and one that always is ends the work.
TEST_F(RefusedBatches, AreClearedAwayAlthoughAWriterDiesAtIt) {
  for (int most = 0; most < 6; ++most) {
    const auto die = [&] {
      const Work dying = [&](TestStore& store) {
        disk_.fault = [most, calls = 0](Call call) mutable {
          calls += call == Call::WRITE || call == Call::SYNC_DATA ? 1 : 0;
          return calls > most ? EINTR : 0;
        };
        const std::uint32_t rc = store.add({"g", "dying", "x"});
        disk_.fault = nullptr;
        return rc == MD_RC_OK ? 1u : MD_RC_OK;
      };
      quietly(dying, now());
    };
    refuseAndRedo(400, 0, failedSyncAndSlot, die);
  }
}

// A compaction whose directory cannot be synced leaves the name in doubt: nothing may be acknowledged before it is
// sure.
TEST_F(PowerCuts, AfterADirectoryThatWouldNotSync) {
  statesPerPoint_ = 40;
  for (const bool staysBroken : {false, true}) {
    if (now().empty()) addQuietly({"g", "stays", noise(200, 1)});
    for (unsigned at = 0; at < 3; ++at) {
      const std::string name = std::to_string(at) + (staysBroken ? "b" : "a");
      bool renamed = false;
      disk_.fault = [&renamed, staysBroken](Call call) {
        renamed = renamed || call == Call::RENAME;
        const bool fails = renamed && call == Call::SYNC;
        renamed = renamed && (staysBroken || !fails);
        return fails ? EIO : 0;
      };
      quietly([](TestStore& store) { return store.compact() == GENREG_RC_DURABILITY_UNKNOWN ? MD_RC_OK : 1u; }, now());
      const Value value{"next" + name, "k", noise(300, at)};
      disk_.fault = nullptr;
      if (staysBroken) {
        const Work refused = [&](TestStore& store) {
          disk_.fault = [](Call call) { return call == Call::SYNC ? EIO : 0; };
          const std::uint32_t rc = store.add(value);
          disk_.fault = nullptr;
          return rc;
        };
        step("refused add", refused, {now()}, GENREG_RC_DURABILITY_UNKNOWN);
      }
      add(value);
    }
  }
}

}  // namespace
}  // namespace zon::test
