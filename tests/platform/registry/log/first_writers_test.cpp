// The first writer after a crash, whatever fails for it, and the readers beside it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/registry/harness/crash_explorer.h"
#include "platform/registry/harness/simulated_disk.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

// An acknowledged change, its slot lost in a power cut: whatever fails for the first writer after that, and however
// often, it stays. A change that was refused stays away.
class FirstWriters : public PowerCuts {
 protected:
  // The newest commit is durable and no slot shows it.
  void SetUp() override {
    addQuietly({"g", "before", noise(400, 1)});
    addQuietly({"g", "acknowledged", noise(300, 2)});
    acknowledged_ = now();
    lost_ = oldestNow();
  }

  // Everything there that was acknowledged, and perhaps the change of the writer that answered this.
  void expectNothingLost(std::uint32_t answer, const std::string& where) {
    TestStore store(DISK_FOLDER);
    std::uint32_t rc = MD_RC_OK;
    const Values listed = store.list(0, {}, &rc);
    ASSERT_EQ(rc, MD_RC_OK) << where;
    const bool isThere = listed == with(acknowledged_, PROBE);
    const bool isAway = listed == acknowledged_;
    const bool isUnknown = answer == GENREG_RC_DURABILITY_UNKNOWN;
    EXPECT_TRUE((isThere && (answer == MD_RC_OK || isUnknown)) || (isAway && answer != MD_RC_OK))
        << where << ": answered " << answer << ", found " << ::testing::PrintToString(listed);
    EXPECT_EQ(store.add(SECOND_PROBE), MD_RC_OK) << where;
    EXPECT_EQ(store.list(), with(listed, SECOND_PROBE)) << where;
  }

  static bool isPrefix(const Values& values, const Values& of) {
    return values.size() <= of.size() && std::equal(values.begin(), values.end(), of.begin());
  }

  // What readers see at each call of a writer, and what a power cut at that moment would leave at the least.
  std::vector<std::pair<Values, DiskImage>> readAtEachCall() {
    PowerCut cut(lost_);
    disk_.isRecording = true;
    disk_.log.clear();
    std::vector<std::pair<Values, DiskImage>> seen;
    bool isReading = false;
    std::size_t followed = 0;
    disk_.fault = [&](Call) {
      if (isReading) return 0;
      isReading = true;
      const Values listed = TestStore(DISK_FOLDER).list();
      for (; followed < disk_.log.size(); ++followed) cut.follow(disk_.log[followed]);
      seen.emplace_back(listed, cut.oldest());
      isReading = false;
      return 0;
    };
    EXPECT_EQ(TestStore(DISK_FOLDER).add(PROBE), MD_RC_OK);
    disk_.fault = nullptr;
    disk_.isRecording = false;
    EXPECT_GT(seen.size(), 10u);
    return seen;
  }

  void expectStillThere(const std::vector<std::pair<Values, DiskImage>>& seen) {
    for (const auto& [listed, image] : seen) {
      startAnew(image);
      EXPECT_TRUE(isPrefix(listed, TestStore(DISK_FOLDER).list()));
    }
  }

  Values acknowledged_;
  DiskImage lost_;
};

TEST_F(FirstWriters, LoseNothingWhateverFailsForThem) {
  for (const bool isRemounted : {false, true}) {
    for (const bool goesOn : {false, true}) {
      for (std::size_t failing = 0;; ++failing) {
        startAnew(lost_);
        if (isRemounted) {
          disk_.setBootNumber(1);
          disk_.setMountNumber(2);
        }
        std::size_t calls = 0;
        disk_.fault = [&](Call) { return calls++ == failing || (goesOn && calls > failing) ? EIO : 0; };
        std::uint32_t answer = MD_RC_OK;
        {
          disk_.isRecording = true;
          disk_.log.clear();
          TestStore store(DISK_FOLDER);
          answer = store.add(PROBE);
        }
        disk_.fault = nullptr;
        disk_.isRecording = false;
        PowerCut cut(lost_);
        for (const DiskOp& op : disk_.log) cut.follow(op);
        const std::string where = "call " + std::to_string(failing) + (goesOn ? " and on" : "");
        const unsigned boot = disk_.bootNumber();
        expectNothingLost(answer, where);
        for (const DiskImage& image : {cut.oldest(), cut.newest()}) {
          disk_.boot(image);
          disk_.setBootNumber(boot + 1);
          expectNothingLost(answer, where + ", then a power cut");
        }
        if (calls <= failing) break;
      }
    }
  }
}

