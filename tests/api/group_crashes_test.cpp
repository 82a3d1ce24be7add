// Removals that withdraw from groups, and updates of a group, on a disk in memory: with power cuts and kills in their
// midst, readers beside them, other writers between their calls, and calls that fail meanwhile.
//
// The rule: what is there in the end is what some order of the calls leaves. Of a call that a crash or a failure met
// some changes may be there, in its own order, and never the withdrawal of a group that still has a member. A reader
// is told nothing that a power cut at that moment would take back. The calls of the engine are replaced, so this
// program is one of its own.
//
// ZON_FAULT_SCALE multiplies the share of pairs of failures and other writers that is tried.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/registry/harness/simulated_disk.h"
#include "support/groups.h"
#include "support/told_numbers.h"
#include "zonmdfile/MDContactGroup.h"
#include "zonmdfile/platform/admin.h"

namespace {

using zon::test::Call;
using zon::test::DiskImage;
using zon::test::DiskOp;
using zon::test::PowerCut;
using zontest::Text;
using zontest::textOf;

constexpr const char* GROUPS = "G:a P>G P:a Q>P R>Q R:b S>G S>P T:a T:c U>T V:a W>V X>W Y:a Z>Y Z:a Z:b N>Z";

using Work = std::function<std::uint32_t()>;

std::uint32_t withdrawA() { return removeMemberFromGroups(Text("a"), DString("0")); }
std::uint32_t updateZ() { return MDContactGroup().update(Text("Z"), Text("new"), DString("2")); }
std::uint32_t insert(const char* group, const char* kind, const char* member) {
  return MDContactGroup().insert(Text(group), DString(kind), Text(member), Text("d"), DString("1"));
}

// All records in their order, such as "G:a=d P>G=d".
std::string records() {
  MDContactGroup store;
  DString groups;
  DString kinds;
  DString members;
  DString descriptions;
  DString versions;
  const std::uint32_t rc = store.retrieveAll(groups, kinds, members, descriptions, versions);
  if (rc == GENREG_RC_NOT_FOUND) return "";
  if (rc != MD_RC_OK) return "the listing answers " + std::to_string(rc);
  const auto entriesOf = [](const DString& list) {
    std::istringstream text(textOf(list));
    std::vector<std::string> entries;
    for (std::string entry; std::getline(text, entry, char{0x0E});) entries.push_back(entry);
    return entries;
  };
  const auto group = entriesOf(groups);
  const auto kind = entriesOf(kinds);
  const auto member = entriesOf(members);
  const auto description = entriesOf(descriptions);
  std::string all;
  for (std::size_t at = 0; at < group.size(); ++at) {
    all += (all.empty() ? "" : " ") + group[at] + (kind[at] == "0" ? ":" : ">") + member[at] + "=" + description[at];
  }
  return all;
}

std::vector<std::string> wordsOf(const std::string& text) {
  std::istringstream words(text);
  std::vector<std::string> all;
  for (std::string word; words >> word;) all.push_back(word);
  return all;
}

class GroupCrashes : public ::testing::Test {
 protected:
  GroupCrashes() {
    setMetadataPath(zon::test::DISK_FOLDER);
    zontest::forEachMembership(GROUPS, [](const std::string& group, const char* kind, const std::string& member) {
      EXPECT_EQ(insert(group.c_str(), kind, member.c_str()), MD_RC_OK);
    });
    image_ = disk_.image();
    before_ = records();
  }
  ~GroupCrashes() override { setMetadataPath(nullptr); }

  // The machine as it was before any work, in the same run.
  void reset() {
    disk_.fault = nullptr;
    disk_.boot(image_);
    disk_.setBootNumber(BOOT);
  }

  std::string after(const std::vector<Work>& works) {
    reset();
    for (const Work& work : works) static_cast<void>(work());
    return records();
  }

  std::vector<DiskOp> opsOf(const Work& work) {
    reset();
    disk_.isRecording = true;
    disk_.log.clear();
    EXPECT_EQ(work(), MD_RC_OK);
    disk_.isRecording = false;
    return std::move(disk_.log);
  }

