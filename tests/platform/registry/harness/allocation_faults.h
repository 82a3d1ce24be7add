// Allocations that fail on purpose. Linking allocation_faults.cpp replaces the program's operator new and delete.
//
// The rule: only what is allocated between failAllocation and stopFailing may fail, and nothing inside an Unfailing
// scope: what the test itself or the system behind the table of calls needs is always there.
#pragma once

namespace zon::test {

// From now on the allocation of that number (1 is the next one) fails; `sticky`: and every one after it.
void failAllocation(long long number, bool sticky);
// Ends that, and tells whether one failed.
bool stopFailing();
// How often memory was asked for between the last failAllocation and its end.
long long allocationsAsked();

// What was allocated and not released yet.
long long liveAllocations();

class Unfailing {
 public:
  Unfailing();
  ~Unfailing();
  Unfailing(const Unfailing&) = delete;
  Unfailing& operator=(const Unfailing&) = delete;

 private:
  bool wasArmed_;
};

// Puts an Unfailing scope around every call of the table as it is now: a disk in memory allocates in its calls.
void shieldSystemCalls();

}  // namespace zon::test
