// Which engine serves a record file: decided by the file itself, at no cost for those of the file engine, and anew at
// every call.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/registry/engine_choice.h"
#include "platform/registry/file_engine.h"
#include "platform/registry/files/system_calls.h"
#include "platform/registry/harness/allocation_faults.h"
#include "platform/registry/harness/memory_engine.h"
#include "platform/registry/harness/stub_file.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

// What a piece of work asks of the system and of the heap.
struct Effort {
  long long calls = 0;
  long long allocations = 0;
  bool operator==(const Effort&) const = default;
};
void PrintTo(const Effort& effort, std::ostream* out) {
  *out << effort.calls << " calls, " << effort.allocations << " allocations";
}

long long callsMade = 0;

// Puts a counter in front of one entry of the table.
template <auto MEMBER, class Result, class... Arguments>
void count(Result (*SystemCalls::*)(Arguments...)) {
  systemCalls.*MEMBER = [](Arguments... arguments) {
    ++callsMade;
    return (realSystemCalls().*MEMBER)(arguments...);
  };
}
template <auto... MEMBERS>
void countAll() {
  (count<MEMBERS>(MEMBERS), ...);
}

void countEveryCall() {
  using C = SystemCalls;
  countAll<&C::openAt, &C::close, &C::duplicateFrom, &C::pread, &C::pwrite, &C::fdatasync, &C::fsync, &C::fallocate,
           &C::ftruncate, &C::seek, &C::flock, &C::statx, &C::renameAt, &C::linkAt, &C::unlinkAt, &C::fchmod,
           &C::fchown, &C::getAttribute, &C::setAttribute, &C::removeAttribute, &C::getResourceLimit, &C::getRandom,
           &C::clockGetTime, &C::sleepFor>();
}

// The least of several times: a file grows now and then.
template <class Work>
Effort effortOf(Work work) {
  constexpr long long NONE = 1LL << 60;
  constexpr int TIMES = 10;
  Effort least{.calls = NONE, .allocations = NONE};
  for (int time = 0; time < TIMES; ++time) {
    callsMade = 0;
    failAllocation(NONE, false);
    work();
    stopFailing();
    least.calls = std::min(least.calls, callsMade);
    least.allocations = std::min(least.allocations, allocationsAsked());
  }
  return least;
}

// The engine's settings, as the store itself hands them over.
class OpenStore : public TestStore {
 public:
  using TestStore::TestStore;
  EngineSettings settings() const { return engineSettings(); }
};

class EngineChoice : public ::testing::Test {
 protected:
  ~EngineChoice() override { systemCalls = realSystemCalls(); }

  TestFolder folder_{inMemory()};
  OpenStore store_{folder_.path()};
};

// The work is done by the file engine alone, then by whichever engine the file calls for.
TEST_F(EngineChoice, CostsTheFileEngineNoCallAndNoAllocation) {
  ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
  for (int at = 0; at < 30; ++at) ASSERT_EQ(store_.add({"g", numbered("k", at), noise(100, 1)}), MD_RC_OK);
  ASSERT_EQ(store_.commitBatch(), MD_RC_OK);
  const auto key = encode({"g", "k3", ""}, true);
  const auto absent = encode({"g", "absent", ""}, true);
  std::vector<std::byte> out(key.size());
  std::uint32_t rc = MD_RC_OK;
  const auto addAndRemove = [&, at = 0](RecordEngine& engine) mutable {
    const auto record = encode({"h", numbered("k", at++), noise(100, 2)});
    rc = engine.add(WHOLE_KEY, record.data());
    return rc == MD_RC_OK ? engine.remove(WHOLE_KEY, record.data(), false) : rc;
  };
  const std::vector<std::pair<const char*, std::function<std::uint32_t(RecordEngine&)>>> works = {
      {"get", [&](RecordEngine& engine) { return engine.get(WHOLE_KEY, key.data(), out.data()); }},
      {"miss", [&](RecordEngine& engine) { return engine.get(WHOLE_KEY, absent.data(), out.data()); }},
      {"add and remove", addAndRemove},
      {"scan", [&](RecordEngine& engine) {
         std::unique_ptr<RecordScan> scan;
         if (const std::uint32_t failed = engine.openScan(scan)) return failed;
         return scan->next(GROUP, key.data(), out.data());
       }}};
  countEveryCall();
  for (const auto& [name, work] : works) {
    const EngineSettings settings = store_.settings();
    const Effort alone = effortOf([&, &task = work] {
      FileEngine engine(settings);
      rc = task(engine);
    });
    const std::uint32_t expected = rc;
    const Effort chosen = effortOf(
        [&, &task = work] { rc = onEngine(settings, [&task](RecordEngine& engine) { return task(engine); }); });
    EXPECT_EQ(rc, expected) << name;
    EXPECT_EQ(chosen, alone) << name;
    EXPECT_GT(alone.calls, 3) << name;
  }
}

