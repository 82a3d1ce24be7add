// What must hold after each failure (see fault_harness.h): the answer, what was delivered, what is there now, behind
// the next writer, when it is done again, and after power cuts.
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry/harness/fault_errors.h"
#include "platform/registry/harness/fault_harness.h"
#include "platform/registry/harness/fault_words.h"

namespace zon::test {
namespace {

constexpr std::uint64_t SPACE_SLACK = 65536;
constexpr int SAMPLED_CUTS = 2;

const Value PROBE{"probe", "probe", "p"};

}  // namespace

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

}  // namespace zon::test
