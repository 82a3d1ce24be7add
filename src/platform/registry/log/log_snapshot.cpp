// Opening beside writers that are at work, or that a crash has stopped.
//
// The rule: a state that was rolled forward is believed only when no writer has published another one meanwhile.
#include "platform/registry/log/log_snapshot.h"

#include "platform/registry/files/file_io.h"
#include "platform/registry/log/file_header.h"
#include "platform/registry/log/roll_forward.h"

namespace zon {

namespace {

constexpr int MOST_PAGE_READS = 4;  // a slot is written in a moment
constexpr int MOST_OPENINGS = 100;

}  // namespace

std::uint32_t LogSnapshot::open(int file) {
  for (int round = 0; round < MOST_OPENINGS; ++round) {
    const Answer<bool> isOpen = openOnce(file);
    if (isOpen.rc != MD_RC_OK || isOpen.value) return isOpen.rc;
  }
  return GENREG_RC_LOCK_TIMEOUT;
}

// I2: what lies below the end of a slot that passes its checksum is durable. What lies behind the newest slot's end is
// a commit under way, or the remains of one, or acknowledged and its slot lost. In the run that wrote the slot it is
// not the last.
Answer<bool> LogSnapshot::openOnce(int file) {
  HeaderPage page;
  for (int round = 0;; ++round) {
    if (const std::uint32_t rc = readHeaderPage(file, page)) return {.rc = rc};
    if (page.bothSlots() || round == MOST_PAGE_READS) break;
  }
  if (const std::uint32_t rc = beginWithPage(log_, file, page)) return {.rc = rc};
  if (const std::uint32_t rc = takeUnindexed(log_)) return {.rc = rc};
  const Answer<bool> isClean = isTailZero(log_);
  if (isClean.rc != MD_RC_OK || (isClean.value && page.bothSlots())) return isClean;
  RunId run;
  if (const std::uint32_t rc = currentRun(file, run)) return {.rc = rc};
  const bool isOther = compareRuns(run, log_.state.slot()) == Run::OTHER;
  if (page.bothSlots() && !isOther) return {.value = true};
  return rollForwardBeside(isOther);
}

// Visible means durable: what is rolled over is synced before anybody sees it. The first writer after a restart
// publishes what it recovered before it writes anything of its own, so that what was just taken is not of a writer at
// work when the newest slot is still the same.
Answer<bool> LogSnapshot::rollForwardBeside(bool isOtherRun) {
  const int file = log_.bytes.file();
  const std::uint64_t sequence = log_.state.slot().sequence;
  const std::uint64_t published = log_.state.end();
  if (const std::uint32_t rc = rollForward(log_)) return {.rc = rc};
  if (!isOtherRun) {
    // One slot is lost, and with it where the log ends.
    const Answer<bool> isClean = isTailZero(log_);
    if (isClean.rc != MD_RC_OK) return isClean;
    if (!isClean.value) return {.rc = GENREG_RC_DAMAGED};
  }
  if (log_.state.end() != published) {
    if (const std::uint32_t rc = makeReadBytesDurable(file)) return {.rc = rc};
  }
  HeaderPage now;
  if (const std::uint32_t rc = readHeaderPage(file, now)) return {.rc = rc};
  if (!now.hasSlot()) return {.rc = GENREG_RC_DAMAGED};
  const format::Slot& newest = now.slots[now.newest()];
  const bool isSameEnd = newest.end == log_.state.end() && newest.chain == log_.state.slot().chain;
  return {.value = newest.sequence == sequence || isSameEnd};
}

}  // namespace zon
