// Space behind the end of a record file: on a full disk records can still be removed, wherever the disk became full,
// and what a broken commit had reserved comes back. The disk is simulated, so that it can be full at any byte and lose
// what was not synced.
#include <algorithm>
#include <cerrno>
#include <memory>
#include <random>
#include <vector>

#include "platform/registry/harness/simulated_disk.h"
#include "platform/registry/harness/test_records.h"
#include "support/spoil.h"

namespace zon::test {
namespace {

constexpr std::size_t SMALL_RECORDS = 262144;
constexpr int REMOVALS = 80;  // that a full disk always has room for

class Space : public ::testing::Test {
 protected:
  static std::string keyOf(int number) { return "k" + std::to_string(number); }
  static std::string groupOf(int number) { return "g" + std::to_string(number % 3); }

  // Inserts, and changes, until there is no room for either; how many records there are.
  int fillUp(std::size_t size) {
    TestStore store(DISK_FOLDER);
    std::uint32_t rc = MD_RC_OK;
    int count = 0;
    for (;; ++count) {
      rc = store.add({groupOf(count), keyOf(count), noise(size, static_cast<unsigned>(count))});
      if (rc != MD_RC_OK) break;
    }
    EXPECT_EQ(rc, GENREG_RC_NO_SPACE);
    for (int at = 0; rc == MD_RC_OK || at < 10; ++at) {
      rc = store.change({groupOf(at % count), keyOf(at % count), noise(size / 2, static_cast<unsigned>(at))});
    }
    EXPECT_TRUE(rc == GENREG_RC_NO_SPACE || rc == GENREG_RC_NO_CHANGE) << rc;
    return count;
  }

