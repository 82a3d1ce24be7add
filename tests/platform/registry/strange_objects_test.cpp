// What lies at the names of a record file and its companions without being ours: links, pipes, folders, sockets,
// devices, files of somebody else. None is followed, waited for or written through.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "platform/registry/files/system_calls.h"
#include "platform/registry/format/format.h"
#include "platform/registry/harness/engine_promises.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

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
  spoilByteOfFile(folder_.file(), format::LOG_START + 1024);
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

class ForeignFiles : public EnginePromises {};

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
  spoilByteOfFile(folder_.file(), format::LOG_START + 1024);
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

}  // namespace
}  // namespace zon::test
