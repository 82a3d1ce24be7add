// What users of the engine may rely on, promise by promise, in plain cases on a real file system. Crashes, failing
// calls and damage have tests of their own.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <thread>

#include "platform/registry/format.h"
#include "platform/registry/system_calls.h"
#include "test_records.h"

namespace zon::test {
namespace {

using Values = std::vector<Value>;

std::string numbered(const char* prefix, int number) { return prefix + std::to_string(number); }

// Runs work in a child; the child's exit status, -1 when it did not end by itself within half a minute.
int inChild(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(30);
    _exit(work());
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

std::map<std::string, std::string> filesIn(const std::filesystem::path& folder) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::ifstream file(entry.path(), std::ios::binary);
    files[entry.path().filename()] = std::string((std::istreambuf_iterator<char>(file)), {});
  }
  return files;
}

class EnginePromises : public ::testing::Test {
 protected:
  void fill(int records, int groups = 10) {
    ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
    for (int at = 0; at < records; ++at) {
      ASSERT_EQ(store_.add({numbered("g", at % groups), numbered("k", at), noise(100, static_cast<unsigned>(at))}),
                MD_RC_OK);
    }
    ASSERT_EQ(store_.commitBatch(), MD_RC_OK);
  }

  TestFolder folder_{inMemory()};
  TestStore store_{folder_.path()};
};

// ---- Readers

using Readers = EnginePromises;

TEST_F(Readers, SeeAMissingFileAsAnEmptyOneAndMakeNone) {
  Value value;
  GenRegStatus status;
  EXPECT_EQ(store_.get("g", "k", value), GENREG_RC_NOT_FOUND);
  std::uint32_t rc = GENREG_RC_INTERNAL;
  EXPECT_TRUE(store_.list(0, {}, &rc).empty());
  EXPECT_EQ(rc, MD_RC_OK);
  EXPECT_EQ(store_.change({"g", "k", "x"}), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(store_.remove("g", "k"), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(store_.status(status), MD_RC_OK);
  EXPECT_EQ(store_.compact(), MD_RC_OK);
  EXPECT_EQ(store_.repair(), MD_RC_OK);
  EXPECT_EQ(store_.beginBatch(), MD_RC_OK);
  EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
  EXPECT_TRUE(filesIn(folder_.path()).empty());
}

// Callers clear no more of their buffer than the record tells, so that none of its bytes reaches somebody else.
TEST_F(Readers, LeaveNothingOfOtherRecordsBehindTheOneThatTheyFind) {
  const auto bytesBehind = [this](unsigned long flags, const Value& wanted) {
    auto match = encode(wanted, true);
    std::vector<std::byte> out(match.size());
    EXPECT_EQ(store_.Get(flags, match.data(), out.data()), MD_RC_OK);
    EXPECT_EQ(decode(out), wanted);
    const auto end = out.begin() + static_cast<std::ptrdiff_t>(encode(wanted).size());
    return std::count_if(end, out.end(), [](std::byte byte) { return byte != std::byte{0}; });
  };
  const Value small{"g", "small", "x"};
  digestsCollide = true;
  ASSERT_EQ(store_.add(small), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "large", noise(5000, 1)}), MD_RC_OK);
  EXPECT_EQ(bytesBehind(WHOLE_KEY, small), 0);
  digestsCollide = false;
  ASSERT_EQ(store_.removeAll("", "", 0), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "large", noise(5000, 1)}), MD_RC_OK);
  ASSERT_EQ(store_.add(small), MD_RC_OK);
  EXPECT_EQ(bytesBehind(KEY, small), 0);
  EXPECT_EQ(bytesBehind(GROUP | DATA, small), 0);
  flipByte(folder_.file(), format::LOG_START + 1024);
  for (const std::uint64_t slot : format::SLOT_OFFSET) flipByte(folder_.file(), static_cast<std::streamoff>(slot));
  EXPECT_EQ(bytesBehind(WHOLE_KEY, small), 0);
}

// A program with a fault in its record type writes what passes every checksum.
TEST_F(Readers, TakeARecordThatTellsAnotherSizeForDamage) {
  class Cutting : public TestStore {
   public:
    explicit Cutting(const std::filesystem::path& folder) : TestStore(folder) {
      callbacks_.recordSize = [](void* record, unsigned long* size) {
        recordSize(record, size);
        if (std::strcmp(static_cast<const TestRecord*>(record)->key, "cut") == 0) *size -= 10;
        return 0;
      };
    }
  };
  Cutting writer(folder_.path());
  const Value before{"g", "before", noise(100, 1)};
  const Value behind{"g", "behind", noise(100, 3)};
  ASSERT_EQ(writer.add(before), MD_RC_OK);
  ASSERT_EQ(writer.add({"g", "cut", noise(100, 2)}), MD_RC_OK);
  ASSERT_EQ(writer.add(behind), MD_RC_OK);
  Value value;
  EXPECT_EQ(store_.get("g", "cut", value), GENREG_RC_DAMAGED);
  EXPECT_EQ(store_.get("g", "behind", value), MD_RC_OK);
  EXPECT_EQ(value, behind);
  ASSERT_EQ(store_.repair(), MD_RC_OK);
  EXPECT_EQ(store_.list(), (Values{before, behind}));
  GenRegStatus status;
  ASSERT_EQ(store_.status(status), MD_RC_OK);
  EXPECT_GT(status.lostBytes, 0u);
  EXPECT_TRUE(std::filesystem::exists(folder_.path() / "store.cor"));
}

TEST_F(Readers, KeepTheStateInWhichTheirScanBegan) {
  fill(300);
  const Values before = store_.list();
  TestStore reader(folder_.path());
  ASSERT_EQ(reader.OpenScan(), MD_RC_OK);
  auto key = encode({}, true);
  std::vector<std::byte> out(key.size());
  Values seen;
  for (int at = 0; at < 100; ++at) {
    ASSERT_EQ(reader.GetNext(0, key.data(), out.data()), MD_RC_OK);
    seen.push_back(decode(out));
  }
  for (int at = 0; at < 300; at += 2) ASSERT_EQ(store_.change({numbered("g", at % 10), numbered("k", at), "new"}), 0u);
  ASSERT_EQ(store_.removeAll("g3", "", GROUP), MD_RC_OK);
  ASSERT_EQ(store_.compact(), MD_RC_OK);
  for (int at = 0; at < 50; ++at) ASSERT_EQ(store_.add({"later", numbered("k", at), "x"}), MD_RC_OK);
  while (reader.GetNext(0, key.data(), out.data()) == MD_RC_OK) seen.push_back(decode(out));
  EXPECT_EQ(reader.CloseScan(), MD_RC_OK);
  EXPECT_EQ(seen, before);
}

// The index is ahead of them: what it leads to behind their end must be passed by.
TEST_F(Readers, KeepTheirStateInListingsThatTheIndexNarrows) {
  fill(60, 6);
  for (const unsigned long flags : {GROUP, WHOLE_KEY}) {
    const Value match{"g3", "k3", ""};
    const Values before = store_.list(flags, match);
    TestStore reader(folder_.path());
    ASSERT_EQ(reader.OpenScan(), MD_RC_OK);
    for (int at = 0; at < 80; ++at) {
      ASSERT_EQ(store_.change({"g3", "k3", noise(20, static_cast<unsigned>(at))}), MD_RC_OK);
      ASSERT_EQ(store_.add({numbered("more", at), numbered("of", static_cast<int>(flags)), "x"}), MD_RC_OK);
    }
    ASSERT_EQ(store_.add({"g3", numbered("new", static_cast<int>(flags)), "x"}), MD_RC_OK);
    auto key = encode(match, true);
    std::vector<std::byte> out(key.size());
    Values seen;
    while (reader.GetNext(flags, key.data(), out.data()) == MD_RC_OK) seen.push_back(decode(out));
    EXPECT_EQ(reader.CloseScan(), MD_RC_OK);
    EXPECT_EQ(seen, before) << flags;
  }
}

