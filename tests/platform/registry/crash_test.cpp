// Power cuts and killed processes at every point of every kind of change.
//
// How it works: the engine runs on a disk in memory (simulated_disk.h), which records what is asked of it. After each
// change the record is gone through call by call. At every point the disk is put into states that a power cut could
// leave there: every one while they are few, otherwise the extreme ones and a sample with a fixed seed. A state seen
// before is not looked at twice. In each, in another run of the machine, a reader and then a writer must find every
// acknowledged change, the one under way whole or not at all (of a batch: a prefix), and nothing else; nothing may pass
// for damage. From some states the writer's own work is recorded and cut in turn. The same points also see all
// processes killed while the machine goes on.
//
// ZON_CRASH_SCALE multiplies the number of states looked at (1 takes some seconds).
#include <fcntl.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <unordered_set>

#include "platform/registry/file_header.h"
#include "platform/registry/file_io.h"
#include "platform/registry/format.h"
#include "platform/registry/frame.h"
#include "simulated_disk.h"
#include "support/told_numbers.h"
#include "test_records.h"

namespace zon::test {
namespace {

using Work = std::function<std::uint32_t(TestStore&)>;

constexpr std::size_t SMALL_RECORDS = 8192;
constexpr int MOST_FAILURES = 2;
const Value PROBE{"probe", "probe", "after the crash"};
const Value SECOND_PROBE{"probe2", "probe2", "after both crashes"};

unsigned scale() { return std::max(1U, zontest::toldNumber("ZON_CRASH_SCALE", 1U)); }

Values with(Values values, const Value& value) {
  values.push_back(value);
  return values;
}

struct Counts {
  std::uint64_t points = 0;
  std::uint64_t states = 0;
  std::uint64_t repeated = 0;
  std::uint64_t exhausted = 0;  // points of which every state was looked at
  std::uint64_t secondStates = 0;
  std::uint64_t kills = 0;
};

class PowerCuts : public ::testing::Test {
 protected:
  PowerCuts() { states_.push_back({}); }
  ~PowerCuts() override {
    total_.points += counts_.points;
    total_.states += counts_.states;
    total_.repeated += counts_.repeated;
    total_.exhausted += counts_.exhausted;
    total_.secondStates += counts_.secondStates;
    total_.kills += counts_.kills;
    RecordProperty("states", std::to_string(counts_.states));
    std::cout << "points " << counts_.points << " (" << counts_.exhausted << " exhaustively), states " << counts_.states
              << " (" << counts_.repeated << " more met again), second cuts " << counts_.secondStates << ", kills "
              << counts_.kills << '\n';
  }

  // The records that the file is to hold now.
  const Values& now() const { return states_.back(); }

  // Does the work, which leads through these states in turn, and cuts it everywhere.
  void step(const std::string& name, const Work& work, std::vector<Values> after, std::uint32_t expected = MD_RC_OK) {
    run(work, std::move(after), expected);
    explore(name);
  }
  // Only does it.
  void quietly(const Work& work, Values after) {
    run(work, {std::move(after)}, MD_RC_OK);
    for (const DiskOp& op : ops_) cut_.follow(op);
    states_ = {states_.back()};
  }
  // Cuts it only when it held such an operation.
  void stepIfItHas(DiskOp::Kind kind, const std::string& target, const std::string& name, const Work& work,
                   Values after) {
    run(work, {std::move(after)}, MD_RC_OK);
    const bool has =
        std::any_of(ops_.begin(), ops_.end(), [&](const DiskOp& op) { return op.kind == kind && op.name == target; });
    found_ += has ? 1 : 0;
    if (has) {
      explore(name);
    } else {
      for (const DiskOp& op : ops_) cut_.follow(op);
    }
    states_ = {states_.back()};
  }

  void add(const Value& value) {
    step("add " + value.key, [&](TestStore& store) { return store.add(value); }, {with(now(), value)});
  }
  void addQuietly(const Value& value) {
    quietly([&](TestStore& store) { return store.add(value); }, with(now(), value));
  }

