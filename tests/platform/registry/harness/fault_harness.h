// Lets every system call and every allocation of an operation fail, in a scene that something else has left, and holds
// what is answered and what stays against the operation's model.
//
// What must hold after each failure: the code names its cause; what was delivered is true, and complete where the
// answer is success; the records are as before where the change failed, as after where it succeeded, and one of both
// only where the answer is GENREG_RC_DURABILITY_UNKNOWN. That is looked at now, behind the next writer, behind the same
// call done again, and in states that a power cut at this instant could leave. Nothing stays open, no space is kept.
// Where damage cost a record, the call that went on without it tells so, and the status from then on.
//
// ZON_FAULT_SCALE multiplies the share of failures that is tried, ZON_FAULT_SEED chooses another one.
#pragma once

#include <map>
#include <optional>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/registry/harness/fault_operations.h"
#include "platform/registry/harness/fault_scenes.h"
#include "platform/registry/harness/simulated_disk.h"

namespace zon::test {

// The errors that a call may give.
const std::vector<int>& errorsOf(Call call);

class FaultSweep {
 public:
  explicit FaultSweep(SimulatedDisk& disk);
  // Tells how much was tried.
  ~FaultSweep();
  FaultSweep(const FaultSweep&) = delete;
  FaultSweep& operator=(const FaultSweep&) = delete;

  // Of all failures so many are tried, at scale 1; 1 for all. Where it is a small share, not every operation meets
  // every scene.
  void setShare(double share);

  // The operation as it is, and then with every failure of a call, an allocation and a transfer.
  void failEverything(const Scene& scene, const Operation& operation);

  // A reader at each call of the writer; and at each call of the reader a writer who gets so far and no further. What
  // was seen must be one state, and must be there after a power cut at this instant.
  void readBeside(const Scene& scene, const Operation& writer);

 private:
  struct Fault {
    std::optional<Call> call;
    std::size_t at = 0;
    int error = 0;  // 0: no memory
    bool sticky = false;
    bool half = false;  // of a write that goes over several pages the first ones are done
    // Without a call, the number of the allocation that fails: of the engine's own, or of the memory service.
    long long own = 0;
    std::uint64_t buffer = 0;
  };
  struct Counts {
    std::uint64_t scenes = 0;
    std::uint64_t calls = 0;
    std::uint64_t halves = 0;
    std::uint64_t allocations = 0;
    std::uint64_t transfers = 0;
    std::uint64_t schedules = 0;
    std::uint64_t cuts = 0;
  };

  bool prepare(const Scene& scene, const Operation& operation);
  void failCalls(const Operation& operation);
  void failCall(const Operation& operation, const Fault& fault);
  void failAllocations(const Operation& operation);
  void shortenTransfers(const Operation& operation);
  void restore();
  bool isChosen(double share);
  Told attempt(const Operation& operation, const Fault* fault);
  static Told runFailing(TestStore& store, const Operation& operation, const Fault& fault);
  void interlope();
  Told listNow();

  void judge(const Operation& operation, const Told& told, const Fault* fault);
  void judgeAnswer(const Told& told, const Fault* fault);
  void judgeDelivered(const Operation& operation, const Told& told);
  void judgeState(const Operation& operation, const Told& told);
  void judgeNextWriter(const Told& seen, const std::vector<Values>& allowed);
  void judgeSecondAttempt(const Operation& operation, const Values& seen);
  void judgePowerCuts(const std::vector<Values>& allowed);
  void judgeStatusAfterLoss();
  void judgeSpace(const Values& values);

  bool prepareReading(const Scene& scene, const Operation& writer);
  void readAtEachCall(const Operation& writer);
  void writeUpToEachCall(const Operation& reader, const Operation& writer);
  // The writer gets to its call of that number while the reader is at its own.
  Told readAround(const Operation& reader, std::size_t at, const Operation& writer, std::size_t most);
  void judgeSeen(const Told& seen, std::uint64_t key);

  const Expected& expected() const { return hasMet_ ? expectedMet_ : expected_; }
  std::vector<Values> allowedNow(const Told& told) const;
  std::vector<Values> allowedAfterCut(const Told& told) const;
  bool mayLeavePrefix(const Told& told) const;
  Values withoutLost(Values values) const;
  bool isNear(const Values& values, const Values& truth) const;
  bool isNearOne(const Values& values, const std::vector<Values>& truths) const;
  // A listing that is one of these states, or breaks off where the scene allows it.
  bool isTrue(const Told& listing, const std::vector<Values>& truths) const;
  static bool isLossy(const Told& listing, const std::vector<Values>& truths);
  void fail(const std::string& what);

  SimulatedDisk& disk_;
  double share_ = 1;      // of the failures of a scene and an operation
  double pairShare_ = 1;  // of those
  std::mt19937_64 random_;
  Counts counts_;
  std::map<std::string, std::uint64_t> failures_;
  std::uint64_t failureCount_ = 0;

  const Scene* scene_ = nullptr;
  std::string where_;
  std::vector<Call> calls_;
  Values before_;
  Expected expected_;
  Expected expectedLost_;   // when damage had cost what is at risk
  Expected expectedMet_;    // when the other writer of the scene was there first
  bool meets_ = false;      // the other writer comes, before the first lock or else the second call
  bool takesLock_ = false;  // the operation does
  // The run under way.
  std::size_t count_ = 0;
  long long ownAsked_ = 0;
  std::uint64_t buffersAsked_ = 0;
  bool hasMet_ = false;
  bool isNested_ = false;
  PowerCut cut_{DiskImage{}};
  std::unordered_set<std::uint64_t> seenCuts_;  // of this scene and operation
};

}  // namespace zon::test
