// Power cuts and killed processes at every point of a change: the fixture of the tests that explore them.
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
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/registry/format/format.h"
#include "platform/registry/harness/simulated_disk.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {

using Work = std::function<std::uint32_t(TestStore&)>;

constexpr std::size_t SMALL_RECORDS = 8192;
const Value PROBE{"probe", "probe", "after the crash"};
const Value SECOND_PROBE{"probe2", "probe2", "after both crashes"};

inline Values with(Values values, const Value& value) {
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
  ~PowerCuts() override;

  // The records that the file is to hold now.
  const Values& now() const { return states_.back(); }

  // Does the work, which leads through these states in turn, and cuts it everywhere.
  void step(const std::string& name, const Work& work, std::vector<Values> after, std::uint32_t expected = MD_RC_OK);
  // Only does it.
  void quietly(const Work& work, Values after, std::uint32_t expected = MD_RC_OK);
  // Cuts it only when it held such an operation.
  void stepIfItHas(DiskOp::Kind kind, const std::string& target, const std::string& name, const Work& work,
                   Values after);
  void add(const Value& value);
  void addQuietly(const Value& value);
  void addInOneBatch(const Values& values);

  // The next sync fails, the ones after it do not.
  static std::function<int(Call)> failedSync();
  std::uint32_t addWithFailedSync(TestStore& store, const Value& value);

  // Time goes by, and what waits to be written reaches the disk; what a failed sync took for clean does not wait.
  void writeBack();

  // What a power cut leaves at the least.
  DiskImage oldestNow() const { return cut_.oldest(); }
  const PowerCut& cutNow() const { return cut_; }

  // The machine was started anew and found this on its disk.
  void startAnew(const DiskImage& image);

  // An empty disk, and another choice of what is looked at.
  void startAfresh(std::uint64_t seed);

  static format::Slot newestSlotIn(const DiskImage& image);
  format::Slot newestSlot() const { return newestSlotIn(disk_.image()); }
  // The end of the log that it tells.
  std::uint64_t publishedEnd() const { return newestSlot().end; }

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
  std::uint64_t statesPerPoint_ = 60;
  std::uint64_t secondEvery_ = 40;
  bool checksBackup_ = false;
  int found_ = 0;
  SimulatedDisk disk_;
  Counts counts_;

 private:
  void run(const Work& work, std::vector<Values> after, std::uint32_t expected);
  void explore(const std::string& name);
  void explorePoint(unsigned boot, std::size_t atLeast);

  // All processes killed: everything written is there, and what readers see must be durable already.
  bool exploreKill(unsigned boot, std::size_t atLeast, std::size_t& visible);
  void checkCut(const DiskImage& image, unsigned boot, std::size_t visible);

  // What the writer did after the first cut is cut as well.
  void checkSecondCuts(PowerCut cut, std::size_t from, std::size_t to);
  bool fail(const std::string& what);
  bool checkReader(std::size_t atLeast, std::size_t& found);
  bool checkGets(TestStore& store, const Values& expected);

  // Up to the end that the backup tells, it has every frame of the file whose backup it is.
  bool checkBackup(const DiskImage& image);

  // A writer may take in what stood complete behind the end: it may find any of these states.
  bool checkWriter(std::size_t from, std::size_t to, const Value& probe = PROBE);

 protected:
  Values absent_{{"no such group", "no such key", ""}};
  Values watched_;  // there whatever happens, and looked for each time

 private:
  PowerCut cut_{DiskImage{}};
  std::vector<DiskOp> ops_;
  std::vector<Values> states_;
  Values final_;  // what the last writer found
  std::unordered_set<std::uint64_t> seen_;
  std::mt19937_64 random_{1};
  std::string where_;
  int failures_ = 0;
};

}  // namespace zon::test
