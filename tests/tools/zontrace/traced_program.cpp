// A program that traces itself, driven line by line through its standard input; it answers each command with one line.
//
// The rule: between two commands it makes no trace call, so that a test knows what has been recorded.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/trace_scope.h"
#include "record/trace_points.h"

namespace {

namespace trace = zon::trace;

std::uint32_t inner() {
  zon::TraceScope scope(trace::point("MDCustomTree::retrieve"));
  return scope.exit(std::uint32_t{31004});
}

void outer(const std::string& value) {
  zon::TraceScope scope(trace::point("MDCustomTree_retrieve"));
  scope.variable(value.data(), value.size());
  inner();
  scope.exit(std::int32_t{-22273});
}

// Two events a time.
void call(std::size_t times) {
  for (std::size_t i = 0; i < times; ++i) inner();
}

void callInThreads(std::size_t threads, std::size_t times) {
  std::vector<std::thread> running;
  for (std::size_t i = 0; i < threads; ++i) running.emplace_back([times] { call(times); });
  for (std::thread& thread : running) thread.join();
}

std::size_t countLines(const char* path) {
  std::ifstream file(path);
  return static_cast<std::size_t>(std::count(std::istreambuf_iterator<char>(file), {}, '\n'));
}

std::size_t countEntries(const char* path) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(path), {}));
}

std::string caughtSignals() {
  std::ifstream file("/proc/self/status");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("SigCgt:")) return line.substr(8);
  }
  return {};
}

// Mappings, descriptors, threads and handled signals of this process.
std::string footprint() {
  std::ostringstream text;
  text << countLines("/proc/self/maps") << ' ' << countEntries("/proc/self/fd") << ' '
       << countEntries("/proc/self/task") << ' ' << caughtSignals();
  return text.str();
}

bool mapsFile(const std::string& name) {
  std::ifstream file("/proc/self/maps");
  const std::string maps((std::istreambuf_iterator<char>(file)), {});
  return maps.find(name) != std::string::npos;
}

// Answers the number of the child, which has made its calls and ended.
pid_t callInChild(std::size_t times) {
  const pid_t child = ::fork();
  if (child == 0) {
    call(times);
    ::_exit(0);
  }
  ::waitpid(child, nullptr, 0);
  return child;
}

std::string limitFileSize(rlim_t bytes) {
  const rlimit limit{bytes, bytes};
  return ::setrlimit(RLIMIT_FSIZE, &limit) == 0 ? "ok" : "failed";
}

std::string errnoAfterCall() {
  errno = ENOTTY;
  call(1);
  return errno == ENOTTY ? "kept" : "changed";
}

class Spinning {
 public:
  ~Spinning() {
    stop_ = true;
    for (std::thread& thread : threads_) thread.join();
  }
  void start(std::size_t threads) {
    for (std::size_t i = 0; i < threads; ++i) {
      threads_.emplace_back([this] {
        while (!stop_) outer("spinning");
      });
    }
  }

 private:
  std::atomic<bool> stop_{false};
  std::vector<std::thread> threads_;
};

}  // namespace

int main() {
  Spinning spinning;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string command;
    std::size_t count = 0;
    words >> command;
    if (command == "quit") break;
    if (command == "ready") {
      std::cout << "ok";
    } else if (command == "call" && words >> count) {
      call(count);
      std::cout << "ok";
    } else if (command == "outer") {
      std::string value;
      words >> value;
      outer(value);
      std::cout << "ok";
    } else if (command == "threads" && words >> count) {
      std::size_t times = 0;
      words >> times;
      callInThreads(count, times);
      std::cout << "ok";
    } else if (command == "spin" && words >> count) {
      spinning.start(count);
      std::cout << "ok";
    } else if (command == "fork" && words >> count) {
      std::cout << callInChild(count);
    } else if (command == "limit" && words >> count) {
      std::cout << limitFileSize(count);
    } else if (command == "maps") {
      std::string name;
      words >> name;
      std::cout << (mapsFile(name) ? "yes" : "no");
    } else if (command == "footprint") {
      std::cout << footprint();
    } else if (command == "errno") {
      std::cout << errnoAfterCall();
    } else if (command == "attached") {
      std::cout << gtraceIsAttached() << gtraceIsEnabled();
    } else {
      std::cout << "what?";
    }
    std::cout << std::endl;
  }
  return 0;
}
