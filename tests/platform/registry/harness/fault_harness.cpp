// See fault_harness.h.
#include "platform/registry/harness/fault_harness.h"

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <limits>

#include "platform/registry/harness/allocation_faults.h"
#include "support/evidence.h"
#include "support/told_numbers.h"
#include "zonmdfile/platform/oss.h"

namespace zon::test {
namespace {

constexpr std::size_t MOST_CALLS = 2000000;             // more than any wait that ends needs
constexpr std::size_t MOST_CALLS_IN_PIECES = 40000000;  // ... byte by byte, with a repair on the way
constexpr std::uint64_t MOST_REPORTS = 4;
constexpr std::uint64_t SPACE_SLACK = 65536;
constexpr int SAMPLED_CUTS = 2;
constexpr double PAIRS_AT_LEAST = 20;  // times the share of failures

const Value PROBE{"probe", "probe", "p"};
const Value MET{"met", "met", "of the other writer"};

std::uint64_t seed() {
  static const auto SEED = zontest::toldNumber<std::uint64_t>("ZON_FAULT_SEED", 1);
  return SEED;
}

Values with(Values values, const Value& value) {
  values.push_back(value);
  return values;
}

bool isSubsequence(const Values& part, const Values& whole) {
  auto at = whole.begin();
  for (const Value& value : part) {
    at = std::find(at, whole.end(), value);
    if (at == whole.end()) return false;
    ++at;
  }
  return true;
}

std::string code(std::uint32_t rc) { return rc == MD_RC_OK ? "0" : "code " + std::to_string(rc & 0xFFF); }

// What a listing has that the wanted one has not, and the other way round: the first of each.
std::string difference(const Values& values, const Values& wanted) {
  const auto firstOnly = [](const Values& in, const Values& notIn) -> std::string {
    for (const Value& value : in) {
      if (std::find(notIn.begin(), notIn.end(), value) == notIn.end()) return value.group + '/' + value.key;
    }
    return "nothing";
  };
  return std::to_string(values.size()) + " records instead of " + std::to_string(wanted.size()) +
         " (too many: " + firstOnly(values, wanted) + ", missing: " + firstOnly(wanted, values) + ')';
}

bool namesCause(std::uint32_t rc, int error) {
  if (rc == GENREG_RC_DURABILITY_UNKNOWN) return true;
  switch (error) {
    case EIO:
      return rc == GENREG_RC_IO_ERROR;
    case ENOSPC:
    case EDQUOT:
      return rc == GENREG_RC_NO_SPACE;
    case EACCES:
    case EPERM:
      return rc == GENREG_RC_NO_PERMISSION;
    case EROFS:
      return rc == GENREG_RC_READ_ONLY;
    case EMFILE:
    case ENFILE:
      return rc == GENREG_RC_TOO_MANY_FILES;
    case 0:
    case ENOMEM:
      return rc == GENREG_RC_NO_MEMORY;
    case EFBIG:
      return rc == GENREG_RC_FILE_TOO_LARGE;
    case ELOOP:
      return rc == GENREG_RC_NOT_REGULAR;
    case ENOLCK:
      return rc == GENREG_RC_LOCK_UNSUPPORTED;
    case EWOULDBLOCK:
      return rc == GENREG_RC_LOCK_TIMEOUT;
    case EINTR:
      return rc == GENREG_RC_SYSTEM_ERROR || rc == GENREG_RC_LOCK_TIMEOUT;
    default:
      return rc == GENREG_RC_SYSTEM_ERROR;
  }
}

}  // namespace

const std::vector<int>& errorsOf(Call call) {
  static const std::vector<int> OPENING{EACCES, EMFILE, ENFILE, ENOMEM, EROFS, ELOOP, ENOSPC, EDQUOT, EIO, EINTR};
  static const std::vector<int> READING{EIO, EINTR};
  static const std::vector<int> WRITING{EIO, ENOSPC, EDQUOT, EFBIG, EINTR};
  static const std::vector<int> SYNCING{EIO, ENOSPC, EDQUOT, EINTR};
  static const std::vector<int> RESERVING{ENOSPC, EDQUOT, EFBIG, EIO, EINTR, EOPNOTSUPP};
  static const std::vector<int> LOCKING{ENOLCK, EINTR, ENOMEM, EWOULDBLOCK};
  static const std::vector<int> ASKING{ENOMEM, EIO, EACCES};
  static const std::vector<int> NAMING{EACCES, EIO, ENOSPC, EROFS, EDQUOT, EPERM};
  static const std::vector<int> OWNING{EPERM, EIO, EROFS};
  static const std::vector<int> GUESSING{EINTR, ENOSYS};
  switch (call) {
    case Call::OPEN:
      return OPENING;
    case Call::READ:
      return READING;
    case Call::WRITE:
      return WRITING;
    case Call::SYNC_DATA:
    case Call::SYNC:
      return SYNCING;
    case Call::ALLOCATE:
    case Call::TRUNCATE:
      return RESERVING;
    case Call::LOCK:
      return LOCKING;
    case Call::STAT:
      return ASKING;
    case Call::RENAME:
    case Call::LINK:
    case Call::UNLINK:
      return NAMING;
    case Call::CHANGE_MODE:
    case Call::CHANGE_OWNER:
    case Call::GET_ATTRIBUTE:
    case Call::SET_ATTRIBUTE:
    case Call::REMOVE_ATTRIBUTE:
      return OWNING;
    default:
      return GUESSING;
  }
}

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

Values FaultSweep::withoutLost(Values values) const {
  std::erase_if(values, [this](const Value& value) {
    return std::find(scene_->atRisk.begin(), scene_->atRisk.end(), value) != scene_->atRisk.end();
  });
  return values;
}

bool FaultSweep::isNear(const Values& values, const Values& truth) const {
  return values == truth || (!scene_->atRisk.empty() && values == withoutLost(truth));
}

bool FaultSweep::isNearOne(const Values& values, const std::vector<Values>& truths) const {
  return std::any_of(truths.begin(), truths.end(), [&](const Values& truth) { return isNear(values, truth); });
}

bool FaultSweep::isTrue(const Told& listing, const std::vector<Values>& truths) const {
  if (listing.rc == MD_RC_OK) return isNearOne(listing.delivered, truths);
  return listing.rc == GENREG_RC_DAMAGED && scene_->mayRefuse &&
         std::any_of(truths.begin(), truths.end(),
                     [&](const Values& truth) { return isSubsequence(listing.delivered, truth); });
}

// A listing that ended well, though not all is there that was.
bool FaultSweep::isLossy(const Told& listing, const std::vector<Values>& truths) {
  return listing.rc == MD_RC_OK && std::find(truths.begin(), truths.end(), listing.delivered) == truths.end();
}

// Of a batch that had the file repaired and then failed, what it did before the repair stays.
bool FaultSweep::mayLeavePrefix(const Told& told) const {
  return told.rc == GENREG_RC_DURABILITY_UNKNOWN ||
         (told.rc != expected().rc && scene_->isDamaged && disk_.image().has("store.cor"));
}

std::vector<Values> FaultSweep::allowedNow(const Told& told) const {
  const bool mayBeLost = told.hasMetLoss && !hasMet_;
  const std::vector<Values>& states = expected().states;
  const std::vector<Values>& lost = expectedLost_.states;
  std::vector<Values> allowed;
  if (told.rc == expected().rc) allowed.push_back(states.back());
  if (mayBeLost && told.rc == expectedLost_.rc) allowed.push_back(lost.back());
  if (!allowed.empty()) return allowed;
  const bool isPrefix = mayLeavePrefix(told);
  allowed.assign(states.begin(), isPrefix ? states.end() : states.begin() + 1);
  if (mayBeLost) allowed.insert(allowed.end(), lost.begin(), isPrefix ? lost.end() : lost.begin() + 1);
  return allowed;
}

// A change that its dead writer never acknowledged may come with a restart, unless another one was made since.
std::vector<Values> FaultSweep::allowedAfterCut(const Told& told) const {
  std::vector<Values> allowed = allowedNow(told);
  const bool hasChanged = told.rc == expected().rc && expected().states.size() > 1;
  if (!hasChanged && !hasMet_) allowed.insert(allowed.end(), scene_->truths.begin(), scene_->truths.end());
  return allowed;
}

void FaultSweep::judgeAnswer(const Told& told, const Fault* fault) {
  // A reader may have taken its state before the other writer.
  const bool isEarlier = hasMet_ && expected_.states.size() == 1 && told.rc == expected_.rc;
  const bool isOfLost = told.hasMetLoss && told.rc == expectedLost_.rc;
  if (told.rc == expected().rc || isEarlier || isOfLost) return;
  const std::string answer = "answers " + code(told.rc);
  const bool isRefused = told.rc == GENREG_RC_DAMAGED && scene_->isDamaged;
  if (isRefused && scene_->mayRefuse) return;
  if (fault == nullptr) {
    fail(answer + " instead of " + code(expected().rc));
    return;
  }
  // A call that is interrupted once, or a lock that is held a while, is simply tried again.
  const bool isRepeated = fault->error == EINTR || fault->error == EWOULDBLOCK;
  if (isRepeated && !fault->sticky && fault->call != Call::LOCK) {
    fail("is not repeated, and " + answer);
  } else if (!isRefused && !namesCause(told.rc, fault->error)) {
    fail(answer);
  }
}

void FaultSweep::judgeDelivered(const Operation& operation, const Told& told) {
  if (scene_->isDamaged && std::string_view(operation.name) == "status") return;
  const auto fits = [&](const Expected& expected) {
    return told.rc == MD_RC_OK ? isNear(told.delivered, expected.delivered)
                               : isSubsequence(told.delivered, expected.delivered);
  };
  if (!fits(expected()) && !(hasMet_ && fits(expected_)) && !(told.hasMetLoss && fits(expectedLost_))) {
    fail("answers " + code(told.rc) + " and delivers " + std::to_string(told.delivered.size()) + " records of " +
         std::to_string(expected().delivered.size()));
  }
}

void FaultSweep::judge(const Operation& operation, const Told& told, const Fault* fault) {
  cut_ = scene_->cut;
  for (const DiskOp& op : disk_.log) cut_.follow(op);
  const bool hasWritten = !disk_.log.empty();
  disk_.log.clear();
  judgeAnswer(told, fault);
  judgeDelivered(operation, told);
  if (disk_.openDescriptors() != 0) fail("leaves descriptors open");
  const bool mayUnlink = fault == nullptr || (fault->call != Call::UNLINK && !fault->sticky);
  if (mayUnlink && disk_.image().has("store.tmp") && !scene_->image.has("store.tmp")) fail("leaves a temporary file");
  // A device that does not give back what it has is as damaged as a file.
  const bool isUnread = fault != nullptr && fault->call == Call::READ && fault->error == EIO;
  if (!isUnread && !scene_->isDamaged && disk_.image().has("store.cor")) fail("takes the file for damaged");
  // What wrote nothing has left the scene as it was.
  if (hasWritten || fault == nullptr) judgeState(operation, told);
  if (hasWritten) judgePowerCuts(allowedAfterCut(told));
}

void FaultSweep::judgeState(const Operation& operation, const Told& told) {
  const std::vector<Values> allowed = allowedNow(told);
  const Told seen = listNow();
  if (!isTrue(seen, allowed)) {
    fail("answers " + code(told.rc) + "; then a reader answers " + code(seen.rc) + " and sees " +
         difference(seen.delivered, allowed.back()));
    return;
  }
  if (told.rc == MD_RC_OK && isLossy(seen, allowed) && !told.hasMetLoss) fail("does not tell of a loss");
  const DiskImage image = disk_.image();
  if (!scene_->isDamaged) {
    judgeSecondAttempt(operation, seen.delivered);
    disk_.boot(image);
    disk_.setBootNumber(scene_->boot);
  }
  judgeNextWriter(seen, allowed);
}

// What was refused is done the next time, as if nothing had happened.
void FaultSweep::judgeSecondAttempt(const Operation& operation, const Values& seen) {
  const Expected expected = operation.expect(seen);
  const bool wasMended = disk_.image().has("store.cor");
  TestStore store(DISK_FOLDER);
  const Told told = operation.run(store);
  if (told.rc != expected.rc) fail("done again it answers " + code(told.rc) + " instead of " + code(expected.rc));
  if (told.rc == MD_RC_OK && told.delivered != expected.delivered) fail("done again it delivers something else");
  if (!wasMended && disk_.image().has("store.cor")) fail("what it left is taken for damage");
}

void FaultSweep::judgeNextWriter(const Told& seen, const std::vector<Values>& allowed) {
  disk_.isRecording = true;
  {
    TestStore store(DISK_FOLDER);
    if (const std::uint32_t rc = store.add(PROBE)) fail("the next writer answers " + code(rc));
  }
  disk_.isRecording = false;
  PowerCut cut = cut_;
  for (const DiskOp& op : disk_.log) cut.follow(op);
  disk_.log.clear();
  std::vector<Values> after;
  const bool isSure = seen.rc == MD_RC_OK && !scene_->isDamaged;
  for (const Values& values : isSure ? std::vector<Values>{seen.delivered} : allowed)
    after.push_back(with(values, PROBE));
  const Told next = listNow();
  if (!isTrue(next, after)) {
    fail("behind the next writer a reader answers " + code(next.rc) + " and sees " +
         difference(next.delivered, after.back()));
    return;
  }
  if (isLossy(next, after)) judgeStatusAfterLoss();
  if (isSure) judgeSpace(next.delivered);
  for (std::size_t at = 0; at < next.delivered.size() && !scene_->isDamaged; at += next.delivered.size() / 6 + 1) {
    TestStore store(DISK_FOLDER);
    const Value& wanted = next.delivered[at];
    Value value;
    if (store.get(wanted.group, wanted.key, value) != MD_RC_OK || !(value == wanted)) {
      fail("behind the next writer a get does not find " + wanted.key);
    }
  }
  ++counts_.cuts;
  disk_.boot(cut.oldest());
  disk_.setBootNumber(scene_->boot + 1);
  const Told kept = listNow();
  if (!isTrue(kept, after)) {
    fail("after the next writer and a power cut a reader answers " + code(kept.rc) + " and sees " +
         difference(kept.delivered, after.back()));
  }
}

void FaultSweep::judgeStatusAfterLoss() {
  TestStore store(DISK_FOLDER);
  GenRegStatus status{};
  if (const std::uint32_t rc = store.status(status)) fail("after a loss status answers " + code(rc));
  if (status.unacknowledgedLosses == 0 || status.lostBytes == 0) fail("status does not tell of a loss");
}

// P8, after a writer whom nothing hindered.
void FaultSweep::judgeSpace(const Values& values) {
  std::uint64_t bytes = 0;
  for (const Value& value : values) bytes += encode(value).size();
  const std::uint64_t most = 2 * (bytes + SPACE_SLACK);
  const DiskImage image = disk_.image();
  for (const char* name : {"store", ".store.bkp"}) {
    if (!image.has(name)) continue;
    const std::size_t size = image.files.at(image.names.at(name))->size();
    if (size > most) fail(std::string(name) + " has " + std::to_string(size) + " bytes");
  }
}

// A reader, and then a writer, after power cuts at this instant.
void FaultSweep::judgePowerCuts(const std::vector<Values>& allowed) {
  std::vector<DiskImage> images{cut_.oldest(), cut_.newest()};
  for (int sample = 0; sample < SAMPLED_CUTS; ++sample) images.push_back(cut_.randomState(random_));
  for (const DiskImage& image : images) {
    std::uint64_t key = image.hash();
    for (const Values& values : allowed) key = key * 31 + values.size();
    if (!seenCuts_.insert(key).second) continue;
    ++counts_.cuts;
    disk_.boot(image);
    disk_.setBootNumber(scene_->boot + 1);
    const Told seen = listNow();
    if (!isTrue(seen, allowed)) {
      fail("after a power cut a reader answers " + code(seen.rc) + " and sees " +
           difference(seen.delivered, allowed.front()));
      return;
    }
    TestStore store(DISK_FOLDER);
    if (const std::uint32_t rc = store.add(PROBE)) fail("after a power cut the next writer answers " + code(rc));
    std::vector<Values> after;
    const bool isSure = seen.rc == MD_RC_OK && !scene_->isDamaged;
    for (const Values& values : isSure ? std::vector<Values>{seen.delivered} : allowed)
      after.push_back(with(values, PROBE));
    if (!isTrue(listNow(), after)) fail("the next writer after a power cut changes what was seen");
  }
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
