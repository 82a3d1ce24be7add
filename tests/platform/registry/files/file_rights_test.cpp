// Rights of the files that take the place of others: compaction, repair and a backup made anew. What must hold at every
// moment, in every write and for whoever died half way: nobody can read more of the new file than of the old one. The
// rights are looked at from inside the table of system calls, after every call that could change them.
#include "platform/registry/files/file_rights.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <functional>

#include "platform/registry/files/file_io.h"
#include "platform/registry/files/system_calls.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

constexpr std::size_t SMALL_RECORDS = 65536;
constexpr uid_t OWNER = 1234;
constexpr gid_t GROUP_OF_FILE = 5678;
constexpr uid_t NAMED_USER = 4321;
constexpr uid_t STRANGER = 65534;
constexpr const char* ACCESS_LIST = "system.posix_acl_access";
constexpr const char* DEFAULT_LIST = "system.posix_acl_default";

// One line of a POSIX access list, as the system keeps it behind a version.
struct Line {
  std::uint16_t tag;
  std::uint16_t permissions;
  std::uint32_t id;
};
constexpr std::uint16_t USER_OBJECT = 1;
constexpr std::uint16_t USER = 2;
constexpr std::uint16_t GROUP_OBJECT = 4;
constexpr std::uint16_t MASK = 16;
constexpr std::uint16_t OTHER = 32;
constexpr std::uint32_t NOBODY = 0xFFFFFFFF;

// The file's own bits, and what the named user may do.
std::vector<std::byte> listOf(unsigned owner, unsigned named, unsigned group, unsigned other) {
  const std::uint32_t version = 2;
  const std::array<Line, 5> lines{
      Line{USER_OBJECT, static_cast<std::uint16_t>(owner), NOBODY},
      Line{USER, static_cast<std::uint16_t>(named), NAMED_USER},
      Line{GROUP_OBJECT, static_cast<std::uint16_t>(group), NOBODY},
      Line{MASK, static_cast<std::uint16_t>(named | group), NOBODY},
      Line{OTHER, static_cast<std::uint16_t>(other), NOBODY},
  };
  std::vector<std::byte> bytes(sizeof version + sizeof lines);
  std::memcpy(bytes.data(), &version, sizeof version);
  std::memcpy(bytes.data() + sizeof version, lines.data(), sizeof lines);
  return bytes;
}

// The permissions of one list line, -1 when there is none.
int lineOf(const FileRights& rights, std::uint16_t tag) {
  for (std::size_t at = 4; at + sizeof(Line) <= rights.accessList.size(); at += sizeof(Line)) {
    Line line{};
    std::memcpy(&line, rights.accessList.data() + at, sizeof line);
    if (line.tag == tag) return line.permissions;
  }
  return -1;
}

// What the owner's group, the named user and everybody else may do.
std::array<unsigned, 3> othersRights(const FileRights& rights) {
  const unsigned other = rights.mode & 7;
  const unsigned middle = rights.mode >> 3 & 7;
  if (rights.accessList.empty()) return {middle, other, other};
  return {static_cast<unsigned>(lineOf(rights, GROUP_OBJECT)) & middle,
          static_cast<unsigned>(lineOf(rights, USER)) & middle, other};
}

FileRights rightsOfPath(const std::filesystem::path& path) {
  FileRights rights;
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(rightsOf(file.get(), rights), MD_RC_OK) << path;
  return rights;
}

// Looks at the temporary file after every call that touches it.
class Watch {
 public:
  explicit Watch(const TestFolder& folder) {
    path_ = folder.path() / "store.tmp";
    allowed_ = rightsOfPath(folder.file());
    problems_.clear();
    looks_ = 0;
    systemCalls.openAt = [](int directory, const char* name, int flags, mode_t mode) {
      const int result = realSystemCalls().openAt(directory, name, flags, mode);
      look();
      return result;
    };
    systemCalls.pwrite = [](int file, const void* data, std::size_t size, off_t offset) {
      look();
      return realSystemCalls().pwrite(file, data, size, offset);
    };
    systemCalls.fchown = [](int file, uid_t owner, gid_t group) {
      const int result = realSystemCalls().fchown(file, owner, group);
      look();
      return result;
    };
    systemCalls.fchmod = [](int file, mode_t mode) {
      const int result = realSystemCalls().fchmod(file, mode);
      look();
      return result;
    };
    systemCalls.setAttribute = [](int file, const char* name, const void* value, std::size_t size, int flags) {
      const int result = realSystemCalls().setAttribute(file, name, value, size, flags);
      look();
      return result;
    };
    systemCalls.removeAttribute = [](int file, const char* name) {
      const int result = realSystemCalls().removeAttribute(file, name);
      look();
      return result;
    };
  }
  ~Watch() { systemCalls = realSystemCalls(); }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  // Whether the file was ever open to more people than the record file.
  const std::string& problems() const { return problems_; }
  int looks() const { return looks_; }

