// See fault_harness.h. What must hold is in fault_judging.cpp, the turns of readers and writers in fault_schedules.cpp.
#include "platform/registry/harness/fault_harness.h"

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <limits>

#include "platform/registry/harness/allocation_faults.h"
#include "platform/registry/harness/fault_words.h"
#include "support/evidence.h"
#include "support/told_numbers.h"
#include "zonmdfile/platform/oss.h"

namespace zon::test {
namespace {

constexpr std::size_t MOST_CALLS = 2000000;             // more than any wait that ends needs
constexpr std::size_t MOST_CALLS_IN_PIECES = 40000000;  // ... byte by byte, with a repair on the way
constexpr std::uint64_t MOST_REPORTS = 4;
constexpr double PAIRS_AT_LEAST = 20;  // times the share of failures

const Value MET{"met", "met", "of the other writer"};

std::uint64_t seed() {
  static const auto SEED = zontest::toldNumber<std::uint64_t>("ZON_FAULT_SEED", 1);
  return SEED;
}

}  // namespace

FaultSweep::FaultSweep(SimulatedDisk& disk) : disk_(disk), random_(seed()) { shieldSystemCalls(); }

FaultSweep::~FaultSweep() {
  std::cout << "seed " << seed() << ", scenes x operations " << counts_.scenes << ", failed calls " << counts_.calls
            << ", half done " << counts_.halves << ", failed allocations " << counts_.allocations
            << ", short transfers " << counts_.transfers << ", schedules " << counts_.schedules << ", power cuts "
            << counts_.cuts << ", failures " << failureCount_ << '\n';
  zontest::tellEvidence("faults.calls", counts_.calls, seed());
  zontest::tellEvidence("faults.half done", counts_.halves, seed());
  zontest::tellEvidence("faults.memory", counts_.allocations, seed());
  zontest::tellEvidence("faults.short transfers", counts_.transfers, seed());
  zontest::tellEvidence("faults.cuts behind", counts_.cuts, seed());
  zontest::tellEvidence("schedules.nested", counts_.schedules, seed());
  for (const auto& [what, count] : failures_) std::cout << "  " << count << " x " << what << '\n';
}

void FaultSweep::setShare(double share) {
  const double wanted = std::min(1.0, share * zontest::toldNumber("ZON_FAULT_SCALE", 1.0));
  pairShare_ = std::min(1.0, wanted * PAIRS_AT_LEAST);
  share_ = wanted / pairShare_;
}

bool FaultSweep::isChosen(double share) { return share >= 1 || std::uniform_real_distribution<>()(random_) < share; }

void FaultSweep::fail(const std::string& what) {
  ++failures_[where_.substr(0, where_.find(", call ")) + ": " + what];
  if (++failureCount_ <= MOST_REPORTS) ADD_FAILURE() << where_ << ": " << what;
}

void FaultSweep::restore() {
  disk_.fault = nullptr;
  disk_.mostBytes = 0;
  disk_.isRecording = false;
  disk_.log.clear();
  disk_.boot(scene_->image);
  disk_.badSectors = scene_->badSectors;
  disk_.setBootNumber(scene_->boot);
  disk_.setMountNumber(scene_->mount);
  disk_.reseed();
}

Told FaultSweep::listNow() {
  TestStore store(DISK_FOLDER);
  return listAll(store);
}

// What a reader sees at the beginning is what is there; the operation's model goes on from it.
bool FaultSweep::prepare(const Scene& scene, const Operation& operation) {
  const std::uint64_t failures = failureCount_;
  ++counts_.scenes;
  scene_ = &scene;
  seenCuts_.clear();
  where_ = scene.name + "; " + operation.name;
  meets_ = false;
  restore();
  const Told seen = listNow();
  if (!isTrue(seen, scene.truths)) {
    fail("at first a reader answers " + code(seen.rc) + " and sees " +
         difference(seen.delivered, scene.truths.front()));
    return false;
  }
  before_ = scene.isDamaged ? scene.truths.front() : seen.delivered;
  expected_ = operation.expect(before_);
  expectedLost_ = operation.expect(withoutLost(before_));
  expectedMet_ = scene.meanwhile == Meanwhile::ADDS ? operation.expect(with(before_, MET)) : expected_;
  restore();
  judge(operation, attempt(operation, nullptr), nullptr);
  if (scene.meanwhile != Meanwhile::NOTHING) {
    meets_ = true;
    takesLock_ = std::find(calls_.begin(), calls_.end(), Call::LOCK) != calls_.end();
    restore();
    judge(operation, attempt(operation, nullptr), nullptr);
  }
  return failureCount_ == failures;
}

void FaultSweep::interlope() {
  const Unfailing scope;
  hasMet_ = true;
  isNested_ = true;
  const std::size_t most = std::exchange(disk_.mostBytes, 0);
  TestStore other(DISK_FOLDER);
  const std::uint32_t rc = scene_->meanwhile == Meanwhile::ADDS ? other.add(MET) : other.compact();
  if (rc != MD_RC_OK) fail("the other writer answers " + code(rc));
  disk_.mostBytes = most;
  isNested_ = false;
}

Told FaultSweep::attempt(const Operation& operation, const Fault* fault) {
  count_ = 0;
  hasMet_ = false;
  calls_.clear();
  disk_.fault = [this, fault](Call call) {
    if (isNested_) return 0;
    const std::size_t number = count_++;
    if (number > (disk_.mostBytes == 0 ? MOST_CALLS : MOST_CALLS_IN_PIECES)) {
      std::cerr << where_ << ": does not end\n";
      std::abort();
    }
    if (fault == nullptr) {
      const Unfailing scope;
      calls_.push_back(call);
    }
    if (meets_ && !hasMet_ && (takesLock_ ? call == Call::LOCK : number == 1)) interlope();
    if (fault == nullptr || !fault->call) return 0;
    return number == fault->at || (fault->sticky && number > fault->at && call == *fault->call) ? fault->error : 0;
  };
  disk_.isRecording = true;
  Told told;
  {
    TestStore store(DISK_FOLDER);
    const std::uint64_t served = ossMemAllocationCount();
    told = runFailing(store, operation, fault == nullptr ? Fault{} : *fault);
    ownAsked_ = allocationsAsked();
    buffersAsked_ = ossMemAllocationCount() - served;
  }
  disk_.isRecording = false;
  disk_.fault = nullptr;
  return told;
}

Told FaultSweep::runFailing(TestStore& store, const Operation& operation, const Fault& fault) {
  constexpr long long NEVER = std::numeric_limits<long long>::max();
  if (fault.buffer != 0) ossMemFailAt(fault.buffer, fault.sticky ? 1 : 0);
  failAllocation(fault.own != 0 ? fault.own : NEVER, fault.sticky);
  Told told = operation.run(store);
  stopFailing();
  told.hasMetLoss = store.hasMetLoss();
  ossMemFailAt(0, 0);
  return told;
}

void FaultSweep::failCalls(const Operation& operation) {
  const std::vector<Call> calls = calls_;
  const std::string where = where_;
  for (std::size_t at = 0; at < calls.size(); ++at) {
    where_ = where + ", call " + std::to_string(at) + " (" + nameOf(calls[at]) + ")";
    const std::string whereCall = where_;
    for (const int error : errorsOf(calls[at])) {
      for (const bool sticky : {false, true}) {
        for (const bool half : {false, true}) {
          // What is interrupted in the midst answers how far it came, and no error.
          if (half && (calls[at] != Call::WRITE || error == EINTR)) continue;
          if (!isChosen(share_)) continue;
          where_ = whereCall;
          failCall(operation, {.call = calls[at], .at = at, .error = error, .sticky = sticky, .half = half});
        }
      }
    }
  }
}

void FaultSweep::failCall(const Operation& operation, const Fault& fault) {
  where_ += " gives " + std::to_string(fault.error) + (fault.sticky ? " from there on" : " once") +
            (fault.half ? ", half done" : "");
  restore();
  disk_.failsHalfDone = fault.half;
  disk_.wasHalfDone = false;
  const Told told = attempt(operation, &fault);
  disk_.failsHalfDone = false;
  if (fault.half && !disk_.wasHalfDone) return;  // as without
  ++(fault.half ? counts_.halves : counts_.calls);
  judge(operation, told, &fault);
}

void FaultSweep::failAllocations(const Operation& operation) {
  const std::string where = where_;
  const long long own = ownAsked_;
  // The other writer of a scene asks the memory service as well, and is not to fail.
  const auto all = own + (meets_ ? 0 : static_cast<long long>(buffersAsked_));
  for (const bool sticky : {false, true}) {
    for (long long number = 1; number <= all; ++number) {
      if (!isChosen(share_)) continue;
      ++counts_.allocations;
      const bool isBuffer = number > own;
      const Fault fault{.call = {},
                        .sticky = sticky,
                        .own = isBuffer ? 0 : number,
                        .buffer = isBuffer ? static_cast<std::uint64_t>(number - own) : 0};
      where_ = where + ", call for memory " + std::to_string(number) + " of " + std::to_string(all) +
               (sticky ? " fails, and all after it" : " fails");
      restore();
      const Told told = attempt(operation, &fault);
      judge(operation, told, &fault);
    }
  }
}

void FaultSweep::shortenTransfers(const Operation& operation) {
  const std::string where = where_;
  for (const std::size_t most : {1u, 7u, 100u}) {
    if (!isChosen(share_)) continue;
    ++counts_.transfers;
    where_ = where + ", call by call " + std::to_string(most) + " bytes";
    restore();
    disk_.mostBytes = most;
    const Told told = attempt(operation, nullptr);
    disk_.mostBytes = 0;
    judge(operation, told, nullptr);
  }
}

void FaultSweep::failEverything(const Scene& scene, const Operation& operation) {
  if (!isChosen(pairShare_) || !prepare(scene, operation)) return;
  const std::string where = where_;
  const std::vector<Call> calls = calls_;
  const long long own = ownAsked_;
  const std::uint64_t buffers = buffersAsked_;
  for (const auto sweep : {&FaultSweep::failCalls, &FaultSweep::failAllocations, &FaultSweep::shortenTransfers}) {
    where_ = where;
    calls_ = calls;
    ownAsked_ = own;
    buffersAsked_ = buffers;
    (this->*sweep)(operation);
  }
}

}  // namespace zon::test