// A writer that is at work while a Get looks: between the Get's first reading and its next ones.
TEST_F(Readers, KeepTheStateThatAGetFound) {
  static TestStore* writer;
  static bool isDue;
  fill(60, 6);
  TestStore other(folder_.path());
  writer = &other;
  const Value old = store_.list(WHOLE_KEY, {"g3", "k3", ""}).at(0);
  systemCalls.pread = [](int file, void* data, std::size_t size, off_t offset) {
    const ssize_t got = realSystemCalls().pread(file, data, size, offset);
    if (isDue && offset == 0) {
      isDue = false;
      for (int at = 0; at < 60; ++at) {
        EXPECT_EQ(writer->change({"g3", "k3", numbered("new ", at)}), MD_RC_OK);
        EXPECT_EQ(writer->add({numbered("more", at), "k", "x"}), MD_RC_OK);
      }
      EXPECT_EQ(writer->add({"g3", "late", "x"}), MD_RC_OK);
    }
    return got;
  };
  Value value;
  isDue = true;
  EXPECT_EQ(store_.get("g3", "k3", value), MD_RC_OK);
  EXPECT_EQ(value, old);
  for (int at = 0; at < 60; ++at) ASSERT_EQ(store_.remove(numbered("more", at), "k"), MD_RC_OK);
  ASSERT_EQ(store_.remove("g3", "late"), MD_RC_OK);
  isDue = true;
  EXPECT_EQ(store_.get("g3", "late", value), GENREG_RC_NOT_FOUND);
  systemCalls = realSystemCalls();
  EXPECT_EQ(store_.get("g3", "late", value), MD_RC_OK);
}

// What a reader meets half written is whole the next time: nothing of it is taken for damage.
TEST_F(Readers, LookAgainAtWhatIsJustBeingWritten) {
  static std::map<off_t, int> torn;
  static bool sawBackup;
  fill(300);
  torn.clear();
  sawBackup = false;
  systemCalls.openAt = [](int directory, const char* path, int flags, mode_t mode) {
    sawBackup = sawBackup || std::string_view(path).ends_with(".bkp");
    return realSystemCalls().openAt(directory, path, flags, mode);
  };
  systemCalls.pread = [](int file, void* data, std::size_t size, off_t offset) {
    const ssize_t got = realSystemCalls().pread(file, data, size, offset);
    const bool isPage = offset == 0 && size > 2000;
    const bool isBlock = size == 512;
    if ((isPage || isBlock) && torn[offset]++ < 3) static_cast<char*>(data)[isPage ? 3080 : 4] ^= 1;
    return got;
  };
  Value value;
  for (int at = 0; at < 300; at += 7) {
    EXPECT_EQ(store_.get(numbered("g", at % 10), numbered("k", at), value), MD_RC_OK);
  }
  EXPECT_EQ(store_.list(GROUP, {"g1", "", ""}).size(), 30u);
  systemCalls = realSystemCalls();
  EXPECT_GT(torn.size(), 3u);
  EXPECT_FALSE(sawBackup);
}

