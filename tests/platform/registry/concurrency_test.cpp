// Processes and threads that change one file at once, and writers that are killed. An outside oracle, told over pipes
// of every intention and every acknowledgement, knows what must be there.
//
// ZON_KILLS sets how often a writer is killed, ZON_KILL_SEED the seed of the moments, which is printed.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "platform/registry/harness/test_records.h"
#include "support/evidence.h"
#include "support/told_numbers.h"

namespace zon::test {
namespace {

class ManyAtOnce : public ::testing::Test {
 protected:
  const SettingScope<std::size_t> small_{largestData, 8192};
  TestFolder folder_{inMemory()};
  TestStore store_{folder_.path()};
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

// ---- Writers that die while others work. What a reader answers after a death stays true: a change took effect before
// its writer's death, or it never does.

enum class Deed : char { INSERT, UPDATE, REMOVE, BATCH };

// What a writer is about to do, and then once more that it is done.
struct Message {
  bool isDone = false;
  Deed deed = Deed::INSERT;
  int key = 0;    // of BATCH: the first of BATCH_SIZE
  int round = 0;  // tells the data
};
constexpr std::size_t MOST_RECORDS = 120;
constexpr int BATCH_SIZE = 30;  // two heads each: more than a slot holds

using Model = std::map<std::string, std::string>;

std::string keyOf(int key) { return numbered("k", key); }
std::string dataOf(int key, int round) {
  return std::to_string(round) + std::string(static_cast<std::size_t>((key * 31 + round * 7) % 400), 'd');
}

// One writer's group, as its writer left it and as its next writer finds it.
struct Share {
  std::string group;
  Model model;
  int nextKey = 0;
  int round = 0;

  // The states that the deed leads through, the one before it among them.
  std::vector<Model> statesOf(const Message& message) const {
    std::vector<Model> states{model};
    const int count = message.deed == Deed::BATCH ? BATCH_SIZE : 1;
    for (int part = 0; part < count; ++part) {
      states.push_back(states.back());
      apply(message, part, states.back());
    }
    return states;
  }

  static void apply(const Message& message, int part, Model& model) {
    if (message.deed == Deed::REMOVE) {
      model.erase(keyOf(message.key));
    } else {
      model[keyOf(message.key + part)] = dataOf(message.key + part, message.round);
    }
  }

  Message choose(std::mt19937& random) {
    Message message{.round = ++round};
    const unsigned toss = model.size() > MOST_RECORDS ? 15 : random() % 16;
    message.deed = toss == 0                   ? Deed::BATCH
                   : toss < 8 || model.empty() ? Deed::INSERT
                   : toss < 12                 ? Deed::UPDATE
                                               : Deed::REMOVE;
    message.key = nextKey;
    if (message.deed == Deed::UPDATE || message.deed == Deed::REMOVE) {
      auto at = model.begin();
      std::advance(at, static_cast<std::ptrdiff_t>(random() % model.size()));
      message.key = std::atoi(at->first.c_str() + 1);
    }
    return message;
  }

  void note(const Message& message) {
    nextKey = std::max(nextKey, message.key + (message.deed == Deed::BATCH ? BATCH_SIZE : 1));
    round = message.round;
    if (!message.isDone) return;
    const int count = message.deed == Deed::BATCH ? BATCH_SIZE : 1;
    for (int part = 0; part < count; ++part) apply(message, part, model);
  }

  std::uint32_t perform(TestStore& store, const Message& message) const {
    const Value value{group, keyOf(message.key), dataOf(message.key, message.round)};
    if (message.deed == Deed::INSERT) return store.add(value);
    if (message.deed == Deed::UPDATE) return store.change(value);
    if (message.deed == Deed::REMOVE) return store.remove(value.group, value.key);
    std::uint32_t rc = store.beginBatch();
    for (int key = message.key; key < message.key + BATCH_SIZE && rc == MD_RC_OK; ++key) {
      rc = store.add({group, keyOf(key), dataOf(key, message.round)});
    }
    return rc == MD_RC_OK ? store.commitBatch() : rc;
  }
};

[[noreturn]] void workAndTell(const std::filesystem::path& folder, Share share, unsigned seed, int pipe) {
  std::mt19937 random(seed);
  TestStore store(folder);
  for (;;) {
    Message message = share.choose(random);
    if (write(pipe, &message, sizeof message) != static_cast<ssize_t>(sizeof message)) _exit(3);
    if (share.perform(store, message) != MD_RC_OK) _exit(2);
    message.isDone = true;
    share.note(message);
    if (write(pipe, &message, sizeof message) != static_cast<ssize_t>(sizeof message)) _exit(3);
  }
}

class DyingWriters : public ::testing::Test {
 protected:
  static constexpr std::size_t WRITERS = 3;

