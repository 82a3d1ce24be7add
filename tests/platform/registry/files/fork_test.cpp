// Forks while a file is locked, at every moment of the lock: the lock stays with the process that took it and ends with
// it, whatever children live on, and what they have copies of can do no harm.
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <optional>
#include <thread>

#include "platform/registry/files/file_lock.h"
#include "platform/registry/files/system_calls.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

constexpr std::uint64_t AT_ONCE_MS = 2000;  // well below the waits that the tests set
constexpr std::uint32_t LONG_WAIT_MS = 5000;

// A handler that is older than the engine's, and so is called after it before a fork: it can keep a fork under way.
std::atomic<bool> holdsForks = false;
std::atomic<bool> isForkHeld = false;
void holdFork() {
  for (; holdsForks; usleep(100)) isForkHeld = true;
}
[[gnu::constructor(101)]] void addOldHandler() { pthread_atfork(holdFork, nullptr, nullptr); }

// A forked child that does nothing until the object goes. It is past what it does at the fork when it is made.
class IdleChild {
 public:
  IdleChild() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_), 0);
    pid_ = fork();
    char byte = 0;
    if (pid_ == 0) {
      close(ends_[0]);
      _exit(write(ends_[1], &byte, 1) == 1 && read(ends_[1], &byte, 1) == 0 ? 0 : 1);
    }
    close(ends_[1]);
    EXPECT_EQ(read(ends_[0], &byte, 1), 1);
  }
  IdleChild(const IdleChild&) = delete;
  IdleChild& operator=(const IdleChild&) = delete;
  ~IdleChild() {
    close(ends_[0]);
    int status = 0;
    EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
    EXPECT_EQ(status, 0);
  }

 private:
  int ends_[2] = {-1, -1};
  pid_t pid_ = -1;
};

// A process of which one thread stops in the midst of its work and another one forks a child then, which idles.
class StoppedWriter {
 public:
  explicit StoppedWriter(const std::function<void()>& work) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    EXPECT_EQ(pipe2(report_, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(life_, O_CLOEXEC), 0);
    writer_ = fork();
    if (writer_ == 0) run(work);
    close(report_[1]);
    close(life_[0]);
    EXPECT_EQ(read(report_[0], &child_, sizeof child_), static_cast<ssize_t>(sizeof child_));
  }
  StoppedWriter(const StoppedWriter&) = delete;
  StoppedWriter& operator=(const StoppedWriter&) = delete;
  ~StoppedWriter() {
    kill();
    close(report_[0]);
    close(life_[1]);
    int status = 0;
    EXPECT_EQ(waitpid(child_, &status, 0), child_);
    EXPECT_EQ(status, 0);
  }

  void kill() {
    if (writer_ < 0) return;
    ::kill(writer_, SIGKILL);
    waitpid(writer_, nullptr, 0);
    writer_ = -1;
  }
  bool childLives() const { return waitpid(child_, nullptr, WNOHANG) == 0; }

  // To be called where the work is to stop.
  static void stop() {
    isStopped = true;
    isStopped.notify_all();
    for (;;) pause();
  }

 private:
  [[noreturn]] void run(const std::function<void()>& work) {
    std::thread(work).detach();
    isStopped.wait(false);
    const pid_t child = fork();
    if (child == 0) {
      const pid_t self = getpid();
      char byte = 0;
      close(life_[1]);
      const bool told = write(report_[1], &self, sizeof self) == sizeof self;
      _exit(told && read(life_[0], &byte, 1) == 0 ? 0 : 1);
    }
    for (;;) pause();
  }

  static inline std::atomic<bool> isStopped = false;
  int report_[2] = {-1, -1};
  int life_[2] = {-1, -1};
  pid_t writer_ = -1;
  pid_t child_ = -1;
};

class ForksBesideALock : public EngineTest {
 protected:
  ForksBesideALock() {
    EXPECT_EQ(openDirectory(folder_.path().c_str(), directory_), MD_RC_OK);
    EXPECT_EQ(store_.add({"g", "first", "x"}), MD_RC_OK);
  }
  ~ForksBesideALock() override { systemCalls = realSystemCalls(); }

