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

#include "platform/registry/format/format.h"
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
      const bool hasSlot = publishedEnd() == end;
      ASSERT_EQ(TestStore(DISK_FOLDER).add(PROBE), MD_RC_OK);
      Value value;
      for (const Value& wanted : now()) {
        if (!hasSlot) break;  // the slot itself was lost
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
  const Value unsure{"g", "unsure", noise(8000, 4)};  // has pages of its own
  disk_.isRecording = true;
  disk_.log.clear();
  PowerCut cut = cutNow();
  disk_.fault = [hasFailed = false](Call call) mutable {
    if (hasFailed) return EINTR;
    hasFailed = call == Call::SYNC_DATA;
    return hasFailed ? EIO : 0;
  };
  TestStore writer(DISK_FOLDER);
  writer.unsetFeature(TestStore::FEATURE_BACKUP);  // it would make good for what the file lost
  EXPECT_NE(writer.add(unsure), MD_RC_OK);
  disk_.fault = nullptr;
  disk_.killProcesses();
  ASSERT_EQ(writer.add(PROBE), MD_RC_OK);
  const Values seen = TestStore(DISK_FOLDER).list();
  EXPECT_EQ(seen, with(with(acknowledged_, unsure), PROBE));
  for (const DiskOp& op : disk_.log) cut.follow(op);
  disk_.isRecording = false;
  startAnew(cut.oldest());
  EXPECT_EQ(TestStore(DISK_FOLDER).list(), seen);
}

// A reader has seen it, so that no failure may take it back.
TEST_F(FirstWriters, ShowReadersNothingThatTheyTakeBack) {
  bool isDone = false;
  for (std::size_t reading = 0; !isDone; ++reading) {
    for (std::size_t failing = reading; failing < reading + 12; ++failing) {
      SCOPED_TRACE("a reader at call " + std::to_string(reading) + ", failing call " + std::to_string(failing));
      startAnew(lost_);
      std::size_t calls = 0;
      bool isReading = false;
      Values seen;
      disk_.fault = [&](Call) {
        if (isReading) return 0;
        const std::size_t call = calls++;
        if (call == reading) {
          isReading = true;
          seen = TestStore(DISK_FOLDER).list();
          isReading = false;
        }
        return call == failing ? EIO : 0;
      };
      static_cast<void>(TestStore(DISK_FOLDER).add(PROBE));
      disk_.fault = nullptr;
      isDone = calls <= reading;
      const Values after = TestStore(DISK_FOLDER).list();
      ASSERT_TRUE(isPrefix(seen, after)) << ::testing::PrintToString(after);
    }
  }
}

// What the tests below spoil is gone from the cache and from the disk.
class SpoiltHeaderPages : public FirstWriters {
 protected:
  void SetUp() override {
    FirstWriters::SetUp();
    writeBack();
    sound_ = oldestNow();
  }

  DiskImage spoilt(const std::vector<std::uint64_t>& places) const {
    DiskImage image = sound_;
    const auto bytes = std::make_shared<Bytes>(*image.files.at(image.names.at("store")));
    for (const std::uint64_t place : places) spoilByte(*bytes, place);
    image.files[image.names.at("store")] = bytes;
    return image;
  }

  std::vector<DiskOp> opsOf(const DiskImage& image, const std::function<void()>& work) {
    disk_.boot(image);
    disk_.setBootNumber(1);
    disk_.isRecording = true;
    disk_.log.clear();
    work();
    disk_.isRecording = false;
    return std::exchange(disk_.log, {});
  }

  DiskImage sound_;
};

// A writer died before its sync, and then both slots are lost: a reader who takes in what lies in the file makes it
// durable first.
TEST_F(SpoiltHeaderPages, ShowNothingThatIsNotDurable) {
  const std::vector<DiskOp> dying = opsOf(sound_, [&] {
    disk_.fault = [isDead = false](Call call) mutable {
      isDead = isDead || call == Call::SYNC_DATA;
      return isDead ? EINTR : 0;
    };
    EXPECT_NE(TestStore(DISK_FOLDER).add(PROBE), MD_RC_OK);
    disk_.fault = nullptr;
  });
  PowerCut cut(spoilt({format::SLOT_OFFSET[0] + 20, format::SLOT_OFFSET[1] + 20}));
  for (const DiskOp& op : dying) cut.follow(op);
  Values seen;
  const std::vector<DiskOp> reading = opsOf(cut.newest(), [&] { seen = TestStore(DISK_FOLDER).list(); });
  EXPECT_EQ(seen, with(acknowledged_, PROBE));
  for (const DiskOp& op : reading) cut.follow(op);
  startAnew(cut.oldest());
  EXPECT_EQ(TestStore(DISK_FOLDER).list(), seen);
}

// One header is lost while the slot in the other one's sector waits to be written: it comes back when that is durable,
// as a power cut may cost each sector that is under way.
TEST_F(SpoiltHeaderPages, AreNeverBothUnderWay) {
  for (const std::uint64_t header : {std::uint64_t{0}, std::uint64_t{format::HEADER_COPY_OFFSET}}) {
    for (const int before : {1, 2}) {
      Values values = acknowledged_;
      const auto add = [&](const char* prefix, int number) {
        values.push_back({"g", numbered(prefix, number), ""});
        EXPECT_EQ(TestStore(DISK_FOLDER).add(values.back()), MD_RC_OK);
      };
      PowerCut cut(spoilt({header + 20}));
      const std::vector<DiskOp> earlier = opsOf(sound_, [&] {
        for (int number = 0; number < before; ++number) add("before", number);
      });
      for (const DiskOp& op : earlier) cut.follow(op);
      const Values acknowledged = values;
      const std::vector<DiskOp> ops = opsOf(cut.newest(), [&] { add("restoring", 0); });
      for (std::size_t point = 0; point <= ops.size(); ++point) {
        for (std::uint64_t state = 0; state < std::min<std::uint64_t>(cut.stateCount(), 2000); ++state) {
          startAnew(cut.state(state));
          std::uint32_t rc = MD_RC_OK;
          const Values found = TestStore(DISK_FOLDER).list(0, {}, &rc);
          ASSERT_EQ(rc, MD_RC_OK) << header << ", point " << point << ", state " << state;
          ASSERT_TRUE(isPrefix(acknowledged, found)) << header << ", point " << point << ", state " << state;
        }
        if (point < ops.size()) cut.follow(ops[point]);
      }
    }
  }
}

}  // namespace
}  // namespace zon::test
