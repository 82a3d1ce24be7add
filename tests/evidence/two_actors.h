// Two actors who work on one record file, by turns: which of them goes on is decided at each system call, by a plan. So
// a plan, run twice, is the same schedule twice.
//
// How it works: each actor is a thread, of which one at a time holds the turn. The simulated disk asks before each
// call; there the turn may be given away. It is also given away where an actor would wait for a lock, and when it is
// done.
#pragma once

#include <sched.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <semaphore>
#include <thread>
#include <vector>

#include "platform/registry/harness/simulated_disk.h"

namespace zon::test {

struct Plan {
  struct Switch {
    std::size_t actor;
    std::size_t call;  // before its call of that number the actor gives the turn away
  };
  std::size_t first = 0;         // who begins
  std::vector<Switch> switches;  // in the order in which they come
  std::size_t dying = NOBODY;    // who dies
  std::size_t lastCall = 0;      // ... before the call of that number
  static constexpr std::size_t NOBODY = 2;
};

class TwoActors {
 public:
  using Work = std::function<void(std::size_t actor)>;

  explicit TwoActors(SimulatedDisk& disk);
  ~TwoActors();
  TwoActors(const TwoActors&) = delete;
  TwoActors& operator=(const TwoActors&) = delete;

  // Both do the work by this plan. Once the dying one has reached its last call, none of its calls has an effect.
  void run(const Plan& plan, const Work& work);

  std::size_t callsOf(std::size_t actor) const { return calls_[actor]; }
  bool isDead(std::size_t actor) const { return actor == plan_.dying && isDead_; }
  // Counts up with each call, so that it tells who was done before whom; and when the dying one died.
  std::uint64_t now() const { return clock_; }
  std::uint64_t timeOfDeath() const { return timeOfDeath_; }
  // Who did which of the calls: the same for the same schedule.
  std::uint64_t trace() const { return trace_; }

 private:
  static constexpr std::size_t MAIN = 2;

  void live(std::size_t actor);
  int beforeCall(Call call);
  void giveTurnTo(std::size_t actor);
  void giveWay();
  static int sleepFor(const struct timespec* time, struct timespec* left);

  SimulatedDisk& disk_;
  cpu_set_t processors_{};
  Plan plan_;
  Work work_;
  std::array<std::binary_semaphore, 3> turns_{std::binary_semaphore{0}, std::binary_semaphore{0},
                                              std::binary_semaphore{0}};
  std::array<std::thread, 2> threads_;
  std::size_t current_ = MAIN;
  std::array<std::size_t, 2> calls_{};
  std::array<bool, 2> isDone_{};
  std::size_t nextSwitch_ = 0;
  std::uint64_t clock_ = 0;
  std::uint64_t trace_ = 0;
  std::uint64_t timeOfDeath_ = 0;
  bool isDead_ = false;
  bool isOver_ = false;
};

}  // namespace zon::test