TEST_F(Readers, NeedNoRightToWriteAndLeaveNoTrace) {
  if (geteuid() != 0) GTEST_SKIP() << "needs to be root to become somebody else";
  fill(20);
  const auto before = filesIn(folder_.path());
  std::filesystem::permissions(folder_.path(), std::filesystem::perms(0555));
  std::filesystem::permissions(folder_.file(), std::filesystem::perms(0444));
  const int result = inChild([&] {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 90;
    TestStore store(folder_.path());
    Value value;
    if (store.get("g3", "k3", value) != MD_RC_OK) return 1;
    std::uint32_t rc = MD_RC_OK;
    if (store.list(0, {}, &rc).size() != 20 || rc != MD_RC_OK) return 2;
    GenRegStatus status;
    if (store.status(status) != MD_RC_OK || status.records != 20) return 3;
    if (store.add({"g", "no", "x"}) != GENREG_RC_NO_PERMISSION) return 4;
    if (store.remove("g3", "k3") != GENREG_RC_NO_PERMISSION) return 5;
    return 0;
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(filesIn(folder_.path()), before);
}

TEST_F(Readers, AreNotHeldUpByAWriter) {
  fill(20);
  TestStore writer(folder_.path());
  ASSERT_EQ(writer.beginBatch(), MD_RC_OK);
  ASSERT_EQ(writer.add({"g", "pending", "x"}), MD_RC_OK);
  const int result = inChild([&] {
    TestStore reader(folder_.path());
    Value value;
    if (reader.get("g", "pending", value) != GENREG_RC_NOT_FOUND) return 1;
    return reader.list().size() == 20 ? 0 : 2;
  });
  EXPECT_EQ(result, 0);
  ASSERT_EQ(writer.commitBatch(), MD_RC_OK);
  EXPECT_EQ(store_.list().size(), 21u);
}

TEST_F(Readers, RefuseAPathThatDidNotFitItsField) {
  class LongPath : public TestStore {
   public:
    explicit LongPath(const std::filesystem::path& folder) : TestStore(folder) {
      const std::string path(PATH_SIZE - 1, '/');
      std::snprintf(filePath_, PATH_SIZE, "%s", path.c_str());
      std::memcpy(filePath_ + PATH_SIZE - 5, "none", 4);
    }
  };
  LongPath store(folder_.path());
  Value value;
  EXPECT_EQ(store.get("g", "k", value), GENREG_RC_NAME_TOO_LONG);
  EXPECT_EQ(store.OpenScan(), GENREG_RC_NAME_TOO_LONG);
  EXPECT_EQ(store.add({"g", "k", "x"}), GENREG_RC_NAME_TOO_LONG);
}

// ---- Order

using ScanOrder = EnginePromises;

TEST_F(ScanOrder, IsThatOfInsertionThroughChangeCompactionAndRepair) {
  fill(60, 3);
  Values expected = store_.list();
  for (std::size_t at = 0; at < expected.size(); at += 7) {
    expected[at].data = "changed " + std::to_string(at);
    ASSERT_EQ(store_.change(expected[at]), MD_RC_OK);
  }
  EXPECT_EQ(store_.list(), expected);
  const Value from = expected[5];
  expected[5].key = "renamed";
  ASSERT_EQ(store_.changeTo(from, expected[5]), MD_RC_OK);
  EXPECT_EQ(store_.list(), expected);
  ASSERT_EQ(store_.compact(), MD_RC_OK);
  EXPECT_EQ(store_.list(), expected);
  ASSERT_EQ(store_.add({"g", "last", "x"}), MD_RC_OK);
  expected.push_back({"g", "last", "x"});
  flipByte(folder_.file(), format::LOG_START + 1024);
  ASSERT_EQ(store_.repair(), MD_RC_OK);
  EXPECT_TRUE(std::filesystem::exists(folder_.path() / "store.cor"));
  EXPECT_EQ(store_.list(), expected);
}

// ---- Locks

using WriterLocks = EnginePromises;

TEST_F(WriterLocks, AreWaitedForNoLongerThanToldAndTellSo) {
  fill(3);
  for (const char* name : {".store.lock", "store"}) {
    const int held = open((folder_.path() / name).c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(held, 0);
    ASSERT_EQ(flock(held, LOCK_EX), 0);
    store_.setLockWait(150);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(store_.add({"g", name, "x"}), GENREG_RC_LOCK_TIMEOUT);
    EXPECT_EQ(store_.remove("g0", "k0"), GENREG_RC_LOCK_TIMEOUT);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(290));
    EXPECT_LT(took, std::chrono::milliseconds(900));
    close(held);
    EXPECT_EQ(store_.add({"g", name, "x"}), MD_RC_OK);
  }
}

TEST_F(WriterLocks, OfADeadWriterAreGoneWithIt) {
  fill(3);
  ASSERT_EQ(inChild([&] {
              TestStore writer(folder_.path());
              if (writer.beginBatch() != MD_RC_OK || writer.add({"g", "never", "x"}) != MD_RC_OK) return 1;
              _exit(0);
            }),
            0);
  store_.setLockWait(0);
  EXPECT_EQ(store_.add({"g", "next", "x"}), MD_RC_OK);
  EXPECT_EQ(store_.list().size(), 4u);
}

TEST_F(WriterLocks, HoldWhenTheLockFileIsDeletedUnderThem) {
  constexpr int WRITERS = 4;
  constexpr int RECORDS = 60;
  std::vector<pid_t> writers;
  for (int writer = 0; writer < WRITERS; ++writer) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(60);
      TestStore store(folder_.path());
      for (int at = 0; at < RECORDS; ++at) {
        if (store.add({numbered("w", writer), numbered("k", at), "x"}) != MD_RC_OK) _exit(1);
      }
      _exit(0);
    }
    writers.push_back(child);
  }
  for (std::size_t ended = 0; ended < writers.size();) {
    std::error_code ignored;
    std::filesystem::remove(folder_.path() / ".store.lock", ignored);
    int status = 0;
    const pid_t child = waitpid(-1, &status, WNOHANG);
    if (child > 0) {
      ++ended;
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
  }
  EXPECT_EQ(store_.list().size(), static_cast<std::size_t>(WRITERS * RECORDS));
  GenRegStatus status;
  ASSERT_EQ(store_.status(status), MD_RC_OK);
  EXPECT_EQ(status.records, static_cast<std::uint64_t>(WRITERS * RECORDS));
  EXPECT_EQ(status.damaged, 0u);
  EXPECT_EQ(status.repairs, 0u);
}

// Who lost the lock file to a deletion may find, when it makes the file, that another writer was faster.
TEST_F(WriterLocks, LetNoWriterMakeTheFileOverAnothersOne) {
  static std::filesystem::path folder;
  static int made;
  folder = folder_.path();
  made = 0;
  systemCalls.openAt = [](int directory, const char* path, int flags, mode_t mode) {
    if ((flags & O_CREAT) != 0 && std::string_view(path) == "store.tmp" && made++ == 0) {
      std::filesystem::remove(folder / ".store.lock");
      TestStore faster(folder);
      EXPECT_EQ(faster.add({"g", "of the faster one", "x"}), MD_RC_OK);
    }
    return realSystemCalls().openAt(directory, path, flags, mode);
  };
  EXPECT_EQ(store_.add({"g", "of the slower one", "x"}), MD_RC_OK);
  systemCalls = realSystemCalls();
  EXPECT_EQ(store_.list(), Values({{"g", "of the faster one", "x"}, {"g", "of the slower one", "x"}}));
}

TEST_F(WriterLocks, AreNotWaitedForByTheirOwnBatch) {
  ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
  store_.setLockWait(0);
  EXPECT_EQ(store_.add({"g", "first", "makes the file"}), MD_RC_OK);
  EXPECT_EQ(store_.add({"g", "second", "x"}), MD_RC_OK);
  EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
  EXPECT_EQ(store_.list().size(), 2u);
}

// ---- Space

class Space : public EnginePromises {
 protected:
  // File and backup, measured against what lives.
  void check() {
    GenRegStatus status;
    ASSERT_EQ(store_.status(status), MD_RC_OK);
    const std::uint64_t limit = 2 * (status.recordBytes + 65536);
    ASSERT_LT(status.fileBytes, limit) << "with " << status.recordBytes << " bytes alive";
    std::error_code none;
    const auto backup = std::filesystem::file_size(folder_.backup(), none);
    if (!none) {
      ASSERT_LT(backup, limit) << "with " << status.recordBytes << " bytes alive";
    }
    EXPECT_FALSE(std::filesystem::exists(folder_.path() / "store.tmp"));
  }
};

TEST_F(Space, StaysBoundedWhileOneRecordChanges) {
  ASSERT_EQ(store_.add({"g", "k", ""}), MD_RC_OK);
  for (unsigned at = 0; at < 400; ++at) {
    ASSERT_EQ(store_.change({"g", "k", noise(at % 9 * 1500 + 1, at)}), MD_RC_OK);
    ASSERT_NO_FATAL_FAILURE(check()) << at;
  }
}

TEST_F(Space, StaysBoundedWhileLargeRecordsChange) {
  for (int at = 0; at < 3; ++at) ASSERT_EQ(store_.add({"g", numbered("k", at), "x"}), MD_RC_OK);
  for (unsigned at = 0; at < 30; ++at) {
    ASSERT_EQ(store_.change({"g", numbered("k", static_cast<int>(at) % 3), noise(700000, at)}), MD_RC_OK);
    ASSERT_NO_FATAL_FAILURE(check()) << at;
  }
}

TEST_F(Space, IsTakenByABackupOnlyWhenAskedTo) {
  store_.unsetFeature(GenRegBin::FEATURE_BACKUP);
  fill(300);
  ASSERT_EQ(store_.compact(), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "k", noise(30000, 1)}), MD_RC_OK);
  EXPECT_FALSE(std::filesystem::exists(folder_.backup()));
  store_.setFeature(GenRegBin::FEATURE_BACKUP);
  ASSERT_EQ(store_.add({"g", "k2", noise(30000, 1)}), MD_RC_OK);
  EXPECT_TRUE(std::filesystem::exists(folder_.backup()));
}

TEST_F(Space, ShrinksWithWhatLives) {
  fill(3000, 30);
  ASSERT_NO_FATAL_FAILURE(check());
  for (int group = 0; group < 30; ++group) {
    ASSERT_EQ(store_.removeAll(numbered("g", group), "", GROUP), MD_RC_OK);
    ASSERT_NO_FATAL_FAILURE(check()) << group;
  }
}

TEST_F(Space, ShrinksWhenEverythingGoesAtOnce) {
  fill(5000, 5);
  ASSERT_EQ(store_.removeAll("", "", 0), MD_RC_OK);
  ASSERT_NO_FATAL_FAILURE(check());
  ASSERT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
  ASSERT_NO_FATAL_FAILURE(check());
}

TEST_F(Space, StaysBoundedWhileRecordsComeAndGo) {
  for (int at = 0; at < 3000; ++at) {
    ASSERT_EQ(store_.add({"g", numbered("k", at), noise(60, static_cast<unsigned>(at))}), MD_RC_OK);
    if (at >= 20) {
      ASSERT_EQ(store_.remove("g", numbered("k", at - 20)), MD_RC_OK);
    }
    if (at % 5 == 0) {
      ASSERT_NO_FATAL_FAILURE(check()) << at;
    }
  }
}

