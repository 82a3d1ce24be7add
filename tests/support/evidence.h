// What a test has counted, told to whoever gathers evidence (tests/evidence/gather.py): one line of JSON for each
// count, appended to the file that ZON_EVIDENCE names. Without that variable nothing is told.
//
// The rule: told is what was looked at and judged, never what was merely planned.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include "support/told_numbers.h"

namespace zontest {

inline void tellEvidence(std::string_view what, std::uint64_t count, std::uint64_t seed) {
  const char* path = std::getenv("ZON_EVIDENCE");
  if (path == nullptr || count == 0) return;
  // In one write, as several programs may tell at once.
  const std::string line = "{\"what\": \"" + std::string(what) + "\", \"count\": " + std::to_string(count) +
                           ", \"seed\": " + std::to_string(seed) + "}\n";
  std::ofstream(path, std::ios::app) << line << std::flush;
}

// From which seed a test that goes on as long as it may begins.
inline std::uint64_t evidenceSeed() { return toldNumber<std::uint64_t>("ZON_EVIDENCE_SEED", 1); }

// How long such a test may go on: ZON_EVIDENCE_SECONDS, which the quick form leaves at a moment.
class Allowance {
 public:
  explicit Allowance(double seconds)
      : end_(std::chrono::steady_clock::now() +
             std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                 std::chrono::duration<double>(toldNumber("ZON_EVIDENCE_SECONDS", seconds)))) {}
  bool isOver() const { return std::chrono::steady_clock::now() >= end_; }

 private:
  std::chrono::steady_clock::time_point end_;
};

}  // namespace zontest