  void addInOneBatch(const Values& values) {
    const Work work = [&](TestStore& store) {
      std::uint32_t rc = store.beginBatch();
      for (const Value& value : values) rc |= store.add(value);
      return rc | store.commitBatch();
    };
    Values after = now();
    after.insert(after.end(), values.begin(), values.end());
    quietly(work, after);
  }

  // The next sync fails, the ones after it do not.
  static std::function<int(Call)> failedSync() {
    return [failed = false](Call call) mutable {
      const bool fails = call == Call::SYNC_DATA && !failed;
      failed = failed || fails;
      return fails ? EIO : 0;
    };
  }
  std::uint32_t addWithFailedSync(TestStore& store, const Value& value) {
    disk_.fault = failedSync();
    const std::uint32_t rc = store.add(value);
    disk_.fault = nullptr;
    return rc;
  }

  // Time goes by, and what waits to be written reaches the disk; what a failed sync took for clean does not wait.
  void writeBack() {
    for (const auto& [name, inode] : disk_.image().names) {
      cut_.follow(DiskOp{.kind = DiskOp::Kind::SYNC_FILE, .inode = inode, .bytes = {}, .name = {}, .from = {}});
    }
  }

  // What a power cut leaves at the least.
  DiskImage oldestNow() const { return cut_.oldest(); }

  // The machine was started anew and found this on its disk.
  void startAnew(const DiskImage& image) {
    disk_.boot(image);
    cut_ = PowerCut(image);
  }

  // The end of the log that the newest slot tells.
  std::uint64_t publishedEnd() const {
    const DiskImage image = disk_.image();
    const Bytes& bytes = *image.files.at(image.names.at("store"));
    std::uint64_t newest = 0;
    std::uint64_t end = 0;
    for (const std::uint64_t offset : format::SLOT_OFFSET) {
      std::uint64_t sequence = 0;
      std::memcpy(&sequence, bytes.data() + offset + offsetof(format::Slot, sequence), sizeof sequence);
      if (sequence < newest) continue;
      newest = sequence;
      std::memcpy(&end, bytes.data() + offset + offsetof(format::Slot, end), sizeof end);
    }
    return end;
  }

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
  std::uint64_t statesPerPoint_ = 60;
  std::uint64_t secondEvery_ = 40;
  bool checksBackup_ = false;
  int found_ = 0;
  SimulatedDisk disk_;
  Counts counts_;

 private:
  void run(const Work& work, std::vector<Values> after, std::uint32_t expected) {
    states_ = {states_.back()};
    states_.insert(states_.end(), after.begin(), after.end());
    disk_.log.clear();
    disk_.isRecording = true;
    {
      TestStore store(DISK_FOLDER);
      ASSERT_EQ(work(store), expected);
    }
    disk_.isRecording = false;
    ops_ = std::move(disk_.log);
    disk_.log.clear();
  }

  void explore(const std::string& name) {
    const DiskImage after = disk_.image();
    const unsigned boot = disk_.bootNumber();
    for (std::size_t point = 0; point <= ops_.size() && failures_ < MOST_FAILURES; ++point) {
      const bool done = point == ops_.size();  // the call has answered
      where_ = name + ", point " + std::to_string(point) + " of " + std::to_string(ops_.size());
      explorePoint(boot, done ? states_.size() - 1 : 0);
      if (point < ops_.size()) cut_.follow(ops_[point]);
    }
    disk_.boot(after);
    disk_.setBootNumber(boot);
    disk_.setMountNumber(1);
    states_ = {states_.back()};
  }