// What a reader sees beside the first writer after a restart must outlast a power cut at that moment.
TEST_F(FirstWriters, ShowReadersNothingThatIsNotDurable) {
  startAnew(lost_);
  expectStillThere(readAtEachCall());
}

// There every opening is as after a restart, and what is read may be of a writer at work.
TEST_F(FirstWriters, ShowReadersNothingThatIsNotDurableWithoutABootId) {
  disk_.tellsBoots = false;
  startAnew(lost_);
  expectStillThere(readAtEachCall());
}

TEST_F(FirstWriters, ShowReadersOfADamagedFileNothingThatIsNotDurable) {
  disk_.tellsBoots = false;
  const auto bytes = std::make_shared<Bytes>(*lost_.files.at(lost_.names.at("store")));
  const std::string text = noise(400, 1).substr(100, 20);
  const auto found = std::search(bytes->begin(), bytes->end(), text.begin(), text.end(),
                                 [](std::byte byte, char letter) { return byte == static_cast<std::byte>(letter); });
  ASSERT_NE(found, bytes->end());
  *found = std::byte{0};
  lost_.files[lost_.names.at("store")] = bytes;
  startAnew(lost_);
  expectStillThere(readAtEachCall());
}

// A reader that began before the writer did, and goes on when that has got somewhere and died, must not show what the
// next writer discards.
TEST_F(FirstWriters, ShowReadersThatBeganBeforeThemNothingThatIsDiscarded) {
  const Values without = with(acknowledged_, SECOND_PROBE);
  const Values changed = with(with(acknowledged_, PROBE), SECOND_PROBE);
  bool isReaderDone = false;
  for (std::size_t at = 0; !isReaderDone; ++at) {
    bool isWriterDone = false;
    for (std::size_t most = 0; !isWriterDone; ++most) {
      SCOPED_TRACE("the reader at call " + std::to_string(at) + ", the writer up to " + std::to_string(most));
      startAnew(lost_);
      std::size_t readerCalls = 0;
      std::size_t writerCalls = 0;
      bool isWriting = false;
      std::uint32_t answer = GENREG_RC_SYSTEM_ERROR;
      disk_.fault = [&](Call) {
        if (isWriting) return writerCalls++ >= most ? EINTR : 0;
        if (readerCalls++ != at) return 0;
        isWriting = true;
        answer = TestStore(DISK_FOLDER).add(PROBE);
        isWriting = false;
        return 0;
      };
      const Values seen = TestStore(DISK_FOLDER).list();
      disk_.fault = nullptr;
      isReaderDone = readerCalls <= at;
      isWriterDone = isReaderDone || writerCalls <= most;
      ASSERT_EQ(TestStore(DISK_FOLDER).add(SECOND_PROBE), MD_RC_OK);
      const Values after = TestStore(DISK_FOLDER).list();
      ASSERT_TRUE(after == changed || (after == without && answer != MD_RC_OK)) << ::testing::PrintToString(after);
      ASSERT_TRUE(isPrefix(seen, after)) << ::testing::PrintToString(seen);
    }
  }
}

