// Many processes and threads on one store through the exported functions, and writers killed at random moments.
//
// The rule: what must be there is known outside the process that may die: it tells of every acknowledged insert through
// a pipe.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/cells.h"
#include "support/metadata_test.h"

namespace zontest {
namespace {

constexpr char LIST_SEPARATOR = 0x0E;

std::int32_t insert(const std::string& key, const std::string& data) {
  Call call;
  return call.in(key).in(data).in("1").rc().run(MDCustomTree_insert).rcCell(3);
}

// Keys and data of all records, entry by entry; empty when there is none.
struct Listing {
  std::vector<std::string> keys;
  std::vector<std::string> data;
};

std::vector<std::string> entriesOf(const std::string& list) {
  std::vector<std::string> entries;
  for (std::size_t start = 0; start < list.size();) {
    const std::size_t end = list.find(LIST_SEPARATOR, start);
    entries.push_back(list.substr(start, end - start));
    start = end + 1;
  }
  return entries;
}

// SQLCODE of the listing; -22273 means that there is no record.
std::int32_t listAll(Listing& listing) {
  Call call;
  call.rc().out().out().out().run(MDCustomTree_retrieveAll);
  if (call.rcCell(0) == 0) listing = Listing{entriesOf(call.textAt(1)), entriesOf(call.textAt(2))};
  return call.rcCell(0);
}

std::string dataFor(const std::string& key) { return "the data of " + key; }

// Each key once, with its own data, and everything that was seen before still there, in the same order.
bool isConsistent(const Listing& listing, const Listing& before) {
  if (listing.keys.size() != listing.data.size() || listing.keys.size() < before.keys.size()) return false;
  if (!std::equal(before.keys.begin(), before.keys.end(), listing.keys.begin())) return false;
  for (std::size_t at = 0; at < listing.keys.size(); ++at) {
    if (listing.data[at] != dataFor(listing.keys[at])) return false;
  }
  return std::set<std::string>(listing.keys.begin(), listing.keys.end()).size() == listing.keys.size();
}

// The child's exit code is what body returns.
template <class Body>
pid_t runInChild(Body body) {
  const pid_t child = fork();
  if (child == 0) _exit(body());
  return child;
}

int exitCodeOf(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

using ManyProcesses = MetadataTest;

constexpr int WRITERS = 4;
constexpr int THREADS = 2;
constexpr int INSERTS = 1000;

int insertByThreads(int process) {
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < THREADS; ++thread) {
    threads.emplace_back([&failures, process, thread] {
      for (int number = 0; number < INSERTS; ++number) {
        const std::string key =
            "p" + std::to_string(process) + "t" + std::to_string(thread) + "n" + std::to_string(number);
        if (insert(key, dataFor(key)) != 0) ++failures;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  return failures == 0 ? 0 : 1;
}

// Lists until it sees all records; 1 for a listing that is not one state of the store.
int readUntilComplete() {
  Listing before;
  for (;;) {
    Listing listing;
    const std::int32_t sqlcode = listAll(listing);
    if (sqlcode != 0 && !(sqlcode == -22273 && before.keys.empty())) return 2;
    if (!isConsistent(listing, before)) return 1;
    if (listing.keys.size() == std::size_t{WRITERS} * THREADS * INSERTS) return 0;
    before = std::move(listing);
  }
}

TEST_F(ManyProcesses, LoseNoInsertAndReadOnlyWholeStates) {
  std::vector<pid_t> writers;
  for (int process = 0; process < WRITERS; ++process) {
    writers.push_back(runInChild([process] { return insertByThreads(process); }));
  }
  const std::vector<pid_t> readers = {runInChild(readUntilComplete), runInChild(readUntilComplete)};
  for (const pid_t writer : writers) EXPECT_EQ(exitCodeOf(writer), 0);
  for (const pid_t reader : readers) EXPECT_EQ(exitCodeOf(reader), 0);
  Listing listing;
  ASSERT_EQ(listAll(listing), 0);
  EXPECT_EQ(listing.keys.size(), std::size_t{WRITERS} * THREADS * INSERTS);
  EXPECT_TRUE(isConsistent(listing, {}));
}

std::string keyFor(int round, int number) { return "r" + std::to_string(round) + "n" + std::to_string(number); }

// Inserts for ever; writes the number of each acknowledged insert to the pipe.
[[noreturn]] void insertAndTell(int round, int pipe) {
  for (int number = 0;; ++number) {
    const std::string key = keyFor(round, number);
    if (insert(key, dataFor(key)) != 0) _exit(1);
    if (write(pipe, &number, sizeof number) != static_cast<ssize_t>(sizeof number)) _exit(2);
  }
}

TEST_F(ManyProcesses, KillingAWriterLosesNothingAcknowledged) {
  std::mt19937 random(20);
  std::vector<std::string> acknowledged;
  for (int round = 0; round < 200; ++round) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t writer = fork();
    if (writer == 0) insertAndTell(round, ends[1]);
    close(ends[1]);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 8000));
    kill(writer, SIGKILL);
    int status = 0;
    waitpid(writer, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer gave up in round " << round;
    int next = 0;
    for (int number; read(ends[0], &number, sizeof number) == static_cast<ssize_t>(sizeof number); next = number + 1) {
      acknowledged.push_back(keyFor(round, number));
    }
    close(ends[0]);
    // Usable at once: by a reader, who finds everything, and by a writer.
    Listing listing;
    const std::int32_t sqlcode = listAll(listing);
    ASSERT_TRUE(sqlcode == 0 || (sqlcode == -22273 && acknowledged.empty())) << "round " << round << ": " << sqlcode;
    ASSERT_TRUE(isConsistent(listing, {})) << "round " << round;
    const std::set<std::string> keys(listing.keys.begin(), listing.keys.end());
    for (const std::string& key : acknowledged) ASSERT_TRUE(keys.contains(key)) << key << " is lost, round " << round;
    // The client tries again what it does not find: that the insert was under way must not come out later.
    const std::string unsure = keyFor(round, next);
    ASSERT_EQ(insert(unsure, dataFor(unsure)), keys.contains(unsure) ? -22272 : 0) << "round " << round;
  }
  EXPECT_FALSE(acknowledged.empty());
}

}  // namespace
}  // namespace zontest
