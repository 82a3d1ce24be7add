// What calls cost, counted in system calls and bytes: they grow with the answer, not with the file or its history.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>

#include "platform/registry/files/system_calls.h"
#include "platform/registry/format/format.h"
#include "platform/registry/harness/engine_promises.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

// Counts calls and bytes over the table of system calls.
struct Cost {
  std::uint64_t calls = 0;
  std::uint64_t read = 0;
  std::uint64_t written = 0;
  std::uint64_t syncs = 0;
  std::uint64_t reserves = 0;
};
Cost cost;

class Costs : public EnginePromises {
 protected:
  Costs() {
    static const SystemCalls REAL = realSystemCalls();
    systemCalls.openAt = [](int directory, const char* path, int flags, mode_t mode) {
      ++cost.calls;
      EXPECT_NE(flags & O_CLOEXEC, 0) << path;
      const int careful = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
      EXPECT_TRUE((flags & careful) == careful || (flags & O_DIRECTORY) != 0) << path;
      return REAL.openAt(directory, path, flags, mode);
    };
    systemCalls.pread = [](int file, void* data, std::size_t size, off_t offset) {
      ++cost.calls;
      const ssize_t got = REAL.pread(file, data, size, offset);
      if (got > 0) cost.read += static_cast<std::uint64_t>(got);
      return got;
    };
    systemCalls.pwrite = [](int file, const void* data, std::size_t size, off_t offset) {
      ++cost.calls;
      cost.written += size;
      return REAL.pwrite(file, data, size, offset);
    };
    systemCalls.fallocate = [](int file, int mode, off_t offset, off_t size) {
      ++cost.calls;
      ++cost.reserves;
      return REAL.fallocate(file, mode, offset, size);
    };
    systemCalls.fdatasync = [](int file) {
      ++cost.calls;
      ++cost.syncs;
      return REAL.fdatasync(file);
    };
    systemCalls.fsync = [](int file) {
      ++cost.calls;
      ++cost.syncs;
      return REAL.fsync(file);
    };
  }
  ~Costs() override { systemCalls = realSystemCalls(); }

  template <class Work>
  static Cost costOf(Work work) {
    cost = {};
    work();
    return cost;
  }

  // Records of which ten each share a group.
  void fillGroupsOfTen(int records) {
    ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
    for (int at = 0; at < records; ++at) {
      ASSERT_EQ(store_.add({numbered("g", at % (records / 10)), numbered("k", at), noise(100, 1)}), MD_RC_OK);
    }
    ASSERT_EQ(store_.commitBatch(), MD_RC_OK);
  }
};

TEST_F(Costs, DoNotGrowWithTheFile) {
  std::map<int, std::map<std::string, Cost>> costs;
  for (const int records : {100, 10000, 100000}) {
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) std::filesystem::remove(entry.path());
    ASSERT_NO_FATAL_FAILURE(fillGroupsOfTen(records));
    Value value;
    auto& now = costs[records];
    const int groups = records / 10;
    const int rounds = 60;
    now["get"] = costOf([&] {
      for (int at = 0; at < rounds; ++at) {
        const int number = at * 7919 % records;
        ASSERT_EQ(store_.get(numbered("g", number % groups), numbered("k", number), value), MD_RC_OK);
      }
    });
    now["miss"] = costOf([&] {
      for (int at = 0; at < rounds; ++at) ASSERT_EQ(store_.get("no", numbered("k", at), value), GENREG_RC_NOT_FOUND);
    });
    now["group"] = costOf([&] {
      for (int at = 0; at < rounds; ++at) {
        ASSERT_EQ(store_.list(GROUP, {numbered("g", at * 31 % groups), "", ""}).size(), 10u);
      }
    });
    now["add"] = costOf([&] {
      for (int at = 0; at < rounds; ++at) ASSERT_EQ(store_.add({numbered("new", at), "k", noise(100, 2)}), MD_RC_OK);
    });
    now["change"] = costOf([&] {
      for (int at = 0; at < rounds; ++at) {
        const int number = at * 6007 % records;
        ASSERT_EQ(store_.change({numbered("g", number % groups), numbered("k", number), noise(90, 3)}), MD_RC_OK);
      }
    });
    now["delete group"] = costOf([&] {
      for (int at = 0; at < 5; ++at) ASSERT_EQ(store_.removeAll(numbered("g", at + 3), "", GROUP), MD_RC_OK);
    });
  }
  for (const auto& [name, least] : costs[100]) {
    for (const int records : {10000, 100000}) {
      const Cost& much = costs[records][name];
      RecordProperty(name + " " + std::to_string(records), std::to_string(much.calls) + " calls, " +
                                                               std::to_string(much.read) + " read, " +
                                                               std::to_string(much.written) + " written");
      // Upkeep of a grown file comes in larger pieces, less often; look-ups may take some segments more.
      EXPECT_LE(much.calls, least.calls * 3) << name << ' ' << records;
      if (name == "get" || name == "miss" || name == "group") {
        EXPECT_LE(much.read, least.read * 5 / 2) << name << ' ' << records;
        EXPECT_EQ(much.written, 0u) << name;
      }
    }
  }
}

