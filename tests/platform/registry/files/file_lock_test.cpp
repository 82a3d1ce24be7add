// Locks by name: who has one has the file that the name leads to, and nobody waits longer than told.
#include "platform/registry/files/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "platform/registry/files/system_calls.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

class FileLocks : public ::testing::Test {
 protected:
  FileLocks() {
    EXPECT_EQ(openDirectory(folder_.path().c_str(), directory_), MD_RC_OK);
    path_ = folder_.path() / "lock";
  }
  ~FileLocks() override { systemCalls = realSystemCalls(); }

  std::uint32_t lock(LockedFile& file, std::uint64_t waitMs = 0, int flags = O_RDWR | O_CREAT) {
    return lockByName(directory_.get(), "lock", flags, 0666, nowMs() + waitMs, file);
  }
  // What a stranger would be told who tries now.
  bool isFree() {
    const int file = open(path_.c_str(), O_RDWR | O_CLOEXEC);
    const bool free = flock(file, LOCK_EX | LOCK_NB) == 0;
    close(file);
    return free;
  }

  TestFolder folder_;
  Descriptor directory_;
  std::filesystem::path path_;
};

TEST_F(FileLocks, ExcludeOthersUntilTheyAreReleased) {
  LockedFile first;
  ASSERT_EQ(lock(first), MD_RC_OK);
  EXPECT_TRUE(first.isHeld());
  EXPECT_FALSE(isFree());
  LockedFile second;
  EXPECT_EQ(lock(second), GENREG_RC_LOCK_TIMEOUT);
  EXPECT_FALSE(second.isHeld());
  first.release();
  EXPECT_TRUE(isFree());
  EXPECT_EQ(lock(second), MD_RC_OK);
}

TEST_F(FileLocks, EndWithTheirObject) {
  {
    LockedFile held;
    ASSERT_EQ(lock(held), MD_RC_OK);
    const LockedFile moved = std::move(held);
    EXPECT_FALSE(isFree());
  }
  EXPECT_TRUE(isFree());
}

TEST_F(FileLocks, AreHadAsSoonAsTheyAreFree) {
  LockedFile first;
  ASSERT_EQ(lock(first), MD_RC_OK);
  std::thread releasing([&first] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    first.release();
  });
  const std::uint64_t start = nowMs();
  LockedFile second;
  EXPECT_EQ(lock(second, 5000), MD_RC_OK);
  EXPECT_LT(nowMs() - start, 1000u);
  releasing.join();
}

TEST_F(FileLocks, AreWaitedForAsLongAsToldWhoeverKeepsThem) {
  LockedFile first;
  ASSERT_EQ(lock(first), MD_RC_OK);
  const std::uint64_t start = nowMs();
  LockedFile second;
  EXPECT_EQ(lock(second, 100), GENREG_RC_LOCK_TIMEOUT);
  EXPECT_GE(nowMs() - start, 100u);
  EXPECT_LT(nowMs() - start, 400u);
}

TEST_F(FileLocks, OfAFileThatWasRemovedMeanwhileAreTakenAnew) {
  // Between opening and locking somebody removes the file; who comes later locks another one of that name.
  static std::filesystem::path path;
  static int rounds;
  path = path_;
  rounds = 0;
  systemCalls.flock = [](int file, int operation) {
    if ((operation & LOCK_UN) == 0 && rounds++ == 0) std::filesystem::remove(path);
    return realSystemCalls().flock(file, operation);
  };
  LockedFile held;
  ASSERT_EQ(lock(held, 1000), MD_RC_OK);
  FileState named;
  ASSERT_EQ(stateAt(directory_.get(), "lock", named), MD_RC_OK);
  FileState own;
  ASSERT_EQ(stateOf(held.get(), own), MD_RC_OK);
  EXPECT_EQ(own.inode, named.inode);
  EXPECT_GE(rounds, 2);
}

TEST_F(FileLocks, OfAFileThatIsAlwaysReplacedEndInATimeout) {
  static std::filesystem::path path;
  path = path_;
  systemCalls.flock = [](int file, int operation) {
    if ((operation & LOCK_UN) == 0) std::filesystem::remove(path);
    return realSystemCalls().flock(file, operation);
  };
  LockedFile held;
  EXPECT_EQ(lock(held, 50), GENREG_RC_LOCK_TIMEOUT);
}

TEST_F(FileLocks, AreNotKeptByAChildThatWasForkedMeanwhile) {
  LockedFile held;
  ASSERT_EQ(lock(held), MD_RC_OK);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  if (child == 0) {
    char byte = 0;
    close(ends[1]);
    _exit(read(ends[0], &byte, 1) == 0 ? 0 : 1);
  }
  held.release();
  EXPECT_TRUE(isFree());
  close(ends[0]);
  close(ends[1]);
  int status = 0;
  waitpid(child, &status, 0);
}

TEST_F(FileLocks, AreNotReleasedByAForkedChild) {
  LockedFile held;
  ASSERT_EQ(lock(held), MD_RC_OK);
  EXPECT_TRUE(held.isOurs());
  const pid_t child = fork();
  if (child == 0) {
    const bool isOurs = held.isOurs();
    held.release();
    _exit(isOurs ? 1 : 0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(isFree());
}

TEST_F(FileLocks, OfABatchStayWithTheProcessThatBeganIt) {
  TestStore store(folder_.path());
  ASSERT_EQ(store.add({"g", "first", "x"}), MD_RC_OK);
  ASSERT_EQ(store.beginBatch(), MD_RC_OK);
  ASSERT_EQ(store.add({"g", "of the batch", "x"}), MD_RC_OK);
  const pid_t child = fork();
  if (child == 0) {
    store.add({"g", "of the child", "x"});
    _exit(store.commitBatch() == GENREG_RC_NO_BATCH ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  TestStore other(folder_.path());
  other.setLockWait(0);
  EXPECT_EQ(other.add({"g", "beside", "x"}), GENREG_RC_LOCK_TIMEOUT);
  EXPECT_EQ(store.commitBatch(), MD_RC_OK);
  EXPECT_EQ(store.list(), (std::vector<Value>{{"g", "first", "x"}, {"g", "of the batch", "x"}}));
}

TEST_F(FileLocks, OfAMissingFileAreNotFoundWithoutLeaveToMakeIt) {
  LockedFile held;
  EXPECT_EQ(lock(held, 0, O_RDWR), GENREG_RC_NOT_FOUND);
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(FileLocks, NeedNoRightToWrite) {
  std::ofstream(path_) << "";
  std::filesystem::permissions(path_, std::filesystem::perms(0444));
  LockedFile held;
  EXPECT_EQ(lock(held, 0, O_RDONLY), MD_RC_OK);
}

}  // namespace
}  // namespace zon::test
