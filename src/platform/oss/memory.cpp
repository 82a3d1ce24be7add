// The memory service. The rule: no byte that one caller wrote ever reaches another, and still nobody pays for
// clearing what was not touched.
//
// A block is a header followed by the caller's bytes. There are three kinds:
//   SMALL   below 128 KB, from the C library, cleared as a whole;
//   POOLED  up to the size of the largest record buffer, a mapping of one fixed size. Record buffers are a megabyte of
//           which mostly the first pages are touched, two or three for each call. A released one is made all zero again
//           and kept: its first pages by clearing them, so that they stay present, the others by giving them back to
//           the kernel, which costs next to nothing when they were never touched;
//   MAPPED  anything bigger, a mapping of its own. It grows by moving pages.
//
// Nothing here takes a lock, so a fork at any moment leaves the child a service that works.
//
// The file is longer than others: accounts, faults, pool and blocks have sections of their own, but meet in each call,
// where a call from one file to the next would cost more than the work.
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

#include "platform/oss/pooled_blocks.h"
#include "zonmdfile/platform/oss.h"

#if defined(__SANITIZE_ADDRESS__)
#define ZON_POISONS_MAPPINGS
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZON_POISONS_MAPPINGS
#endif
#endif
#ifdef ZON_POISONS_MAPPINGS
#include <sanitizer/asan_interface.h>
#endif