  DyingWriters() {
    for (std::size_t number = 0; number < WRITERS; ++number) {
      writers_[number].share.group = numbered("w", static_cast<int>(number));
    }
  }
  ~DyingWriters() override {
    for (Writer& writer : writers_) end(writer);
  }

  struct Writer {
    Share share;
    pid_t process = -1;
    int pipe = -1;
  };

  void start(Writer& writer) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const auto seed = static_cast<unsigned>(random_());
    writer.process = fork();
    if (writer.process == 0) {
      close(ends[0]);
      workAndTell(folder_.path(), writer.share, seed, ends[1]);
    }
    close(ends[1]);
    writer.pipe = ends[0];
  }

  // Kills it; false when it had given up before.
  static bool end(Writer& writer) {
    if (writer.process < 0) return true;
    ::kill(writer.process, SIGKILL);
    int status = 0;
    waitpid(writer.process, &status, 0);
    writer.process = -1;
    return WIFSIGNALED(status);
  }

  Model listOf(const Share& share) {
    std::uint32_t rc = MD_RC_OK;
    Model found;
    for (const Value& value : store_.list(GROUP, {share.group, "", ""}, &rc)) found[value.key] = value.data;
    EXPECT_EQ(rc, MD_RC_OK);
    return found;
  }

  // Takes over what the dead writer told; what it had begun last stays open.
  std::vector<Model> statesLeftBy(Writer& writer) {
    last_ = Message{.isDone = true};
    Message message;
    while (read(writer.pipe, &message, sizeof message) == static_cast<ssize_t>(sizeof message)) {
      writer.share.note(message);
      last_ = message;
    }
    close(writer.pipe);
    return last_.isDone ? std::vector<Model>{writer.share.model} : writer.share.statesOf(last_);
  }

  void killAndCheck(Writer& writer) {
    ASSERT_TRUE(end(writer)) << "the writer of " << writer.share.group << " gave up";
    const std::vector<Model> states = statesLeftBy(writer);
    const Model seen = listOf(writer.share);
    ASSERT_NE(std::find(states.begin(), states.end(), seen), states.end())
        << writer.share.group << " has " << seen.size() << " records, acknowledged were " << states.front().size();
    // The client tries again what it does not find.
    if (!last_.isDone && last_.deed == Deed::INSERT) {
      const bool isThere = seen.contains(keyOf(last_.key));
      const std::uint32_t rc = writer.share.perform(store_, last_);
      ASSERT_EQ(rc, isThere ? GENREG_RC_DUPLICATE_KEY : MD_RC_OK)
          << "after a reader " << (isThere ? "saw" : "missed") << " it";
      writer.share.model = states.back();
      ++retries_;
      return;
    }
    ASSERT_EQ(store_.add({"after", numbered("kill", ++kills_), "x"}), MD_RC_OK);
    ASSERT_EQ(listOf(writer.share), seen) << "somebody else's change brought it in";
    writer.share.model = seen;
  }