  void explorePoint(unsigned boot, std::size_t atLeast) {
    ++counts_.points;
    std::size_t visible = atLeast;
    // Without a boot id a reader takes a commit under way for one that survived a restart.
    const bool tellsBoots = disk_.tellsBoots && disk_.bootIdError == 0;
    if (tellsBoots && !exploreKill(boot, atLeast, visible)) return;
    // Power cuts.
    const std::uint64_t count = cut_.stateCount();
    const std::uint64_t limit = statesPerPoint_ * scale();
    if (count <= limit) {
      ++counts_.exhausted;
      for (std::uint64_t number = 0; number < count; ++number) checkCut(cut_.state(number), boot, visible);
      return;
    }
    checkCut(cut_.oldest(), boot, visible);
    checkCut(cut_.newest(), boot, visible);
    const std::size_t choices = cut_.choiceCount();
    for (std::size_t choice = 0; choice < choices && choice < limit / 4; ++choice) {
      const std::size_t at = choices <= limit / 4 ? choice : random_() % choices;
      checkCut(cut_.newestBut(at), boot, visible);
      checkCut(cut_.oldestBut(at), boot, visible);
    }
    for (std::uint64_t sample = 0; sample < limit / 2; ++sample) checkCut(cut_.randomState(random_), boot, visible);
  }

  // All processes killed: everything written is there, and what readers see must be durable already.
  bool exploreKill(unsigned boot, std::size_t atLeast, std::size_t& visible) {
    ++counts_.kills;
    disk_.boot(cut_.newest());
    disk_.setBootNumber(boot);
    disk_.setMountNumber(1);
    if (!checkReader(atLeast, visible)) return false;
    disk_.isRecording = true;
    const PowerCut atKill = cut_;
    // What no reader could see when its writer died takes effect never, unless it might be of another mount.
    if (!checkWriter(visible, disk_.tellsMounts ? visible : states_.size() - 1)) return false;
    checkSecondCuts(atKill, visible, states_.size() - 1);
    return true;
  }

  void checkCut(const DiskImage& image, unsigned boot, std::size_t visible) {
    if (failures_ >= MOST_FAILURES) return;
    if (!seen_.insert(image.hash() ^ visible ^ states_.size() << 20).second) {
      ++counts_.repeated;
      return;
    }
    ++counts_.states;
    // The cache may be lost without the machine: the file system is mounted anew.
    const bool isRemounted = counts_.states % 3 == 0 && disk_.tellsMounts;
    disk_.boot(image);
    disk_.setBootNumber(isRemounted ? boot : boot + 1);
    disk_.setMountNumber(isRemounted ? 2 : 1);
    std::size_t found = 0;
    if (!checkReader(visible, found)) return;
    if (checksBackup_ && !checkBackup(image)) return;
    disk_.isRecording = true;
    if (!checkWriter(found, found)) return;
    if (counts_.states % secondEvery_ == 0) checkSecondCuts(PowerCut(image), found, found);
  }

  // What the writer did after the first cut is cut as well.
  void checkSecondCuts(PowerCut cut, std::size_t from, std::size_t to) {
    const std::vector<DiskOp> ops = std::move(disk_.log);
    disk_.log.clear();
    const std::vector<Values> outer = states_;
    states_ = {outer.begin() + static_cast<std::ptrdiff_t>(from), outer.begin() + static_cast<std::ptrdiff_t>(to) + 1};
    states_.push_back(with(final_, PROBE));
    const unsigned boot = disk_.bootNumber();
    const std::string outerWhere = where_;
    for (std::size_t point = 0; point <= ops.size(); ++point) {
      where_ = outerWhere + ", again at " + std::to_string(point) + " of " + std::to_string(ops.size());
      const std::size_t atLeast = point == ops.size() ? states_.size() - 1 : 0;
      for (int sample = 0; sample < 4; ++sample) {
        if (failures_ >= MOST_FAILURES) break;
        const DiskImage image = sample == 0 ? cut.oldest() : sample == 1 ? cut.newest() : cut.randomState(random_);
        if (!seen_.insert(image.hash() ^ 0x5555).second) continue;
        ++counts_.secondStates;
        disk_.boot(image);
        disk_.setBootNumber(boot + 1);
        std::size_t found = 0;
        if (checkReader(atLeast, found)) checkWriter(found, found, SECOND_PROBE);
        disk_.log.clear();
      }
      if (point < ops.size()) cut.follow(ops[point]);
    }
    disk_.isRecording = false;
    where_ = outerWhere;
    states_ = outer;
  }

