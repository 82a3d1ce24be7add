// The trace facility's exported functions: two questions, three events, and the switch between them and the ring file.
//
// The rule: while the switch word is 0 a question is one load, and no mapping, file, thread or signal handler exists
// for tracing. Everything else happens in the thread that asks next after the word has changed.
//
// All state of an open ring lies in one page that the kernel clears in a forked child. A child cannot tell by itself
// that it is one, short of asking for its number at every event; so it finds no ring there and makes one of its own.
#include "zonmdfile/platform/trace.h"

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <type_traits>

#include "platform/oss/trace_control.h"
#include "platform/oss/trace_writer.h"

extern "C" {
// Protected: this library reaches its own object by one instruction; zontrace finds it by its name.
extern __attribute__((visibility("protected"))) zon::TraceControl gtraceControl;

zon::TraceControl gtraceControl = {{'Z', 'O', 'N', 'T', 'R', 'A', 'C', 'E'},
                                   zon::CONTROL_VERSION,
                                   sizeof(zon::TraceControl),
                                   {0},
                                   {0},
                                   {0},
                                   {zon::TraceState::OFF},
                                   {0},
                                   {0},
                                   {0, 0},
                                   zon::trace_ring::DEFAULT_EVENT_BYTES,
                                   {}};
}

namespace {

using zon::RingIdentity;
using zon::RingWriter;
using zon::TraceEvent;
using zon::TraceState;

// The page that a forked child finds cleared; all zero means: no ring, nobody inside.
struct RingPage {
  std::atomic<std::uint32_t> word;      // the request that the open ring answers, 0 without one
  std::atomic<std::uint32_t> settling;  // 1 while a thread opens or closes
  std::atomic<std::int64_t> writers;    // threads that may be inside the ring
  RingWriter ring;                      // changed only by the settling thread, and only while nobody is inside
  RingIdentity last;                    // the ring that this process made last
};
static_assert(std::is_trivially_destructible_v<RingPage> && std::is_trivially_copyable_v<RingWriter>);

std::atomic<RingPage*> ringPage{nullptr};

// The mapping as a forked child inherits it. Guarded by RingPage::settling, but not cleared with the page.
void* inheritedMapping = nullptr;
std::size_t inheritedBytes = 0;

// Trace calls leave no mark on their caller: errno stays, and the thread is not cancelled inside.
class CallerState {
 public:
  CallerState() : error_(errno) { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_); }
  ~CallerState() {
    ::pthread_setcancelstate(cancel_, nullptr);
    errno = error_;
  }
  CallerState(const CallerState&) = delete;
  CallerState& operator=(const CallerState&) = delete;

 private:
  int error_;
  int cancel_ = PTHREAD_CANCEL_ENABLE;
};

void answer(std::uint32_t word, TraceState state, int reason, bool ownName) {
  gtraceControl.reason.store(static_cast<std::uint32_t>(reason), std::memory_order_relaxed);
  gtraceControl.ownName.store(ownName ? 1 : 0, std::memory_order_relaxed);
  gtraceControl.state.store(state, std::memory_order_relaxed);
  gtraceControl.answerPid.store(static_cast<std::uint32_t>(::getpid()), std::memory_order_relaxed);
  gtraceControl.answerWord.store(word, std::memory_order_release);
}

// Ends the request `word`, unless another has come meanwhile.
void switchOff(std::uint32_t word) { gtraceControl.word.compare_exchange_strong(word, 0, std::memory_order_relaxed); }

