// RingWriter: see trace_writer.h. Seals order everything: a slot is claimed by setting its busy bit, filled, and sealed
// last.
#include "platform/oss/trace_writer.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstring>

namespace zon {

namespace {

using namespace trace_ring;

constexpr std::uint64_t NANOSECONDS = 1'000'000'000;

std::uint64_t clockTime(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * NANOSECONDS + static_cast<std::uint64_t>(now.tv_nsec);
}

std::uint64_t magicWord() {
  std::uint64_t word;
  std::memcpy(&word, MAGIC, sizeof word);
  return word;
}

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return number_; }
  bool isValid() const { return number_ >= 0; }

  // Programs that closed their standard streams must not find a ring there. Returns 0 or an errno value.
  int moveAboveStandardStreams() {
    if (number_ > STDERR_FILENO) return 0;
    const int moved = ::fcntl(number_, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (moved < 0) return errno;
    ::close(number_);
    number_ = moved;
    return 0;
  }

 private:
  int number_;
};

bool fitsFileSizeLimit(std::uint64_t bytes) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_FSIZE, &limit) != 0) return true;
  return limit.rlim_cur == RLIM_INFINITY || bytes <= limit.rlim_cur;
}

// Reserves the blocks now: a full disk is met here and not, as SIGBUS, by whoever writes an event.
int reserve(int descriptor, std::uint64_t bytes) {
  // Beyond the limit the kernel would kill the process by SIGXFSZ.
  if (!fitsFileSizeLimit(bytes)) return EFBIG;
  int error = EINTR;
  for (int attempt = 0; attempt < 100 && error == EINTR; ++attempt) {
    error = ::posix_fallocate(descriptor, 0, static_cast<off_t>(bytes));
  }
  return error;
}

RingIdentity identityOf(const struct stat& status) {
  return {static_cast<std::uint64_t>(status.st_dev), static_cast<std::uint64_t>(status.st_ino),
          static_cast<std::uint64_t>(::getpid())};
}

bool isSame(const RingIdentity& a, const RingIdentity& b) {
  return a.device == b.device && a.inode == b.inode && a.pid == b.pid;
}

}  // namespace