  bool fail(const std::string& what) {
    ++failures_;
    ADD_FAILURE() << where_ << ": " << what;
    disk_.isRecording = false;
    return false;
  }

  bool checkReader(std::size_t atLeast, std::size_t& found) {
    disk_.isRecording = true;
    disk_.log.clear();
    TestStore store(DISK_FOLDER);
    std::uint32_t rc = MD_RC_OK;
    const Values listed = store.list(0, {}, &rc);
    if (rc != MD_RC_OK) return fail("the reader's listing answers " + std::to_string(rc));
    found = states_.size();
    for (std::size_t state = atLeast; state < states_.size(); ++state) {
      if (states_[state] == listed) {
        found = state;
        break;
      }
    }
    if (found == states_.size()) {
      return fail("the reader sees " + std::to_string(listed.size()) + " records, which is none of the states from " +
                  std::to_string(atLeast) + " on: " + ::testing::PrintToString(listed));
    }
    if (!checkGets(store, listed)) return false;
    disk_.isRecording = false;
    const bool wrote = std::any_of(disk_.log.begin(), disk_.log.end(),
                                   [](const DiskOp& op) { return op.kind != DiskOp::Kind::SYNC_FILE; });
    return !wrote || fail("reading wrote something");
  }

  bool checkGets(TestStore& store, const Values& expected) {
    const std::size_t stride = expected.size() < 12 ? 1 : expected.size() / 12;
    Value value;
    for (std::size_t at = 0; at < expected.size(); at += stride) {
      const Value& wanted = *std::find_if(expected.begin(), expected.end(), [&](const Value& other) {
        return other.group == expected[at].group && other.key == expected[at].key;
      });
      const std::uint32_t rc = store.get(wanted.group, wanted.key, value);
      if (rc != MD_RC_OK) return fail("Get does not find " + wanted.key + ", it answers " + std::to_string(rc));
      if (!(value == wanted)) return fail("Get finds another record than " + wanted.key);
    }
    for (const Value& watched : watched_) {
      if (store.get(watched.group, watched.key, value) != MD_RC_OK || !(value == watched))
        return fail("Get does not find " + watched.key);
    }
    for (const Value& absent : absent_) {
      const bool isThere = std::any_of(expected.begin(), expected.end(), [&](const Value& other) {
        return other.group == absent.group && other.key == absent.key;
      });
      if (!isThere && store.get(absent.group, absent.key, value) != GENREG_RC_NOT_FOUND) {
        return fail("Get finds " + absent.key + ", which is not there");
      }
    }
    if (expected.empty()) return true;
    const Value& last = expected.back();
    Values group;
    std::copy_if(expected.begin(), expected.end(), std::back_inserter(group),
                 [&](const Value& other) { return other.group == last.group; });
    return store.list(GROUP, last) == group || fail("the listing of group " + last.group + " is wrong");
  }

