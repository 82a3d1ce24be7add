// Test support: a folder for rings, and how traced_program and zontrace are run.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/temporary_folder.h"

// A folder for rings.
class RingFolder : public zontest::TemporaryFolder {
 public:
  std::string file(const std::string& name) const { return *this / name; }
};

// One running traced_program, its libraries loaded; ends with the object.
class TracedProcess {
 public:
  // setting is the value of ZON_TRACE, none when empty.
  explicit TracedProcess(const std::string& setting = {}) {
    std::array<int, 2> in{};
    std::array<int, 2> out{};
    if (::pipe(in.data()) != 0 || ::pipe(out.data()) != 0) std::abort();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(in[0], STDIN_FILENO);
      ::dup2(out[1], STDOUT_FILENO);
      for (const int descriptor : {in[0], in[1], out[0], out[1]}) ::close(descriptor);
      if (setting.empty()) {
        ::unsetenv("ZON_TRACE");
      } else {
        ::setenv("ZON_TRACE", setting.c_str(), 1);
      }
      ::execl(TRACED_PROGRAM, TRACED_PROGRAM, static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    commands_ = in[1];
    answers_ = ::fdopen(out[0], "r");
    tell("ready");
  }
  ~TracedProcess() {
    ::close(commands_);
    std::fclose(answers_);
    if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
  }
  TracedProcess(const TracedProcess&) = delete;
  TracedProcess& operator=(const TracedProcess&) = delete;

  pid_t pid() const { return pid_; }

  // Sends a command and waits for its answer; empty when the process has gone.
  std::string tell(const std::string& command) {
    const std::string line = command + '\n';
    if (::write(commands_, line.data(), line.size()) < 0) return {};
    std::string answer;
    for (int byte = std::fgetc(answers_); byte != EOF && byte != '\n'; byte = std::fgetc(answers_)) {
      answer += static_cast<char>(byte);
    }
    return answer;
  }

  void kill() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }

 private:
  pid_t pid_;
  int commands_;
  std::FILE* answers_;
};

struct ToolResult {
  int code;
  std::string output;  // both streams
};

inline ToolResult runZontrace(const std::string& arguments) {
  const std::string command = std::string(ZONTRACE_PROGRAM) + ' ' + arguments + " 2>&1";
  std::FILE* const pipe = ::popen(command.c_str(), "r");
  ToolResult result{-1, {}};
  if (pipe == nullptr) return result;
  for (int byte = std::fgetc(pipe); byte != EOF; byte = std::fgetc(pipe)) result.output += static_cast<char>(byte);
  const int status = ::pclose(pipe);
  if (WIFEXITED(status)) result.code = WEXITSTATUS(status);
  return result;
}
