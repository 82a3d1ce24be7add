// Power cuts and kills at every point of random histories, one after the other, as long as the test may go on. Between
// its deeds a history is itself cut off now and then, so that files with a bad past are cut again.
//
// ZON_EVIDENCE_SECONDS sets how long, ZON_EVIDENCE_SEED with which history it begins.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "evidence/random_history.h"
#include "platform/registry/harness/crash_explorer.h"
#include "platform/registry/harness/simulated_disk.h"
#include "support/evidence.h"

namespace zon::test {
namespace {

constexpr double QUICK_SECONDS = 3;
constexpr int MOST_DEEDS = 16;

class RandomCrashes : public PowerCuts {
 protected:
  RandomCrashes() {
    statesPerPoint_ = 100;
    secondEvery_ = 12;
  }

  // A few files with much data, so that backup and compaction take part; most are small, and cut exhaustively.
  void cutHistory(std::uint64_t seed) {
    startAfresh(seed);
    const bool isLarge = seed % 4 == 0;
    RandomHistory history(seed, isLarge ? 5000 : 600);
    const std::string name = "history " + std::to_string(seed);
    for (int number = 0; number < MOST_DEEDS && !HasFailure(); ++number) {
      const Deed deed = history.next(now());
      if (history.below(3) != 0) {
        step(name + ", " + deed.name + " as number " + std::to_string(number), deed.work, deed.after, deed.expected);
      } else {
        quietly(deed.work, deed.after.back(), deed.expected);
      }
      if (history.below(8) == 0) startAnew(oldestNow());
    }
  }
};

TEST_F(RandomCrashes, LoseNothingThatWasAcknowledged) {
  const zontest::Allowance allowance(QUICK_SECONDS);
  std::uint64_t seed = zontest::evidenceSeed() * 1000000;
  do {
    cutHistory(++seed);
  } while (!allowance.isOver() && !HasFailure());
}

}  // namespace
}  // namespace zon::test
