// Record files with a random past: what a user does next, and a model that tells what must come of it.
//
// The rule: the same seed leads through the same deeds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "platform/registry/harness/test_records.h"

namespace zon::test {

// What is done, and the states that it leads through; none of them when nothing changes.
struct Deed {
  std::string name;
  std::function<std::uint32_t(TestStore&)> work;
  std::vector<Values> after;
  std::uint32_t expected = MD_RC_OK;
};

class RandomHistory {
 public:
  // Its keys begin with `prefix`, so that several histories may follow each other in one file.
  RandomHistory(std::uint64_t seed, std::size_t largest, std::string prefix = "k")
      : random_(seed), largest_(largest), prefix_(std::move(prefix)) {}

  std::uint64_t below(std::uint64_t bound) { return random_() % bound; }
  Deed next(const Values& now);

  // Every form that a record ever had, and every key that may have gone.
  const Values& everWritten() const { return written_; }

 private:
  Deed add(const Values& now);
  Deed addAgain(const Values& now);
  Deed change(const Values& now);
  Deed rename(const Values& now);
  Deed remove(const Values& now);
  Deed removeGroup(const Values& now);
  Deed batch(const Values& now);
  static Deed compact(const Values& now);

  Value newRecord();
  std::string newData();

  std::mt19937_64 random_;
  std::size_t largest_;
  std::string prefix_;
  unsigned names_ = 0;
  unsigned texts_ = 0;
  Values written_;
};

}  // namespace zon::test