  // Records that the work took away or changed, though it was not its business or not yet its turn.
  std::string wrong(const std::string& found, const std::string& done) const {
    const std::vector<std::string> now = wordsOf(found);
    const std::vector<std::string> last = wordsOf(done);
    const auto has = [](const std::vector<std::string>& words, const std::string& word) {
      return std::find(words.begin(), words.end(), word) != words.end();
    };
    std::set<std::string> nonEmpty;
    for (const std::string& word : now) nonEmpty.insert(word.substr(0, word.find_first_of(":>")));
    std::string wrong;
    for (const std::string& word : now) {
      if (!has(last, word) && !has(wordsOf(before_), word)) wrong += " came: " + word;
    }
    for (const std::string& word : wordsOf(before_)) {
      if (has(now, word)) continue;
      const std::size_t mark = word.find_first_of(":>");
      const std::string member = word.substr(mark + 1, word.find('=') - mark - 1);
      if (has(last, word)) wrong += " went: " + word;
      if (word[mark] == '>' && nonEmpty.contains(member) && !has(now, word.substr(0, word.find('=')) + "=new"))
        wrong += " withdrawn: " + word;
    }
    return wrong;
  }

  // Power goes at each point of the work; what is found then has nothing wrong. Who does the work again gets to its
  // end, where that does not depend on what is gone already.
  void cutPowerIn(const Work& work, bool canGoOn) {
    const std::vector<DiskOp> ops = opsOf(work);
    const std::string done = records();
    PowerCut cut(image_);
    std::mt19937_64 random(3);
    for (std::size_t point = 0; point <= ops.size(); ++point) {
      for (int kind = 0; kind < 6; ++kind) {
        SCOPED_TRACE("point " + std::to_string(point) + ", kind " + std::to_string(kind));
        disk_.boot(kind == 0 ? cut.oldest() : kind == 1 ? cut.newest() : cut.randomState(random));
        const std::string found = records();
        ASSERT_EQ(wrong(found, done), "") << found;
        ASSERT_TRUE(point < ops.size() || found == done) << found;
        ASSERT_EQ(work(), MD_RC_OK);
        const std::string again = records();
        ASSERT_TRUE(canGoOn ? again == done : wrong(again, done).empty()) << again;
      }
      if (point < ops.size()) cut.follow(ops[point]);
    }
  }

  // A killed work is done or not at all, and that stays so.
  void killIn(const Work& work) {
    const std::vector<DiskOp> ops = opsOf(work);
    const std::string done = records();
    PowerCut cut(image_);
    for (std::size_t point = 0; point <= ops.size(); ++point) {
      SCOPED_TRACE("point " + std::to_string(point));
      disk_.boot(cut.newest());
      disk_.setBootNumber(BOOT);
      const std::string found = records();
      ASSERT_TRUE(found == before_ || found == done) << found;
      ASSERT_EQ(insert("late", "0", "z"), MD_RC_OK);
      ASSERT_EQ(records(), found + " late:z=d");
      if (point < ops.size()) cut.follow(ops[point]);
    }
  }

  void readBeside(const Work& work) {
    const std::string done = after({work});
    reset();
    PowerCut cut(image_);
    std::map<std::string, std::vector<DiskImage>> seen;
    bool isReading = false;
    disk_.isRecording = true;
    disk_.log.clear();
    const auto read = [&] {
      isReading = true;
      const std::string found = records();
      for (const DiskOp& op : disk_.log) cut.follow(op);
      disk_.log.clear();
      seen[found].push_back(cut.oldest());
      isReading = false;
    };
    disk_.fault = [&](Call) {
      if (!isReading) read();
      return 0;
    };
    ASSERT_EQ(work(), MD_RC_OK);
    disk_.fault = nullptr;
    read();
    disk_.isRecording = false;
    ASSERT_EQ(seen.size(), 2U);
    ASSERT_TRUE(seen.contains(before_));
    for (const DiskImage& image : seen[done]) {
      disk_.boot(image);
      ASSERT_EQ(records(), done);
    }
  }