TEST_F(Space, StaysBoundedForManySmallRecords) {
  for (int at = 0; at < 4000; ++at) {
    ASSERT_EQ(store_.add({numbered("g", at), numbered("k", at), ""}), MD_RC_OK);
    if (at % 50 == 0) {
      ASSERT_NO_FATAL_FAILURE(check()) << at;
    }
  }
}

// ---- Cost

// Counts calls and bytes over the table of system calls.
struct Cost {
  std::uint64_t calls = 0;
  std::uint64_t read = 0;
  std::uint64_t written = 0;
  std::uint64_t syncs = 0;
  std::uint64_t reserves = 0;
};
Cost cost;

class Costs : public EnginePromises {
 protected:
  Costs() {
    static const SystemCalls REAL = realSystemCalls();
    systemCalls.openAt = [](int directory, const char* path, int flags, mode_t mode) {
      ++cost.calls;
      EXPECT_NE(flags & O_CLOEXEC, 0) << path;
      const int careful = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
      EXPECT_TRUE((flags & careful) == careful || (flags & O_DIRECTORY) != 0) << path;
      return REAL.openAt(directory, path, flags, mode);
    };
    systemCalls.pread = [](int file, void* data, std::size_t size, off_t offset) {
      ++cost.calls;
      const ssize_t got = REAL.pread(file, data, size, offset);
      if (got > 0) cost.read += static_cast<std::uint64_t>(got);
      return got;
    };
    systemCalls.pwrite = [](int file, const void* data, std::size_t size, off_t offset) {
      ++cost.calls;
      cost.written += size;
      return REAL.pwrite(file, data, size, offset);
    };
    systemCalls.fallocate = [](int file, int mode, off_t offset, off_t size) {
      ++cost.calls;
      ++cost.reserves;
      return REAL.fallocate(file, mode, offset, size);
    };
    systemCalls.fdatasync = [](int file) {
      ++cost.calls;
      ++cost.syncs;
      return REAL.fdatasync(file);
    };
    systemCalls.fsync = [](int file) {
      ++cost.calls;
      ++cost.syncs;
      return REAL.fsync(file);
    };
  }
  ~Costs() override { systemCalls = realSystemCalls(); }

  template <class Work>
  static Cost costOf(Work work) {
    cost = {};
    work();
    return cost;
  }

  // Records of which ten each share a group.
  void fillGroupsOfTen(int records) {
    ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
    for (int at = 0; at < records; ++at) {
      ASSERT_EQ(store_.add({numbered("g", at % (records / 10)), numbered("k", at), noise(100, 1)}), MD_RC_OK);
    }
    ASSERT_EQ(store_.commitBatch(), MD_RC_OK);
  }
};

TEST_F(Costs, DoNotGrowWithTheFile) {
  std::map<int, std::map<std::string, Cost>> costs;
  for (const int records : {100, 10000, 100000}) {
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) std::filesystem::remove(entry.path());
    ASSERT_NO_FATAL_FAILURE(fillGroupsOfTen(records));
    Value value;
    auto& now = costs[records];
    const int groups = records / 10;
    const int rounds = 60;
    now["get"] = costOf([&] {
      for (int at = 0; at < rounds; ++at) {
        const int number = at * 7919 % records;
        ASSERT_EQ(store_.get(numbered("g", number % groups), numbered("k", number), value), MD_RC_OK);
      }
    });
    now["miss"] = costOf([&] {
      for (int at = 0; at < rounds; ++at) ASSERT_EQ(store_.get("no", numbered("k", at), value), GENREG_RC_NOT_FOUND);
    });
    now["group"] = costOf([&] {
      for (int at = 0; at < rounds; ++at) {
        ASSERT_EQ(store_.list(GROUP, {numbered("g", at * 31 % groups), "", ""}).size(), 10u);
      }
    });
    now["add"] = costOf([&] {
      for (int at = 0; at < rounds; ++at) ASSERT_EQ(store_.add({numbered("new", at), "k", noise(100, 2)}), MD_RC_OK);
    });
    now["change"] = costOf([&] {
      for (int at = 0; at < rounds; ++at) {
        const int number = at * 6007 % records;
        ASSERT_EQ(store_.change({numbered("g", number % groups), numbered("k", number), noise(90, 3)}), MD_RC_OK);
      }
    });
    now["delete group"] = costOf([&] {
      for (int at = 0; at < 5; ++at) ASSERT_EQ(store_.removeAll(numbered("g", at + 3), "", GROUP), MD_RC_OK);
    });
  }
  for (const auto& [name, least] : costs[100]) {
    for (const int records : {10000, 100000}) {
      const Cost& much = costs[records][name];
      RecordProperty(name + " " + std::to_string(records), std::to_string(much.calls) + " calls, " +
                                                               std::to_string(much.read) + " read, " +
                                                               std::to_string(much.written) + " written");
      // Upkeep of a grown file comes in larger pieces, less often; look-ups may take some segments more.
      EXPECT_LE(much.calls, least.calls * 3) << name << ' ' << records;
      if (name == "get" || name == "miss" || name == "group") {
        EXPECT_LE(much.read, least.read * 5 / 2) << name << ' ' << records;
        EXPECT_EQ(much.written, 0u) << name;
      }
    }
  }
}

TEST_F(Costs, OfListingAGroupDoNotGrowWithItsHistory) {
  fill(100, 10);
  const auto listing = [&] { ASSERT_EQ(store_.list(GROUP, {"g3", "", ""}).size(), 10u); };
  const Cost before = costOf(listing);
  std::uint64_t most = 0;
  for (int at = 0; at < 600; ++at) {
    ASSERT_EQ(store_.change({"g3", "k3", numbered("change ", at)}), MD_RC_OK);
    if (at % 10 == 0) most = std::max(most, costOf(listing).calls);
  }
  EXPECT_LT(most, before.calls * 6);
}

TEST_F(Costs, OfAKeyDoNotGrowWithItsHistory) {
  fill(100, 10);
  Value value;
  const auto missing = [&] { ASSERT_EQ(store_.get("g", "comes and goes", value), GENREG_RC_NOT_FOUND); };
  const auto adding = [&] { ASSERT_EQ(store_.add({"g", "comes and goes", "x"}), MD_RC_OK); };
  const std::uint64_t missingBefore = costOf(missing).calls;
  std::uint64_t mostMissing = 0;
  std::uint64_t leastAdding = ~std::uint64_t{0};
  for (int at = 0; at < 200; ++at) {
    const std::uint64_t added = costOf(adding).calls;
    if (at == 0 || at > 190) leastAdding = at == 0 ? added : std::min(leastAdding, added);
    ASSERT_EQ(store_.change({"g", "comes and goes", "y"}), MD_RC_OK);
    ASSERT_EQ(store_.remove("g", "comes and goes"), MD_RC_OK);
    mostMissing = std::max(mostMissing, costOf(missing).calls);
  }
  EXPECT_LT(mostMissing, missingBefore + 10);
  EXPECT_LT(leastAdding, 40u);
}