// Where mounts cannot be told from each other the cache may have been lost in this run: what lies behind the slot is
// taken in, whatever fails meanwhile.
TEST_F(FirstWriters, TakeInWhatMayBeOfAnotherMount) {
  disk_.tellsMounts = false;
  addQuietly({"g", "of no mount", ""});
  addQuietly({"g", "acknowledged too", ""});
  const DiskImage lost = oldestNow();
  bool isDone = false;
  for (std::size_t failing = 0; !isDone; ++failing) {
    startAnew(lost);
    disk_.setBootNumber(1);
    std::size_t calls = 0;
    disk_.fault = [&](Call) { return calls++ == failing ? EIO : 0; };
    const std::uint32_t answer = TestStore(DISK_FOLDER).add(PROBE);
    disk_.fault = nullptr;
    isDone = calls <= failing;
    ASSERT_EQ(TestStore(DISK_FOLDER).add(SECOND_PROBE), MD_RC_OK) << failing;
    Values expected = answer == MD_RC_OK ? with(now(), PROBE) : now();
    expected.push_back(SECOND_PROBE);
    ASSERT_EQ(TestStore(DISK_FOLDER).list(), expected) << failing;
  }
}

// Nor may the blocks be believed to have what a slot says was applied to them, as the cache had it.
TEST_F(FirstWriters, FindWhatWasAppliedToBlocksThatAnotherMountMayHaveLost) {
  disk_.tellsMounts = false;
  startAnew(lost_);
  for (int at = 0; at < 40; ++at) {
    addQuietly({numbered("g", at), numbered("k", at), ""});
    const std::uint64_t end = publishedEnd();
    PowerCut cut = cutNow();
    for (std::size_t choice = 0; choice < cut.choiceCount(); ++choice) {
      const unsigned boot = disk_.bootNumber();
      const DiskImage whole = disk_.image();
      disk_.boot(cut.newestBut(choice));
      disk_.setBootNumber(boot);
      Value value;
      for (const Value& wanted : now()) {
        if (publishedEnd() != end) break;  // the slot itself is lost
        ASSERT_EQ(TestStore(DISK_FOLDER).get(wanted.group, wanted.key, value), MD_RC_OK) << at << ' ' << wanted.key;
      }
      disk_.boot(whole);
      disk_.setBootNumber(boot);
    }
  }
}

// A failed sync takes pages for clean. When its writer dies before it has taken the change back, and the next one takes
// it in, because runs cannot be told apart, it has to be written again.
TEST_F(FirstWriters, MakeDurableWhatAFailedSyncDroppedBeforeTheyShowIt) {
  disk_.tellsMounts = false;
  const Value unsure{"g", "unsure", noise(2000, 4)};
  disk_.isRecording = true;
  disk_.log.clear();
  PowerCut cut = cutNow();
  disk_.fault = [hasFailed = false](Call call) mutable {
    if (hasFailed) return EINTR;
    hasFailed = call == Call::SYNC_DATA;
    return hasFailed ? EIO : 0;
  };
  EXPECT_NE(TestStore(DISK_FOLDER).add(unsure), MD_RC_OK);
  disk_.fault = nullptr;
  disk_.killProcesses();
  ASSERT_EQ(TestStore(DISK_FOLDER).add(PROBE), MD_RC_OK);
  const Values seen = TestStore(DISK_FOLDER).list();
  EXPECT_EQ(seen, with(with(acknowledged_, unsure), PROBE));
  for (const DiskOp& op : disk_.log) cut.follow(op);
  disk_.isRecording = false;
  startAnew(cut.oldest());
  EXPECT_EQ(TestStore(DISK_FOLDER).list(), seen);
}

// The header that was lost with its sector is there again before the other one's sector is written to.
TEST_F(PowerCuts, NeverHaveBothHeadersUnderWay) {
  statesPerPoint_ = 400;
  addQuietly({"g", "before", ""});
  addQuietly({"g", "acknowledged", ""});
  for (const std::size_t sector : {0u, 4096u}) {
    writeBack();
    DiskImage torn = oldestNow();
    const auto bytes = std::make_shared<Bytes>(*torn.files.at(torn.names.at("store")));
    std::fill_n(bytes->begin() + static_cast<std::ptrdiff_t>(sector), 4096, std::byte{0x55});
    torn.files[torn.names.at("store")] = bytes;
    startAnew(torn);
    add({"g", numbered("after sector ", static_cast<int>(sector)), ""});
  }
}

}  // namespace
}  // namespace zon::test
