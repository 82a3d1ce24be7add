// See call_tree.h.
#include "call_tree.h"

#include <unordered_map>

namespace zontrace {

namespace {

// One thread's calls that are open at the present event.
class ThreadBuilder {
 public:
  explicit ThreadBuilder(std::uint64_t thread) : tree_{thread, {}} {}

  ThreadTree take() { return std::move(tree_); }

  void add(const Event& event) {
    switch (event.kind) {
      case zon::trace_ring::ENTRY:
        return addEntry(event);
      case zon::trace_ring::VARIABLE:
        return addVariable(event);
      case zon::trace_ring::EXIT:
        return addExit(event);
    }
  }

 private:
  CallLine& addLine(CallLine::Kind kind, const Event& event) {
    CallLine& line = tree_.lines.emplace_back();
    line.kind = kind;
    line.depth = open_.size();
    line.point = event.point;
    return line;
  }

  void addEntry(const Event& event) {
    addLine(CallLine::Kind::CALL, event).entryTime = event.time;
    open_.push_back(tree_.lines.size() - 1);
    ++openCalls_[event.point];
  }

  void addVariable(const Event& event) {
    CallLine& line = addLine(CallLine::Kind::VARIABLE, event);
    line.entryTime = event.time;
    line.probe = event.probe;
    line.size = event.sizeOrResult;
    line.isMasked = event.isMasked;
    line.value = event.value;
  }

  void addExit(const Event& event) {
    const auto count = openCalls_.find(event.point);
    const bool hasEntry = count != openCalls_.end() && count->second > 0;
    if (hasEntry) {
      // Calls above it were left without their exit being recorded.
      while (tree_.lines[open_.back()].point != event.point) closeTop();
    }
    CallLine& line = hasEntry ? tree_.lines[open_.back()] : addLine(CallLine::Kind::CALL, event);
    line.exitTime = event.time;
    if (event.hasResult) line.result = static_cast<std::uint32_t>(event.sizeOrResult);
    if (hasEntry) closeTop();
  }

  void closeTop() {
    --openCalls_[tree_.lines[open_.back()].point];
    open_.pop_back();
  }

  ThreadTree tree_;
  std::vector<std::size_t> open_;                             // indices of lines
  std::unordered_map<std::uint32_t, std::size_t> openCalls_;  // how many of them per function
};

}  // namespace

std::vector<ThreadTree> buildCallTrees(const Recording& recording) {
  std::vector<ThreadBuilder> builders;
  std::unordered_map<std::uint64_t, std::size_t> indexOf;
  for (const Event& event : recording.events) {
    const auto [found, isNew] = indexOf.try_emplace(event.thread, builders.size());
    if (isNew) builders.emplace_back(event.thread);
    builders[found->second].add(event);
  }
  std::vector<ThreadTree> trees;
  trees.reserve(builders.size());
  for (ThreadBuilder& builder : builders) trees.push_back(builder.take());
  return trees;
}

}  // namespace zontrace
