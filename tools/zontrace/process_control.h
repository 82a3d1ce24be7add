// Switches recording of a running process through its trace control block.
//
// The rule: ringBytes and path are written before the switch word, and never while the word says that they are in use.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace zontrace {

// What went wrong, as an exit code of the program and a sentence that says what to do; code 0 is no failure.
struct Failure {
  int code = 0;
  std::string text;

  explicit operator bool() const { return code != 0; }
};

struct RecordRequest {
  std::string file;  // absolute, shorter than MAX_FILE_BYTES
  std::uint64_t eventBytes;
  bool withValues;
};

enum class ProcessState {
  OFF,
  STARTING,  // switched on; no traced call has come since
  RECORDING,
  STOPPING,  // switched off; no traced call has come since, the ring is still mapped
  FAILED,    // switched on, but the process could not make the ring
};

struct ProcessStatus {
  ProcessState state = ProcessState::OFF;
  bool withValues = false;
  std::uint64_t eventBytes = 0;
  std::string file;  // as the process sees it; empty when it was never switched on
  int reason = 0;    // errno value of FAILED
};

class ProcessControl {
 public:
  static constexpr std::size_t MAX_FILE_BYTES = 4000;

  explicit ProcessControl(pid_t pid) : pid_(pid) {}

  // Finds the control block. To be called first.
  Failure find();
  Failure status(ProcessStatus& status) const;
  Failure switchOn(const RecordRequest& request) const;
  Failure switchOff() const;

  // Asks for the status until the process has acted on the last request or `wait` is over.
  Failure awaitAnswer(std::chrono::milliseconds wait, ProcessStatus& status) const;

 private:
  Failure refused(int error) const;

  pid_t pid_;
  std::uint64_t address_ = 0;
};

}  // namespace zontrace
