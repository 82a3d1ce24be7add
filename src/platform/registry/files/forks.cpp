// The handlers that the system runs around each fork; see forks.h. Only the child changes what it has a copy of, so
// that the parent's locks stay as they are.
#include "platform/registry/files/forks.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "platform/registry/files/file_io.h"
#include "platform/registry/files/system_calls.h"

namespace zon {

namespace {

constexpr std::uint32_t FIRST_PAUSE_US = 10;
constexpr std::uint32_t LONGEST_PAUSE_US = 2000;

constexpr std::size_t MOST_DESCRIPTORS = std::size_t{1} << 20;
constexpr std::size_t WORD_BITS = 64;

// A bit for each number. Pages that no number needed take no memory.
constinit std::array<std::atomic<std::uint64_t>, MOST_DESCRIPTORS / WORD_BITS> closedInChildren{};
constinit std::atomic<std::size_t> wordsUsed{0};

// Forks by this process: those whose parent's side has begun, and ended. A fork that fails ends too.
constinit std::atomic<unsigned> forksBegun{0};
constinit std::atomic<unsigned> forksEnded{0};
unsigned forks = 0;

void closeCopies() {
  for (std::size_t word = 0; word < wordsUsed; ++word) {
    std::uint64_t bits = closedInChildren[word].exchange(0);
    for (; bits != 0; bits &= bits - 1) {
      systemCalls.close(static_cast<int>(word * WORD_BITS + static_cast<std::size_t>(std::countr_zero(bits))));
    }
  }
}

void beginFork() { ++forksBegun; }
void endForkInParent() { ++forksEnded; }
// There is one thread here: what others were about is over.
void endForkInChild() {
  ++forks;
  forksEnded = forksBegun.load();
  closeCopies();
}

[[maybe_unused]] const int handlers = pthread_atfork(beginFork, endForkInParent, endForkInChild);

std::size_t wordOf(int descriptor) { return static_cast<std::size_t>(descriptor) / WORD_BITS; }
std::uint64_t bitOf(int descriptor) { return std::uint64_t{1} << static_cast<std::size_t>(descriptor) % WORD_BITS; }

}  // namespace

unsigned forksToHere() { return forks; }

bool canBeClosedInChildren(int descriptor) { return static_cast<std::size_t>(descriptor) < MOST_DESCRIPTORS; }

void closeInChildren(int descriptor) {
  if (!canBeClosedInChildren(descriptor)) return;
  const std::size_t word = wordOf(descriptor);
  for (std::size_t used = wordsUsed; used <= word && !wordsUsed.compare_exchange_weak(used, word + 1);) {
  }
  closedInChildren[word] |= bitOf(descriptor);
}

void keepInChildren(int descriptor) {
  if (canBeClosedInChildren(descriptor)) closedInChildren[wordOf(descriptor)] &= ~bitOf(descriptor);
}

void ForkPatience::pause() {
  sleepMicroseconds(std::min(FIRST_PAUSE_US << pauses_, LONGEST_PAUSE_US));
  ++pauses_;
}

// What has ended is read first: equal numbers then mean that no fork was under way in between.
ForkWatch::ForkWatch(ForkPatience& patience) {
  for (;;) {
    const unsigned ended = forksEnded;
    begun_ = forksBegun;
    if (begun_ == ended || patience.isOver()) return;
    patience.pause();
  }
}

bool ForkWatch::sawFork() const { return forksBegun != begun_; }

}  // namespace zon
