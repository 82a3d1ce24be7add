// What does a whole call cost, ours beside what else one could link and beside the bare system calls, and how does that
// grow with the number and the size of the records and with the number of writers?
//
// Every store does the same work on the same records, each opened for the call and, where that differs, held open.
// Turns are taken: a round has a few milliseconds of each call on each store, so that whatever else the machine does
// meets all of them. A line of JSON for each figure: median, 99th percentile and longest in microseconds.
//
// Excluded: loading; the first opening of a store; programs that have the store open at the same time, but for the
// writers' part.
//
// Usage: compare_peers --directory DIR [--records N...] [--size BYTES] [--rounds N] [--milliseconds N] [--writers N...]
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "peers/measurement.h"
#include "peers/peer.h"

namespace peers {

void require(bool holds, const char* store, const char* what) {
  if (!holds) throw std::runtime_error(std::string(store) + " failed: " + what);
}

std::vector<Kind> all() {
  return {zonmdfile(),
#ifdef ZON_WITH_PEERS
          sqlite(),    lmdb(),    gdbm(),   tdb(), berkeleyDb(),
          tkrzw(),     levelDb(), rocksDb()
#endif
  };
}

}  // namespace peers

namespace {

namespace fs = std::filesystem;
using peers::Kind;
using peers::Listing;
using peers::Measurement;
using peers::Peer;
using std::chrono::milliseconds;

constexpr const char* FLOOR = "system calls";

struct Options {
  fs::path directory;
  std::vector<std::uint64_t> records = {1000, 10000, 100000};
  std::vector<unsigned> writers;
  std::size_t size = 200;
  unsigned rounds = 9;
  unsigned budget = 20;
};

class Records {
 public:
  explicit Records(std::size_t size) : size_(size) {}

  static std::string key(std::uint64_t number) { return "tree." + std::to_string(1000000000 + number); }
  // No two alike, and no text that packs well.
  std::string data(std::uint64_t number) const {
    std::minstd_rand random(static_cast<std::uint32_t>(number + 1));
    std::string data(size_, ' ');
    for (char& letter : data) letter = static_cast<char>('!' + random() % 90);
    return data;
  }

 private:
  std::size_t size_;
};

// A store as a program meets it: opened for each call, or held open.
class Subject {
 public:
  Subject(const Kind& kind, fs::path directory, bool isHeld)
      : kind_(kind), directory_(std::move(directory)), isHeld_(isHeld) {}

  const Kind& kind() const { return kind_; }
  const char* manner() const { return isHeld_ ? "held open" : "per call"; }

  template <class Work>
  void call(bool mayWrite, Work&& work) {
    if (isHeld_) {
      if (held_ == nullptr) held_ = kind_.open(directory_, true);
      work(*held_);
    } else {
      const auto peer = kind_.open(directory_, mayWrite);
      work(*peer);
    }
  }
  void close() { held_.reset(); }
  // Opened before anything is timed.
  void warm() {
    call(true, [](Peer&) {});
  }

 private:
  const Kind& kind_;
  fs::path directory_;
  bool isHeld_;
  std::unique_ptr<Peer> held_;
};

// Files of the bare system calls: what a call cannot do without, on the same file system.
class Floor {
 public:
  Floor(const fs::path& directory, std::uint64_t records, std::size_t size)
      : path_(directory / "floor"), size_(size), bytes_(std::max<std::size_t>(size + 56, 256)) {
    fs::create_directories(directory);
    const int file = open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    end_ = static_cast<off_t>(records * (size + 100));
    std::vector<char> zeros(1 << 20, 'x');
    for (off_t at = 0; at < end_; at += static_cast<off_t>(zeros.size())) {
      peers::require(pwrite(file, zeros.data(), zeros.size(), at) > 0, FLOOR, "write");
    }
    peers::require(posix_fallocate(file, 0, end_ + (off_t{256} << 20)) == 0 && fsync(file) == 0, FLOOR, "reserve");
    ::close(file);
  }
  ~Floor() { fs::remove(path_); }
  Floor(const Floor&) = delete;
  Floor& operator=(const Floor&) = delete;