  // Up to the end that the backup tells, it has every frame of the file whose backup it is.
  bool checkBackup(const DiskImage& image) {
    if (!image.has(".store.bkp")) return true;
    Descriptor file;
    HeaderPage page;
    HeaderPage own;
    const std::string folder = DISK_FOLDER;
    bool isRead = openRegular(AT_FDCWD, (folder + "/.store.bkp").c_str(), O_RDONLY, 0, file) == MD_RC_OK &&
                  readHeaderPage(file.get(), page) == MD_RC_OK;
    isRead = isRead && openRegular(AT_FDCWD, (folder + "/store").c_str(), O_RDONLY, 0, file) == MD_RC_OK &&
             readHeaderPage(file.get(), own) == MD_RC_OK;
    if (!isRead || !page.hasSlot()) return fail("the backup has no header or no slot");
    if (page.header.fileId != own.header.fileId) return true;
    const Bytes& bytes = *image.files.at(image.names.at("store"));
    const Bytes& backup = *image.files.at(image.names.at(".store.bkp"));
    const std::uint64_t end = page.slots[page.newest()].end;
    const FrameKey key{.salt = saltOf(own.header.fileId), .indexCount = 2};
    if (backup.size() < end) return fail("the backup is shorter than it tells");
    Frame frame;
    for (std::uint64_t at = format::LOG_START; at < end; at = frame.end()) {
      if (parseHead(std::span(bytes).subspan(at), at, key, frame) != ParseResult::OK)
        return fail("the backup is ahead of the file");
      const std::size_t size = frame.kind == format::FrameKind::AREA ? frame.headSize : frame.size;
      if (std::memcmp(&bytes[at], &backup[at], size) != 0) return fail("the backup has other frames than the file");
    }
    return true;
  }

  // A writer may take in what stood complete behind the end: it may find any of these states.
  bool checkWriter(std::size_t from, std::size_t to, const Value& probe = PROBE) {
    TestStore store(DISK_FOLDER);
    if (const std::uint32_t rc = store.add(probe)) return fail("the writer's Add answers " + std::to_string(rc));
    const bool recording = disk_.isRecording;
    disk_.isRecording = false;
    std::uint32_t rc = MD_RC_OK;
    Values listed = store.list(0, {}, &rc);
    if (rc != MD_RC_OK) return fail("the listing after the writer answers " + std::to_string(rc));
    if (listed.empty() || !(listed.back() == probe)) return fail("the writer's record is not there");
    listed.pop_back();
    const auto begin = states_.begin() + static_cast<std::ptrdiff_t>(from);
    const auto end = states_.begin() + static_cast<std::ptrdiff_t>(to) + 1;
    if (std::find(begin, end, listed) == end) {
      return fail("after the writer there are " + std::to_string(listed.size()) + " other records than before it");
    }
    final_ = listed;
    if (!checkGets(store, with(listed, probe))) return false;
    GenRegStatus status{};
    if (store.status(status) != MD_RC_OK || status.damaged != 0) return fail("the full check meets damage");
    if (status.repairs != 0) return fail("something was repaired");
    if (status.records != listed.size() + 1) return fail("the count of records is wrong");
    std::uint64_t bytes = encode(probe).size();
    for (const Value& value : listed) bytes += encode(value).size();
    if (status.recordBytes != bytes) return fail("the sum of the records' sizes is wrong");
    if (disk_.image().has("store.cor")) return fail("a corrupt copy was made");
    disk_.isRecording = recording;
    return true;
  }

 protected:
  Values absent_{{"no such group", "no such key", ""}};
  Values watched_;  // there whatever happens, and looked for each time