TEST_F(EngineChoice, IsMadeAnewAtEachCall) {
  ASSERT_EQ(store_.add({"g", "in the file", "x"}), MD_RC_OK);
  std::filesystem::rename(folder_.file(), folder_.path() / "kept");
  keepInMemory(folder_.file());
  Value value;
  EXPECT_EQ(store_.get("g", "in the file", value), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(store_.add({"g", "in memory", "x"}), MD_RC_OK);
  GenRegStatus status;
  ASSERT_EQ(store_.status(status), MD_RC_OK);
  EXPECT_STREQ(status.engine, "memory");
  EXPECT_EQ(status.fileBytes, 0u);
  std::filesystem::rename(folder_.path() / "kept", folder_.file());
  EXPECT_EQ(store_.get("g", "in the file", value), MD_RC_OK);
  EXPECT_EQ(store_.get("g", "in memory", value), GENREG_RC_NOT_FOUND);
}

TEST_F(EngineChoice, LeavesAScanWithTheEngineThatOpenedIt) {
  keepInMemory(folder_.file());
  ASSERT_EQ(store_.add({"g", "first", "x"}), MD_RC_OK);
  ASSERT_EQ(store_.OpenScan(), MD_RC_OK);
  std::filesystem::remove(folder_.file());
  TestStore other(folder_.path());
  ASSERT_EQ(other.add({"g", "in the file", "x"}), MD_RC_OK);
  auto key = encode({}, true);
  std::vector<std::byte> out(key.size());
  ASSERT_EQ(store_.GetNext(0, key.data(), out.data()), MD_RC_OK);
  EXPECT_EQ(decode(out).key, "first");
  EXPECT_EQ(store_.GetNext(0, key.data(), out.data()), GENREG_RC_END_OF_SCAN);
  EXPECT_EQ(store_.CloseScan(), MD_RC_OK);
}

// Between the look of the file engine and the reading of the stub.
TEST_F(EngineChoice, FollowsARecordFileThatTakesAStubsPlaceMeanwhile) {
  static std::filesystem::path from;
  static std::filesystem::path to;
  static int opened;
  from = folder_.path() / "moved here";
  to = folder_.file();
  for (const bool isChange : {false, true}) {
    std::filesystem::remove(to);
    ASSERT_EQ(store_.add({"g", "in the file", "x"}), MD_RC_OK);
    std::filesystem::rename(to, from);
    keepInMemory(to);
    opened = 0;
    systemCalls.openAt = [](int directory, const char* path, int flags, mode_t mode) {
      const bool isStub = std::string_view(path).ends_with("store");
      if (isStub && ++opened == 2) std::filesystem::rename(from, to);
      return realSystemCalls().openAt(directory, path, flags, mode);
    };
    Value value;
    EXPECT_EQ(isChange ? store_.add({"g", "next", "x"}) : store_.get("g", "in the file", value), MD_RC_OK);
    systemCalls = realSystemCalls();
    EXPECT_EQ(store_.get("g", isChange ? "next" : "in the file", value), MD_RC_OK);
    GenRegStatus status;
    ASSERT_EQ(store_.status(status), MD_RC_OK);
    EXPECT_STREQ(status.engine, "file");
  }
}

TEST_F(EngineChoice, EndsWhereAStubComesAndGoesWithoutEnd) {
  static std::filesystem::path stub;
  stub = folder_.file();
  ASSERT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
  static int opened;
  opened = 0;
  std::filesystem::rename(stub, folder_.path() / "record file");
  systemCalls.openAt = [](int directory, const char* path, int flags, mode_t mode) {
    std::error_code ignored;
    std::filesystem::remove(stub, ignored);
    if (opened++ % 2 == 0) {
      putFile(stub, stubBytes("memory", "none"));
    } else {
      putFile(stub, std::string(40, 'x'));
    }
    return realSystemCalls().openAt(directory, path, flags, mode);
  };
  Value value;
  EXPECT_EQ(store_.get("g", "k", value), GENREG_RC_SYSTEM_ERROR);
}

// What a writer of files needs, the engine behind a stub does not.
TEST_F(EngineChoice, NeedsNoRightToWriteToTheStub) {
  if (geteuid() != 0) GTEST_SKIP() << "needs to be root to become somebody else";
  keepInMemory(folder_.file());
  std::filesystem::permissions(folder_.path(), std::filesystem::perms(0555));
  std::filesystem::permissions(folder_.file(), std::filesystem::perms(0444));
  const pid_t child = fork();
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(90);
    TestStore store(folder_.path());
    Value value;
    if (store.add({"g", "k", "x"}) != MD_RC_OK) _exit(1);
    if (store.beginBatch() != MD_RC_OK || store.add({"g", "l", "x"}) != MD_RC_OK) _exit(2);
    if (store.commitBatch() != MD_RC_OK) _exit(3);
    _exit(store.get("g", "l", value) == MD_RC_OK && store.list().size() == 2 ? 0 : 4);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// Where there was no file when the batch began, the engine is the file engine's for the whole of it.
TEST_F(EngineChoice, StaysWithABatchThatAStubOvertakes) {
  ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
  keepInMemory(folder_.file());
  EXPECT_EQ(store_.add({"g", "k", "x"}), GENREG_RC_LOCK_TIMEOUT);
  EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
  EXPECT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
  GenRegStatus status;
  ASSERT_EQ(store_.status(status), MD_RC_OK);
  EXPECT_STREQ(status.engine, "memory");
  EXPECT_EQ(status.records, 1u);
}

}  // namespace
}  // namespace zon::test
