// See ring_reader.h. docs/trace.md describes the format.
#include "ring_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

namespace zontrace {

namespace {

using namespace zon::trace_ring;
using Condition = Recording::Condition;
using Bytes = std::span<const std::byte>;

constexpr std::uint64_t MAX_FILE_BYTES = HEADER_BYTES + MAX_EVENT_BYTES;
constexpr std::size_t PIECE_BYTES = 16 * 1024;
constexpr std::uint64_t MIN_SLOTS = MIN_EVENT_BYTES / SLOT_BYTES;
constexpr std::uint64_t MAX_SLOTS = MAX_EVENT_BYTES / SLOT_BYTES;

template <class T>
T copyAt(Bytes bytes, std::size_t offset) {
  T object;
  std::memcpy(&object, bytes.data() + offset, sizeof object);
  return object;
}

// Empty when the header can be believed.
std::string headerProblem(const Header& header) {
  if (header.version > FORMAT_VERSION) return "the ring was written by a later release; use its zontrace";
  const bool isKnown = header.version == FORMAT_VERSION && header.headerBytes == HEADER_BYTES &&
                       header.slotBytes == SLOT_BYTES && std::has_single_bit(header.slots) &&
                       header.slots >= MIN_SLOTS && header.slots <= MAX_SLOTS;
  return isKnown ? std::string() : "the ring's header is damaged, so its events cannot be found; record again";
}

class RingParser {
 public:
  RingParser(Bytes first, Bytes second, Recording& recording) : first_(first), second_(second), recording_(recording) {}

  void parse() {
    if (first_.size() < HEADER_BYTES || std::memcmp(first_.data(), MAGIC, sizeof MAGIC) != 0) {
      return stop(Condition::NOT_A_RING,
                  "this is no ring file of the trace facility; name the file given to zontrace on");
    }
    // Of the later copy: no slot of the earlier one can be newer than its counts.
    const auto header = copyAt<Header>(second_, 0);
    if (std::string problem = headerProblem(header); !problem.empty()) {
      return stop(Condition::DAMAGED, std::move(problem));
    }
    takeHeader(header);
    mask_ = header.slots - 1;
    next_ = header.next;
    const std::uint64_t present = std::min(first_.size(), second_.size()) - HEADER_BYTES;
    const std::uint64_t slots = std::min<std::uint64_t>(header.slots, present / SLOT_BYTES);
    findEvents(slots);
    for (const std::uint64_t number : events_) takeEvent(number);
    countLosses(header);
    if (slots < header.slots) {
      const std::string missing = std::to_string((header.slots - slots) * SLOT_BYTES);
      stop(Condition::DAMAGED,
           "the ring file was cut: " + missing + " bytes are missing; copy it again, or record again");
    } else if (recording_.damaged != 0) {
      stop(Condition::DAMAGED, std::to_string(recording_.damaged) + " slots of the ring are damaged and were left out");
    }
  }

 private:
  void stop(Condition condition, std::string problem) {
    recording_.condition = condition;
    recording_.problem = std::move(problem);
  }

  void takeHeader(const Header& header) {
    recording_.pid = header.pid;
    recording_.program.assign(header.program, ::strnlen(header.program, sizeof header.program));
    recording_.monotonicTime = header.monotonicTime;
    recording_.wallTime = header.wallTime;
    recording_.hasValues = (header.flags & HEADER_HAS_VALUES) != 0;
    recording_.begun = header.events;
    recording_.dropped = header.dropped;
  }

  std::size_t offsetOf(std::uint64_t number) const { return HEADER_BYTES + (number & mask_) * SLOT_BYTES; }

  // Finds the numbers of all slots in which an event begins, in order, and counts those that nothing can be read from.
  void findEvents(std::uint64_t slots) {
    for (std::uint64_t position = 0; position < slots; ++position) {
      const std::size_t offset = offsetOf(position);
      const auto seal = copyAt<std::uint64_t>(first_, offset);
      const bool isStill = std::memcmp(first_.data() + offset, second_.data() + offset, SLOT_BYTES) == 0;
      if (seal == 0 && isStill) continue;
      const std::uint64_t number = (seal & SEAL_NUMBER) - 1;
      if ((seal & SEAL_BUSY) != 0 || !isStill) {
        ++recording_.unfinished;
      } else if ((seal & SEAL_NUMBER) == 0 || (number & mask_) != position || number >= next_) {
        ++recording_.damaged;
      } else if ((seal & SEAL_CONTINUATION) == 0) {
        events_.push_back(number);
      }
    }
    std::sort(events_.begin(), events_.end());
  }