TEST_F(Costs, OfAFileThatOnlyGrowsKnowNoCompaction) {
  ASSERT_EQ(store_.add({"g", "first", "x"}), MD_RC_OK);
  struct stat before;
  ASSERT_EQ(stat(folder_.file().c_str(), &before), 0);
  for (int at = 0; at < 5000; ++at) ASSERT_EQ(store_.add({numbered("g", at), numbered("k", at), "x"}), MD_RC_OK);
  struct stat after;
  ASSERT_EQ(stat(folder_.file().c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
}

TEST_F(Costs, OfAChangeAreOneSync) {
  fill(200);
  for (int at = 0; at < 110; ++at) {
    const Cost one = costOf([&] { ASSERT_EQ(store_.add({"g", numbered("single", at), "x"}), MD_RC_OK); });
    EXPECT_EQ(one.syncs, 1u) << at;
    EXPECT_LE(one.written, 26000u) << at;
  }
}

TEST_F(Costs, OfAChangeHoldOneSearchOfTheIndex) {
  TestStore flat(folder_.path(), false);
  for (int at = 0; at < 3000; ++at) ASSERT_EQ(flat.add({"", numbered("k", at), "x"}, KEY), MD_RC_OK);
  Value value;
  const Cost miss = costOf([&] { ASSERT_EQ(flat.get("", "new", value, KEY), GENREG_RC_NOT_FOUND); });
  ASSERT_GE(miss.calls, 7u);  // the file opened, header and tail read, and a block of each of the segments
  Cost least{.calls = 1000};
  for (int at = 0; at < 10; ++at) {
    const Cost one = costOf([&] { ASSERT_EQ(flat.add({"", numbered("new", at), "x"}, KEY), MD_RC_OK); });
    if (one.calls < least.calls) least = one;
  }
  // Beside it: the boot id, directory and lock opened, one sync between two writes.
  EXPECT_LE(least.calls, miss.calls + 7);
}

TEST_F(Costs, OfReservingSpaceAreSharedByManyChanges) {
  store_.unsetFeature(GenRegBin::FEATURE_BACKUP);
  fill(200);
  const Cost many = costOf([&] {
    for (int at = 0; at < 400; ++at) ASSERT_EQ(store_.add({"g", numbered("single", at), "x"}), MD_RC_OK);
  });
  EXPECT_LT(many.reserves, 6u);
}

// Once in some forty changes the index blocks take over what the slot held: for each a frame looked at, and a block
// read and written, whatever the number of segments.
TEST_F(Costs, OfTheDearestChangeKnowNoSegmentsButTheNewest) {
  TestStore flat(folder_.path(), false);
  for (int at = 0; at < 12000; ++at) ASSERT_EQ(flat.add({"", numbered("k", at), "x"}, KEY), MD_RC_OK);
  Value value;
  const Cost miss = costOf([&] { ASSERT_EQ(flat.get("", "new", value, KEY), GENREG_RC_NOT_FOUND); });
  ASSERT_GE(miss.calls, 9u);  // six segments
  std::uint64_t most = 0;
  for (int at = 0; at < 100; ++at) {
    const Cost one = costOf([&] { ASSERT_EQ(flat.add({"", numbered("new", at), "x"}, KEY), MD_RC_OK); });
    most = std::max(most, one.calls);
  }
  EXPECT_LE(most, miss.calls + 7 + 3 * format::OVERLAY_CAPACITY);
}

TEST_F(Costs, OfReadingKnowNoSync) {
  fill(50);
  Value value;
  const Cost reading = costOf([&] {
    store_.get("g1", "k1", value);
    store_.list();
    GenRegStatus status;
    store_.status(status);
  });
  EXPECT_EQ(reading.syncs, 0u);
  EXPECT_EQ(reading.written, 0u);
}

// ---- Nothing lives between calls

using BetweenCalls = EnginePromises;

std::size_t entriesOf(const char* folder) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) count += entry.exists() ? 1 : 1;
  return count;
}

TEST_F(BetweenCalls, NothingStaysOpenOrRunning) {
  fill(200);
  const std::size_t files = entriesOf("/proc/self/fd");
  const std::size_t threads = entriesOf("/proc/self/task");
  Value value;
  GenRegStatus status;
  store_.get("g1", "k1", value);
  store_.list();
  store_.list(GROUP, {"g1", "", ""});
  EXPECT_EQ(store_.add({"g", "k", noise(20000, 1)}), MD_RC_OK);
  EXPECT_EQ(store_.change({"g", "k", "x"}), MD_RC_OK);
  EXPECT_EQ(store_.remove("g", "k"), MD_RC_OK);
  EXPECT_EQ(store_.remove("g", "k"), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(store_.status(status), MD_RC_OK);
  EXPECT_EQ(store_.compact(), MD_RC_OK);
  EXPECT_EQ(store_.repair(), MD_RC_OK);
  EXPECT_EQ(entriesOf("/proc/self/fd"), files);
  EXPECT_EQ(entriesOf("/proc/self/task"), threads);
  std::ifstream maps("/proc/self/maps");
  const std::string mapped((std::istreambuf_iterator<char>(maps)), {});
  EXPECT_EQ(mapped.find(folder_.path().string()), std::string::npos);
}

TEST_F(BetweenCalls, AnAbandonedScanOrBatchLeavesNothing) {
  fill(20);
  const std::size_t files = entriesOf("/proc/self/fd");
  {
    TestStore scanning(folder_.path());
    ASSERT_EQ(scanning.OpenScan(), MD_RC_OK);
    TestStore batching(folder_.path());
    ASSERT_EQ(batching.beginBatch(), MD_RC_OK);
    ASSERT_EQ(batching.add({"g", "never", "x"}), MD_RC_OK);
  }
  EXPECT_EQ(entriesOf("/proc/self/fd"), files);
  EXPECT_EQ(store_.list().size(), 20u);
}

TEST_F(BetweenCalls, ClosedStandardStreamsDoNoHarm) {
  fill(5);
  const int result = inChild([&] {
    close(0);
    close(1);
    close(2);
    TestStore store(folder_.path());
    if (store.add({"g", "without streams", noise(9000, 5)}) != MD_RC_OK) return 1;
    Value value;
    if (store.get("g", "without streams", value) != MD_RC_OK) return 2;
    std::vector<bool> before;
    for (int file = 0; file < 64; ++file) before.push_back(fcntl(file, F_GETFD) != -1);
    if (store.OpenScan() != MD_RC_OK) return 3;
    for (int file = 0; file < 64; ++file) {
      const int flags = fcntl(file, F_GETFD);
      if (!before[static_cast<std::size_t>(file)] && flags != -1 && (flags & FD_CLOEXEC) == 0) return 6;
    }
    if (fcntl(0, F_GETFD) != -1 || fcntl(1, F_GETFD) != -1 || fcntl(2, F_GETFD) != -1) return 4;
    return store.CloseScan() == MD_RC_OK ? 0 : 5;
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(store_.list().size(), 6u);
}

TEST_F(BetweenCalls, AForkedProcessGoesItsOwnWay) {
  fill(50);
  const Values before = store_.list();
  ASSERT_EQ(store_.OpenScan(), MD_RC_OK);
  auto key = encode({}, true);
  std::vector<std::byte> out(key.size());
  ASSERT_EQ(store_.GetNext(0, key.data(), out.data()), MD_RC_OK);
  const int result = inChild([&] {
    std::size_t count = 1;
    while (store_.GetNext(0, key.data(), out.data()) == MD_RC_OK) ++count;
    TestStore own(folder_.path());
    if (own.add({"g", "of the child", "x"}) != MD_RC_OK) return 1;
    return count == before.size() ? 0 : 2;
  });
  EXPECT_EQ(result, 0);
  std::size_t count = 1;
  while (store_.GetNext(0, key.data(), out.data()) == MD_RC_OK) ++count;
  EXPECT_EQ(count, before.size());
  EXPECT_EQ(store_.CloseScan(), MD_RC_OK);
  EXPECT_EQ(store_.list().size(), before.size() + 1);
}

TEST_F(BetweenCalls, ABatchEndsAScanOfItsOwnState) {
  fill(5);
  ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "in the batch", "x"}), MD_RC_OK);
  ASSERT_EQ(store_.OpenScan(), MD_RC_OK);
  EXPECT_EQ(store_.add({"g", "refused", "x"}), GENREG_RC_SCAN_OPEN);
  auto key = encode({}, true);
  std::vector<std::byte> out(key.size());
  ASSERT_EQ(store_.GetNext(0, key.data(), out.data()), MD_RC_OK);
  EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
  EXPECT_EQ(store_.GetNext(0, key.data(), out.data()), GENREG_RC_NO_SCAN);
  EXPECT_EQ(store_.CloseScan(), GENREG_RC_NO_SCAN);
  EXPECT_EQ(store_.list().size(), 6u);
}