 private:
  static inline Counts total_;
  PowerCut cut_{DiskImage{}};
  std::vector<DiskOp> ops_;
  std::vector<Values> states_;
  Values final_;  // what the last writer found
  std::unordered_set<std::uint64_t> seen_;
  std::mt19937_64 random_{1};
  std::string where_;
  int failures_ = 0;
};

TEST_F(PowerCuts, TheFirstAddMakesTheFile) {
  statesPerPoint_ = 400;
  add({"g", "k", "first"});
}

TEST_F(PowerCuts, SingleChanges) {
  statesPerPoint_ = 100;
  const Value a{"g1", "a", "one"};
  const Value b{"g1", "b", noise(700, 1)};
  const Value c{"g2", "c", ""};
  absent_.insert(absent_.end(), {a, b, c, {"g3", "moved", ""}});
  add(a);
  add(b);
  add(c);
  const Value a2{"g1", "a", noise(1200, 2)};
  step("change a", [&](TestStore& store) { return store.change(a2); }, {{a2, b, c}});
  const Value moved{"g3", "moved", "elsewhere"};
  step("rename b", [&](TestStore& store) { return store.changeTo(b, moved); }, {{a2, moved, c}});
  step("delete c", [&](TestStore& store) { return store.remove("g2", "c"); }, {{a2, moved}});
  add(c);
  step("change c",
       [&](TestStore& store) {
         return store.change({"g2", "c", "new"});
       },
       {{a2, moved, {"g2", "c", "new"}}});
}

TEST_F(PowerCuts, DeletingAGroup) {
  Values keep;
  for (int at = 0; at < 9; ++at) {
    const Value value{at % 3 == 0 ? "stays" : "goes", "k" + std::to_string(at), noise(100, static_cast<unsigned>(at))};
    addQuietly(value);
    absent_.push_back(value);
    if (at % 3 == 0) keep.push_back(value);
  }
  step("delete group", [&](TestStore& store) { return store.removeAll("goes", "", GROUP); }, {keep});
  step("delete all", [&](TestStore& store) { return store.removeAll("", "", 0); }, {{}});
}

TEST_F(PowerCuts, ABatch) {
  addQuietly({"g", "before", "b"});
  const Value first = now().front();
  std::vector<Values> after;
  Values values = now();
  for (int at = 0; at < 4; ++at) {
    values.push_back({"g", "k" + std::to_string(at), noise(300, static_cast<unsigned>(at))});
    absent_.push_back(values.back());
    after.push_back(values);
  }
  values.front().data = "changed";
  after.push_back(values);
  values.erase(values.begin() + 2);
  after.push_back(values);
  const std::vector<Values> states = after;
  step(
      "batch",
      [&](TestStore& store) {
        std::uint32_t rc = store.beginBatch();
        for (int at = 0; at < 4; ++at) rc |= store.add(states[3][static_cast<std::size_t>(at) + 1]);
        rc |= store.change({"g", "before", "changed"});
        rc |= store.remove("g", "k1");
        return rc | store.commitBatch();
      },
      after);
}

// The overlay of the slot holds 48 heads; a commit with more goes another way.
TEST_F(PowerCuts, ABatchWithMoreHeadsThanTheSlotHolds) {
  statesPerPoint_ = 40;
  addQuietly({"g", "before", "b"});
  for (int round = 0; round < 2; ++round) {
    std::vector<Values> after;
    Values values = now();
    const std::size_t known = values.size();
    for (int at = 0; at < 40; ++at) {
      const std::string name = std::to_string(round) + "-" + std::to_string(at);
      values.push_back({"group" + name, "k" + name, "d"});
      after.push_back(values);
    }
    step(
        "batch",
        [&](TestStore& store) {
          std::uint32_t rc = store.beginBatch();
          for (std::size_t at = known; at < values.size(); ++at) rc |= store.add(values[at]);
          return rc | store.commitBatch();
        },
        after);
  }
}

TEST_F(PowerCuts, TheOverlayFillsAndIsApplied) {
  statesPerPoint_ = 24;
  for (int at = 0; at < 60; ++at) {
    const std::string name = std::to_string(at);
    add({"g" + std::to_string(at % 35), "k" + name, name});
  }
}

// Where the system does not tell its runs apart, every opening is as after a restart.
TEST_F(PowerCuts, OfAMachineWithoutABootId) {
  statesPerPoint_ = 24;
  disk_.tellsBoots = false;
  for (int at = 0; at < 28; ++at) {
    const std::string name = std::to_string(at);
    add({"g" + name, "k" + name, name});
  }
}

TEST_F(PowerCuts, OfAMachineThatForbidsItsBootId) {
  statesPerPoint_ = 24;
  addQuietly({"g", "known", "by a writer that was told"});
  disk_.bootIdError = EACCES;
  for (int at = 0; at < 8; ++at) {
    const std::string name = std::to_string(at);
    add({"g" + name, "k" + name, name});
  }
  disk_.bootIdError = 0;
  add({"g", "told again", ""});
}

TEST_F(PowerCuts, WhereMountsCannotBeTold) {
  statesPerPoint_ = 24;
  disk_.tellsMounts = false;
  for (int at = 0; at < 28; ++at) {
    const std::string name = std::to_string(at);
    add({"g" + name, "k" + name, name});
  }
}

// A guess could take a commit under way for one that outlasted a restart.
TEST_F(PowerCuts, ABootIdThatIsOutOfReachIsAFailure) {
  const std::pair<int, std::uint32_t> errors[]{{EMFILE, GENREG_RC_TOO_MANY_FILES},
                                               {ENFILE, GENREG_RC_TOO_MANY_FILES},
                                               {ENOMEM, GENREG_RC_NO_MEMORY},
                                               {EIO, GENREG_RC_IO_ERROR}};
  addQuietly({"g", "before", ""});
  addQuietly({"g", "acknowledged", ""});
  const DiskImage image = oldestNow();
  for (const auto& [error, code] : errors) {
    startAnew(image);
    disk_.bootIdError = error;
    TestStore store(DISK_FOLDER);
    Value value;
    EXPECT_EQ(store.get("g", "acknowledged", value), code) << error;
    EXPECT_EQ(store.add(PROBE), code) << error;
    disk_.bootIdError = 0;
    EXPECT_EQ(store.list(), now()) << error;
  }
}

TEST_F(PowerCuts, TheIndexGetsANewArea) {
  statesPerPoint_ = 16;
  secondEvery_ = 100;
  Values values;
  for (int at = 0; at < 180; ++at) values.push_back({"g" + std::to_string(at), "k" + std::to_string(at), "d"});
  addInOneBatch(values);
  for (int at = 180; at < 215; ++at) {
    const std::string name = std::to_string(at);
    add({"g" + name, "k" + name, name});
  }
}

TEST_F(PowerCuts, AnExplicitCompaction) {
  for (int at = 0; at < 12; ++at) addQuietly({"g", "k" + std::to_string(at), noise(60, static_cast<unsigned>(at))});
  Values values = now();
  for (std::size_t at = 0; at < 6; ++at) {
    values[at].data = noise(500, 50);
    quietly([&](TestStore& store) { return store.change(values[at]); }, values);
  }
  step("compact", [](TestStore& store) { return store.compact(); }, {values});
  add({"g", "after", "the compaction"});
}

TEST_F(PowerCuts, CompactionByItself) {
  statesPerPoint_ = 40;
  addQuietly({"g", "stays", noise(200, 1)});
  addQuietly({"g", "churned", ""});
  for (unsigned at = 0; at < 40; ++at) {
    Values values = now();
    values[1].data = noise(4000, at);
    stepIfItHas(
        DiskOp::Kind::RENAME, "store", "change", [&](TestStore& store) { return store.change(values[1]); }, values);
  }
  EXPECT_GT(found_, 0);
}

TEST_F(PowerCuts, TheFirstBackup) {
  checksBackup_ = true;
  for (unsigned at = 0; at < 12; ++at) {
    const Value value{"g", "k" + std::to_string(at), noise(700, at)};
    stepIfItHas(
        DiskOp::Kind::RENAME, ".store.bkp", "add", [&](TestStore& store) { return store.add(value); },
        with(now(), value));
  }
  EXPECT_GT(found_, 0);
  add({"g", "after", "the backup"});
}

TEST_F(PowerCuts, TheBackupGrows) {
  checksBackup_ = true;
  statesPerPoint_ = 20;
  for (unsigned at = 0; at < 3; ++at) addQuietly({"g", "k" + std::to_string(at), noise(3000, at)});
  for (unsigned at = 3; at < 12; ++at) add({"g", "k" + std::to_string(at), noise(3000, at)});
}

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
  PowerCut cut(lost_);
  disk_.isRecording = true;
  disk_.log.clear();
  std::vector<std::pair<Values, DiskImage>> seen;
  bool isReading = false;
  std::size_t followed = 0;
  disk_.fault = [&](Call) {
    if (isReading) return 0;
    isReading = true;
    TestStore reader(DISK_FOLDER);
    const Values listed = reader.list();
    for (; followed < disk_.log.size(); ++followed) cut.follow(disk_.log[followed]);
    seen.emplace_back(listed, cut.oldest());
    isReading = false;
    return 0;
  };
  {
    TestStore writer(DISK_FOLDER);
    ASSERT_EQ(writer.add(PROBE), MD_RC_OK);
  }
  disk_.fault = nullptr;
  disk_.isRecording = false;
  ASSERT_GT(seen.size(), 10u);
  for (const auto& [listed, image] : seen) {
    startAnew(image);
    TestStore store(DISK_FOLDER);
    const Values after = store.list();
    EXPECT_GE(after.size(), listed.size());
    EXPECT_TRUE(std::equal(listed.begin(), listed.end(), after.begin()));
  }
}

// Disasters one after the other: the file goes on working, and stays small.
class RepeatedDisasters : public PowerCuts {
 protected:
  void expectSmall() {
    std::uint64_t live = 0;
    for (const Value& value : now()) live += encode(value).size();
    const DiskImage image = disk_.image();
    EXPECT_LT(image.files.at(image.names.at("store"))->size(), 2 * (live + 65536));
  }
};

TEST_F(RepeatedDisasters, OfLosingTheSlotInAPowerCut) {
  addQuietly({"first", "first", ""});
  for (int cut = 0; cut < 250; ++cut) {
    for (int at = 0; at < 1 + cut % 29; ++at) {
      const std::string name = std::to_string(cut) + "-" + std::to_string(at);
      addQuietly({"g" + name, "k" + name, ""});
    }
    startAnew(oldestNow());
  }
  TestStore store(DISK_FOLDER);
  EXPECT_EQ(store.list(), now());
  Value value;
  for (const Value& wanted : now()) ASSERT_EQ(store.get(wanted.group, wanted.key, value), MD_RC_OK) << wanted.key;
  expectSmall();
}

// A change of more heads than the slot holds, killed after each of its calls in turn, again and again.
TEST_F(RepeatedDisasters, OfBeingKilled) {
  addQuietly({"first", "first", ""});
  for (int kill = 0; kill < 300; ++kill) {
    Values batch;
    for (int at = 0; at < 30; ++at) {
      const std::string name = std::to_string(kill) + "-" + std::to_string(at);
      batch.push_back({"g" + name, "k" + name, ""});
    }
    {
      int calls = 0;
      disk_.fault = [&](Call call) {
        calls += call == Call::WRITE || call == Call::SYNC_DATA || call == Call::ALLOCATE ? 1 : 0;
        return calls > kill % 24 ? EINTR : 0;
      };
      TestStore store(DISK_FOLDER);
      store.beginBatch();
      for (const Value& value : batch) store.add(value);
      store.commitBatch();
      disk_.fault = nullptr;
    }
    disk_.killProcesses();
    TestStore store(DISK_FOLDER);
    std::uint32_t rc = MD_RC_OK;
    const Values listed = store.list(0, {}, &rc);
    ASSERT_EQ(rc, MD_RC_OK) << kill;
    const Value next{"n" + std::to_string(kill), "n", ""};
    ASSERT_EQ(store.add(next), MD_RC_OK) << kill;
    ASSERT_EQ(store.list(), with(listed, next)) << kill;
    if (kill % 20 == 0) {
      ASSERT_EQ(store.removeAll("", "", 0), MD_RC_OK);
    }
  }
}

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

// Several records of one key: which of them a Get answers must not depend on what a crash took.
TEST_F(PowerCuts, RecordsThatShareAKey) {
  addQuietly({"g", "k", "first"});
  const Value second{"g", "other", "x"};
  addQuietly(second);
  step("add again",
       [&](TestStore& store) {
         return store.add({"g", "k", "second"}, 0);
       },
       {with(now(), {"g", "k", "second"})});
}

}  // namespace
}  // namespace zon::test