  // The other writer comes at each call of the work, and finds it at work or not. With a call that fails, at this or
  // any later one, what is left of the work can be done afterwards.
  void writeBeside(const Work& work, const Work& other) {
    const std::set<std::string> orders{after({work, other}), after({other, work})};
    const std::string alone = after({work});
    const std::size_t calls = callsOf(work);
    std::mt19937_64 random(5);
    const unsigned scale = std::max(1U, zontest::toldNumber("ZON_FAULT_SCALE", 1U));
    for (std::size_t meeting = 0; meeting < calls; ++meeting) {
      for (std::size_t failing = meeting; failing <= calls; ++failing) {
        // The last one stands for none.
        if (failing < calls && random() % 12 >= scale) continue;
        SCOPED_TRACE("the other writer at call " + std::to_string(meeting) + ", failing " + std::to_string(failing));
        const Met met = meet(work, other, meeting, failing < calls ? failing : SIZE_MAX);
        if (met.rc != MD_RC_OK) {
          ASSERT_LT(failing, calls);
          ASSERT_NE(met.rc, GENREG_RC_NOT_FOUND);
          ASSERT_EQ(work(), MD_RC_OK);
        }
        const std::string found = records();
        ASSERT_TRUE(met.otherRc == MD_RC_OK ? orders.contains(found) : found == alone) << found;
      }
    }
  }

  struct Met {
    std::uint32_t rc;
    std::uint32_t otherRc;
  };

  std::size_t callsOf(const Work& work) {
    reset();
    std::size_t calls = 0;
    disk_.fault = [&](Call) { return ++calls, 0; };
    EXPECT_EQ(work(), MD_RC_OK);
    disk_.fault = nullptr;
    return calls;
  }

  Met meet(const Work& work, const Work& other, std::size_t meeting, std::size_t failing) {
    reset();
    Met met{.rc = MD_RC_OK, .otherRc = MD_RC_OK};
    std::size_t calls = 0;
    bool isMeeting = false;
    disk_.fault = [&](Call) {
      if (isMeeting) return 0;
      const std::size_t call = calls++;
      if (call == meeting) {
        isMeeting = true;
        met.otherRc = other();
        isMeeting = false;
      }
      return call == failing ? EIO : 0;
    };
    met.rc = work();
    disk_.fault = nullptr;
    return met;
  }

  static constexpr unsigned BOOT = 1;
  zon::test::SimulatedDisk disk_;
  DiskImage image_;
  std::string before_;
};

TEST_F(GroupCrashes, LeaveTheBeginningOfACascadeAfterAPowerCut) { cutPowerIn(withdrawA, false); }
TEST_F(GroupCrashes, LeaveAnUpdateThatCanGoOnAfterAPowerCut) { cutPowerIn(updateZ, true); }
TEST_F(GroupCrashes, LeaveACascadeWholeOrNotAtAllWhenItIsKilled) { killIn(withdrawA); }
TEST_F(GroupCrashes, LeaveAnUpdateWholeOrNotAtAllWhenItIsKilled) { killIn(updateZ); }

using ReadersOfGroups = GroupCrashes;

TEST_F(ReadersOfGroups, SeeACascadeWholeAndDurable) { readBeside(withdrawA); }
TEST_F(ReadersOfGroups, SeeAnUpdateWholeAndDurable) { readBeside(updateZ); }

using WritersOfGroups = GroupCrashes;

TEST_F(WritersOfGroups, AddAMemberBesideACascade) {
  writeBeside(withdrawA, [] { return insert("P", "0", "z"); });
}

TEST_F(WritersOfGroups, AddTheMemberBesideItsCascade) {
  writeBeside(withdrawA, [] { return insert("K", "0", "a"); });
}

TEST_F(WritersOfGroups, WithdrawAnotherMemberBesideACascade) {
  writeBeside(withdrawA, [] { return removeMemberFromGroups(Text("c"), DString("0")); });
}

TEST_F(WritersOfGroups, UpdateAGroupBesideACascade) { writeBeside(withdrawA, updateZ); }
TEST_F(WritersOfGroups, WithdrawAMemberBesideAnUpdate) {
  writeBeside(updateZ, [] { return removeMemberFromGroups(Text("c"), DString("0")); });
}
TEST_F(WritersOfGroups, AddAMemberBesideAnUpdate) {
  writeBeside(updateZ, [] { return insert("P", "0", "z"); });
}

}  // namespace