  std::uint32_t lock(LockedFile& file) {
    return lockByName(directory_.get(), "lock", O_RDWR | O_CREAT, 0666, nowMs() + LONG_WAIT_MS, file);
  }
  bool isFree() {
    const int file = open((folder_.path() / "lock").c_str(), O_RDWR | O_CLOEXEC);
    const bool free = flock(file, LOCK_EX | LOCK_NB) == 0;
    close(file);
    return free;
  }
  // Closes the file as the end of the process would: without a word to the lock.
  static void dropAsInDeath(LockedFile& file) {
    systemCalls.flock = [](int descriptor, int operation) {
      return operation == LOCK_UN ? 0 : realSystemCalls().flock(descriptor, operation);
    };
    file.release();
    systemCalls = realSystemCalls();
  }

  // Nobody comes in beside the stopped writer, and somebody does as soon as it is dead, while its child lives on.
  void expectLockEndsWithWriter(const std::function<void()>& work) {
    StoppedWriter writer(work);
    store_.setLockWait(0);
    EXPECT_EQ(store_.add({"g", "beside", "x"}), GENREG_RC_LOCK_TIMEOUT);
    writer.kill();
    store_.setLockWait(LONG_WAIT_MS);
    const std::uint64_t start = nowMs();
    EXPECT_EQ(store_.add({"g", "after", "x"}), MD_RC_OK);
    EXPECT_EQ(store_.compact(), MD_RC_OK);
    EXPECT_LT(nowMs() - start, AT_ONCE_MS);
    EXPECT_TRUE(writer.childLives());
    Value found;
    EXPECT_EQ(store_.get("g", "first", found), MD_RC_OK);
    EXPECT_EQ(store_.get("g", "beside", found), GENREG_RC_NOT_FOUND);
    EXPECT_EQ(store_.get("g", "after", found), MD_RC_OK);
  }

  Descriptor directory_;
};

TEST_F(ForksBesideALock, LeaveNoLockBehindAWriterThatIsKilledInAChange) {
  expectLockEndsWithWriter([this] {
    systemCalls.fdatasync = [](int) {
      StoppedWriter::stop();
      return 0;
    };
    TestStore(folder_.path()).add({"g", "of the killed", "x"});
  });
}

TEST_F(ForksBesideALock, LeaveNoLockBehindAWriterThatIsKilledInACompaction) {
  expectLockEndsWithWriter([this] {
    systemCalls.renameAt = [](int, const char*, int, const char*) {
      StoppedWriter::stop();
      return 0;
    };
    static_cast<void>(TestStore(folder_.path()).compact());  // does not come back
  });
}

TEST_F(ForksBesideALock, LeaveNoLockBehindAWriterThatIsKilledInABatch) {
  expectLockEndsWithWriter([this] {
    TestStore store(folder_.path());
    EXPECT_EQ(store.beginBatch(), MD_RC_OK);
    store.add({"g", "of the killed", "x"});
    StoppedWriter::stop();
  });
}

TEST_F(ForksBesideALock, LeaveNoLockBehindAWriterThatIsKilledWhileItWaitsForAnother) {
  LockedFile held;
  ASSERT_EQ(lockByName(directory_.get(), "store", O_RDWR, 0666, nowMs(), held), MD_RC_OK);
  StoppedWriter writer([this] {
    systemCalls.sleepFor = [](const timespec*, timespec*) {
      StoppedWriter::stop();
      return 0;
    };
    TestStore(folder_.path()).add({"g", "of the killed", "x"});
  });
  writer.kill();
  held.release();
  store_.setLockWait(LONG_WAIT_MS);
  EXPECT_EQ(store_.add({"g", "after", "x"}), MD_RC_OK);
  EXPECT_TRUE(writer.childLives());
}

