// Rights of the files that take the place of others: compaction, repair and a backup made anew. What must hold at every
// moment, in every write and for whoever died half way: nobody can read more of the new file than of the old one. The
// rights are looked at from inside the table of system calls, after every call that could change them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "platform/registry/files/file_io.h"
#include "platform/registry/files/system_calls.h"
#include "platform/registry/harness/file_rights_harness.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

TEST_F(FileRightsTest, AreThoseOfTheOldFileFromTheFirstRecordOn) {
  for (const unsigned mode : {0600u, 0640u, 0644u, 0660u, 0604u, 0666u, 0400u}) {
    expectRightsKept({.owner = OWNER, .group = GROUP_OF_FILE, .mode = mode, .accessList = {}},
                     ", mode " + std::to_string(mode));
  }
}

TEST_F(FileRightsTest, IncludeTheAccessList) {
  if (!takesLists()) GTEST_SKIP() << "this file system has no access lists";
  expectRightsKept({.owner = OWNER, .group = GROUP_OF_FILE, .mode = 0660, .accessList = listOf(6, 6, 0, 0)}, ", list");
  expectRightsKept({.owner = OWNER, .group = GROUP_OF_FILE, .mode = 0640, .accessList = listOf(6, 0, 4, 0)}, ", list");
}

TEST_F(FileRightsTest, AreNotWidenedByTheListThatADirectoryHandsDown) {
  if (!takesLists()) GTEST_SKIP() << "this file system has no access lists";
  const auto list = listOf(7, 7, 7, 7);
  ASSERT_EQ(setxattr(folder_.path().c_str(), DEFAULT_LIST, list.data(), list.size(), 0), 0);
  for (const unsigned mode : {0600u, 0640u, 0660u}) {
    expectRightsKept({.owner = OWNER, .group = GROUP_OF_FILE, .mode = mode, .accessList = {}},
                     ", inherited, mode " + std::to_string(mode));
  }
  expectRightsKept({.owner = OWNER, .group = GROUP_OF_FILE, .mode = 0640, .accessList = listOf(6, 0, 4, 0)},
                   ", inherited, list");
}

TEST_F(FileRightsTest, OfANewFileFollowTheSettingsAndTheUsersMask) {
  const mode_t kept = umask(0027);
  EXPECT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
  umask(kept);
  EXPECT_EQ(rightsOfPath(folder_.file()).mode, 0640u);
}

// ---- A writer who may not give them

TEST_F(FileRightsTest, ThatCannotBeGivenKeepTheOldFileAndItsRecords) {
  openFolder();
  for (const Rewrite& rewrite : rewrites()) {
    begin();
    give({.owner = OWNER, .group = GROUP_OF_FILE, .mode = 0666, .accessList = {}});
    chmod((folder_.path() / ".store.lock").c_str(), 0666);
    rewrite.prepare(store_, folder_);
    give({.owner = OWNER, .group = GROUP_OF_FILE, .mode = 0666, .accessList = {}});
    const ino_t before = inodeOf(folder_.file());
    ASSERT_EQ(seteuid(STRANGER), 0);
    const std::uint32_t rc = rewrite.run(store_);
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_TRUE(rc == MD_RC_OK || rc == GENREG_RC_NO_PERMISSION) << rewrite.name;
    EXPECT_EQ(inodeOf(folder_.file()), before) << rewrite.name;
    EXPECT_FALSE(std::filesystem::exists(folder_.path() / "store.tmp")) << rewrite.name;
    EXPECT_GE(store_.list().size(), 60u) << rewrite.name;
  }
}

TEST_F(FileRightsTest, ThatTheSystemRefusesToTellOrToGiveEndTheRewrite) {
  const auto compactWith = [this](const std::function<void()>& spoilCalls) {
    begin();
    give({.owner = OWNER, .group = GROUP_OF_FILE, .mode = 0660, .accessList = {}});
    const ino_t before = inodeOf(folder_.file());
    spoilCalls();
    const std::uint32_t rc = store_.compact();
    systemCalls = realSystemCalls();
    EXPECT_EQ(inodeOf(folder_.file()), before);
    EXPECT_FALSE(std::filesystem::exists(folder_.path() / "store.tmp"));
    EXPECT_EQ(store_.list().size(), 60u);
    EXPECT_EQ(store_.compact(), MD_RC_OK);
    return rc;
  };
  EXPECT_EQ(compactWith([] {
              systemCalls.getAttribute = [](int, const char*, void*, std::size_t) {
                errno = EIO;
                return ssize_t{-1};
              };
            }),
            GENREG_RC_IO_ERROR);
  EXPECT_EQ(compactWith([] {
              systemCalls.fchown = [](int, uid_t, gid_t) {
                errno = EPERM;
                return -1;
              };
            }),
            GENREG_RC_NO_PERMISSION);
  EXPECT_EQ(compactWith([] {
              systemCalls.fchmod = [](int, mode_t) {
                errno = EIO;
                return -1;
              };
            }),
            GENREG_RC_IO_ERROR);
  // A file system without access lists is none of these.
  begin();
  systemCalls.getAttribute = [](int, const char*, void*, std::size_t) {
    errno = EOPNOTSUPP;
    return ssize_t{-1};
  };
  EXPECT_EQ(store_.compact(), MD_RC_OK);
}

