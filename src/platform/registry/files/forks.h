// Descriptors that no forked child may keep: with a copy of one that is locked it would keep the lock beyond the death
// of its parent. The child closes its copies before fork returns in it. A fork may come at any moment and from any
// thread, so that nothing here waits for a mutex or takes memory.
#pragma once

namespace zon {

// The forks that led from the process that loaded this library to this one.
unsigned forksToHere();

// Whether closeInChildren works for this number: below it are all that a process can have unless the system's limit was
// raised beyond a million.
bool canBeClosedInChildren(int descriptor);

// From here on every forked child closes its copy of the open descriptor.
void closeInChildren(int descriptor);

// Ends that. Must come before the descriptor is closed, whose number may be somebody else's right after.
void keepInChildren(int descriptor);

// How long one call waits for forks of other threads, all in all some 25 ms. No longer: a fork may itself be waiting,
// in a handler of the program, for what the caller holds.
class ForkPatience {
 public:
  bool isOver() const { return pauses_ == MOST_PAUSES; }
  void pause();

 private:
  static constexpr int MOST_PAUSES = 20;
  int pauses_ = 0;
};

// Tells whether a fork may have come between the opening of a descriptor and closeInChildren. Made before the opening;
// waits first until no fork is under way, which may take its copy at any moment.
class ForkWatch {
 public:
  explicit ForkWatch(ForkPatience& patience);
  bool sawFork() const;

 private:
  unsigned begun_;
};

}  // namespace zon
