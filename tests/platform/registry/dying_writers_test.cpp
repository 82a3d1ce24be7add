// Writers that die while others work. What a reader answers after a death stays true: a change took effect before its
// writer's death, or it never does. Each writer has a group of its own, and tells over a pipe what it is about to do
// and what is done.
//
// ZON_KILLS sets how often a writer is killed, ZON_KILL_SEED the seed of the moments, which is printed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/registry/harness/test_records.h"
#include "support/evidence.h"
#include "support/told_numbers.h"

namespace zon::test {
namespace {

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

}  // namespace
}  // namespace zon::test