TEST_F(BetweenCalls, ABatchThatGrowsLargeIsSyncedInBetween) {
  ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
  for (int at = 0; at < 30; ++at) {
    ASSERT_EQ(store_.add({"g", numbered("k", at), noise(100000, static_cast<unsigned>(at))}), MD_RC_OK);
  }
  TestStore reader(folder_.path());
  const Values prefix = reader.list();
  EXPECT_GT(prefix.size(), 10u);
  EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
  const Values all = reader.list();
  EXPECT_EQ(all.size(), 30u);
  EXPECT_TRUE(std::equal(prefix.begin(), prefix.end(), all.begin()));
}

// ---- What status tells

using Status = EnginePromises;

TEST_F(Status, CountsWhatWasCommittedAndWhatLives) {
  GenRegStatus status;
  for (std::uint64_t at = 1; at < 8; ++at) {
    ASSERT_EQ(store_.add({"g", numbered("k", static_cast<int>(at)), std::string(at, 'x')}), MD_RC_OK);
    ASSERT_EQ(store_.status(status), MD_RC_OK);
    EXPECT_EQ(status.changes, at);
    EXPECT_EQ(status.records, at);
  }
  ASSERT_EQ(store_.change({"g", "k1", noise(50, 1)}), MD_RC_OK);
  ASSERT_EQ(store_.remove("g", "k2"), MD_RC_OK);
  ASSERT_EQ(store_.changeTo({"g", "k3", ""}, {"other", "moved", "y"}), MD_RC_OK);
  std::uint64_t bytes = 0;
  for (const Value& value : store_.list()) bytes += encode(value).size();
  ASSERT_EQ(store_.status(status), MD_RC_OK);
  EXPECT_EQ(status.changes, 10u);
  EXPECT_EQ(status.records, 6u);
  EXPECT_EQ(status.recordBytes, bytes);
  EXPECT_EQ(status.fileBytes, std::filesystem::file_size(folder_.file()));
  EXPECT_EQ(status.backupBytes, 0u);
}

// ---- The match callback decides

using MatchFlags = EnginePromises;

TEST_F(MatchFlags, WorkInAnyCombination) {
  for (int at = 0; at < 60; ++at) {
    ASSERT_EQ(store_.add({numbered("g", at % 4), numbered("k", at % 15), numbered("d", at % 3)}, 0), MD_RC_OK);
  }
  const Values all = store_.list();
  for (unsigned long flags = 0; flags < 64; ++flags) {
    const Value match{"g2", "k6", "d0"};
    auto key = encode(match, true);
    Values expected;
    for (const Value& value : all) {
      auto record = encode(value, true);
      if (matchRecord(flags, record.data(), key.data()) == 1) expected.push_back(value);
    }
    EXPECT_EQ(store_.list(flags, match), expected) << flags;
    Value found;
    const std::uint32_t rc = store_.get("g2", "k6", found, flags, "d0");
    ASSERT_EQ(rc, expected.empty() ? GENREG_RC_NOT_FOUND : MD_RC_OK) << flags;
    if (!expected.empty()) {
      EXPECT_EQ(found, expected.front()) << flags;
    }
  }
}

TEST_F(MatchFlags, TakeTheFirstOfTheRecordsThatAChangeMadeAlike) {
  ASSERT_EQ(store_.add({"g", "k", "first"}), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "other", "x"}), MD_RC_OK);
  ASSERT_EQ(store_.changeTo({"g", "other", ""}, {"g", "k", "second"}), MD_RC_OK);
  Value value;
  ASSERT_EQ(store_.get("g", "k", value), MD_RC_OK);
  EXPECT_EQ(value.data, "first");
  ASSERT_EQ(store_.compact(), MD_RC_OK);
  ASSERT_EQ(store_.get("g", "k", value), MD_RC_OK);
  EXPECT_EQ(value.data, "first");
  ASSERT_EQ(store_.remove("g", "k"), MD_RC_OK);
  EXPECT_EQ(store_.list(), Values({{"g", "k", "second"}}));
}

TEST_F(MatchFlags, TakeTheFirstOfTheRecordsThatDifferInMoreThanTheirKey) {
  ASSERT_EQ(store_.add({"g", "k", "first"}, WHOLE_KEY | DATA), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "k", "second"}, WHOLE_KEY | DATA), MD_RC_OK);
  EXPECT_EQ(store_.add({"g", "k", "second"}, WHOLE_KEY | DATA), GENREG_RC_DUPLICATE_KEY);
  Value value;
  ASSERT_EQ(store_.get("g", "k", value), MD_RC_OK);
  EXPECT_EQ(value.data, "first");
}

TEST_F(MatchFlags, DecideWhatAGroupDeleteTakes) {
  fill(100, 7);
  Values left;
  for (const Value& value : store_.list()) {
    if (value.group != "g3") left.push_back(value);
  }
  ASSERT_EQ(store_.removeAll("g3", "", GROUP), MD_RC_OK);
  EXPECT_EQ(store_.list(), left);
  EXPECT_EQ(store_.removeAll("g3", "", GROUP), GENREG_RC_NOT_FOUND);
  ASSERT_EQ(store_.remove("g4", "", GROUP), MD_RC_OK);
  left.erase(std::find_if(left.begin(), left.end(), [](const Value& value) { return value.group == "g4"; }));
  EXPECT_EQ(store_.list(), left);
}

// ---- Strange objects at the names

enum class Object { LINK, DANGLING_LINK, FIFO, FOLDER, SOCKET, DEVICE };