TEST_F(ForksBesideALock, LeaveNoCopyThatWasMadeBetweenOpeningAndLocking) {
  static std::optional<IdleChild> child;
  systemCalls.openAt = [](int directory, const char* path, int flags, mode_t mode) {
    const int file = realSystemCalls().openAt(directory, path, flags, mode);
    if (!child.has_value()) child.emplace();
    return file;
  };
  LockedFile held;
  ASSERT_EQ(lock(held), MD_RC_OK);
  ASSERT_TRUE(child.has_value());
  EXPECT_FALSE(isFree());
  dropAsInDeath(held);
  EXPECT_TRUE(isFree());
  child.reset();
}

TEST_F(ForksBesideALock, ThatAreUnderWayAreWaitedForBeforeTheFileIsOpened) {
  static std::atomic<bool> hasForked;
  static std::atomic<bool> openedMeanwhile;
  static std::atomic<int> pauses;
  hasForked = openedMeanwhile = isForkHeld = false;
  pauses = 0;
  holdsForks = true;
  std::thread forking([] {
    const IdleChild child;
    hasForked = true;
  });
  while (!isForkHeld) usleep(100);
  systemCalls.sleepFor = [](const timespec*, timespec*) {
    ++pauses;
    holdsForks = false;
    while (!hasForked) usleep(100);
    return 0;
  };
  systemCalls.openAt = [](int directory, const char* path, int flags, mode_t mode) {
    if (!hasForked) openedMeanwhile = true;
    return realSystemCalls().openAt(directory, path, flags, mode);
  };
  LockedFile held;
  EXPECT_EQ(lock(held), MD_RC_OK);
  EXPECT_FALSE(openedMeanwhile);
  EXPECT_EQ(pauses, 1);
  holdsForks = false;
  forking.join();
}

// As when the fork waits, in a handler of the program, for a mutex that the caller of the change has.
TEST_F(ForksBesideALock, ThatWaitThemselvesDoNotHoldItUpForLong) {
  isForkHeld = false;
  holdsForks = true;
  std::thread forking([] { const IdleChild child; });
  while (!isForkHeld) usleep(100);
  const std::uint64_t start = nowMs();
  EXPECT_EQ(store_.add({"g", "meanwhile", "x"}), MD_RC_OK);
  EXPECT_LT(nowMs() - start, AT_ONCE_MS);
  holdsForks = false;
  forking.join();
}

TEST_F(ForksBesideALock, LeaveNoneWithChildrenOfChildren) {
  LockedFile held;
  ASSERT_EQ(lock(held), MD_RC_OK);
  // The child takes a lock of its own, its child idles, and the child dies with the lock.
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  if (child == 0) {
    LockedFile own;
    static bool hasWaited = false;
    systemCalls.sleepFor = [](const timespec*, timespec*) {
      hasWaited = true;
      return 0;
    };
    std::uint32_t rc = lockByName(directory_.get(), "other", O_RDWR | O_CREAT, 0666, nowMs(), own);
    if (hasWaited) rc = GENREG_RC_LOCK_TIMEOUT;
    const IdleChild idle;
    const bool told = write(ends[1], &rc, sizeof rc) == sizeof rc;
    for (;;) told ? pause() : raise(SIGKILL);
  }
  std::uint32_t rc = GENREG_RC_INTERNAL;
  ASSERT_EQ(read(ends[0], &rc, sizeof rc), static_cast<ssize_t>(sizeof rc));
  EXPECT_EQ(rc, MD_RC_OK);
  LockedFile other;
  EXPECT_EQ(lockByName(directory_.get(), "other", O_RDWR, 0666, nowMs(), other), GENREG_RC_LOCK_TIMEOUT);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_EQ(lockByName(directory_.get(), "other", O_RDWR, 0666, nowMs() + LONG_WAIT_MS, other), MD_RC_OK);
  EXPECT_FALSE(isFree());
  close(ends[0]);
  close(ends[1]);
}