  std::size_t sizeOf(const std::string& name) const {
    const DiskImage image = disk_.image();
    return image.has(name) ? image.files.at(image.names.at(name))->size() : 0;
  }

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
  SimulatedDisk disk_;
};

TEST_F(Space, LetsRecordsBeRemovedOneByOneWhereverTheDiskBecameFull) {
  for (std::size_t capacity = 60000; capacity < 140000; capacity += 1024 + 512) {
    disk_.boot(DiskImage{});
    disk_.capacity = capacity;
    const int count = fillUp(60);
    ASSERT_GT(count, REMOVALS) << capacity;
    TestStore store(DISK_FOLDER);
    for (int at = 0; at < REMOVALS; ++at) {
      ASSERT_EQ(store.remove(groupOf(at), keyOf(at)), MD_RC_OK) << capacity << ", " << at;
    }
    disk_.boot(disk_.image());
    EXPECT_EQ(TestStore(DISK_FOLDER).list().size(), static_cast<std::size_t>(count - REMOVALS)) << capacity;
  }
}

TEST_F(Space, LetsAGroupBeRemovedAsAWhole) {
  for (std::size_t capacity = 60000; capacity < 100000; capacity += 4096 + 512) {
    disk_.boot(DiskImage{});
    disk_.capacity = 0;
    TestStore store(DISK_FOLDER);
    ASSERT_EQ(store.beginBatch(), MD_RC_OK);
    for (int at = 0; at < REMOVALS; ++at) ASSERT_EQ(store.add({"group", keyOf(at), "x"}), MD_RC_OK);
    ASSERT_EQ(store.commitBatch(), MD_RC_OK);
    disk_.capacity = capacity;
    const int count = fillUp(60);
    EXPECT_EQ(store.removeAll("group", "", GROUP), MD_RC_OK) << capacity;
    EXPECT_EQ(store.list().size(), static_cast<std::size_t>(count)) << capacity;
  }
}

TEST_F(Space, LetsTheRecordsOfALongHistoryBeRemoved) {
  // Chains that are due for a summary, which takes more room than the removal.
  for (std::size_t capacity = 60000; capacity < 90000; capacity += 2048 + 512) {
    disk_.boot(DiskImage{});
    disk_.capacity = capacity;
    TestStore store(DISK_FOLDER);
    int count = 0;
    while (store.add({"g", keyOf(count), noise(60, 1)}) == MD_RC_OK) ++count;
    for (int at = 0; at < 2000; ++at) {
      if (store.change({"g", keyOf(at % count), noise(61, static_cast<unsigned>(at))}) != MD_RC_OK) break;
    }
    ASSERT_GT(count, REMOVALS) << capacity;
    for (int at = 0; at < REMOVALS; ++at) {
      ASSERT_EQ(store.remove("g", keyOf(at)), MD_RC_OK) << capacity << ", " << at;
    }
  }
}

// Below a limit of the process there is room for a second file, which the removals then make smaller.
TEST_F(Space, ComesBackByRemovalsBelowALimitOfTheProcess) {
  disk_.mostFileSize = 150001;
  TestStore store(DISK_FOLDER);
  int count = 0;
  while (store.add({groupOf(count), keyOf(count), noise(400, 1)}) == MD_RC_OK) ++count;
  const std::size_t full = sizeOf("store");
  int removed = 0;
  for (; removed < REMOVALS && sizeOf("store") >= full; ++removed) {
    ASSERT_EQ(store.remove(groupOf(removed), keyOf(removed)), MD_RC_OK) << removed;
  }
  EXPECT_LT(removed, REMOVALS);
  for (int at = 0; at < removed / 2; ++at) {
    EXPECT_EQ(store.add({"new", keyOf(at), noise(400, 1)}), MD_RC_OK) << at;
  }
  EXPECT_FALSE(disk_.isLimitPassed);
}

// On a full disk compaction has no room beside the file but the backup's, which is made again.
TEST_F(Space, ComesBackFromTheBackup) {
  disk_.capacity = 300000;
  const int count = fillUp(400);
  ASSERT_TRUE(disk_.image().has(".store.bkp"));
  TestStore store(DISK_FOLDER);
  for (int at = 0; at < count / 2; ++at) ASSERT_EQ(store.remove(groupOf(at), keyOf(at)), MD_RC_OK) << at;
  for (int at = 0; at < count / 4; ++at) {
    ASSERT_EQ(store.add({"new", std::to_string(at), noise(400, static_cast<unsigned>(at))}), MD_RC_OK) << at;
  }
  EXPECT_EQ(store.list().size(), static_cast<std::size_t>(count - count / 2 + count / 4));
  EXPECT_TRUE(disk_.image().has(".store.bkp"));
}

// A power cut at each step of it, the name of the backup durably gone or not, costs nothing.
TEST_F(Space, FromTheBackupOutlastsAPowerCutAtEachStep) {
  disk_.capacity = 300000;
  const int count = fillUp(400);
  TestStore store(DISK_FOLDER);
  int removed = 0;
  PowerCut cut(disk_.image());
  for (bool isGivenUp = false; !isGivenUp; ++removed) {
    ASSERT_LT(removed, count);
    cut = PowerCut(disk_.image());
    disk_.log.clear();
    disk_.isRecording = true;
    ASSERT_EQ(store.remove(groupOf(removed), keyOf(removed)), MD_RC_OK) << removed;
    disk_.isRecording = false;
    isGivenUp = std::any_of(disk_.log.begin(), disk_.log.end(), [](const DiskOp& op) {
      return op.kind == DiskOp::Kind::UNBIND && op.name == ".store.bkp";
    });
  }
  const std::vector<DiskOp> steps = disk_.log;
  const auto left = static_cast<std::size_t>(count - removed);
  for (const DiskOp& step : steps) {
    cut.follow(step);
    for (const DiskImage& image : {cut.oldest(), cut.newest()}) {
      disk_.boot(image);
      std::uint32_t rc = MD_RC_OK;
      TestStore reader(DISK_FOLDER);
      const std::size_t found = reader.list(0, {}, &rc).size();
      ASSERT_EQ(rc, MD_RC_OK);
      // Only the removal that led there may be undone, as long as it was not acknowledged.
      ASSERT_TRUE(found == left || found == left + 1) << found << " of " << left;
      disk_.capacity = 0;
      ASSERT_EQ(reader.add({"after", "power cut", "x"}), MD_RC_OK);
      ASSERT_EQ(reader.list().size(), found + 1);
      disk_.capacity = 300000;
    }
  }
}

// What the file has lost may be in its backup alone.
TEST_F(Space, IsNotTakenFromTheBackupOfADamagedFile) {
  disk_.capacity = 300000;
  const int count = fillUp(400);
  DiskImage image = disk_.image();
  Bytes damaged = *image.files.at(image.names.at("store"));
  spoilByte(damaged, damaged.size() / 2);
  image.files[image.names.at("store")] = std::make_shared<const Bytes>(damaged);
  disk_.boot(image);
  TestStore store(DISK_FOLDER);
  for (int at = 0; at < count; ++at) static_cast<void>(store.remove(groupOf(at), keyOf(at)));
  EXPECT_TRUE(disk_.image().has(".store.bkp"));
  // Whoever may not repair is told what the matter is.
  store.unsetFeature(TestStore::FEATURE_REPAIR);
  EXPECT_EQ(store.compact(), GENREG_RC_DAMAGED);
}

// A compaction that fails half way, after the backup went, leaves the file; the next backup comes with a later change.
TEST_F(Space, FromTheBackupIsNoDangerToTheFile) {
  disk_.capacity = 300000;
  const int count = fillUp(400);
  TestStore store(DISK_FOLDER);
  disk_.fault = [&](Call call) { return call == Call::RENAME && !disk_.image().has(".store.bkp") ? EIO : 0; };
  int removed = 0;
  while (removed < count && disk_.image().has(".store.bkp")) {
    ASSERT_EQ(store.remove(groupOf(removed), keyOf(removed)), MD_RC_OK) << removed;
    ++removed;
  }
  ASSERT_LT(removed, count);
  EXPECT_EQ(store.list().size(), static_cast<std::size_t>(count - removed));
  disk_.fault = nullptr;
  for (int at = 0; at < 20; ++at, ++removed) ASSERT_EQ(store.remove(groupOf(removed), keyOf(removed)), MD_RC_OK) << at;
  EXPECT_EQ(store.list().size(), static_cast<std::size_t>(count - removed));
  EXPECT_TRUE(disk_.image().has(".store.bkp"));
}

// A file that should be written anew, on a disk with some room but too little, tries so after each change: this must
// show at once, not when all that lives has been read and written for nothing.
TEST_F(Space, ThatIsTooLittleForWritingTheFileAnewShowsAtOnce) {
  TestStore store(DISK_FOLDER);
  for (int at = 0; at < 100; ++at) {
    ASSERT_EQ(store.add({groupOf(at), keyOf(at), noise(20000, static_cast<unsigned>(at))}), MD_RC_OK);
  }
  DiskImage image = disk_.image();
  image.names.erase(".store.bkp");
  disk_.boot(image);
  store.unsetFeature(TestStore::FEATURE_BACKUP);
  disk_.capacity = sizeOf("store") + 300000;
  // From the numbers drawn for the new file's header to its removal.
  int transfers = 0;
  int refusals = 0;
  disk_.fault = [&](Call call) {
    if (call == Call::RANDOM) transfers = 0;
    if (call == Call::READ || call == Call::WRITE) ++transfers;
    if (call == Call::UNLINK) {
      EXPECT_EQ(transfers, 0);
      ++refusals;
    }
    return 0;
  };
  for (int at = 0; at < REMOVALS; ++at) ASSERT_EQ(store.remove(groupOf(at), keyOf(at)), MD_RC_OK) << at;
  EXPECT_GT(refusals, 0);
}

// As after a crash between the rename of a file that was written anew and its new backup.
TEST_F(Space, OfABackupThatALargerFileLeftIsGivenBackByLaterChanges) {
  TestStore store(DISK_FOLDER);
  ASSERT_EQ(store.add({"g", "large", noise(200000, 1)}), MD_RC_OK);
  ASSERT_GT(sizeOf(".store.bkp"), 200000u);
  bool isRenamed = false;
  disk_.fault = [&isRenamed](Call call) {
    if (isRenamed) return EIO;
    isRenamed = call == Call::RENAME;
    return 0;
  };
  store.change({"g", "large", "small now"});
  disk_.fault = nullptr;
  ASSERT_TRUE(isRenamed);
  disk_.killProcesses();
  ASSERT_LT(sizeOf("store"), 40000u);
  ASSERT_GT(sizeOf(".store.bkp"), 200000u);
  for (int at = 0; at < 8; ++at) ASSERT_EQ(store.add({"g", keyOf(at), "x"}), MD_RC_OK);
  EXPECT_LT(sizeOf(".store.bkp"), 40000u);
}

TEST_F(Space, OfALargeCommitThatWasBrokenOffIsGivenBackByTheNextOne) {
  for (const bool machine : {false, true}) {
    disk_.boot(DiskImage{});
    TestStore store(DISK_FOLDER);
    ASSERT_EQ(store.add({"g", "small", "x"}), MD_RC_OK);
    disk_.fault = [](Call call) { return call == Call::SYNC_DATA ? EIO : 0; };
    EXPECT_NE(store.add({"g", "large", noise(200000, 1)}), MD_RC_OK);
    disk_.fault = nullptr;
    EXPECT_GT(sizeOf("store"), 200000u);
    if (machine) disk_.boot(disk_.image());
    if (!machine) disk_.killProcesses();
    ASSERT_EQ(store.add({"g", "second", "y"}), MD_RC_OK);
    EXPECT_LT(sizeOf("store"), 40000u);
    EXPECT_EQ(store.list(), (Values{{"g", "small", "x"}, {"g", "second", "y"}}));
  }
}

TEST_F(Space, ThatIsKeptForTheNextCommitsIsNotCutAgainAndAgain) {
  TestStore store(DISK_FOLDER);
  int cuts = 0;
  disk_.fault = [&cuts](Call call) {
    cuts += call == Call::TRUNCATE ? 1 : 0;
    return 0;
  };
  for (int at = 0; at < 500; ++at) {
    const auto size = static_cast<std::size_t>(at % 50 == 0 ? 30000 : 100);
    ASSERT_EQ(store.add({groupOf(at), keyOf(at), noise(size, static_cast<unsigned>(at))}), MD_RC_OK);
  }
  EXPECT_EQ(cuts, 0);
}

// The commit that cuts the file, and the one after it, each cut short by a loss of power in every way.
TEST_F(Space, ThatIsGivenBackTakesNoRecordWithIt) {
  TestStore store(DISK_FOLDER);
  ASSERT_EQ(store.add({"g", "first", noise(3000, 1)}), MD_RC_OK);
  disk_.fault = [](Call call) { return call == Call::SYNC_DATA ? EIO : 0; };
  store.add({"g", "large", noise(200000, 1)});
  disk_.fault = nullptr;
  disk_.boot(disk_.image());
  const std::uint64_t file = disk_.image().names.at("store");
  PowerCut cut(disk_.image());
  disk_.isRecording = true;
  ASSERT_EQ(store.add({"g", "second", noise(500, 2)}), MD_RC_OK);
  const std::size_t acknowledged = disk_.log.size();
  ASSERT_EQ(store.add({"g", "third", noise(9000, 3)}), MD_RC_OK);
  disk_.isRecording = false;
  const std::vector<DiskOp> ops = std::move(disk_.log);
  disk_.log.clear();
  const unsigned boot = disk_.bootNumber();
  const Values all{{"g", "first", noise(3000, 1)}, {"g", "second", noise(500, 2)}, {"g", "third", noise(9000, 3)}};
  std::mt19937_64 random(1);
  const auto check = [&](const DiskImage& image, std::size_t done) {
    disk_.boot(image);
    disk_.setBootNumber(boot + 1);
    std::uint32_t rc = MD_RC_OK;
    Values found = TestStore(DISK_FOLDER).list(0, {}, &rc);
    ASSERT_EQ(rc, MD_RC_OK) << done;
    const std::size_t least = done == ops.size() ? 3 : done >= acknowledged ? 2 : 1;
    ASSERT_GE(found.size(), least) << done;
    ASSERT_EQ(found, Values(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(found.size()))) << done;
    ASSERT_EQ(TestStore(DISK_FOLDER).add({"g", "after", noise(20000, 4)}), MD_RC_OK) << done;
    found.push_back({"g", "after", noise(20000, 4)});
    ASSERT_EQ(TestStore(DISK_FOLDER).list(), found) << done;
  };
  bool hasCut = false;
  for (std::size_t done = 0; done <= ops.size(); ++done) {
    check(cut.oldest(), done);
    check(cut.newest(), done);
    for (std::size_t choice = 0; choice < cut.choiceCount() && choice < 200; ++choice) {
      check(cut.newestBut(choice), done);
      check(cut.oldestBut(choice), done);
    }
    for (int at = 0; at < 20; ++at) check(cut.randomState(random), done);
    if (HasFatalFailure()) return;
    if (done == ops.size()) break;
    const bool isOfStore = ops[done].inode == file;
    hasCut = hasCut || (isOfStore && ops[done].kind == DiskOp::Kind::RESIZE && ops[done].offset < 60000);
    cut.follow(ops[done]);
  }
  EXPECT_TRUE(hasCut);
}

}  // namespace
}  // namespace zon::test