 private:
  static void look() {
    const int kept = errno;
    const Descriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    FileRights present;
    if (file.isOpen() && rightsOf(file.get(), present) == MD_RC_OK) compare(present);
    errno = kept;
  }
  static void compare(const FileRights& present) {
    ++looks_;
    const auto have = othersRights(present);
    const auto may = othersRights(allowed_);
    // As long as it has another group, that group's members are anybody.
    const unsigned group = present.group == allowed_.group ? may[0] : may[2] & may[0];
    const bool isWider = (have[0] & ~group) != 0 || (have[1] & ~may[1]) != 0 || (have[2] & ~may[2]) != 0;
    if (isWider) problems_ += "mode " + std::to_string(present.mode) + " at look " + std::to_string(looks_) + "; ";
  }

  static inline std::filesystem::path path_;
  static inline FileRights allowed_;
  static inline std::string problems_;
  static inline int looks_ = 0;
};

struct Rewrite {
  const char* name;
  std::function<void(TestStore&, const TestFolder&)> prepare;
  std::function<std::uint32_t(TestStore&)> run;
  bool makesFile;
};

void addMany(TestStore& store, int from, int to) {
  ASSERT_EQ(store.beginBatch(), MD_RC_OK);
  for (int at = from; at < to; ++at) {
    ASSERT_EQ(
        store.add({"g" + std::to_string(at % 3), "k" + std::to_string(at), noise(400, static_cast<unsigned>(at))}),
        MD_RC_OK);
  }
  ASSERT_EQ(store.commitBatch(), MD_RC_OK);
}

void spoil(TestStore&, const TestFolder& folder) {
  std::ifstream file(folder.file(), std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  const std::size_t at = bytes.find(noise(400, 7).substr(0, 20));
  ASSERT_NE(at, std::string::npos);
  spoilByteOfFile(folder.file(), at);
}

const std::vector<Rewrite>& rewrites() {
  static const std::vector<Rewrite> ALL{
      {"compaction", [](TestStore&, const TestFolder&) {}, [](TestStore& store) { return store.compact(); }, true},
      {"upkeep",
       [](TestStore& store, const TestFolder&) {
         for (unsigned at = 0; at < 14; ++at) store.change({"g1", "k1", noise(6000 + at, at)});
       },
       [](TestStore& store) {
         for (unsigned at = 0; at < 14; ++at) {
           if (const std::uint32_t rc = store.change({"g1", "k1", noise(9000 + at, at)})) return rc;
         }
         return MD_RC_OK;
       },
       true},
      {"repair", spoil, [](TestStore& store) { return store.repair(); }, true},
      {"backup", [](TestStore&, const TestFolder& folder) { std::filesystem::remove(folder.backup()); },
       [](TestStore& store) {
         return store.add({"big", "big", noise(30000, 3)});
       },
       false},
  };
  return ALL;
}

class FileRightsTest : public EngineTest {
 protected:
  ~FileRightsTest() override { systemCalls = realSystemCalls(); }

  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs several users";
  }

  bool takesLists() const {
    const auto list = listOf(7, 6, 5, 5);
    return setxattr(folder_.path().c_str(), DEFAULT_LIST, list.data(), list.size(), 0) == 0 &&
           removexattr(folder_.path().c_str(), DEFAULT_LIST) == 0;
  }

  // Everybody may work in the folder: what is looked at here are the files.
  void openFolder() const { chmod(folder_.path().c_str(), 0777); }

  void give(const FileRights& rights) const {
    for (const auto& path : {folder_.file(), folder_.backup()}) {
      if (!std::filesystem::exists(path)) continue;
      ASSERT_EQ(chown(path.c_str(), rights.owner, rights.group), 0);
      removexattr(path.c_str(), ACCESS_LIST);
      if (!rights.accessList.empty()) {
        ASSERT_EQ(setxattr(path.c_str(), ACCESS_LIST, rights.accessList.data(), rights.accessList.size(), 0), 0);
      }
      ASSERT_EQ(chmod(path.c_str(), rights.mode), 0);
    }
  }

  void begin() {
    for (const char* name : {"store", ".store.bkp", "store.tmp", "store.cor"})
      std::filesystem::remove(folder_.path() / name);
    addMany(store_, 0, 60);
    ASSERT_TRUE(std::filesystem::exists(folder_.backup()));
  }

  ino_t inodeOf(const std::filesystem::path& path) const {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
  }

  void expectRightsKept(const FileRights& rights, const std::string& what) {
    for (const Rewrite& rewrite : rewrites()) {
      begin();
      give(rights);
      rewrite.prepare(store_, folder_);
      const ino_t before = inodeOf(folder_.file());
      Values values;
      {
        const Watch watch(folder_);
        EXPECT_EQ(rewrite.run(store_), MD_RC_OK) << rewrite.name << what;
        EXPECT_EQ(watch.problems(), "") << rewrite.name << what;
        EXPECT_GT(watch.looks(), 3) << rewrite.name << what;
      }
      EXPECT_EQ(inodeOf(folder_.file()) != before, rewrite.makesFile) << rewrite.name << what;
      EXPECT_EQ(rightsOfPath(folder_.file()), rights) << rewrite.name << what;
      EXPECT_EQ(rightsOfPath(folder_.backup()), rights) << rewrite.name << what;
      if (std::filesystem::exists(folder_.path() / "store.cor")) {
        EXPECT_EQ(rightsOfPath(folder_.path() / "store.cor"), rights) << rewrite.name << what;
      }
      EXPECT_EQ(store_.list().size() >= 60, true) << rewrite.name << what;
    }
  }

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
};

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
