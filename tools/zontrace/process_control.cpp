// See process_control.h. The control block is read whole each time: it is one page.
#include "process_control.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "exit_codes.h"
#include "platform/oss/trace_control.h"
#include "process_memory.h"

namespace zontrace {

namespace {

using zon::TraceControl;
using zon::TraceState;

constexpr std::string_view LIBRARY = "libzonosse.so";
constexpr std::chrono::milliseconds POLL_INTERVAL{5};

// The block as bytes read from another process: no atomic object, only its layout.
struct Snapshot {
  std::uint32_t version;
  std::uint32_t bytes;
  std::uint32_t word;
  std::uint32_t answerWord;
  std::uint32_t answerPid;
  std::uint32_t state;
  std::uint32_t reason;
  std::uint32_t ownName;
  std::uint32_t reserved[2];
  std::uint64_t ringBytes;
  char path[zon::CONTROL_PATH_BYTES];
};
static_assert(sizeof(Snapshot) + sizeof zon::CONTROL_MAGIC == sizeof(TraceControl));

struct MarkedSnapshot {
  char magic[sizeof zon::CONTROL_MAGIC];
  Snapshot block;
};
static_assert(offsetof(MarkedSnapshot, block.word) == offsetof(TraceControl, word));
static_assert(offsetof(MarkedSnapshot, block.ringBytes) == offsetof(TraceControl, ringBytes));
static_assert(offsetof(MarkedSnapshot, block.path) == offsetof(TraceControl, path));

bool isControlBlock(const MarkedSnapshot& snapshot) {
  return std::memcmp(snapshot.magic, zon::CONTROL_MAGIC, sizeof snapshot.magic) == 0 &&
         snapshot.block.version == zon::CONTROL_VERSION && snapshot.block.bytes == sizeof(TraceControl);
}

// The process's number as it sees itself, which differs from ours in a container.
std::uint32_t ownNumber(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (!line.starts_with("NSpid:")) continue;
    std::istringstream numbers(line.substr(std::strlen("NSpid:")));
    std::uint32_t number = 0;
    while (numbers >> number) {
    }
    return number != 0 ? number : static_cast<std::uint32_t>(pid);
  }
  return static_cast<std::uint32_t>(pid);
}

// A count that moves with every request, so that the process sees a new one.
std::uint32_t nextWord(std::uint32_t answered, std::uint32_t bits) {
  return ((answered >> zon::SWITCH_COUNT) + 1) << zon::SWITCH_COUNT | bits;
}

ProcessStatus toStatus(const Snapshot& block, std::uint32_t number) {
  ProcessStatus status;
  const bool isAnswered = block.answerPid == number && (block.word == 0 || block.word == block.answerWord);
  const std::uint32_t word = block.word != 0 ? block.word : block.answerWord;
  if ((block.word & zon::SWITCH_CLOSE) != 0) {
    status.state = ProcessState::STOPPING;
  } else if (block.word != 0) {
    status.state = isAnswered ? ProcessState::RECORDING : ProcessState::STARTING;
  } else if (isAnswered && block.state == static_cast<std::uint32_t>(TraceState::FAILED)) {
    status.state = ProcessState::FAILED;
    status.reason = static_cast<int>(block.reason);
  }
  status.withValues = (word & zon::SWITCH_VALUES) != 0;
  status.eventBytes = block.ringBytes;
  status.file.assign(block.path, ::strnlen(block.path, sizeof block.path));
  if (block.answerPid == number && block.ownName != 0) status.file += '.' + std::to_string(number);
  return status;
}

template <class T>
int writeObject(const ProcessMemory& memory, std::uint64_t address, const T& object) {
  return memory.write(address, std::as_bytes(std::span(&object, 1)));
}

}  // namespace

Failure ProcessControl::refused(int error) const {
  const std::string process = "process " + std::to_string(pid_);
  if (error == ESRCH) return {EXIT_NOTHING, "there is no " + process + "; check the number with ps"};
  std::string text = "the system does not let zontrace into " + process + " (" + std::strerror(error) + ")";
  if (error == EPERM || error == EACCES) {
    text +=
        ": run zontrace as the user of that process or as root; if it is the same user, kernel.yama.ptrace_scope keeps "
        "debuggers out, so use sudo, or start the process with ZON_TRACE set";
  }
  return {EXIT_REFUSED, text};
}