// The page lives as long as the process: threads read it without a lock. Returns null with the reason in errno.
RingPage* makePage() {
  void* const memory = ::mmap(nullptr, sizeof(RingPage), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
  if (::madvise(memory, sizeof(RingPage), MADV_WIPEONFORK) != 0) {
    const int error = errno;
    ::munmap(memory, sizeof(RingPage));
    errno = error;
    return nullptr;
  }
  RingPage* const page = new (memory) RingPage{};
  RingPage* expected = nullptr;
  if (ringPage.compare_exchange_strong(expected, page, std::memory_order_acq_rel)) return page;
  ::munmap(memory, sizeof(RingPage));
  return expected;
}

// Lets go of the present ring. Answers false while a thread may still be writing; the next question tries again.
bool closeRing(RingPage& page) {
  // Both in one total order with RecordScope: either the writer sees that there is no ring, or it is counted here.
  page.word.store(0, std::memory_order_seq_cst);
  if (page.writers.load(std::memory_order_seq_cst) > 0) return false;
  if (page.ring.isOpen()) {
    page.ring.close();
  } else if (inheritedMapping != nullptr) {
    ::munmap(inheritedMapping, inheritedBytes);
  }
  inheritedMapping = nullptr;
  return true;
}

void openRing(RingPage& page, std::uint32_t word) {
  // One byte longer than the longest path: the last one stays NUL whatever was written from outside.
  char path[zon::CONTROL_PATH_BYTES + 16] = {};
  std::memcpy(path, gtraceControl.path, zon::CONTROL_PATH_BYTES - 1);
  const bool withValues = (word & zon::SWITCH_VALUES) != 0;
  bool ownName = false;
  int error = page.ring.open(path, gtraceControl.ringBytes, withValues, page.last);
  if (error == EEXIST) {
    char* const end = path + std::strlen(path);
    *end = '.';
    *std::to_chars(end + 1, path + sizeof path - 1, ::getpid()).ptr = '\0';
    ownName = true;
    error = page.ring.open(path, gtraceControl.ringBytes, withValues, page.last);
  }
  if (error != 0) {
    answer(word, TraceState::FAILED, error, ownName);
    switchOff(word);
    return;
  }
  inheritedMapping = page.ring.mapping();
  inheritedBytes = page.ring.mappedBytes();
  answer(word, TraceState::RECORDING, 0, ownName);
  page.word.store(word, std::memory_order_seq_cst);
}

// Does what the switch word asks for. Answers whether the process records now.
[[gnu::noinline, gnu::cold]] bool settle() {
  const CallerState callerState;
  RingPage* page = ringPage.load(std::memory_order_acquire);
  if (page == nullptr) page = makePage();
  if (page == nullptr) {
    const std::uint32_t word = gtraceControl.word.load(std::memory_order_acquire);
    answer(word, TraceState::FAILED, errno, false);
    switchOff(word);
    return false;
  }
  if (page->settling.exchange(1, std::memory_order_acquire) != 0) return false;
  const std::uint32_t word = gtraceControl.word.load(std::memory_order_acquire);
  if (page->word.load(std::memory_order_relaxed) != word && closeRing(*page)) {
    if ((word & zon::SWITCH_ON) != 0) {
      openRing(*page, word);
    } else if (word != 0) {
      answer(word, TraceState::OFF, 0, false);
      switchOff(word);
    }
  }
  const bool records = word != 0 && page->word.load(std::memory_order_relaxed) == word;
  page->settling.store(0, std::memory_order_release);
  return records;
}

[[gnu::noinline, gnu::cold]] int isRecordingSince(std::uint32_t word) {
  const RingPage* const page = ringPage.load(std::memory_order_acquire);
  return (page != nullptr && page->word.load(std::memory_order_acquire) == word) || settle() ? 1 : 0;
}

int isRecording() {
  const std::uint32_t word = gtraceControl.word.load(std::memory_order_relaxed);
  if (word == 0) [[likely]] {
    return 0;
  }
  return isRecordingSince(word);
}

// Keeps the ring mapped while a thread writes into it.
class RecordScope {
 public:
  RecordScope() : page_(ringPage.load(std::memory_order_acquire)) {
    if (page_ == nullptr) return;
    page_->writers.fetch_add(1, std::memory_order_seq_cst);
    isOpen_ = page_->word.load(std::memory_order_seq_cst) != 0;
  }
  ~RecordScope() {
    if (page_ != nullptr) page_->writers.fetch_sub(1, std::memory_order_release);
  }
  RecordScope(const RecordScope&) = delete;
  RecordScope& operator=(const RecordScope&) = delete;

  RingWriter* ring() { return isOpen_ ? &page_->ring : nullptr; }

 private:
  RingPage* page_;
  bool isOpen_ = false;
};

void record(const TraceEvent& event) {
  RecordScope scope;
  if (RingWriter* const ring = scope.ring()) ring->write(event);
}

// "65536", "64K", "16M". Answers 0, which no ring can have, for anything else.
std::uint64_t parseSize(std::string_view text) {
  std::uint64_t size = 0;
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), size);
  if (error != std::errc{} || size > zon::trace_ring::MAX_EVENT_BYTES) return 0;
  const std::string_view unit(rest, static_cast<std::size_t>(text.data() + text.size() - rest));
  if (unit.empty()) return size;
  if (unit == "K") return size << 10;
  if (unit == "M") return size << 20;
  return 0;
}