namespace {

// ---- What is outstanding, by label ----

constexpr std::size_t LABEL_SIZE = 64;  // with the closing NUL; a longer label is cut
constexpr std::uint32_t LABEL_COUNT = 256;

enum LabelState : std::uint32_t { FREE, BEING_WRITTEN, READY };

// On cache lines of its own, so that threads which use different labels do not slow each other down.
struct alignas(128) Label {
  std::atomic<std::uint32_t> state{FREE};
  std::uint32_t length{0};
  char text[LABEL_SIZE]{};
  std::atomic<std::uint64_t> blocks{0};
  std::atomic<std::uint64_t> bytes{0};
};

// The last one is shared by all labels that found no place. A label whose writer was elsewhere in the middle of
// claiming its place (or was lost by a fork right there) may stand twice; readers therefore add up all places of that
// text.
Label labels[LABEL_COUNT + 1];
constexpr std::uint32_t SHARED_LABEL = LABEL_COUNT;

std::string_view labelText(const char* file) {
  if (file == nullptr) return {};
  return {file, ::strnlen(file, LABEL_SIZE - 1)};
}

bool holds(const Label& label, std::string_view text) {
  return label.state.load(std::memory_order_acquire) == READY && label.length == text.size() &&
         std::memcmp(label.text, text.data(), text.size()) == 0;
}

// Asked for each block: taken by words, of which the last two overlap.
std::uint32_t firstPlaceOf(std::string_view text) {
  constexpr std::uint64_t SPREAD = 0x9E3779B97F4A7C15;
  constexpr std::size_t WORD_SIZE = sizeof(std::uint64_t);
  std::uint64_t hash = text.size();
  std::uint64_t word = 0;
  if (text.size() < WORD_SIZE) {
    for (const char character : text) word = word << 8 | static_cast<unsigned char>(character);
  } else {
    for (std::size_t at = 0; at + WORD_SIZE < text.size(); at += WORD_SIZE) {
      std::memcpy(&word, text.data() + at, WORD_SIZE);
      hash = (hash ^ word) * SPREAD;
    }
    std::memcpy(&word, text.data() + text.size() - WORD_SIZE, WORD_SIZE);
  }
  return static_cast<std::uint32_t>((hash ^ word) * SPREAD >> 32) % LABEL_COUNT;
}

bool claimLabel(Label& label, std::string_view text) {
  std::uint32_t expected = FREE;
  if (!label.state.compare_exchange_strong(expected, BEING_WRITTEN, std::memory_order_acquire)) return false;
  std::copy(text.begin(), text.end(), label.text);
  label.length = static_cast<std::uint32_t>(text.size());
  label.state.store(READY, std::memory_order_release);
  return true;
}

std::uint32_t findLabel(const char* file) {
  const std::string_view text = labelText(file);
  const std::uint32_t first = firstPlaceOf(text);
  for (std::uint32_t step = 0; step < LABEL_COUNT; ++step) {
    const std::uint32_t place = (first + step) % LABEL_COUNT;
    Label& label = labels[place];
    if (holds(label, text)) return place;
    if (label.state.load(std::memory_order_relaxed) == FREE && claimLabel(label, text)) return place;
    if (holds(label, text)) return place;
  }
  return SHARED_LABEL;
}

void countIn(std::uint32_t label, std::uint64_t bytes) {
  labels[label].blocks.fetch_add(1, std::memory_order_relaxed);
  labels[label].bytes.fetch_add(bytes, std::memory_order_relaxed);
}

void countOut(std::uint32_t label, std::uint64_t bytes) {
  labels[label].blocks.fetch_sub(1, std::memory_order_relaxed);
  labels[label].bytes.fetch_sub(bytes, std::memory_order_relaxed);
}

std::uint64_t sumOver(const char* file, std::atomic<std::uint64_t> Label::*figure) {
  const std::string_view text = labelText(file);
  std::uint64_t sum = 0;
  bool found = false;
  for (std::uint32_t place = 0; place < LABEL_COUNT; ++place) {
    if (file != nullptr && !holds(labels[place], text)) continue;
    found = true;
    sum += (labels[place].*figure).load(std::memory_order_relaxed);
  }
  if (file == nullptr || !found) sum += (labels[SHARED_LABEL].*figure).load(std::memory_order_relaxed);
  return sum;
}

// ---- Faults on demand ----

std::atomic<std::uint64_t> allocationCount{0};
// The number of the allocation that fails, times two, plus one when all later ones fail too; 0 for none.
std::atomic<std::uint64_t> fault{0};

bool countAllocationAndAskForFault() {
  const std::uint64_t number = allocationCount.fetch_add(1, std::memory_order_relaxed) + 1;
  const std::uint64_t wanted = fault.load(std::memory_order_relaxed);
  if (wanted == 0) return false;
  const bool sticky = (wanted & 1) != 0;
  return sticky ? number >= wanted / 2 : number == wanted / 2;
}

// ---- Blocks ----

enum Kind : std::uint8_t { SMALL, POOLED, MAPPED };

struct alignas(16) Header {
  std::uint64_t mark;         // tells a block in use from anything else
  std::uint64_t size;         // as the caller asked for
  std::uint64_t mappedBytes;  // with this header; 0 for SMALL
  std::uint32_t line;
  std::uint16_t label;
  Kind kind;
  std::uint8_t touchedPieces;  // of the caller's bytes, so many pieces from the first; 0: all may have been written
};
static_assert(sizeof(Header) == zon::BLOCK_HEADER_BYTES && sizeof(Header) % 16 == 0,
              "the caller's bytes must stay aligned to 16");

constexpr std::uint64_t IN_USE = 0x5A4F4E2D6D656D31;
constexpr std::uint64_t RELEASED = 0x5A4F4E2D66726565;

constexpr std::uint64_t SMALL_LIMIT = 128 * 1024;
using zon::POOLED_BYTES;
constexpr std::uint64_t KEPT_PRESENT_BYTES = 16 * 1024;  // keys, version, and the beginning of the data
constexpr std::uint64_t TOUCHED_PIECE_BYTES = 128;
constexpr std::uint64_t SIZE_LIMIT = std::numeric_limits<std::int64_t>::max() - (std::int64_t{1} << 20);

void* bytesOf(Header* header) { return header + 1; }

[[noreturn]] void abortForForeignBlock() {
  static constexpr char MESSAGE[] = "zonosse: a pointer was released that is no block of the memory service in use\n";
  // Nothing can be done about a message that does not get through.
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, MESSAGE, sizeof(MESSAGE) - 1);
  std::abort();
}

Header* headerOf(void* bytes) {
  Header* header = static_cast<Header*>(bytes) - 1;
  if (header->mark != IN_USE) abortForForeignBlock();
  return header;
}