class StrangeObjects : public ::testing::TestWithParam<Object> {
 protected:
  // False when this system does not let us make such a thing.
  bool put(const std::filesystem::path& path) {
    switch (GetParam()) {
      case Object::LINK:
        return symlink(victim_.c_str(), path.c_str()) == 0;
      case Object::DANGLING_LINK:
        return symlink((folder_.path() / "victim2").c_str(), path.c_str()) == 0;
      case Object::FIFO:
        return mkfifo(path.c_str(), 0666) == 0;
      case Object::FOLDER:
        return mkdir(path.c_str(), 0777) == 0;
      case Object::SOCKET: {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
        const int made = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool bound = bind(made, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        close(made);
        return bound;
      }
      default:
        return mknod(path.c_str(), S_IFCHR | 0666, makedev(1, 5)) == 0;  // /dev/zero
    }
  }

  void SetUp() override { std::ofstream(victim_) << "of somebody else"; }
  void TearDown() override {
    std::ifstream file(victim_);
    EXPECT_EQ(std::string((std::istreambuf_iterator<char>(file)), {}), "of somebody else");
    EXPECT_FALSE(std::filesystem::exists(folder_.path() / "victim2"));
  }

  static unsigned makedev(unsigned major, unsigned minor) { return major << 8 | minor; }

  TestFolder folder_{inMemory()};
  const std::filesystem::path victim_ = folder_.path() / "victim";
  TestStore store_{folder_.path()};
};

TEST_P(StrangeObjects, AreRefusedInThePlaceOfTheFile) {
  if (!put(folder_.file())) GTEST_SKIP();
  alarm(20);
  Value value;
  std::uint32_t rc = MD_RC_OK;
  EXPECT_EQ(store_.get("g", "k", value), GENREG_RC_NOT_REGULAR);
  store_.list(0, {}, &rc);
  EXPECT_EQ(rc, GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(store_.add({"g", "k", "x"}), GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(store_.remove("g", "k"), GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(store_.repair(), GENREG_RC_NOT_REGULAR);
  alarm(0);
}

TEST_P(StrangeObjects, AreRefusedInThePlaceOfTheLock) {
  if (!put(folder_.path() / ".store.lock")) GTEST_SKIP();
  alarm(20);
  EXPECT_EQ(store_.add({"g", "k", "x"}), GENREG_RC_NOT_REGULAR);
  EXPECT_FALSE(std::filesystem::exists(folder_.file()));
  alarm(0);
}

TEST_P(StrangeObjects, AreRefusedInThePlaceOfTheTemporaryFile) {
  if (!put(folder_.path() / "store.tmp")) GTEST_SKIP();
  alarm(20);
  EXPECT_EQ(store_.add({"g", "k", "x"}), GENREG_RC_NOT_REGULAR);
  alarm(0);
}

TEST_P(StrangeObjects, InThePlaceOfTheBackupKeepNobodyFromWriting) {
  ASSERT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
  if (!put(folder_.backup())) GTEST_SKIP();
  alarm(20);
  for (int at = 0; at < 30; ++at) {
    EXPECT_EQ(store_.add({"g", numbered("k", at), noise(3000, static_cast<unsigned>(at))}), MD_RC_OK);
  }
  EXPECT_EQ(store_.list().size(), 31u);
  alarm(0);
}

TEST_P(StrangeObjects, InThePlaceOfTheCorruptCopyAreMovedAway) {
  for (int at = 0; at < 3; ++at) ASSERT_EQ(store_.add({"g", numbered("k", at), "x"}), MD_RC_OK);
  if (!put(folder_.path() / "store.cor")) GTEST_SKIP();
  flipByte(folder_.file(), format::LOG_START + 1024);
  alarm(20);
  EXPECT_EQ(store_.repair(), MD_RC_OK);
  EXPECT_EQ(store_.list().size(), 3u);
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(folder_.path() / "store.cor")));
  alarm(0);
}

std::string nameOfObject(const ::testing::TestParamInfo<Object>& object) {
  constexpr const char* NAMES[] = {"Link", "DanglingLink", "Fifo", "Folder", "Socket", "Device"};
  return NAMES[static_cast<int>(object.param)];
}

INSTANTIATE_TEST_SUITE_P(Objects, StrangeObjects,
                         ::testing::Values(Object::LINK, Object::DANGLING_LINK, Object::FIFO, Object::FOLDER,
                                           Object::SOCKET, Object::DEVICE),
                         nameOfObject);

using ForeignFiles = EnginePromises;

TEST_F(ForeignFiles, LinkedToTheNamesOfCompanionsAreNotWrittenThrough) {
  const std::string content(100000, 'v');
  const char* const names[] = {".store.bkp", "store.tmp", "store.cor", ".store.lock"};
  for (const char* name : names) {
    const std::filesystem::path victim = folder_.path() / (std::string("victim") + name);
    std::ofstream(victim) << content;
    std::filesystem::create_hard_link(victim, folder_.path() / name);
  }
  for (int at = 0; at < 40; ++at) {
    ASSERT_EQ(store_.add({"g", numbered("k", at), noise(3000, static_cast<unsigned>(at))}), MD_RC_OK);
  }
  ASSERT_EQ(store_.compact(), MD_RC_OK);
  flipByte(folder_.file(), format::LOG_START + 1024);
  ASSERT_EQ(store_.repair(), MD_RC_OK);
  EXPECT_EQ(store_.list().size(), 40u);
  auto files = filesIn(folder_.path());
  for (const char* name : names) EXPECT_EQ(files[std::string("victim") + name], content) << name;
}

TEST_F(ForeignFiles, OfSomebodyElseAreWrittenToAndNotReplaced) {
  if (geteuid() != 0) GTEST_SKIP() << "needs to be root to become somebody else";
  fill(20);
  std::filesystem::permissions(folder_.path(), std::filesystem::perms(0777));
  std::filesystem::permissions(folder_.file(), std::filesystem::perms(0666));
  std::filesystem::permissions(folder_.path() / ".store.lock", std::filesystem::perms(0444));
  const int result = inChild([&] {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 90;
    TestStore store(folder_.path());
    if (store.add({"g", "of somebody else", "x"}) != MD_RC_OK) return 1;
    return store.compact() == GENREG_RC_NO_PERMISSION ? 0 : 2;
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(store_.list().size(), 21u);
  struct stat state;
  ASSERT_EQ(stat(folder_.file().c_str(), &state), 0);
  EXPECT_EQ(state.st_uid, 0u);
  EXPECT_FALSE(std::filesystem::exists(folder_.path() / "store.tmp"));
}

TEST_F(ForeignFiles, LinkedToABackupOfOursAreNotWrittenThrough) {
  for (int at = 0; at < 4; ++at) ASSERT_EQ(store_.add({"g", numbered("k", at), noise(3000, 1)}), MD_RC_OK);
  std::filesystem::create_hard_link(folder_.backup(), folder_.path() / "kept");
  const std::string kept = filesIn(folder_.path())["kept"];
  for (int at = 4; at < 20; ++at) ASSERT_EQ(store_.add({"g", numbered("k", at), noise(3000, 1)}), MD_RC_OK);
  EXPECT_EQ(filesIn(folder_.path())["kept"], kept);
  EXPECT_GT(std::filesystem::file_size(folder_.backup()), kept.size() + 30000);
}

TEST_F(ForeignFiles, PutAtTheTemporaryNameInTheLastMomentAreNotWrittenThrough) {
  static std::filesystem::path victim;
  static std::filesystem::path temporary;
  static int puts;
  victim = folder_.path() / "victim";
  temporary = folder_.path() / "store.tmp";
  puts = 0;
  fill(20);
  const Values before = store_.list();
  std::ofstream(victim) << "of somebody else";
  systemCalls.openAt = [](int directory, const char* path, int flags, mode_t mode) {
    if ((flags & O_CREAT) != 0 && std::string_view(path) == "store.tmp" && puts++ == 0) {
      std::filesystem::create_hard_link(victim, temporary);
    }
    return realSystemCalls().openAt(directory, path, flags, mode);
  };
  EXPECT_EQ(store_.compact(), MD_RC_OK);
  systemCalls = realSystemCalls();
  EXPECT_GT(puts, 1);
  EXPECT_EQ(store_.list(), before);
  EXPECT_EQ(filesIn(folder_.path())["victim"], "of somebody else");
}

TEST_F(ForeignFiles, HavingOwnersAndModesKeepThemThroughCompaction) {
  const mode_t old = umask(0);
  for (const mode_t mask : {0u, 022u, 077u, 0777u}) {
    std::filesystem::remove(folder_.file());
    umask(mask);
    ASSERT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK) << mask;
    struct stat made;
    ASSERT_EQ(stat(folder_.file().c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 0666 & ~mask) << mask;
    if (geteuid() == 0) {
      ASSERT_EQ(chown(folder_.file().c_str(), 1234, 4321), 0);
    }
    ASSERT_EQ(chmod(folder_.file().c_str(), 0640), 0);
    ASSERT_EQ(store_.compact(), MD_RC_OK);
    struct stat compacted;
    ASSERT_EQ(stat(folder_.file().c_str(), &compacted), 0);
    EXPECT_EQ(compacted.st_mode & 07777, 0640u) << mask;
    EXPECT_NE(compacted.st_ino, made.st_ino);
    if (geteuid() == 0) {
      EXPECT_EQ(compacted.st_uid, 1234u);
      EXPECT_EQ(compacted.st_gid, 4321u);
    }
  }
  umask(old);
}

// ---- Refusals

using Refusals = EnginePromises;

TEST_F(Refusals, TellTheirCause) {
  EXPECT_EQ(store_.add({"g", "refuse me", "x"}), GENREG_RC_BAD_RECORD);
  ASSERT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
  EXPECT_EQ(store_.add({"g", "k", "y"}), GENREG_RC_DUPLICATE_KEY);
  EXPECT_EQ(store_.change({"g", "k", "x"}), GENREG_RC_NO_CHANGE);
  EXPECT_EQ(store_.change({"g", "none", "x"}), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(store_.changeTo({"g", "k", ""}, {"g", "refuse me", "x"}), GENREG_RC_BAD_RECORD);
  EXPECT_EQ(store_.CloseScan(), GENREG_RC_NO_SCAN);
  EXPECT_EQ(store_.commitBatch(), GENREG_RC_NO_BATCH);
  ASSERT_EQ(store_.OpenScan(), MD_RC_OK);
  EXPECT_EQ(store_.OpenScan(), GENREG_RC_SCAN_OPEN);
  EXPECT_EQ(store_.CloseScan(), MD_RC_OK);
  TestStore elsewhere(folder_.path() / "missing");
  EXPECT_EQ(elsewhere.add({"g", "k", "x"}), GENREG_RC_NO_DIRECTORY);
}

TEST_F(Refusals, ConcernRecordsThatAreLongerThanTheLargest) {
  const std::string largest(MAX_DATA - 1, '\0');
  ASSERT_EQ(store_.add({"g", "largest", largest}), MD_RC_OK);
  EXPECT_EQ(store_.add({"g", "zeros", largest + std::string(100, '\0')}), GENREG_RC_BAD_RECORD);
  EXPECT_EQ(store_.add({"g", "letters", largest + "letters"}), GENREG_RC_BAD_RECORD);
  EXPECT_EQ(store_.changeTo({"g", "largest", ""}, {"g", "largest", largest + std::string(100, '\0')}),
            GENREG_RC_BAD_RECORD);
  EXPECT_EQ(store_.list().size(), 1u);
}

TEST_F(Refusals, ConcernRecordsWhoseSizeIsNotTold) {
  class Sizeless : public TestStore {
   public:
    Sizeless(const std::filesystem::path& folder, SizeCallback size) : TestStore(folder) {
      callbacks_.recordSize = size;
    }
  };
  Sizeless refusing(folder_.path(), [](void* record, unsigned long* size) { return recordSize(record, size) + 1; });
  EXPECT_EQ(refusing.add({"g", "k", "x"}), GENREG_RC_BAD_RECORD);
  Sizeless empty(folder_.path(), [](void*, unsigned long* size) {
    *size = 0;
    return 0;
  });
  EXPECT_EQ(empty.add({"g", "k", "x"}), GENREG_RC_BAD_RECORD);
  EXPECT_TRUE(store_.list().empty());
}

TEST_F(Refusals, OfAFileSizeLimitComeAsAnAnswerAndNotAsASignal) {
  for (rlim_t most = 35000; most < 65000; most += 2500) {
    std::filesystem::remove(folder_.file());
    ASSERT_EQ(store_.add({"g", "first", "x"}), MD_RC_OK);
    const int result = inChild([&] {
      const struct rlimit limit { .rlim_cur = most, .rlim_max = most };
      if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 90;
      TestStore store(folder_.path());
      if (store.add({"g", "large", noise(60000, 1)}) != GENREG_RC_FILE_TOO_LARGE) return 1;
      for (int at = 0; at < 2000; ++at) {
        const std::uint32_t rc = store.add({numbered("g", at), numbered("k", at), ""});
        if (rc != MD_RC_OK) return rc == GENREG_RC_FILE_TOO_LARGE && at > 5 ? 0 : 2;
      }
      return 3;
    });
    EXPECT_EQ(result, 0) << most;
    std::uint32_t rc = MD_RC_OK;
    EXPECT_GT(store_.list(0, {}, &rc).size(), 5u);
    EXPECT_EQ(rc, MD_RC_OK);
    EXPECT_EQ(store_.add({"g", "later", noise(60000, 1)}), MD_RC_OK);
  }
}

TEST_F(Refusals, OfADiskThatTakesNothingComeToAnEnd) {
  fill(5);
  systemCalls.pwrite = [](int, const void*, std::size_t, off_t) { return ssize_t{0}; };
  alarm(20);
  EXPECT_EQ(store_.add({"g", "k", "x"}), GENREG_RC_DURABILITY_UNKNOWN);
  alarm(0);
  systemCalls = realSystemCalls();
  EXPECT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
}

TEST_F(Refusals, MeetASecondBatchOfTheSameObject) {
  store_.setLockWait(0);
  for (const bool hasFile : {false, true}) {
    ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
    EXPECT_EQ(store_.beginBatch(), GENREG_RC_BATCH_OPEN) << hasFile;
    ASSERT_EQ(store_.add({"g", numbered("k", hasFile), "x"}), MD_RC_OK);
    EXPECT_EQ(store_.beginBatch(), GENREG_RC_BATCH_OPEN) << hasFile;
    EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
    EXPECT_EQ(store_.commitBatch(), GENREG_RC_NO_BATCH);
  }
  EXPECT_EQ(store_.list().size(), 2u);
}

TEST_F(Refusals, MeetCareOfTheFileWithinABatch) {
  ASSERT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
  ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
  EXPECT_EQ(store_.compact(), GENREG_RC_BATCH_OPEN);
  EXPECT_EQ(store_.repair(), GENREG_RC_BATCH_OPEN);
  ASSERT_EQ(store_.add({"g", "l", "x"}), MD_RC_OK);
  EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
  EXPECT_EQ(store_.compact(), MD_RC_OK);
  EXPECT_EQ(store_.repair(), MD_RC_OK);
  EXPECT_EQ(store_.list().size(), 2u);
}

TEST_F(Refusals, MeetCareOfTheFileWithinAScan) {
  ASSERT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
  ASSERT_EQ(store_.OpenScan(), MD_RC_OK);
  EXPECT_EQ(store_.compact(), GENREG_RC_SCAN_OPEN);
  EXPECT_EQ(store_.repair(), GENREG_RC_SCAN_OPEN);
  EXPECT_EQ(store_.CloseScan(), MD_RC_OK);
  EXPECT_EQ(store_.compact(), MD_RC_OK);
}

TEST_F(Refusals, WriteNothing) {
  ASSERT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
  const auto before = filesIn(folder_.path());
  store_.add({"g", "k", "y"});
  store_.change({"g", "k", "x"});
  store_.change({"g", "none", "x"});
  store_.remove("g", "none");
  store_.removeAll("none", "", GROUP);
  EXPECT_EQ(filesIn(folder_.path()), before);
}

}  // namespace
}  // namespace zon::test