int RingWriter::map(int descriptor, std::uint64_t slots) {
  void* const address =
      ::mmap(nullptr, HEADER_BYTES + slots * SLOT_BYTES, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  if (address == MAP_FAILED) return errno;
  header_ = static_cast<Header*>(address);
  mask_ = slots - 1;
  return 0;
}

void RingWriter::fillHeader(bool withValues) {
  Header& header = *header_;
  header.version = FORMAT_VERSION;
  header.headerBytes = HEADER_BYTES;
  header.slotBytes = SLOT_BYTES;
  header.flags = withValues ? HEADER_HAS_VALUES : 0;
  header.slots = mask_ + 1;
  header.pid = static_cast<std::uint64_t>(::getpid());
  header.monotonicTime = clockTime(CLOCK_MONOTONIC);
  header.wallTime = clockTime(CLOCK_REALTIME);
  char program[4096];
  const ssize_t length = ::readlink("/proc/self/exe", program, sizeof program);
  if (length > 0) {
    const std::size_t kept = std::min(static_cast<std::size_t>(length), sizeof header.program - 1);
    std::memcpy(header.program, program + (static_cast<std::size_t>(length) - kept), kept);
  }
  // Last, so that a reader never takes half a header for a ring.
  auto* const magic = reinterpret_cast<std::uint64_t*>(header.magic);
  std::atomic_ref<std::uint64_t>(*magic).store(magicWord(), std::memory_order_release);
}

int RingWriter::open(const char* path, std::uint64_t eventBytes, bool withValues, RingIdentity& previous) {
  if (path[0] != '/') return EINVAL;
  if (eventBytes < MIN_EVENT_BYTES || eventBytes > MAX_EVENT_BYTES) return EINVAL;
  const std::uint64_t slots = std::bit_floor(eventBytes / SLOT_BYTES);
  const std::uint64_t fileBytes = HEADER_BYTES + slots * SLOT_BYTES;

  constexpr int FLAGS = O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  Descriptor created(::open(path, FLAGS | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR));
  if (created.isValid()) {
    struct stat status {};
    int error = created.moveAboveStandardStreams();
    // The owner can read the ring whatever umask the program runs with.
    if (error == 0 && ::fchmod(created.get(), S_IRUSR | S_IWUSR) != 0) error = errno;
    if (error == 0 && ::fstat(created.get(), &status) != 0) error = errno;
    if (error == 0 && !S_ISREG(status.st_mode)) error = EINVAL;
    if (error == 0) error = reserve(created.get(), fileBytes);
    if (error == 0) error = map(created.get(), slots);
    if (error != 0) {
      ::unlink(path);
      return error;
    }
    fillHeader(withValues);
    withValues_ = withValues;
    previous = identityOf(status);
    return 0;
  }
  if (errno != EEXIST) return errno;

  Descriptor found(::open(path, FLAGS));
  struct stat status {};
  if (!found.isValid() || found.moveAboveStandardStreams() != 0 || ::fstat(found.get(), &status) != 0) return EEXIST;
  if (!S_ISREG(status.st_mode) || !isSame(identityOf(status), previous)) return EEXIST;
  if (static_cast<std::uint64_t>(status.st_size) != fileBytes) return EEXIST;
  if (const int error = map(found.get(), slots)) return error;
  if (std::memcmp(header_->magic, MAGIC, sizeof MAGIC) != 0) {
    close();
    return EEXIST;
  }
  if (withValues) header_->flags |= HEADER_HAS_VALUES;
  withValues_ = withValues;
  return 0;
}

void RingWriter::close() {
  if (header_ != nullptr) ::munmap(header_, mappedBytes());
  header_ = nullptr;
  mask_ = 0;
}

// Takes slot `number` for this writer, or answers null when another is still writing it (it lags a whole ring behind)
// or has filled it with something newer.
std::uint64_t* RingWriter::claim(std::uint64_t number) {
  std::byte* const slots = reinterpret_cast<std::byte*>(header_) + HEADER_BYTES;
  auto* const words = reinterpret_cast<std::uint64_t*>(slots + (number & mask_) * SLOT_BYTES);
  std::atomic_ref<std::uint64_t> seal(*words);
  std::uint64_t old = seal.load(std::memory_order_relaxed);
  if ((old & SEAL_BUSY) != 0 || (old & SEAL_NUMBER) > number) return nullptr;
  const std::uint64_t busy = SEAL_BUSY | (number + 1);
  return seal.compare_exchange_strong(old, busy, std::memory_order_acquire) ? words : nullptr;
}

// Returns how many bytes of the value beyond the first slot were kept.
std::size_t RingWriter::writeContinuations(std::uint64_t first, const TraceEvent& event, std::size_t bytes) {
  const auto* const value = static_cast<const std::byte*>(event.value) + FIRST_VALUE_BYTES;
  std::size_t done = 0;
  for (std::uint64_t number = first + 1; done < bytes; ++number) {
    std::uint64_t* const words = claim(number);
    if (words == nullptr) break;
    const std::size_t part = std::min(bytes - done, NEXT_VALUE_BYTES);
    std::memcpy(words + 1, value + done, part);
    std::atomic_ref<std::uint64_t>(*words).store(SEAL_CONTINUATION | (number + 1), std::memory_order_release);
    done += part;
  }
  return done;
}

void RingWriter::write(const TraceEvent& event) {
  const std::size_t wanted = std::min(event.valueBytes, MAX_VALUE_BYTES);
  const std::size_t beyond = wanted > FIRST_VALUE_BYTES ? wanted - FIRST_VALUE_BYTES : 0;
  const std::uint64_t slots = 1 + (beyond + NEXT_VALUE_BYTES - 1) / NEXT_VALUE_BYTES;
  std::atomic_ref<std::uint64_t>(header_->events).fetch_add(1, std::memory_order_relaxed);
  const std::uint64_t number =
      std::atomic_ref<std::uint64_t>(header_->next).fetch_add(slots, std::memory_order_relaxed) & (SEAL_NUMBER >> 1);

  std::uint64_t* const words = claim(number);
  if (words == nullptr) {
    std::atomic_ref<std::uint64_t>(header_->dropped).fetch_add(1, std::memory_order_relaxed);
    return;
  }
  const std::size_t kept = wanted - beyond + (beyond == 0 ? 0 : writeContinuations(number, event, beyond));
  EventSlot slot{};
  slot.time = clockTime(CLOCK_MONOTONIC);
  slot.thread = event.thread;
  slot.point = event.point;
  slot.probe = event.probe;
  slot.kind = event.kind;
  slot.slots = static_cast<std::uint8_t>(slots);
  slot.flags = event.flags;
  slot.valueBytes = static_cast<std::uint32_t>(kept);
  slot.sizeOrResult = event.sizeOrResult;
  if (wanted != 0) std::memcpy(slot.value, event.value, wanted - beyond);
  std::memcpy(words + 1, reinterpret_cast<const std::byte*>(&slot) + sizeof slot.seal, SLOT_BYTES - sizeof slot.seal);
  std::atomic_ref<std::uint64_t>(*words).store(number + 1, std::memory_order_release);
}

}  // namespace zon