  void takeEvent(std::uint64_t number) {
    const auto slot = copyAt<EventSlot>(first_, offsetOf(number));
    const bool isKnownKind = slot.kind >= ENTRY && slot.kind <= EXIT;
    const bool isKnownSize = slot.slots >= 1 && slot.slots <= MAX_EVENT_SLOTS &&
                             slot.valueBytes <= FIRST_VALUE_BYTES + (slot.slots - 1U) * NEXT_VALUE_BYTES;
    if (!isKnownKind || !isKnownSize || (slot.valueBytes > slot.sizeOrResult)) {
      ++recording_.damaged;
      return;
    }
    Event event{};
    event.number = number;
    event.time = slot.time;
    event.thread = slot.thread;
    event.point = slot.point;
    event.probe = slot.probe;
    event.kind = static_cast<Kind>(slot.kind);
    event.hasResult = (slot.flags & EVENT_HAS_RESULT) != 0;
    event.isMasked = (slot.flags & EVENT_MASKED) != 0;
    event.sizeOrResult = slot.sizeOrResult;
    if (event.kind == VARIABLE) takeValue(slot, number, event.value);
    recording_.events.push_back(std::move(event));
  }

  // A continuation that a newer event has overwritten ends the value early.
  void takeValue(const EventSlot& slot, std::uint64_t number, std::string& value) const {
    value.assign(reinterpret_cast<const char*>(slot.value), std::min<std::size_t>(slot.valueBytes, sizeof slot.value));
    while (value.size() < slot.valueBytes) {
      ++number;
      const std::size_t offset = offsetOf(number);
      if (offset + SLOT_BYTES > std::min(first_.size(), second_.size())) return;
      const auto part = copyAt<ContinuationSlot>(first_, offset);
      if (part.seal != (SEAL_CONTINUATION | (number + 1))) return;
      if (std::memcmp(first_.data() + offset, second_.data() + offset, SLOT_BYTES) != 0) return;
      value.append(reinterpret_cast<const char*>(part.value),
                   std::min<std::size_t>(slot.valueBytes - value.size(), sizeof part.value));
    }
  }

  void countLosses(const Header& header) {
    const std::uint64_t known = recording_.events.size() + recording_.dropped + recording_.unfinished;
    const bool hasWrapped = header.next > header.slots;
    if (hasWrapped && recording_.begun > known) recording_.overwritten = recording_.begun - known;
  }

  Bytes first_;
  Bytes second_;
  Recording& recording_;
  std::uint64_t mask_ = 0;
  std::uint64_t next_ = 0;
  std::vector<std::uint64_t> events_;
};

// Returns 0 or an errno value; `got` tells how many bytes there were.
int readAt(int descriptor, std::span<std::byte> bytes, std::size_t offset, std::size_t& got) {
  got = 0;
  while (got < bytes.size()) {
    const ssize_t part = ::pread(descriptor, bytes.data() + got, bytes.size() - got, static_cast<off_t>(offset + got));
    if (part < 0 && errno == EINTR) continue;
    if (part < 0) return errno;
    if (part == 0) break;
    got += static_cast<std::size_t>(part);
  }
  return 0;
}

// Takes both copies of a piece right after one another, so that of a ring that is being written few slots differ. The
// header comes last: it then counts every event that the slots hold.
int readPieces(int descriptor, std::vector<std::byte>& first, std::vector<std::byte>& second) {
  std::size_t present = first.size();
  for (std::size_t end = first.size(); end > 0;) {
    const std::size_t start = (end - 1) / PIECE_BYTES * PIECE_BYTES;
    for (std::vector<std::byte>* const copy : {&first, &second}) {
      std::size_t got = 0;
      if (const int error = readAt(descriptor, std::span(*copy).subspan(start, end - start), start, got)) return error;
      if (got < end - start) present = std::min(present, start + got);
    }
    end = start;
  }
  first.resize(present);
  second.resize(present);
  return 0;
}

int readTwice(const std::string& path, std::vector<std::byte>& first, std::vector<std::byte>& second) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (descriptor < 0) return errno;
  struct stat status {};
  int error = ::fstat(descriptor, &status) == 0 ? 0 : errno;
  // Anything but a regular file reads as empty, which is no ring.
  if (error == 0 && S_ISREG(status.st_mode)) {
    const auto size = static_cast<std::uint64_t>(status.st_size);
    first.resize(static_cast<std::size_t>(std::min(size, MAX_FILE_BYTES)));
    second.resize(first.size());
    error = readPieces(descriptor, first, second);
  }
  ::close(descriptor);
  return error;
}

}  // namespace

Recording parseRing(std::span<const std::byte> first, std::span<const std::byte> second) {
  Recording recording;
  const Bytes common = first.first(std::min(first.size(), second.size()));
  RingParser(common, second, recording).parse();
  return recording;
}

Recording readRing(const std::string& path) {
  std::vector<std::byte> first;
  std::vector<std::byte> second;
  if (const int error = readTwice(path, first, second)) {
    Recording recording;
    recording.condition = Condition::UNREADABLE;
    recording.problem = std::string("the file cannot be read (") + std::strerror(error) + ")";
    if (error == EACCES) recording.problem += ": a ring is open to the user of the recorded process and to root";
    return recording;
  }
  return parseRing(first, second);
}

}  // namespace zontrace