  // A header, an index block, the record.
  void read(std::mt19937_64& random) {
    const int file = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    char block[512];
    for (int part = 0; part < 2; ++part) {
      peers::require(pread(file, block, sizeof block, static_cast<off_t>(random() % static_cast<unsigned>(end_))) > 0,
                     FLOOR, "read");
    }
    std::string record(size_ + 56, '\0');
    peers::require(pread(file, record.data(), record.size(), 0) > 0, FLOOR, "read");
    ::close(file);
  }

  void write() {
    const int file = open(path_.c_str(), O_RDWR | O_CLOEXEC);
    flock(file, LOCK_EX);
    peers::require(pwrite(file, bytes_.data(), bytes_.size(), end_) > 0 && fdatasync(file) == 0, FLOOR, "write");
    end_ += static_cast<off_t>(bytes_.size());
    flock(file, LOCK_UN);
    ::close(file);
  }

  // Reading all once, and one copy into fresh memory.
  void list() {
    const int file = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    std::vector<char> window(256 << 10);
    const auto size = static_cast<std::size_t>(end_);
    void* copy = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    peers::require(copy != MAP_FAILED, FLOOR, "memory");
    for (std::size_t at = 0; at < size;) {
      const ssize_t got = ::read(file, window.data(), std::min(window.size(), size - at));
      peers::require(got > 0, FLOOR, "read");
      std::memcpy(static_cast<char*>(copy) + at, window.data(), static_cast<std::size_t>(got));
      at += static_cast<std::size_t>(got);
    }
    munmap(copy, size);
    ::close(file);
  }

 private:
  fs::path path_;
  std::size_t size_;
  std::vector<char> bytes_;
  off_t end_ = 0;
};

// All figures of one number of records.
class Comparison {
 public:
  Comparison(const Options& options, std::uint64_t records)
      : options_(options), records_(records), make_(options.size), floor_(options.directory, records, options.size) {}

  void run(const std::vector<Kind>& kinds) {
    for (const Kind& kind : kinds) addSubjects(kind);
    for (unsigned round = 0; round < options_.rounds; ++round) {
      std::fprintf(stderr, "   %llu records of %zu bytes: round %u of %u\n", static_cast<unsigned long long>(records_),
                   options_.size, round + 1, options_.rounds);
      runFloor();
      for (Subject& subject : subjects_) runSubject(subject);
    }
    for (auto& [name, measurement] : measurements_) tell(name, measurement);
  }

 private:
  struct Name {
    std::string what, store, manner;
    auto operator<=>(const Name&) const = default;
  };

  void addSubjects(const Kind& kind) {
    const fs::path directory = options_.directory / (std::string(kind.name) + "." + std::to_string(records_));
    fs::create_directories(directory);
    kind.open(directory, true)->load(records_, [&](std::uint64_t number, std::string& key, std::string& data) {
      key = Records::key(number);
      data = make_.data(number);
    });
    subjects_.emplace_back(kind, directory, false);
    if (std::string_view(kind.name) == "zonmdfile") return;
    // A store held open by one process may shut out the other way of using it: each has its own files.
    const fs::path other = directory.string() + ".held";
    fs::copy(directory, other, fs::copy_options::recursive);
    subjects_.emplace_back(kind, other, true);
  }

  template <class Work>
  void measure(const char* what, const char* store, const char* manner, Work&& work) {
    const bool isListing = std::string_view(what) == "list";
    measurements_[{what, store, manner}].run(milliseconds(options_.budget), isListing ? 1 : 3, isListing ? 20 : 400,
                                             std::forward<Work>(work));
  }

  void runFloor() {
    measure("get", FLOOR, "per call", [&] { floor_.read(random_); });
    measure("insert", FLOOR, "per call", [&] { floor_.write(); });
    measure("list", FLOOR, "per call", [&] { floor_.list(); });
  }