  const SettingScope<std::size_t> small_{largestData, 8192};
  TestFolder folder_;
  TestStore store_{folder_.path()};
  std::array<Writer, WRITERS> writers_;
  std::mt19937_64 random_;
  Message last_;
  int kills_ = 0;
  int retries_ = 0;
};

TEST_F(DyingWriters, ChangeNothingAfterTheirDeath) {
  const int kills = zontest::toldNumber("ZON_KILLS", 150);
  const std::uint64_t seed = zontest::toldSeed("ZON_KILL_SEED");
  random_.seed(seed);
  for (Writer& writer : writers_) ASSERT_NO_FATAL_FAILURE(start(writer));
  for (int kill = 0; kill < kills; ++kill) {
    std::this_thread::sleep_for(std::chrono::microseconds(300 + random_() % 6000));
    Writer& writer = writers_[random_() % WRITERS];
    ASSERT_NO_FATAL_FAILURE(killAndCheck(writer)) << "kill " << kill;
    ASSERT_NO_FATAL_FAILURE(start(writer));
  }
  for (Writer& writer : writers_) ASSERT_NO_FATAL_FAILURE(killAndCheck(writer));
  GenRegStatus status{};
  ASSERT_EQ(store_.status(status), MD_RC_OK);
  EXPECT_EQ(status.damaged, 0u);
  EXPECT_EQ(status.repairs, 0u);
  std::cout << "kills " << kills << ", inserts tried again " << retries_ << '\n';
  zontest::tellEvidence("kills", static_cast<std::uint64_t>(kills), seed);
}

// ---- A writer that is stopped while it has the lock.

class AStoppedWriter : public ManyAtOnce {
 protected:
  AStoppedWriter() {
    EXPECT_EQ(store_.add({"g", "before", "x"}), MD_RC_OK);
    EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0);
    writer_ = fork();
    if (writer_ == 0) _exit(holdTheLock());
    char ready = 0;
    EXPECT_EQ(read(ends_[0], &ready, 1), 1);
    ::kill(writer_, SIGSTOP);
    int status = 0;
    EXPECT_EQ(waitpid(writer_, &status, WUNTRACED), writer_);
    EXPECT_TRUE(WIFSTOPPED(status));
  }
  ~AStoppedWriter() override {
    close(ends_[0]);
    close(ends_[1]);
  }

  int holdTheLock() {
    TestStore store(folder_.path());
    std::uint32_t rc = store.beginBatch();
    for (int at = 0; at < BATCH_SIZE; ++at) rc |= store.add({numbered("g", at), "of the stopped", "x"});
    if (write(ends_[1], "r", 1) != 1) return 3;
    // Stopped here, or soon after: the batch stays open until somebody says so.
    raise(SIGSTOP);
    return (rc | store.commitBatch()) == MD_RC_OK ? 0 : 1;
  }

  int end(int signal) {
    ::kill(writer_, signal);
    int status = 0;
    // The second stop is the writer's own.
    while (waitpid(writer_, &status, WUNTRACED) == writer_ && WIFSTOPPED(status)) ::kill(writer_, signal);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  int ends_[2]{};
  pid_t writer_ = -1;
};

TEST_F(AStoppedWriter, HoldsUpNoReader) {
  std::uint32_t rc = MD_RC_OK;
  EXPECT_EQ(store_.list(0, {}, &rc), (Values{{"g", "before", "x"}}));
  EXPECT_EQ(rc, MD_RC_OK);
  EXPECT_EQ(end(SIGCONT), 0);
}

TEST_F(AStoppedWriter, HoldsUpWritersForTheirWaitAndNoLonger) {
  store_.setLockWait(50);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(store_.add({"g", "waits", "x"}), GENREG_RC_LOCK_TIMEOUT);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  EXPECT_EQ(store_.list(), (Values{{"g", "before", "x"}}));
  EXPECT_EQ(end(SIGCONT), 0);
  store_.setLockWait(10000);
  EXPECT_EQ(store_.add({"g", "waits", "x"}), MD_RC_OK);
  EXPECT_EQ(store_.list().size(), static_cast<std::size_t>(BATCH_SIZE) + 2);
}

TEST_F(AStoppedWriter, LeavesNothingWhenItIsKilled) {
  EXPECT_EQ(end(SIGKILL), -1);
  store_.setLockWait(0);
  EXPECT_EQ(store_.add({"g0", "of the stopped", "another"}), MD_RC_OK);
  EXPECT_EQ(store_.list(), (Values{{"g", "before", "x"}, {"g0", "of the stopped", "another"}}));
}

}  // namespace
}  // namespace zon::test
