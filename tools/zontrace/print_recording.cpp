// See print_recording.h. docs/trace.md shows each output.
#include "print_recording.h"

#include <algorithm>

#include "call_tree.h"
#include "text.h"

namespace zontrace {

namespace {

// Deeper calls stand below each other, so that a long chain does not print in quadratic size.
constexpr std::size_t MAX_INDENT_LEVELS = 40;

std::uint64_t wallTimeOf(const Recording& recording, std::uint64_t time) {
  return recording.wallTime + (time - recording.monotonicTime);
}

std::string sinceStart(const Recording& recording, std::uint64_t time) {
  const std::uint64_t nanoseconds = time >= recording.monotonicTime ? time - recording.monotonicTime : 0;
  const std::string fraction = std::to_string(nanoseconds % 1'000'000'000);
  const std::string seconds = std::to_string(nanoseconds / 1'000'000'000) + '.' + std::string(9 - fraction.size(), '0');
  const std::string text = seconds + fraction;
  return std::string(text.size() < 14 ? 14 - text.size() : 0, ' ') + text;
}

std::string callText(const CallLine& line) {
  std::string text = functionName(line.point);
  if (line.entryTime && line.exitTime) {
    text += " (" + (*line.exitTime >= *line.entryTime ? durationText(*line.exitTime - *line.entryTime) : "?") + ")";
  }
  if (line.result) text += " = " + resultText(line.point, *line.result);
  if (!line.entryTime) text += "  [entry not recorded]";
  if (!line.exitTime) text += "  [exit not recorded]";
  return text;
}

std::string variableText(const CallLine& line) {
  std::string text = "probe " + std::to_string(line.probe) + ": " + std::to_string(line.size) + " bytes";
  if (line.isMasked) return text + ", value not recorded";
  text += " \"" + escaped(line.value) + '"';
  if (line.value.size() < line.size) text += " and " + std::to_string(line.size - line.value.size()) + " more";
  return text;
}

void printThread(const Recording& recording, const ThreadTree& tree, std::ostream& out) {
  out << "\nthread " << tree.thread << '\n';
  for (const CallLine& line : tree.lines) {
    const std::size_t levels = std::min(line.depth, MAX_INDENT_LEVELS);
    out << sinceStart(recording, line.entryTime.value_or(line.exitTime.value_or(0))) << "  "
        << std::string(2 * levels, ' ');
    if (line.depth > MAX_INDENT_LEVELS) out << "[level " << line.depth << "] ";
    out << (line.kind == CallLine::Kind::CALL ? callText(line) : variableText(line)) << '\n';
  }
}

void printText(const Recording& recording, const std::vector<ThreadTree>& trees, std::ostream& out) {
  out << "process " << recording.pid << ", " << escaped(recording.program) << '\n'
      << "ring made " << wallTimeText(recording.wallTime) << "; times below are seconds since then\n"
      << recording.begun << " events: " << recording.events.size() << " recorded, " << recording.overwritten
      << " overwritten, " << recording.dropped << " dropped, " << recording.unfinished << " unfinished\n";
  for (const ThreadTree& tree : trees) printThread(recording, tree, out);
}

std::string jsonOf(const Recording& recording) {
  return "\"process\":" + std::to_string(recording.pid) + ",\"program\":" + jsonString(recording.program) +
         ",\"made\":" + jsonString(wallTimeText(recording.wallTime)) + ",\"begun\":" + std::to_string(recording.begun) +
         ",\"recorded\":" + std::to_string(recording.events.size()) +
         ",\"overwritten\":" + std::to_string(recording.overwritten) +
         ",\"dropped\":" + std::to_string(recording.dropped) +
         ",\"unfinished\":" + std::to_string(recording.unfinished) +
         ",\"damaged\":" + std::to_string(recording.damaged);
}

std::string jsonOfCall(const CallLine& line) {
  std::string text;
  if (line.entryTime && line.exitTime && *line.exitTime >= *line.entryTime) {
    text += ",\"durationNs\":" + std::to_string(*line.exitTime - *line.entryTime);
  }
  if (line.result) {
    text += ",\"result\":" + std::to_string(resultNumber(line.point, *line.result));
    const std::string name = resultName(line.point, *line.result);
    if (!name.empty()) text += ",\"resultName\":" + jsonString(name);
  }
  text += std::string(",\"entered\":") + (line.entryTime ? "true" : "false");
  return text + ",\"left\":" + (line.exitTime ? "true" : "false");
}

std::string jsonOfVariable(const CallLine& line) {
  const std::string text = ",\"probe\":" + std::to_string(line.probe) + ",\"bytes\":" + std::to_string(line.size);
  return line.isMasked ? text : text + ",\"value\":" + jsonString(line.value);
}

std::string jsonOf(const Recording& recording, std::uint64_t thread, const CallLine& line) {
  const bool isCall = line.kind == CallLine::Kind::CALL;
  const std::uint64_t time = line.entryTime.value_or(line.exitTime.value_or(0));
  return std::string("{\"type\":") + (isCall ? "\"call\"" : "\"variable\"") + ",\"thread\":" + std::to_string(thread) +
         ",\"depth\":" + std::to_string(line.depth) +
         ",\"time\":" + jsonString(wallTimeText(wallTimeOf(recording, time))) +
         ",\"identifier\":" + std::to_string(line.point) + ",\"function\":" + jsonString(functionName(line.point)) +
         (isCall ? jsonOfCall(line) : jsonOfVariable(line)) + '}';
}

void printJson(const Recording& recording, const std::vector<ThreadTree>& trees, std::ostream& out) {
  out << '{' << jsonOf(recording) << ",\"calls\":[";
  const char* separator = "\n";
  for (const ThreadTree& tree : trees) {
    for (const CallLine& line : tree.lines) {
      out << separator << jsonOf(recording, tree.thread, line);
      separator = ",\n";
    }
  }
  out << "]}\n";
}

void printJsonLines(const Recording& recording, const std::vector<ThreadTree>& trees, std::ostream& out) {
  out << "{\"type\":\"recording\"," << jsonOf(recording) << "}\n";
  for (const ThreadTree& tree : trees) {
    for (const CallLine& line : tree.lines) out << jsonOf(recording, tree.thread, line) << '\n';
  }
}

}  // namespace

void printRecording(const Recording& recording, Output output, std::ostream& out) {
  const std::vector<ThreadTree> trees = buildCallTrees(recording);
  switch (output) {
    case Output::TEXT:
      return printText(recording, trees, out);
    case Output::JSON:
      return printJson(recording, trees, out);
    case Output::JSON_LINES:
      return printJsonLines(recording, trees, out);
  }
}

}  // namespace zontrace