  void runSubject(Subject& subject) {
    const char* store = subject.kind().name;
    const auto timed = [&](const char* what, bool mayWrite, const std::function<void(Peer&)>& work) {
      measure(what, store, subject.manner(), [&] { subject.call(mayWrite, work); });
    };
    subject.warm();
    std::string data;
    timed("get", false, [&](Peer& peer) {
      peers::require(peer.get(Records::key(random_() % records_), data), store, "record lost");
    });
    timed("absent", false, [&](Peer& peer) {
      peers::require(!peer.get("none." + Records::key(random_() % records_), data), store, "record invented");
    });
    std::uint64_t added = records_;
    const std::string fresh = make_.data(added);
    timed("insert", true,
          [&](Peer& peer) { peers::require(peer.insert(Records::key(added++), fresh), store, "insert"); });
    timed("update", true, [&](Peer& peer) {
      peers::require(peer.update(Records::key(random_() % records_), make_.data(random_() % records_)), store,
                     "update");
    });
    // What was added goes again, so that every round finds the same number.
    std::uint64_t next = records_;
    measureRemovals(subject, next, added);
    Listing listing;
    timed("list", false, [&](Peer& peer) {
      listing.clear();
      peer.list(listing);
      peers::require(listing.count == records_, store, "listing");
    });
    subject.close();
  }

  void measureRemovals(Subject& subject, std::uint64_t next, std::uint64_t end) {
    const char* store = subject.kind().name;
    Measurement& removals = measurements_[{"remove", store, subject.manner()}];
    removals.run(std::chrono::hours(1), 0, end - next, [&] {
      subject.call(true, [&](Peer& peer) { peers::require(peer.remove(Records::key(next++)), store, "remove"); });
    });
  }

  void tell(const Name& name, Measurement& measurement) const {
    std::puts(nlohmann::json{{"records", records_},
                             {"size", options_.size},
                             {"what", name.what},
                             {"store", name.store},
                             {"manner", name.manner},
                             {"runs", measurement.runs()},
                             {"median", measurement.quantile(0.5)},
                             {"p99", measurement.quantile(0.99)},
                             {"longest", measurement.quantile(1)}}
                  .dump()
                  .c_str());
    std::fflush(stdout);
  }

  const Options& options_;
  std::uint64_t records_;
  Records make_;
  Floor floor_;
  std::vector<Subject> subjects_;
  std::map<Name, Measurement> measurements_;
  std::mt19937_64 random_{1};
};

// Several processes insert into one store for a while. Each writes its times into memory that it shares with us.
class Writers {
 public:
  Writers(const Options& options, unsigned count) : options_(options), count_(count) {}