// ---- What others left or hold open

TEST_F(FileRightsTest, OfALeftoverDoNotPassToTheNewFile) {
  openFolder();
  begin();
  give({.owner = OWNER, .group = GROUP_OF_FILE, .mode = 0600, .accessList = {}});
  const std::filesystem::path temporary = folder_.path() / "store.tmp";
  std::ofstream(temporary) << "left behind";
  ASSERT_EQ(chmod(temporary.c_str(), 0666), 0);
  ASSERT_EQ(chown(temporary.c_str(), STRANGER, STRANGER), 0);
  const Descriptor held(open(temporary.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(store_.compact(), MD_RC_OK);
  struct stat status {};
  ASSERT_EQ(fstat(held.get(), &status), 0);
  EXPECT_EQ(status.st_size, 11);
  EXPECT_EQ(status.st_nlink, 0u);
  EXPECT_EQ(rightsOfPath(folder_.file()).mode, 0600u);
}

TEST_F(FileRightsTest, OfAnEmptyLeftoverThatItsMakerAloneCanOpenHoldNobodyUp) {
  openFolder();
  begin();
  give({.owner = STRANGER, .group = getegid(), .mode = 0600, .accessList = {}});
  chmod((folder_.path() / ".store.lock").c_str(), 0666);
  const std::filesystem::path temporary = folder_.path() / "store.tmp";
  std::ofstream(temporary) << "";
  ASSERT_EQ(chmod(temporary.c_str(), 0600), 0);
  const ino_t before = inodeOf(folder_.file());
  ASSERT_EQ(seteuid(STRANGER), 0);
  const std::uint32_t rc = store_.compact();
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(rc, MD_RC_OK);
  EXPECT_NE(inodeOf(folder_.file()), before);
}

TEST_F(FileRightsTest, OfABackupThatHasMoreThanTheFileAreNotUsedForNewRecords) {
  begin();
  give({.owner = OWNER, .group = GROUP_OF_FILE, .mode = 0644, .accessList = {}});
  const Descriptor held(open(folder_.backup().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(chmod(folder_.file().c_str(), 0600), 0);
  struct stat before {};
  ASSERT_EQ(fstat(held.get(), &before), 0);
  ASSERT_EQ(store_.add({"secret", "secret", noise(40000, 5)}), MD_RC_OK);
  struct stat after {};
  ASSERT_EQ(fstat(held.get(), &after), 0);
  EXPECT_EQ(after.st_size, before.st_size);
  EXPECT_EQ(rightsOfPath(folder_.backup()).mode, 0600u);
  EXPECT_NE(inodeOf(folder_.backup()), before.st_ino);
}

// A writer killed at any call of a rewrite leaves nothing that more people could read, and whoever comes next goes on.
TEST_F(FileRightsTest, AreNotWiderInWhatADeadWriterLeaves) {
  static int left = 0;
  constexpr int MOST_CALLS = 400;
  bool ended = false;
  for (int calls = 0; calls < MOST_CALLS && !ended; ++calls) {
    begin();
    const FileRights rights{.owner = OWNER, .group = GROUP_OF_FILE, .mode = 0600, .accessList = {}};
    give(rights);
    const pid_t child = fork();
    if (child == 0) {
      left = calls;
      const auto die = [] {
        if (left-- == 0) raise(SIGKILL);
      };
      static const auto dieNow = die;
      systemCalls.openAt = [](int directory, const char* name, int flags, mode_t mode) {
        const int result = realSystemCalls().openAt(directory, name, flags, mode);
        dieNow();
        return result;
      };
      systemCalls.pwrite = [](int file, const void* data, std::size_t size, off_t offset) {
        const ssize_t result = realSystemCalls().pwrite(file, data, size, offset);
        dieNow();
        return result;
      };
      systemCalls.fchown = [](int file, uid_t owner, gid_t group) {
        const int result = realSystemCalls().fchown(file, owner, group);
        dieNow();
        return result;
      };
      systemCalls.fchmod = [](int file, mode_t mode) {
        const int result = realSystemCalls().fchmod(file, mode);
        dieNow();
        return result;
      };
      TestStore store(folder_.path());
      _exit(store.compact() == MD_RC_OK ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ended = WIFEXITED(status);
    const std::filesystem::path temporary = folder_.path() / "store.tmp";
    if (std::filesystem::exists(temporary)) {
      EXPECT_EQ(rightsOfPath(temporary).mode & 077, 0u) << calls;
    }
    EXPECT_EQ(store_.list().size(), 60u) << calls;
    EXPECT_EQ(store_.compact(), MD_RC_OK) << calls;
    EXPECT_EQ(rightsOfPath(folder_.file()), rights) << calls;
  }
  EXPECT_TRUE(ended);
}

}  // namespace
}  // namespace zon::test
