// What does an exported call cost, beside the bare system calls that the same work needs, and how does it grow with the
// file?
//
// One table for each file size given (default 100, 10000 and 1000000 records of 200 bytes of data): median microseconds
// of a retrieve, insert, update, remove and listing through the exported functions, the system-call floor measured in
// the same run on the same file system, and their ratio. Excluded: loading the file, which is done in memory (/dev/shm)
// and copied.
//
// Usage: calls_report [--directory DIR] [RECORDS...]
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "zonmdfile/platform/admin.h"
#include "zonmdfile/platform/oss.h"
#include "zonmdfile/zonmdfile.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::size_t DATA_SIZE = 200;
constexpr const char* FILE_NAME = "zoncustomtree";

double microseconds(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::micro>(to - from).count();
}

// The median time of one run of `work`.
double median(int runs, const std::function<void(int)>& work) {
  std::vector<double> times;
  for (int run = 0; run < runs; ++run) {
    const auto start = Clock::now();
    work(run);
    times.push_back(microseconds(start, Clock::now()));
  }
  std::nth_element(times.begin(), times.begin() + runs / 2, times.end());
  return times[static_cast<std::size_t>(runs / 2)];
}

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "calls_report: %s failed\n", what);
  std::exit(1);
}

std::string keyOf(std::uint64_t number) {
  char key[24];
  std::snprintf(key, sizeof key, "tree%09llu", static_cast<unsigned long long>(number));
  return key;
}

std::string dataOf(std::uint64_t number) {
  std::string data = "value of record " + std::to_string(number) + ' ';
  while (data.size() < DATA_SIZE) data += static_cast<char>('a' + (data.size() * 7 + number) % 26);
  return data.substr(0, DATA_SIZE);
}

int callWithData(void (*entry)(void*, void**, struct sqlca*), const std::string& key, const std::string& data) {
  zonInputCell inputs[3] = {{0, key.c_str()}, {0, data.c_str()}, {0, "1"}};
  std::int32_t rc = -1;
  void* block[4] = {&inputs[0], &inputs[1], &inputs[2], &rc};
  struct sqlca sqlca;
  entry(nullptr, block, &sqlca);
  return rc;
}

int callRemove(const std::string& key) {
  zonInputCell input = {0, key.c_str()};
  std::int32_t rc = -1;
  void* block[2] = {&input, &rc};
  struct sqlca sqlca;
  MDCustomTree_remove(nullptr, block, &sqlca);
  return rc;
}

int callRetrieve(const std::string& key) {
  zonInputCell input = {0, key.c_str()};
  zonOutputCell outputs[2] = {};
  std::int32_t rc = -1;
  void* block[4] = {&input, &rc, &outputs[0], &outputs[1]};
  struct sqlca sqlca;
  MDCustomTree_retrieve(nullptr, block, &sqlca);
  for (zonOutputCell& output : outputs)
    _ossMemFree(reinterpret_cast<void**>(&output.text), 0, 0, "calls_report", __LINE__);
  return rc;
}

int callRetrieveAll(std::uint64_t& bytes) {
  zonOutputCell outputs[3] = {};
  std::int32_t rc = -1;
  void* block[4] = {&rc, &outputs[0], &outputs[1], &outputs[2]};
  struct sqlca sqlca;
  MDCustomTree_retrieveAll(nullptr, block, &sqlca);
  bytes = std::uint64_t{outputs[0].length} + outputs[1].length + outputs[2].length;
  for (zonOutputCell& output : outputs)
    _ossMemFree(reinterpret_cast<void**>(&output.text), 0, 0, "calls_report", __LINE__);
  return rc;
}

std::uint64_t bytesWritten() {
  std::ifstream counters("/proc/self/io");
  std::string name;
  std::uint64_t value = 0;
  while (counters >> name >> value) {
    if (name == "wchar:") return value;
  }
  return 0;
}

void load(const fs::path& directory, std::uint64_t records) {
  const fs::path memory = fs::path("/dev/shm") / ("calls_report." + std::to_string(getpid()));
  fs::create_directories(memory);
  setMetadataPath(memory.c_str());
  for (std::uint64_t number = 0; number < records; ++number) {
    require(callWithData(MDCustomTree_insert, keyOf(number), dataOf(number)) == 0, "loading");
  }
  for (const auto& entry : fs::directory_iterator(memory))
    fs::copy_file(entry.path(), directory / entry.path().filename());
  fs::remove_all(memory);
  setMetadataPath(directory.c_str());
  sync();
}

double floorOfRetrieve(const fs::path& file, std::uint64_t size, std::mt19937_64& random) {
  return median(20000, [&](int) {
    char bytes[512];
    const int opened = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    for (int part = 0; part < 2; ++part) {
      require(pread(opened, bytes, sizeof bytes, static_cast<off_t>(random() % (size - sizeof bytes))) > 0, "pread");
    }
    close(opened);
  });
}

