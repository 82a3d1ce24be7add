// zontrace: switches the trace facility of a running process, and prints what was recorded.
//
// The rule: one row per command in COMMANDS; results go to standard output, failures to standard error with what to do
// next, and the exit code is one of exit_codes.h.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <map>
#include <string>

#include "catalogue.h"
#include "exit_codes.h"
#include "print_recording.h"
#include "process_control.h"
#include "ring_reader.h"
#include "text.h"

namespace zontrace {

namespace {

struct Options {
  pid_t pid = 0;
  std::string file;
  std::uint64_t eventBytes = zon::trace_ring::DEFAULT_EVENT_BYTES;
  bool withValues = false;
  std::uint32_t waitMs = 300;
  Output output = Output::TEXT;
  std::string pattern;
};

int fail(int code, const std::string& text) {
  std::cout.flush();
  std::cerr << "zontrace: " << text << '\n';
  return code;
}

int fail(const Failure& failure) { return fail(failure.code, failure.text); }

std::string processText(pid_t pid) { return "process " + std::to_string(pid); }

// The process writes the file, perhaps as another user: the system's place for such files, with a name of its own.
std::string defaultFile(pid_t pid) {
  const std::string name = "zontrace-" + std::to_string(pid) + '-' + std::to_string(std::time(nullptr)) + ".ring";
  return std::filesystem::temp_directory_path() / name;
}

std::string statusText(pid_t pid, const ProcessStatus& status) {
  const std::string file = escaped(status.file);
  const std::string values = status.withValues ? " with values" : "";
  switch (status.state) {
    case ProcessState::OFF:
      return processText(pid) + " is not being recorded" + (file.empty() ? "" : "; last ring: " + file);
    case ProcessState::STARTING:
      return processText(pid) + " will make " + file + values + " at its next traced call";
    case ProcessState::RECORDING:
      return processText(pid) + " is recording" + values + " into " + file;
    case ProcessState::STOPPING:
      return processText(pid) + " records no more and will let go of " + file + " at its next traced call";
    case ProcessState::FAILED:
      return processText(pid) + " could not make " + file + " (" + std::strerror(status.reason) +
             ") and switched recording off; choose another --file or --size";
  }
  return {};
}

const char* stateName(ProcessState state) {
  switch (state) {
    case ProcessState::OFF:
      return "off";
    case ProcessState::STARTING:
      return "starting";
    case ProcessState::RECORDING:
      return "recording";
    case ProcessState::STOPPING:
      return "stopping";
    case ProcessState::FAILED:
      return "failed";
  }
  return "";
}

int runOn(const Options& options) {
  std::error_code error;
  const std::filesystem::path wanted = options.file.empty() ? defaultFile(options.pid) : options.file;
  const std::string file = std::filesystem::absolute(wanted, error).lexically_normal();
  if (error)
    return fail(EXIT_REFUSED, "the present directory cannot be told (" + error.message() + "); give --file from /");
  if (file.size() >= ProcessControl::MAX_FILE_BYTES) return fail(EXIT_USAGE, "the name of --file is too long");

  ProcessControl control(options.pid);
  if (const Failure failure = control.find()) return fail(failure);
  if (const Failure failure = control.switchOn({file, options.eventBytes, options.withValues})) return fail(failure);
  ProcessStatus status;
  if (const Failure failure = control.awaitAnswer(std::chrono::milliseconds(options.waitMs), status))
    return fail(failure);
  if (status.state == ProcessState::FAILED) return fail(EXIT_REFUSED, statusText(options.pid, status));
  std::cout << statusText(options.pid, status) << '\n';
  return EXIT_DONE;
}

int runOff(const Options& options) {
  ProcessControl control(options.pid);
  if (const Failure failure = control.find()) return fail(failure);
  if (const Failure failure = control.switchOff()) return fail(failure);
  ProcessStatus status;
  if (const Failure failure = control.awaitAnswer(std::chrono::milliseconds(options.waitMs), status))
    return fail(failure);
  std::cout << statusText(options.pid, status) << '\n';
  return EXIT_DONE;
}

int runStatus(const Options& options) {
  ProcessControl control(options.pid);
  if (const Failure failure = control.find()) return fail(failure);
  ProcessStatus status;
  if (const Failure failure = control.status(status)) return fail(failure);
  if (options.output == Output::TEXT) {
    std::cout << statusText(options.pid, status) << '\n';
  } else {
    std::cout << "{\"process\":" << options.pid << ",\"state\":" << jsonString(stateName(status.state))
              << ",\"file\":" << jsonString(status.file) << ",\"eventBytes\":" << status.eventBytes
              << ",\"values\":" << (status.withValues ? "true" : "false") << ",\"errno\":" << status.reason << "}\n";
  }
  return EXIT_DONE;
}

int runPrint(const Options& options) {
  const Recording recording = readRing(options.file);
  const std::string file = escaped(options.file);
  switch (recording.condition) {
    case Recording::Condition::UNREADABLE:
      return fail(EXIT_REFUSED, file + ": " + recording.problem);
    case Recording::Condition::NOT_A_RING:
      return fail(EXIT_DAMAGED, file + ": " + recording.problem);
    case Recording::Condition::DAMAGED:
      if (!recording.events.empty()) printRecording(recording, options.output, std::cout);
      return fail(EXIT_DAMAGED, file + ": " + recording.problem);
    case Recording::Condition::INTACT:
      break;
  }
  printRecording(recording, options.output, std::cout);
  if (recording.events.empty()) return fail(EXIT_NOTHING, file + " holds no event: no traced function was called");
  return EXIT_DONE;
}

int runIds(const Options& options) {
  const bool isDocument = options.output == Output::JSON;
  std::size_t found = 0;
  for (const TracedFunction& row : catalogue()) {
    const std::string number = std::to_string(row.point);
    if (row.name.find(options.pattern) == std::string::npos && number != options.pattern) continue;
    if (options.output == Output::TEXT) {
      std::cout << number << "  " << row.name << '\n';
    } else {
      if (isDocument) std::cout << (found == 0 ? "[" : ",\n ");
      std::cout << "{\"identifier\":" << number << ",\"function\":" << jsonString(row.name) << '}';
      if (!isDocument) std::cout << '\n';
    }
    ++found;
  }
  if (isDocument) std::cout << (found == 0 ? "[]\n" : "]\n");
  if (found == 0) return fail(EXIT_NOTHING, "no trace point is called or numbered " + escaped(options.pattern));
  return EXIT_DONE;
}

void addPid(CLI::App& command, Options& options) {
  command.add_option("--pid,-p", options.pid, "Number of the process")->required()->check(CLI::PositiveNumber);
}

void addWait(CLI::App& command, Options& options) {
  command.add_option("--wait", options.waitMs, "Milliseconds to wait for the process to act on it")
      ->capture_default_str();
}

void addOutput(CLI::App& command, Options& options) {
  static const std::map<std::string, Output> NAMES{
      {"text", Output::TEXT}, {"json", Output::JSON}, {"jsonl", Output::JSON_LINES}};
  command.add_option("--output,-o", options.output, "text, json or jsonl")
      ->transform(CLI::CheckedTransformer(NAMES))
      ->option_text("FORMAT [text]");
}

void addOnOptions(CLI::App& command, Options& options) {
  addPid(command, options);
  command.add_option("--file,-f", options.file, "Ring file to make; an existing file is never overwritten")
      ->option_text("PATH");
  command.add_option("--size,-s", options.eventBytes, "Bytes for events, such as 4M; rounded down to a power of two")
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(zon::trace_ring::MIN_EVENT_BYTES, zon::trace_ring::MAX_EVENT_BYTES))
      ->option_text("BYTES [4M]");
  command.add_flag("--values", options.withValues, "Record values of variables too; they may be personal data");
  addWait(command, options);
}

void addOffOptions(CLI::App& command, Options& options) {
  addPid(command, options);
  addWait(command, options);
}

void addStatusOptions(CLI::App& command, Options& options) {
  addPid(command, options);
  addOutput(command, options);
}

void addPrintOptions(CLI::App& command, Options& options) {
  command.add_option("file", options.file, "Ring file")->required();
  addOutput(command, options);
}

void addIdsOptions(CLI::App& command, Options& options) {
  command.add_option("pattern", options.pattern, "Part of a function's name, or an identifier");
  addOutput(command, options);
}

struct Command {
  const char* name;
  const char* summary;
  void (*addOptions)(CLI::App&, Options&);
  int (*run)(const Options&);
};

constexpr Command COMMANDS[] = {
    {"on", "Start recording a running process", addOnOptions, runOn},
    {"off", "Stop recording it; its ring file stays", addOffOptions, runOff},
    {"status", "Tell whether a process is being recorded, and why not", addStatusOptions, runStatus},
    {"print", "Print a ring file as call trees", addPrintOptions, runPrint},
    {"ids", "List the trace points", addIdsOptions, runIds},
};

int runProgram(int argc, char** argv) {
  CLI::App app("Records calls of the metadata library in running processes and prints them.", "zontrace");
  app.set_version_flag("--version", ZON_VERSION);
  app.require_subcommand(1);
  app.footer(
      "A process can also be recorded from its start: ZON_TRACE=/tmp/my.ring[,size=16M][,values] program\n"
      "Exit codes: 0 done, 1 nothing found, 2 wrong usage, 3 damaged ring, 5 refused by the operating system");
  Options options;
  std::map<const CLI::App*, const Command*> commands;
  for (const Command& command : COMMANDS) {
    CLI::App* const subcommand = app.add_subcommand(command.name, command.summary);
    command.addOptions(*subcommand, options);
    commands[subcommand] = &command;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
  }
  const int code = commands.at(app.get_subcommands().front())->run(options);
  if (!std::cout.flush()) return fail(EXIT_REFUSED, "the output could not be written; is the disk full?");
  return code;
}

}  // namespace

}  // namespace zontrace

int main(int argc, char** argv) {
  try {
    return zontrace::runProgram(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zontrace: %s\n", error.what());
    return zontrace::EXIT_REFUSED;
  }
}