// With the address sanitizer, what of a mapping lies behind the caller's bytes is out of bounds like anybody's memory.
void fence([[maybe_unused]] Header* header) {
#ifdef ZON_POISONS_MAPPINGS
  if (header->kind == SMALL) return;
  char* const end = reinterpret_cast<char*>(header) + header->mappedBytes;
  char* const used = static_cast<char*>(bytesOf(header)) + header->size;
  ASAN_UNPOISON_MEMORY_REGION(header, header->mappedBytes);
  ASAN_POISON_MEMORY_REGION(used, static_cast<std::size_t>(end - used));
#endif
}

void unfence([[maybe_unused]] void* mapping, [[maybe_unused]] std::uint64_t bytes) {
#ifdef ZON_POISONS_MAPPINGS
  ASAN_UNPOISON_MEMORY_REGION(mapping, bytes);
#endif
}

// ---- Mappings, and the released ones that are kept ----

// Each processor has places of its own: a block whose first pages lie in another one's cache costs ten times as much.
// Sixteen groups of four hold a megabyte at most, counting what stays present.
constexpr std::size_t POOL_GROUPS = 16;
constexpr std::size_t PLACES_IN_GROUP = 4;  // an operation uses two or three
struct alignas(64) PoolGroup {
  std::atomic<void*> places[PLACES_IN_GROUP];
};
PoolGroup pool[POOL_GROUPS];
std::atomic<bool> poolIsClosed{false};

PoolGroup& ownGroup() {
  const int processor = ::sched_getcpu();
  return pool[processor > 0 ? static_cast<std::size_t>(processor) % POOL_GROUPS : 0];
}

void* map(std::uint64_t bytes) {
  void* mapping = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return mapping != MAP_FAILED ? mapping : nullptr;
}

void* takeFrom(PoolGroup& group) {
  for (std::atomic<void*>& place : group.places) {
    if (place.load(std::memory_order_relaxed) == nullptr) continue;
    if (void* mapping = place.exchange(nullptr, std::memory_order_acquire)) return mapping;
  }
  return nullptr;
}

bool giveTo(PoolGroup& group, void* mapping) {
  if (poolIsClosed.load(std::memory_order_relaxed)) return false;
  for (std::atomic<void*>& place : group.places) {
    void* expected = nullptr;
    if (place.load(std::memory_order_relaxed) == nullptr &&
        place.compare_exchange_strong(expected, mapping, std::memory_order_release, std::memory_order_relaxed)) {
      return true;
    }
  }
  return false;
}

// Two neighbouring mappings can become one range in the kernel's eyes. Large pages there would make the touch of a
// single byte cost the clearing of two megabytes.
void* mapForPool() {
  void* mapping = map(POOLED_BYTES);
  if (mapping != nullptr) ::madvise(mapping, POOLED_BYTES, MADV_NOHUGEPAGE);
  return mapping;
}

// When two threads give pages back at the same time, the kernel interrupts the other processors for each of them, which
// costs ten times the call itself. So threads take turns, but nobody relies on it: after a short wait a thread goes
// ahead anyway. A turn that a fork left taken in the child therefore costs one wait and is free again.
class Turn {
 public:
  Turn() {
    for (int tries = 0; tries < MOST_TRIES && isTakenByOther(); ++tries) pauseProcessor();
  }
  ~Turn() { taken.store(false, std::memory_order_relaxed); }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  static constexpr int MOST_TRIES = 200;  // some microseconds; a turn takes less than one

  static bool isTakenByOther() {
    return taken.load(std::memory_order_relaxed) || taken.exchange(true, std::memory_order_relaxed);
  }
  static void pauseProcessor() {
#if defined(__x86_64__)
    __builtin_ia32_pause();
#endif
  }

  static inline std::atomic<bool> taken{false};
};

bool giveBackPages(char* pages, std::uint64_t bytes) {
  const Turn turn;
  return ::madvise(pages, bytes, MADV_DONTNEED) == 0;
}

// False when the kernel does not take the pages back, as with locked memory.
bool makeZero(void* mapping) {
  char* const bytes = static_cast<char*>(mapping);
  if (!giveBackPages(bytes + KEPT_PRESENT_BYTES, POOLED_BYTES - KEPT_PRESENT_BYTES)) return false;
  std::memset(bytes, 0, KEPT_PRESENT_BYTES);
  return true;
}

