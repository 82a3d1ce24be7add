// See two_actors.h. Everything here is touched by whoever has the turn, and by nobody else.
#include "evidence/two_actors.h"

#include <sched.h>
#include <time.h>

#include <cerrno>

#include "platform/registry/files/system_calls.h"

namespace zon::test {
namespace {

TwoActors* theActors = nullptr;
int (*simulatedSleep)(const struct timespec*, struct timespec*) = nullptr;

}  // namespace

TwoActors::TwoActors(SimulatedDisk& disk) : disk_(disk) {
  theActors = this;
  // As only one has the turn, giving it away is cheapest on one processor.
  sched_getaffinity(0, sizeof processors_, &processors_);
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(static_cast<unsigned>(sched_getcpu()), &one);
  sched_setaffinity(0, sizeof one, &one);
  simulatedSleep = systemCalls.sleepFor;
  systemCalls.sleepFor = sleepFor;
  for (std::size_t actor = 0; actor < threads_.size(); ++actor)
    threads_[actor] = std::thread([this, actor] { live(actor); });
}

TwoActors::~TwoActors() {
  isOver_ = true;
  for (std::size_t actor = 0; actor < threads_.size(); ++actor) {
    turns_[actor].release();
    threads_[actor].join();
  }
  sched_setaffinity(0, sizeof processors_, &processors_);
  systemCalls.sleepFor = simulatedSleep;
  theActors = nullptr;
}

void TwoActors::run(const Plan& plan, const Work& work) {
  plan_ = plan;
  work_ = work;
  calls_ = {};
  isDone_ = {};
  nextSwitch_ = 0;
  clock_ = trace_ = timeOfDeath_ = 0;
  isDead_ = false;
  disk_.fault = [this](Call call) { return beforeCall(call); };
  giveTurnTo(plan.first);
  disk_.fault = nullptr;
  current_ = MAIN;
}

void TwoActors::live(std::size_t actor) {
  for (;;) {
    turns_[actor].acquire();
    if (isOver_) return;
    current_ = actor;
    work_(actor);
    isDone_[actor] = true;
    const std::size_t next = isDone_[1 - actor] ? MAIN : 1 - actor;
    current_ = next;
    turns_[next].release();
  }
}

void TwoActors::giveTurnTo(std::size_t actor) {
  const std::size_t self = current_;
  current_ = actor;
  turns_[actor].release();
  turns_[self].acquire();
  current_ = self;
}

void TwoActors::giveWay() {
  if (!isDone_[1 - current_]) giveTurnTo(1 - current_);
}

int TwoActors::beforeCall(Call call) {
  const std::size_t self = current_;
  if (isDead(self)) return EIO;
  const std::size_t number = calls_[self]++;
  if (nextSwitch_ < plan_.switches.size()) {
    const Plan::Switch& next = plan_.switches[nextSwitch_];
    if (next.actor == self && next.call == number) {
      ++nextSwitch_;
      giveWay();
    }
  }
  ++clock_;
  trace_ = (trace_ * 31 + self * 7 + static_cast<std::uint64_t>(call) + 1) * 0x9E3779B97F4A7C15u;
  trace_ ^= trace_ >> 31;
  if (self != plan_.dying || number != plan_.lastCall) return 0;
  isDead_ = true;
  timeOfDeath_ = clock_;
  return EIO;
}

int TwoActors::sleepFor(const struct timespec* time, struct timespec* left) {
  if (theActors->current_ < MAIN) theActors->giveWay();
  return simulatedSleep(time, left);
}

}  // namespace zon::test