Failure ProcessControl::find() {
  std::vector<std::uint64_t> libraries;
  if (const int error = findLibraries(pid_, LIBRARY, libraries)) return refused(error);
  const ProcessMemory memory(pid_);
  for (const std::uint64_t base : libraries) {
    int error = 0;
    const auto symbol = findSymbol(memory, base, zon::CONTROL_SYMBOL, error);
    if (error == EPERM || error == EACCES || error == ESRCH) return refused(error);
    if (!symbol || symbol->size < sizeof(MarkedSnapshot)) continue;
    const auto snapshot = std::make_unique<MarkedSnapshot>();
    if (memory.readObject(symbol->address, *snapshot) != 0 || !isControlBlock(*snapshot)) continue;
    address_ = symbol->address;
    return {};
  }
  const std::string process = "process " + std::to_string(pid_);
  if (libraries.empty())
    return {EXIT_NOTHING, process + " has not loaded libzonosse.so.1, so there is nothing to trace"};
  return {EXIT_NOTHING, "the libzonosse.so.1 of " + process + " belongs to another release; use its zontrace"};
}

Failure ProcessControl::status(ProcessStatus& status) const {
  const auto snapshot = std::make_unique<MarkedSnapshot>();
  if (const int error = ProcessMemory(pid_).readObject(address_, *snapshot)) return refused(error);
  status = toStatus(snapshot->block, ownNumber(pid_));
  return {};
}

Failure ProcessControl::switchOn(const RecordRequest& request) const {
  const ProcessMemory memory(pid_);
  const auto snapshot = std::make_unique<MarkedSnapshot>();
  if (const int error = memory.readObject(address_, *snapshot)) return refused(error);
  Snapshot& block = snapshot->block;
  if ((block.word & zon::SWITCH_ON) != 0) {
    return {EXIT_USAGE, "recording into " + toStatus(block, ownNumber(pid_)).file +
                            " is on already; end it with: zontrace off --pid " + std::to_string(pid_)};
  }
  const std::uint32_t bits = zon::SWITCH_ON | (request.withValues ? zon::SWITCH_VALUES : 0);
  const std::uint32_t word = nextWord(block.word != 0 ? block.word : block.answerWord, bits);
  std::memset(block.path, 0, sizeof block.path);
  request.file.copy(block.path, sizeof block.path - 1);
  int error = writeObject(memory, address_ + offsetof(TraceControl, ringBytes), request.eventBytes);
  if (error == 0) error = writeObject(memory, address_ + offsetof(TraceControl, path), block.path);
  if (error == 0) error = writeObject(memory, address_ + offsetof(TraceControl, word), word);
  return error == 0 ? Failure{} : refused(error);
}

Failure ProcessControl::switchOff() const {
  const ProcessMemory memory(pid_);
  const auto snapshot = std::make_unique<MarkedSnapshot>();
  if (const int error = memory.readObject(address_, *snapshot)) return refused(error);
  const Snapshot& block = snapshot->block;
  if ((block.word & zon::SWITCH_ON) == 0) {
    return {EXIT_NOTHING, "process " + std::to_string(pid_) + " is not being recorded; nothing to switch off"};
  }
  const std::uint32_t word = nextWord(block.word, zon::SWITCH_CLOSE | (block.word & zon::SWITCH_VALUES));
  const int error = writeObject(memory, address_ + offsetof(TraceControl, word), word);
  return error == 0 ? Failure{} : refused(error);
}

Failure ProcessControl::awaitAnswer(std::chrono::milliseconds wait, ProcessStatus& status) const {
  const auto end = std::chrono::steady_clock::now() + wait;
  for (;;) {
    if (Failure failure = this->status(status)) return failure;
    const bool isPending = status.state == ProcessState::STARTING || status.state == ProcessState::STOPPING;
    if (!isPending || std::chrono::steady_clock::now() >= end) return {};
    std::this_thread::sleep_for(POLL_INTERVAL);
  }
}

}  // namespace zontrace
