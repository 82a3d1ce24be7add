// Times of many runs of one thing, and what is told of them.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

namespace peers {

class Measurement {
 public:
  // Runs `work` until the budget is spent, `least` times at least and `most` times at most.
  template <class Work>
  void run(std::chrono::nanoseconds budget, std::size_t least, std::size_t most, Work&& work) {
    const auto begin = Clock::now();
    for (std::size_t run = 0; run < most && (run < least || Clock::now() - begin < budget); ++run) {
      const auto start = Clock::now();
      work();
      add(Clock::now() - start);
    }
  }

  void add(std::chrono::nanoseconds time) {
    times_.push_back(std::chrono::duration<double, std::micro>(time).count());
    isSorted_ = false;
  }

  std::size_t runs() const { return times_.size(); }
  // Microseconds; 0.5 is the median, 1 the longest.
  double quantile(double share) {
    if (times_.empty()) return 0;
    if (!isSorted_) std::sort(times_.begin(), times_.end());
    isSorted_ = true;
    return times_[static_cast<std::size_t>(share * static_cast<double>(times_.size() - 1))];
  }

 private:
  using Clock = std::chrono::steady_clock;

  std::vector<double> times_;
  bool isSorted_ = false;
};

}  // namespace peers
