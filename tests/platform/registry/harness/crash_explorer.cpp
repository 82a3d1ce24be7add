// The explorer: records what a change asks of the disk, and looks at every state that a crash could leave of it.
#include "platform/registry/harness/crash_explorer.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <iterator>
#include <span>
#include <utility>

#include "platform/registry/files/file_io.h"
#include "platform/registry/format/format.h"
#include "platform/registry/format/frame.h"
#include "platform/registry/log/file_header.h"
#include "support/evidence.h"
#include "support/told_numbers.h"

namespace zon::test {
namespace {

constexpr int MOST_FAILURES = 2;

unsigned scale() { return std::max(1U, zontest::toldNumber("ZON_CRASH_SCALE", 1U)); }

}  // namespace

PowerCuts::~PowerCuts() {
  RecordProperty("states", std::to_string(counts_.states));
  std::cout << "points " << counts_.points << " (" << counts_.exhausted << " exhaustively), states " << counts_.states
            << " (" << counts_.repeated << " more met again), second cuts " << counts_.secondStates << ", kills "
            << counts_.kills << '\n';
  zontest::tellEvidence("crash_states.first", counts_.states, zontest::evidenceSeed());
  zontest::tellEvidence("crash_states.second", counts_.secondStates, zontest::evidenceSeed());
  zontest::tellEvidence("crash_states.killed", counts_.kills, zontest::evidenceSeed());
}

void PowerCuts::step(const std::string& name, const Work& work, std::vector<Values> after, std::uint32_t expected) {
  run(work, std::move(after), expected);
  explore(name);
}

void PowerCuts::quietly(const Work& work, Values after, std::uint32_t expected) {
  run(work, {std::move(after)}, expected);
  for (const DiskOp& op : ops_) cut_.follow(op);
  states_ = {states_.back()};
}

void PowerCuts::stepIfItHas(DiskOp::Kind kind, const std::string& target, const std::string& name, const Work& work,
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

void PowerCuts::add(const Value& value) {
  step("add " + value.key, [&](TestStore& store) { return store.add(value); }, {with(now(), value)});
}

void PowerCuts::addQuietly(const Value& value) {
  quietly([&](TestStore& store) { return store.add(value); }, with(now(), value));
}

void PowerCuts::addInOneBatch(const Values& values) {
  const Work work = [&](TestStore& store) {
    std::uint32_t rc = store.beginBatch();
    for (const Value& value : values) rc |= store.add(value);
    return rc | store.commitBatch();
  };
  Values after = now();
  after.insert(after.end(), values.begin(), values.end());
  quietly(work, after);
}

std::function<int(Call)> PowerCuts::failedSync() {
  return [failed = false](Call call) mutable {
    const bool fails = call == Call::SYNC_DATA && !failed;
    failed = failed || fails;
    return fails ? EIO : 0;
  };
}

std::uint32_t PowerCuts::addWithFailedSync(TestStore& store, const Value& value) {
  disk_.fault = failedSync();
  const std::uint32_t rc = store.add(value);
  disk_.fault = nullptr;
  return rc;
}

void PowerCuts::writeBack() {
  for (const auto& [name, inode] : disk_.image().names) {
    cut_.follow(DiskOp{.kind = DiskOp::Kind::SYNC_FILE, .inode = inode, .bytes = {}, .name = {}, .from = {}});
  }
}

void PowerCuts::startAnew(const DiskImage& image) {
  disk_.boot(image);
  cut_ = PowerCut(image);
}

void PowerCuts::startAfresh(std::uint64_t seed) {
  startAnew(DiskImage{});
  disk_.reseed(seed);
  states_ = {{}};
  random_.seed(seed);
}

format::Slot PowerCuts::newestSlotIn(const DiskImage& image) {
  const Bytes& bytes = *image.files.at(image.names.at("store"));
  format::Slot newest{};
  for (const std::uint64_t offset : format::SLOT_OFFSET) {
    format::Slot slot;
    std::memcpy(&slot, bytes.data() + offset, sizeof slot);
    if (slot.sequence > newest.sequence) newest = slot;
  }
  return newest;
}

void PowerCuts::run(const Work& work, std::vector<Values> after, std::uint32_t expected) {
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

void PowerCuts::explore(const std::string& name) {
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

void PowerCuts::explorePoint(unsigned boot, std::size_t atLeast) {
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

bool PowerCuts::exploreKill(unsigned boot, std::size_t atLeast, std::size_t& visible) {
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

void PowerCuts::checkCut(const DiskImage& image, unsigned boot, std::size_t visible) {
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

void PowerCuts::checkSecondCuts(PowerCut cut, std::size_t from, std::size_t to) {
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

bool PowerCuts::fail(const std::string& what) {
  ++failures_;
  ADD_FAILURE() << where_ << ": " << what;
  disk_.isRecording = false;
  return false;
}

bool PowerCuts::checkReader(std::size_t atLeast, std::size_t& found) {
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

bool PowerCuts::checkGets(TestStore& store, const Values& expected) {
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

bool PowerCuts::checkBackup(const DiskImage& image) {
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
    if (parseFrame(std::span(bytes).subspan(at), at, key, frame) != ParseResult::OK)
      return fail("the backup is ahead of the file");
    const std::size_t size = frame.kind == format::FrameKind::AREA ? frame.prefixSize : frame.size;
    if (std::memcmp(&bytes[at], &backup[at], size) != 0) return fail("the backup has other frames than the file");
  }
  return true;
}

bool PowerCuts::checkWriter(std::size_t from, std::size_t to, const Value& probe) {
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

}  // namespace zon::test