bool clearFirst(void* mapping, std::uint64_t bytes) {
  std::memset(mapping, 0, bytes);
  return true;
}

// After the library's end (the process ends, or dlclose) nothing of it stays mapped.
__attribute__((destructor)) void closePool() {
  poolIsClosed.store(true, std::memory_order_relaxed);
  for (PoolGroup& group : pool) {
    while (void* mapping = takeFrom(group)) ::munmap(mapping, POOLED_BYTES);
  }
}

std::uint64_t wholePages(std::uint64_t bytes) {
  const std::uint64_t page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  return (bytes + page - 1) / page * page;
}

// ---- Making, changing and releasing a block; the header's label and line are the caller's business ----

Header* makeSmall(std::uint64_t size) {
  Header* header = static_cast<Header*>(std::calloc(1, sizeof(Header) + size));
  if (header != nullptr) header->kind = SMALL;
  return header;
}

Header* makePooled() {
  void* mapping = takeFrom(ownGroup());
  if (mapping == nullptr) mapping = mapForPool();
  Header* header = static_cast<Header*>(mapping);
  if (header != nullptr) {
    header->kind = POOLED;
    header->mappedBytes = POOLED_BYTES;
  }
  return header;
}

Header* makeMapped(std::uint64_t size) {
  const std::uint64_t bytes = wholePages(sizeof(Header) + size);
  Header* header = static_cast<Header*>(map(bytes));
  if (header != nullptr) {
    header->kind = MAPPED;
    header->mappedBytes = bytes;
  }
  return header;
}

Header* makeBlock(std::uint64_t size) {
  if (size > SIZE_LIMIT) return nullptr;
  Header* header = size < SMALL_LIMIT                  ? makeSmall(size)
                   : size <= zon::LARGEST_POOLED_BLOCK ? makePooled()
                                                       : makeMapped(size);
  if (header == nullptr) return nullptr;
  header->mark = IN_USE;
  header->size = size;
  header->touchedPieces = 0;
  fence(header);
  return header;
}

void destroyBlock(Header* header) {
  header->mark = RELEASED;
  if (header->kind == SMALL) {
    std::free(header);
    return;
  }
  const std::uint64_t bytes = header->mappedBytes;
  unfence(header, bytes);
  if (header->kind == POOLED) {
    const std::uint64_t touched = header->touchedPieces * TOUCHED_PIECE_BYTES;
    const bool isZero = touched != 0 ? clearFirst(header, sizeof(Header) + touched) : makeZero(header);
    if (isZero && giveTo(ownGroup(), header)) return;
  }
  ::munmap(header, bytes);
}

Header* resizeMapping(Header* header, std::uint64_t size) {
  const bool fits = sizeof(Header) + size <= header->mappedBytes;
  if (!fits || header->kind == MAPPED) {
    const std::uint64_t before = header->mappedBytes;
    const std::uint64_t bytes = wholePages(sizeof(Header) + size);
    unfence(header, before);
    void* moved = bytes == before ? header : ::mremap(header, before, bytes, MREMAP_MAYMOVE);
    if (moved == MAP_FAILED) {
      fence(header);
      return nullptr;
    }
    header = static_cast<Header*>(moved);
    header->mappedBytes = bytes;
    header->kind = MAPPED;
  }
  return header;
}

Header* moveToMapping(Header* header, std::uint64_t size) {
  Header* larger = makeBlock(size);
  if (larger == nullptr) return nullptr;
  std::memcpy(bytesOf(larger), bytesOf(header), header->size);
  destroyBlock(header);
  return larger;
}

// Keeps the block, and gives null, when there is no memory.
Header* resizeBlock(Header* header, std::uint64_t size) {
  if (size > SIZE_LIMIT) return nullptr;
  Header* resized = header->kind != SMALL ? resizeMapping(header, size)
                    : size < SMALL_LIMIT  ? static_cast<Header*>(std::realloc(header, sizeof(Header) + size))
                                          : moveToMapping(header, size);
  if (resized == nullptr) return nullptr;
  resized->size = size;
  resized->touchedPieces = 0;
  fence(resized);
  return resized;
}