double floorOfWrite(const fs::path& directory, int runs) {
  const fs::path file = directory / "floor";
  const int made = open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  require(posix_fallocate(made, 0, 16 << 20) == 0 && fsync(made) == 0, "reserving");
  close(made);
  char bytes[256] = {'x'};
  const double time = median(runs, [&](int run) {
    const int opened = open(file.c_str(), O_RDWR | O_CLOEXEC);
    flock(opened, LOCK_EX);
    require(pwrite(opened, bytes, sizeof bytes, 4096 + run * 256) > 0 && fdatasync(opened) == 0, "writing");
    flock(opened, LOCK_UN);
    close(opened);
  });
  fs::remove(file);
  return time;
}

double floorOfListing(const fs::path& file, std::uint64_t resultBytes, int runs) {
  return median(runs, [&](int) {
    std::vector<char> window(256 * 1024);
    void* results[3] = {};
    for (void*& result : results) _ossMemAlloc(&result, 0, resultBytes, 1, "calls_report", __LINE__);
    const int opened = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    std::uint64_t at = 0;
    for (ssize_t got = 0; (got = read(opened, window.data(), window.size())) > 0;) {
      const std::uint64_t count = std::min<std::uint64_t>(static_cast<std::uint64_t>(got), resultBytes - at);
      std::memcpy(static_cast<char*>(results[0]) + at, window.data(), count);
      at += count;
    }
    close(opened);
    for (void*& result : results) _ossMemFree(&result, 0, 0, "calls_report", __LINE__);
  });
}

void row(const char* what, double time, double floor) {
  std::printf("  %-26s %12.2f us   floor %12.2f us   ratio %5.2f\n", what, time, floor, time / floor);
  std::fflush(stdout);
}

void report(const fs::path& directory, std::uint64_t records) {
  fs::create_directories(directory);
  load(directory, records);
  const fs::path file = directory / FILE_NAME;
  const std::uint64_t size = fs::file_size(file);
  const std::uint64_t payload = records * (DATA_SIZE + keyOf(0).size() + 1);
  std::printf("%llu records: %llu bytes, %.2f times keys, data and versions\n",
              static_cast<unsigned long long>(records), static_cast<unsigned long long>(size),
              static_cast<double>(size) / static_cast<double>(payload));
  std::mt19937_64 random(1);
  const double readFloor = floorOfRetrieve(file, size, random);
  row("retrieve", median(20000, [&](int) { require(callRetrieve(keyOf(random() % records)) == 0, "retrieve"); }),
      readFloor);
  constexpr int WRITES = 600;
  const double writeFloor = floorOfWrite(directory, WRITES);
  const std::uint64_t before = bytesWritten();
  row("insert",
      median(WRITES,
             [&](int run) {
               const auto number = records + static_cast<std::uint64_t>(run);
               require(callWithData(MDCustomTree_insert, keyOf(number), dataOf(number)) == 0, "insert");
             }),
      writeFloor);
  std::printf("  bytes written per insert   %12llu\n",
              static_cast<unsigned long long>((bytesWritten() - before) / WRITES));
  row("update",
      median(WRITES,
             [&](int run) {
               const std::string key = keyOf(random() % records);
               require(callWithData(MDCustomTree_update, key, dataOf(records + static_cast<std::uint64_t>(run))) == 0,
                       "update");
             }),
      writeFloor);
  row("remove",
      median(WRITES,
             [&](int run) { require(callRemove(keyOf(records + static_cast<std::uint64_t>(run))) == 0, "remove"); }),
      writeFloor);
  row("floor of writes, once more", floorOfWrite(directory, WRITES), writeFloor);
  std::uint64_t bytes = 0;
  const int listings = records > 100000 ? 5 : 30;
  const double listing = median(listings, [&](int) { require(callRetrieveAll(bytes) == 0, "listing"); });
  row("listing of all", listing, floorOfListing(file, bytes, listings));
}

}  // namespace

int main(int argc, char** argv) {
  fs::path base = ".";
  std::vector<std::uint64_t> sizes;
  for (int at = 1; at < argc; ++at) {
    if (std::strcmp(argv[at], "--directory") == 0 && at + 1 < argc) {
      base = argv[++at];
    } else {
      sizes.push_back(std::strtoull(argv[at], nullptr, 10));
    }
  }
  if (sizes.empty()) sizes = {100, 10000, 1000000};
  for (const std::uint64_t records : sizes) {
    if (records == 0) {
      std::fprintf(stderr, "usage: calls_report [--directory DIR] [RECORDS...]\n");
      return 2;
    }
    const fs::path directory = base / ("calls_report." + std::to_string(getpid()) + "." + std::to_string(records));
    report(fs::absolute(directory), records);
    fs::remove_all(directory);
  }
  return 0;
}
