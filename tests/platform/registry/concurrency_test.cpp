// Processes and threads that change one file at once, and writers that are killed. An outside oracle, told over pipes
// of every intention and every acknowledgement, knows what must be there.
//
// ZON_KILLS sets how often a writer is killed, ZON_KILL_SEED the seed of the moments, which is printed.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "platform/registry/harness/store_in_memory.h"
#include "platform/registry/harness/test_records.h"
#include "support/evidence.h"
#include "support/told_numbers.h"

namespace zon::test {
namespace {

class ManyAtOnce : public ::testing::Test, protected StoreInMemory {
 protected:
  const SettingScope<std::size_t> small_{largestData, 8192};
};

// What every writer does: adds, changes each record's two halves together, removes some. A reader that sees halves of
// different rounds has seen what never was committed.
bool writeRounds(const std::filesystem::path& folder, const std::string& group, int rounds) {
  TestStore store(folder);
  for (int round = 0; round < rounds; ++round) {
    const std::string key = numbered("k", round % 10);
    const std::string half =
        std::string(static_cast<std::size_t>(round * 37 % 700), static_cast<char>('a' + round % 26));
    const Value value{group, key, half + '|' + half};
    std::uint32_t rc = store.add(value);
    if (rc == GENREG_RC_DUPLICATE_KEY) rc = store.change(value);
    if (rc != MD_RC_OK && rc != GENREG_RC_NO_CHANGE) return false;
    if (round % 7 == 6 && store.remove(group, key) != MD_RC_OK) return false;
    if (round % 31 == 30 && store.removeAll(group, "", GROUP) != MD_RC_OK) return false;
  }
  return true;
}

bool isWhole(const Value& value) {
  const std::size_t middle = value.data.find('|');
  return middle != std::string::npos && value.data.substr(0, middle) == value.data.substr(middle + 1);
}

bool readUntil(const std::filesystem::path& folder, const std::atomic<bool>& done) {
  TestStore store(folder);
  while (!done) {
    std::uint32_t rc = MD_RC_OK;
    std::set<std::pair<std::string, std::string>> keys;
    for (const Value& value : store.list(0, {}, &rc)) {
      if (!isWhole(value) || !keys.emplace(value.group, value.key).second) return false;
    }
    if (rc != MD_RC_OK) return false;
    Value value;
    rc = store.get("w1", "k1", value);
    if (rc != GENREG_RC_NOT_FOUND && (rc != MD_RC_OK || !isWhole(value) || value.key != "k1")) return false;
    for (const Value& member : store.list(GROUP, {"w0", "", ""}, &rc)) {
      if (member.group != "w0" || !isWhole(member)) return false;
    }
    if (rc != MD_RC_OK) return false;
  }
  return true;
}

// The last form of every record that writeRounds leaves.
std::map<std::string, std::string> leftBy(int rounds) {
  std::map<std::string, std::string> left;
  for (int round = 0; round < rounds; ++round) {
    const std::string half =
        std::string(static_cast<std::size_t>(round * 37 % 700), static_cast<char>('a' + round % 26));
    left[numbered("k", round % 10)] = half + '|' + half;
    if (round % 7 == 6) left.erase(numbered("k", round % 10));
    if (round % 31 == 30) left.clear();
  }
  return left;
}

TEST_F(ManyAtOnce, ThreadsAndProcessesLeaveWhatEachOfThemWrote) {
  constexpr int ROUNDS = 300;
  constexpr int PROCESSES = 2;
  constexpr int THREADS = 2;
  std::vector<pid_t> children;
  for (int number = 0; number < PROCESSES; ++number) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(120);
      _exit(writeRounds(folder_.path(), numbered("w", number), ROUNDS) ? 0 : 1);
    }
    children.push_back(child);
  }
  std::atomic<bool> done{false};
  std::atomic<int> failures{0};
  std::vector<std::thread> writers;
  std::vector<std::thread> readers;
  for (int number = 0; number < THREADS; ++number) {
    writers.emplace_back([&, number] {
      if (!writeRounds(folder_.path(), numbered("w", PROCESSES + number), ROUNDS)) ++failures;
    });
    readers.emplace_back([&] {
      if (!readUntil(folder_.path(), done)) ++failures;
    });
  }
  for (std::thread& writer : writers) writer.join();
  for (const pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  done = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(failures, 0);
  for (int number = 0; number < PROCESSES + THREADS; ++number) {
    std::map<std::string, std::string> found;
    for (const Value& value : store_.list(GROUP, {numbered("w", number), "", ""})) found[value.key] = value.data;
    EXPECT_EQ(found, leftBy(ROUNDS)) << number;
  }
  GenRegStatus status;
  ASSERT_EQ(store_.status(status), MD_RC_OK);
  EXPECT_EQ(status.damaged, 0u);
  EXPECT_EQ(status.repairs, 0u);
  EXPECT_EQ(status.records, store_.list().size());
}

// A writer tells "I" before and "A" after each change of number n.
[[noreturn]] void writeAndTell(const std::filesystem::path& folder, int pipe, int from) {
  TestStore store(folder);
  const auto tell = [pipe](char what, int number) {
    const std::string line = what + std::to_string(number) + '\n';
    if (write(pipe, line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(3);
  };
  for (int number = from;; ++number) {
    tell('I', number);
    std::uint32_t rc = MD_RC_OK;
    const std::string data(static_cast<std::size_t>(number * 13 % 900), 'x');
    if (number % 11 == 10) {
      // A batch: of one that is killed a prefix stays.
      rc = store.beginBatch();
      for (int part = 0; part < 5; ++part) rc |= store.add({numbered("batch", number), numbered("p", part), data});
      // That of two batches ago may be missing: its writer may have been killed.
      const std::uint32_t removed = store.removeAll(numbered("batch", number - 22), "", GROUP);
      if (removed != GENREG_RC_NOT_FOUND) rc |= removed;
      rc |= store.commitBatch();
    } else {
      rc = store.add({"single", numbered("k", number), data});
      if (rc == MD_RC_OK && number % 3 == 0) rc = store.change({"churn", "k", std::to_string(number)});
    }
    if (rc != MD_RC_OK) {
      tell('F', static_cast<int>(rc & 0xFFF));
      _exit(2);
    }
    tell('A', number);
  }
}

TEST_F(ManyAtOnce, KilledWritersLoseNothingThatTheyAcknowledged) {
  const int kills = zontest::toldNumber("ZON_KILLS", 200);
  const std::uint64_t seed = zontest::toldSeed("ZON_KILL_SEED");
  std::mt19937_64 random(seed);
  ASSERT_EQ(store_.add({"churn", "k", "0"}), MD_RC_OK);
  std::set<int> acknowledged;
  int next = 1;
  for (int kill = 0; kill < kills; ++kill) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
      close(ends[0]);
      writeAndTell(folder_.path(), ends[1], next);
    }
    close(ends[1]);
    std::this_thread::sleep_for(std::chrono::microseconds(500 + random() % 8000));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    std::string lines;
    char piece[4096];
    for (ssize_t got = 0; (got = read(ends[0], piece, sizeof piece)) > 0;)
      lines.append(piece, static_cast<std::size_t>(got));
    close(ends[0]);
    int intended = 0;
    std::size_t at = 0;
    while (at < lines.size()) {
      const std::size_t end = lines.find('\n', at);
      if (end == std::string::npos) break;
      const int number = std::atoi(lines.c_str() + at + 1);
      ASSERT_NE(lines[at], 'F') << "a change answers " << number;
      if (lines[at] == 'I') intended = number;
      if (lines[at] == 'A') acknowledged.insert(number);
      at = end + 1;
    }
    next = std::max(next, intended + 1);
    // Usable at once, by somebody who would not wait for a lock.
    store_.setLockWait(0);
    ASSERT_EQ(store_.add({"after", numbered("kill", kill), "x"}), MD_RC_OK) << kill;
    if (kill % 20 != 19 && kill + 1 != kills) continue;
    std::set<std::string> singles;
    std::map<std::string, int> batches;
    std::uint32_t rc = MD_RC_OK;
    for (const Value& value : store_.list(0, {}, &rc)) {
      if (value.group == "single") singles.insert(value.key);
      if (value.group.starts_with("batch")) ++batches[value.group];
    }
    ASSERT_EQ(rc, MD_RC_OK);
    for (const int number : acknowledged) {
      if (number % 11 != 10) {
        ASSERT_TRUE(singles.contains(numbered("k", number))) << number << " was acknowledged";
      } else if (!batches.contains(numbered("batch", number))) {
        // Given up by the batch after the next, if that one was begun.
        ASSERT_LT(number + 22, next) << "batch " << number << " was acknowledged";
      }
    }
  }
  GenRegStatus status;
  ASSERT_EQ(store_.status(status), MD_RC_OK);
  EXPECT_EQ(status.damaged, 0u);
  EXPECT_EQ(status.repairs, 0u);
  std::cout << "kills " << kills << ", acknowledged changes " << acknowledged.size() << '\n';
  zontest::tellEvidence("kills", static_cast<std::uint64_t>(kills), seed);
}

TEST_F(ManyAtOnce, KilledReadersLeaveNothing) {
  for (int at = 0; at < 50; ++at) ASSERT_EQ(store_.add({"g", numbered("k", at), "x"}), MD_RC_OK);
  std::set<std::string> before;
  for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) before.insert(entry.path());
  const auto size = std::filesystem::file_size(folder_.file());
  for (int kill = 0; kill < 20; ++kill) {
    const pid_t child = fork();
    if (child == 0) {
      TestStore store(folder_.path());
      for (;;) store.list();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    ::kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
  }
  std::set<std::string> after;
  for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) after.insert(entry.path());
  EXPECT_EQ(after, before);
  EXPECT_EQ(std::filesystem::file_size(folder_.file()), size);
  store_.setLockWait(0);
  EXPECT_EQ(store_.add({"g", "next", "x"}), MD_RC_OK);
}

}  // namespace
}  // namespace zon::test