TEST_F(Costs, OfListingAGroupDoNotGrowWithItsHistory) {
  fill(100, 10);
  const auto listing = [&] { ASSERT_EQ(store_.list(GROUP, {"g3", "", ""}).size(), 10u); };
  const Cost before = costOf(listing);
  std::uint64_t most = 0;
  for (int at = 0; at < 600; ++at) {
    ASSERT_EQ(store_.change({"g3", "k3", numbered("change ", at)}), MD_RC_OK);
    if (at % 10 == 0) most = std::max(most, costOf(listing).calls);
  }
  EXPECT_LT(most, before.calls * 6);
}

TEST_F(Costs, OfAKeyDoNotGrowWithItsHistory) {
  fill(100, 10);
  Value value;
  const auto missing = [&] { ASSERT_EQ(store_.get("g", "comes and goes", value), GENREG_RC_NOT_FOUND); };
  const auto adding = [&] { ASSERT_EQ(store_.add({"g", "comes and goes", "x"}), MD_RC_OK); };
  const std::uint64_t missingBefore = costOf(missing).calls;
  std::uint64_t mostMissing = 0;
  std::uint64_t leastAdding = ~std::uint64_t{0};
  for (int at = 0; at < 200; ++at) {
    const std::uint64_t added = costOf(adding).calls;
    if (at == 0 || at > 190) leastAdding = at == 0 ? added : std::min(leastAdding, added);
    ASSERT_EQ(store_.change({"g", "comes and goes", "y"}), MD_RC_OK);
    ASSERT_EQ(store_.remove("g", "comes and goes"), MD_RC_OK);
    mostMissing = std::max(mostMissing, costOf(missing).calls);
  }
  EXPECT_LT(mostMissing, missingBefore + 10);
  EXPECT_LT(leastAdding, 40u);
}

TEST_F(Costs, OfAFileThatOnlyGrowsKnowNoCompaction) {
  ASSERT_EQ(store_.add({"g", "first", "x"}), MD_RC_OK);
  struct stat before;
  ASSERT_EQ(stat(folder_.file().c_str(), &before), 0);
  for (int at = 0; at < 5000; ++at) ASSERT_EQ(store_.add({numbered("g", at), numbered("k", at), "x"}), MD_RC_OK);
  struct stat after;
  ASSERT_EQ(stat(folder_.file().c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
}

TEST_F(Costs, OfAChangeAreOneSync) {
  fill(200);
  for (int at = 0; at < 110; ++at) {
    const Cost one = costOf([&] { ASSERT_EQ(store_.add({"g", numbered("single", at), "x"}), MD_RC_OK); });
    EXPECT_EQ(one.syncs, 1u) << at;
    EXPECT_LE(one.written, 26000u) << at;
  }
}

TEST_F(Costs, OfAChangeHoldOneSearchOfTheIndex) {
  TestStore flat(folder_.path(), false);
  for (int at = 0; at < 3000; ++at) ASSERT_EQ(flat.add({"", numbered("k", at), "x"}, KEY), MD_RC_OK);
  Value value;
  const Cost miss = costOf([&] { ASSERT_EQ(flat.get("", "new", value, KEY), GENREG_RC_NOT_FOUND); });
  ASSERT_GE(miss.calls, 7u);  // the file opened, header and tail read, and a block of each of the segments
  Cost least{.calls = 1000};
  for (int at = 0; at < 10; ++at) {
    const Cost one = costOf([&] { ASSERT_EQ(flat.add({"", numbered("new", at), "x"}, KEY), MD_RC_OK); });
    if (one.calls < least.calls) least = one;
  }
  // Beside it: the boot id, directory and lock opened, one sync between two writes.
  EXPECT_LE(least.calls, miss.calls + 7);
}

TEST_F(Costs, OfReservingSpaceAreSharedByManyChanges) {
  store_.unsetFeature(GenRegBin::FEATURE_BACKUP);
  fill(200);
  const Cost many = costOf([&] {
    for (int at = 0; at < 400; ++at) ASSERT_EQ(store_.add({"g", numbered("single", at), "x"}), MD_RC_OK);
  });
  EXPECT_LT(many.reserves, 6u);
}

// Once in some forty changes the index blocks take over what the slot held: for each a frame looked at, and a block
// read and written, whatever the number of segments.
TEST_F(Costs, OfTheDearestChangeKnowNoSegmentsButTheNewest) {
  TestStore flat(folder_.path(), false);
  for (int at = 0; at < 12000; ++at) ASSERT_EQ(flat.add({"", numbered("k", at), "x"}, KEY), MD_RC_OK);
  Value value;
  const Cost miss = costOf([&] { ASSERT_EQ(flat.get("", "new", value, KEY), GENREG_RC_NOT_FOUND); });
  ASSERT_GE(miss.calls, 9u);  // six segments
  std::uint64_t most = 0;
  for (int at = 0; at < 100; ++at) {
    const Cost one = costOf([&] { ASSERT_EQ(flat.add({"", numbered("new", at), "x"}, KEY), MD_RC_OK); });
    most = std::max(most, one.calls);
  }
  EXPECT_LE(most, miss.calls + 7 + 3 * format::OVERLAY_CAPACITY);
}

TEST_F(Costs, OfReadingKnowNoSync) {
  fill(50);
  Value value;
  const Cost reading = costOf([&] {
    store_.get("g1", "k1", value);
    store_.list();
    GenRegStatus status;
    EXPECT_EQ(store_.status(status), MD_RC_OK);
  });
  EXPECT_EQ(reading.syncs, 0u);
  EXPECT_EQ(reading.written, 0u);
}

}  // namespace
}  // namespace zon::test
