// A reader and a writer of the fault harness in turns, call by call: see FaultSweep::readBeside.
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/registry/harness/fault_harness.h"
#include "platform/registry/harness/fault_words.h"

namespace zon::test {

bool FaultSweep::prepareReading(const Scene& scene, const Operation& writer) {
  ++counts_.scenes;
  scene_ = &scene;
  seenCuts_.clear();
  meets_ = false;
  hasMet_ = false;
  where_ = scene.name + "; a reader beside " + writer.name;
  restore();
  const Told seen = listNow();
  if (!isTrue(seen, scene.truths)) {
    fail("at first a reader answers " + code(seen.rc));
    return false;
  }
  before_ = seen.delivered;
  expected_ = writer.expect(before_);
  return true;
}

void FaultSweep::readBeside(const Scene& scene, const Operation& writer) {
  if (!isChosen(pairShare_) || !prepareReading(scene, writer)) return;
  const std::string where = where_;
  readAtEachCall(writer);
  for (const char* reader : {"list", "list group"}) {
    where_ = where;
    writeUpToEachCall(operationNamed(reader), writer);
  }
}

void FaultSweep::readAtEachCall(const Operation& writer) {
  struct Look {
    std::size_t ops;
    Told seen;
  };
  std::vector<Look> looks;
  restore();
  disk_.fault = [&](Call) {
    if (isNested_) return 0;
    isNested_ = true;
    looks.push_back({disk_.log.size(), listNow()});
    isNested_ = false;
    return 0;
  };
  disk_.isRecording = true;
  {
    TestStore store(DISK_FOLDER);
    writer.run(store);
  }
  disk_.isRecording = false;
  disk_.fault = nullptr;
  const std::vector<DiskOp> ops = std::move(disk_.log);
  const std::string where = where_;
  cut_ = scene_->cut;
  std::size_t followed = 0;
  for (std::size_t number = 0; number < looks.size(); ++number) {
    if (!isChosen(share_)) continue;
    ++counts_.schedules;
    where_ = where + ", call " + std::to_string(number) + " of the writer";
    while (followed < looks[number].ops) cut_.follow(ops[followed++]);
    judgeSeen(looks[number].seen, number);
  }
}

void FaultSweep::writeUpToEachCall(const Operation& reader, const Operation& writer) {
  restore();
  const std::size_t before = disk_.callCount();
  {
    TestStore store(DISK_FOLDER);
    writer.run(store);
  }
  const std::size_t writerCalls = disk_.callCount() - before;
  restore();
  attempt(reader, nullptr);
  const std::size_t readerCalls = calls_.size();
  const std::string where = where_;
  for (std::size_t at = 0; at < readerCalls; ++at) {
    for (std::size_t most = 1; most <= writerCalls; ++most) {
      if (!isChosen(share_)) continue;
      ++counts_.schedules;
      where_ = where + ": " + reader.name + ", call " + std::to_string(at) + " of the reader, the writer at its call " +
               std::to_string(most);
      Told seen = readAround(reader, at, writer, most);
      cut_ = scene_->cut;
      for (const DiskOp& op : disk_.log) cut_.follow(op);
      // What the group's listing shows is held against the state that it is of.
      if (std::string_view(reader.name) != "list") {
        const auto state = std::find_if(expected_.states.begin(), expected_.states.end(), [&](const Values& values) {
          return reader.expect(values).delivered == seen.delivered;
        });
        if (state != expected_.states.end()) seen.delivered = *state;
      }
      judgeSeen(seen, at * 1000 + most);
    }
  }
}

Told FaultSweep::readAround(const Operation& reader, std::size_t at, const Operation& writer, std::size_t most) {
  restore();
  std::size_t readerCalls = 0;
  std::size_t writerCalls = 0;
  disk_.fault = [&](Call) {
    if (isNested_) {
      if (writerCalls++ < most) return 0;
      disk_.isRecording = false;
      return EIO;
    }
    if (readerCalls++ != at) return 0;
    isNested_ = true;
    disk_.isRecording = true;
    TestStore store(DISK_FOLDER);
    writer.run(store);
    disk_.isRecording = false;
    isNested_ = false;
    return 0;
  };
  TestStore store(DISK_FOLDER);
  Told told = reader.run(store);
  disk_.fault = nullptr;
  return told;
}

void FaultSweep::judgeSeen(const Told& seen, std::uint64_t key) {
  const std::vector<Values>& states = expected_.states;
  if (!isTrue(seen, states)) {
    fail("the reader answers " + code(seen.rc) + " and sees " + difference(seen.delivered, states.front()));
    return;
  }
  const auto shown = std::find(states.begin(), states.end(), seen.delivered);
  if (shown == states.end()) return;
  std::vector<Values> allowed(shown, states.end());
  if (shown == states.begin()) allowed.insert(allowed.end(), scene_->truths.begin(), scene_->truths.end());
  for (const DiskImage& image : {cut_.oldest(), cut_.randomState(random_)}) {
    if (!seenCuts_.insert(image.hash() ^ key ^ allowed.size() << 40).second) continue;
    ++counts_.cuts;
    disk_.log.clear();
    disk_.boot(image);
    disk_.setBootNumber(scene_->boot + 1);
    const Told kept = listNow();
    if (!isTrue(kept, allowed)) {
      fail("the reader sees what a power cut takes back: " + difference(kept.delivered, allowed.front()));
    }
  }
}

}  // namespace zon::test