// Stores the absolute form of the ring's path in the control block. Answers false when it does not fit.
bool setPath(std::string_view path) {
  char* at = gtraceControl.path;
  std::size_t room = zon::CONTROL_PATH_BYTES - 1;
  if (path.empty()) return false;
  if (path.front() != '/') {
    if (::getcwd(at, room) == nullptr) return false;
    const std::size_t length = std::strlen(at);
    at[length] = '/';
    at += length + 1;
    room -= length + 1;
  }
  if (path.size() > room) return false;
  *std::copy(path.begin(), path.end(), at) = '\0';
  return true;
}

// ZON_TRACE=path[,size=BYTES][,values]: the request that zontrace would make, made at start.
[[gnu::constructor]] void requestFromEnvironment() {
  // Not for programs that run with more rights than their caller: the caller would choose a file for them to write.
  const char* const setting = ::secure_getenv("ZON_TRACE");
  if (setting == nullptr || *setting == '\0') return;
  std::string_view rest(setting);
  const std::string_view path = rest.substr(0, rest.find(','));
  rest.remove_prefix(path.size());
  std::uint32_t word = zon::SWITCH_ON | 1u << zon::SWITCH_COUNT;
  bool isGood = setPath(path);
  while (!rest.empty()) {
    rest.remove_prefix(1);
    const std::string_view option = rest.substr(0, rest.find(','));
    rest.remove_prefix(option.size());
    if (option == "values") {
      word |= zon::SWITCH_VALUES;
    } else if (option.starts_with("size=")) {
      gtraceControl.ringBytes = parseSize(option.substr(std::strlen("size=")));
    } else {
      isGood = false;
    }
  }
  if (!isGood) {
    answer(word, TraceState::FAILED, EINVAL, false);
    return;
  }
  gtraceControl.word.store(word, std::memory_order_release);
}

}  // namespace

extern "C" int gtraceIsAttached(void) { return isRecording(); }

extern "C" int gtraceIsEnabled(void) { return isRecording(); }

extern "C" void _gtraceEntry(uint64_t thread, uint32_t point, uint32_t, uint32_t mask) {
  record({thread, point, mask, zon::trace_ring::ENTRY, 0, 0, nullptr, 0});
}

extern "C" void _gtraceVar(uint64_t thread, uint32_t point, uint32_t probe, uint32_t, uint32_t, uint32_t, uint64_t size,
                           const void* data) {
  RecordScope scope;
  RingWriter* const ring = scope.ring();
  if (ring == nullptr) return;
  const bool isKept = ring->keepsValues() && data != nullptr;
  const std::uint16_t flags = isKept ? 0 : zon::trace_ring::EVENT_MASKED;
  ring->write({thread, point, probe, zon::trace_ring::VARIABLE, flags, size, data, isKept ? size : 0});
}

extern "C" void _gtraceExit(uint64_t thread, uint32_t point, const void* rc, uint32_t) {
  std::uint32_t value = 0;
  if (rc != nullptr) std::memcpy(&value, rc, sizeof value);
  const std::uint16_t flags = rc == nullptr ? 0 : zon::trace_ring::EVENT_HAS_RESULT;
  record({thread, point, 0, zon::trace_ring::EXIT, flags, value, nullptr, 0});
}