  void run(const Kind& kind) {
    const fs::path directory = options_.directory / ("writers." + std::string(kind.name));
    fs::create_directories(directory);
    kind.open(directory, true);
    auto* logs = static_cast<Log*>(
        mmap(nullptr, count_ * sizeof(Log), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    peers::require(logs != MAP_FAILED, kind.name, "memory");
    std::vector<pid_t> children;
    for (unsigned writer = 0; writer < count_; ++writer) {
      const pid_t child = fork();
      peers::require(child >= 0, kind.name, "fork");
      if (child == 0) _exit(work(kind, directory, writer, logs[writer]) ? 0 : 1);
      children.push_back(child);
    }
    bool isWhole = true;
    for (const pid_t child : children) {
      int status = -1;
      waitpid(child, &status, 0);
      isWhole = isWhole && status == 0;
    }
    peers::require(isWhole, kind.name, "a writer ended early");
    tell(kind, logs);
    munmap(logs, count_ * sizeof(Log));
    fs::remove_all(directory);
  }

 private:
  struct Log {
    std::uint64_t count;
    double times[200000];
  };

  // Nothing may leave the child as an exception: what is to be cleaned up is its parent's.
  bool work(const Kind& kind, const fs::path& directory, unsigned writer, Log& log) const {
    try {
      insertForAWhile(kind, directory, writer, log);
      return true;
    } catch (const std::exception& failure) {
      std::fprintf(stderr, "compare_peers: writer %u: %s\n", writer, failure.what());
      return false;
    }
  }

  void insertForAWhile(const Kind& kind, const fs::path& directory, unsigned writer, Log& log) const {
    const Records make(options_.size);
    const std::string data = make.data(writer);
    const auto end = std::chrono::steady_clock::now() + milliseconds(options_.budget * 100);
    for (auto start = std::chrono::steady_clock::now(); start < end && log.count < std::size(log.times);) {
      const std::string key = std::to_string(writer) + "." + Records::key(log.count);
      peers::require(kind.open(directory, true)->insert(key, data), kind.name, "insert");
      const auto now = std::chrono::steady_clock::now();
      log.times[log.count++] = std::chrono::duration<double, std::micro>(now - start).count();
      start = now;
    }
  }

  void tell(const Kind& kind, const Log* logs) const {
    Measurement all;
    std::uint64_t least = UINT64_MAX;
    for (unsigned writer = 0; writer < count_; ++writer) {
      for (std::uint64_t run = 0; run < logs[writer].count; ++run) {
        const std::chrono::nanoseconds time(static_cast<std::int64_t>(logs[writer].times[run] * 1000));
        all.add(time);
      }
      least = std::min(least, logs[writer].count);
    }
    const double seconds = options_.budget * 0.1;
    std::puts(nlohmann::json{{"writers", count_},
                             {"size", options_.size},
                             {"what", "insert"},
                             {"store", kind.name},
                             {"manner", "per call"},
                             {"per_second", static_cast<double>(all.runs()) / seconds},
                             {"least_of_a_writer", least},
                             {"median", all.quantile(0.5)},
                             {"p99", all.quantile(0.99)},
                             {"longest", all.quantile(1)}}
                  .dump()
                  .c_str());
    std::fflush(stdout);
  }

  const Options& options_;
  unsigned count_;
};

// Removed at the end, also when a store ends the program.
struct Scratch {
  fs::path path;
  explicit Scratch(const fs::path& within) : path(within / ("compare_peers." + std::to_string(getpid()))) {
    fs::create_directories(path);
  }
  ~Scratch() { fs::remove_all(path); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
};

void run(Options options, const std::vector<std::string>& chosen) {
  const Scratch scratch(fs::absolute(options.directory));
  options.directory = scratch.path;
  std::vector<Kind> kinds = peers::all();
  std::erase_if(kinds, [&](const Kind& kind) {
    return !chosen.empty() && std::find(chosen.begin(), chosen.end(), kind.name) == chosen.end();
  });
  for (const unsigned writers : options.writers) {
    std::fprintf(stderr, "   %u writers\n", writers);
    for (const Kind& kind : kinds) {
      if (kind.canBeShared) Writers(options, writers).run(kind);
    }
  }
  if (!options.writers.empty()) return;
  for (const std::uint64_t records : options.records) Comparison(options, records).run(kinds);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::vector<std::string> chosen;
  CLI::App app("Times whole calls of zonmdfile and its peers, in turns; writes a line of JSON for each figure.");
  app.add_option("--directory", options.directory, "where the files are made; the disk that is measured")->required();
  app.add_option("--records", options.records, "numbers of records")->delimiter(',');
  app.add_option("--size", options.size, "bytes of data in a record")->check(CLI::Range(1, 1000000));
  app.add_option("--rounds", options.rounds, "rounds of turns")->check(CLI::Range(1, 1000));
  app.add_option("--milliseconds", options.budget, "for each call of a store in each round")
      ->check(CLI::Range(1, 10000));
  app.add_option("--writers", options.writers, "numbers of writing processes, instead of the calls")->delimiter(',');
  app.add_option("--stores", chosen, "only these")->delimiter(',');
  CLI11_PARSE(app, argc, argv);
  try {
    run(options, chosen);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "compare_peers: %s\n", failure.what());
    return 1;
  }
  return 0;
}