void enterLabel(Header* header, std::uint32_t label, std::uint32_t line) {
  header->label = static_cast<std::uint16_t>(label);
  header->line = line;
  countIn(label, header->size);
}

int outOfMemory() { return errno = ENOMEM; }

// A call that succeeds leaves errno as it was, whatever the C library did in between.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : value_(errno) {}
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
  int restore() const {
    errno = value_;
    return 0;
  }

 private:
  int value_;
};

int allocate(void** pointer, std::uint64_t size, const char* file, std::uint32_t line) {
  const ErrnoKeeper keeper;
  *pointer = nullptr;
  Header* header = makeBlock(size);
  if (header == nullptr) return outOfMemory();
  enterLabel(header, findLabel(file), line);
  *pointer = bytesOf(header);
  return keeper.restore();
}

int resize(void** pointer, std::uint64_t size, const char* file, std::uint32_t line) {
  const ErrnoKeeper keeper;
  Header* header = headerOf(*pointer);
  const std::uint32_t labelBefore = header->label;
  const std::uint64_t sizeBefore = header->size;
  header = resizeBlock(header, size);
  if (header == nullptr) return outOfMemory();
  countOut(labelBefore, sizeBefore);
  enterLabel(header, findLabel(file), line);
  *pointer = bytesOf(header);
  return keeper.restore();
}

}  // namespace

extern "C" int _ossMemAlloc(void** pointer, uint64_t, uint64_t size, uint32_t, const char* file, uint32_t line) {
  if (pointer == nullptr) return EINVAL;
  *pointer = nullptr;
  if (countAllocationAndAskForFault()) return outOfMemory();
  return allocate(pointer, size, file, line);
}

extern "C" int _ossMemFree(void** pointer, uint64_t, uint64_t, const char*, uint32_t) {
  if (pointer == nullptr || *pointer == nullptr) return 0;
  const ErrnoKeeper keeper;
  Header* header = headerOf(*pointer);
  *pointer = nullptr;
  countOut(header->label, header->size);
  destroyBlock(header);
  return keeper.restore();
}

extern "C" void ossMemNoteTouched(void* pointer, uint64_t touched) {
  if (pointer == nullptr) return;
  const std::uint64_t pieces = touched / TOUCHED_PIECE_BYTES + 1;
  constexpr std::uint64_t MOST_PIECES = (KEPT_PRESENT_BYTES - sizeof(Header)) / TOUCHED_PIECE_BYTES;
  headerOf(pointer)->touchedPieces = static_cast<std::uint8_t>(pieces <= MOST_PIECES ? pieces : 0);
}

extern "C" int ossMemResize(void** pointer, uint64_t size, const char* file, uint32_t line) {
  if (pointer == nullptr) return EINVAL;
  if (countAllocationAndAskForFault()) return outOfMemory();
  return *pointer == nullptr ? allocate(pointer, size, file, line) : resize(pointer, size, file, line);
}

extern "C" int ossMemRelabel(void* pointer, uint64_t size, const char* file, uint32_t line) {
  if (countAllocationAndAskForFault()) return outOfMemory();
  if (pointer == nullptr) return EINVAL;
  Header* header = headerOf(pointer);
  if (size > header->size) return EINVAL;
  countOut(header->label, header->size);
  header->size = size;
  fence(header);
  enterLabel(header, findLabel(file), line);
  return 0;
}

extern "C" uint64_t ossMemSize(const void* pointer) {
  return pointer != nullptr ? headerOf(const_cast<void*>(pointer))->size : 0;
}

extern "C" uint64_t ossMemOutstanding(const char* file) { return sumOver(file, &Label::blocks); }

extern "C" uint64_t ossMemOutstandingBytes(const char* file) { return sumOver(file, &Label::bytes); }

extern "C" void ossMemFailAt(uint64_t n, int sticky) {
  const std::uint64_t number = allocationCount.load(std::memory_order_relaxed) + n;
  fault.store(n != 0 ? number * 2 + (sticky != 0 ? 1 : 0) : 0, std::memory_order_relaxed);
}

extern "C" uint64_t ossMemAllocationCount(void) { return allocationCount.load(std::memory_order_relaxed); }