TEST_F(ForksBesideALock, CloseCopiesOfHighNumbersToo) {
  struct rlimit limit {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const int high = static_cast<int>(std::min<rlim_t>(limit.rlim_cur, 1 << 20)) - 1;
  Descriptor file;
  ASSERT_EQ(openAnything(directory_.get(), "lock", O_RDWR | O_CREAT, 0666, file), MD_RC_OK);
  LockedFile held;
  held.take(Descriptor(fcntl(file.get(), F_DUPFD_CLOEXEC, high)));
  ASSERT_EQ(held.get(), high);
  file.reset();
  ASSERT_EQ(held.lock(nowMs()), MD_RC_OK);
  const IdleChild child;
  EXPECT_FALSE(isFree());
  dropAsInDeath(held);
  EXPECT_TRUE(isFree());
}

// Another thread may open a file as soon as the number is free, and a third one fork.
TEST_F(ForksBesideALock, LeaveTheFileAloneThatGetsTheNumberOfALockedOne) {
  static int number;
  static int status;
  LockedFile held;
  ASSERT_EQ(lock(held), MD_RC_OK);
  number = held.get();
  status = -1;
  systemCalls.close = [](int file) {
    const int rc = realSystemCalls().close(file);
    if (file != number) return rc;
    const int reused = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(reused, number);
    const pid_t child = fork();
    if (child == 0) _exit(fcntl(reused, F_GETFD) >= 0 ? 0 : 1);
    waitpid(child, &status, 0);
    return realSystemCalls().close(reused);
  };
  held.release();
  EXPECT_EQ(status, 0);
}

// The numbers are free in the child, which may open files of its own there before the copies of objects go.
TEST_F(ForksBesideALock, LetTheChildKeepItsOwnFilesWhenTheCopiesGo) {
  auto store = std::make_unique<TestStore>(folder_.path());
  ASSERT_EQ(store->beginBatch(), MD_RC_OK);
  ASSERT_EQ(store->add({"g", "of the batch", "x"}), MD_RC_OK);
  const pid_t child = fork();
  if (child == 0) {
    int files[8];
    for (int& file : files) file = open("/dev/null", O_RDONLY | O_CLOEXEC);
    store.reset();
    bool open = true;
    for (const int file : files) open = open && fcntl(file, F_GETFD) >= 0;
    _exit(open ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(store->commitBatch(), MD_RC_OK);
}

TEST_F(ForksBesideALock, EndTheBatchForTheChildAlone) {
  ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "of the batch", "x"}), MD_RC_OK);
  const pid_t child = fork();
  if (child == 0) {
    Value found;
    std::uint32_t listed = MD_RC_OK;
    store_.list(0, {}, &listed);
    const bool refused = store_.get("g", "first", found) == GENREG_RC_NO_BATCH && listed == GENREG_RC_NO_BATCH &&
                         store_.add({"g", "of the child", "x"}) == GENREG_RC_NO_BATCH &&
                         store_.change({"g", "first", "y"}) == GENREG_RC_NO_BATCH &&
                         store_.remove("g", "first") == GENREG_RC_NO_BATCH &&
                         store_.commitBatch() == GENREG_RC_NO_BATCH && store_.get("g", "first", found) == MD_RC_OK;
    _exit(refused ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
  EXPECT_EQ(store_.list(), (std::vector<Value>{{"g", "first", "x"}, {"g", "of the batch", "x"}}));
}

TEST_F(ForksBesideALock, EndAScanOfTheBatchForTheChild) {
  ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
  ASSERT_EQ(store_.OpenScan(), MD_RC_OK);
  auto key = encode({}, true);
  std::vector<std::byte> out(key.size());
  const pid_t child = fork();
  if (child == 0) {
    const bool ended = store_.GetNext(0, key.data(), out.data()) == GENREG_RC_NO_BATCH &&
                       store_.GetNext(0, key.data(), out.data()) == GENREG_RC_END_OF_SCAN &&
                       store_.CloseScan() == GENREG_RC_NO_BATCH;
    _exit(ended ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(store_.GetNext(0, key.data(), out.data()), MD_RC_OK);
  EXPECT_EQ(store_.CloseScan(), MD_RC_OK);
  EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
}

}  // namespace
}  // namespace zon::test
