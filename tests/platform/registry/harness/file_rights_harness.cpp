// See file_rights_harness.h.
#include "platform/registry/harness/file_rights_harness.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "platform/registry/files/file_io.h"
#include "platform/registry/files/system_calls.h"

namespace zon::test {
namespace {

constexpr uid_t NAMED_USER = 4321;

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

}  // namespace

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

FileRights rightsOfPath(const std::filesystem::path& path) {
  FileRights rights;
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(rightsOf(file.get(), rights), MD_RC_OK) << path;
  return rights;
}

Watch::Watch(const TestFolder& folder) {
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

Watch::~Watch() { systemCalls = realSystemCalls(); }

void Watch::look() {
  const int kept = errno;
  const Descriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  FileRights present;
  if (file.isOpen() && rightsOf(file.get(), present) == MD_RC_OK) compare(present);
  errno = kept;
}

void Watch::compare(const FileRights& present) {
  ++looks_;
  const auto have = othersRights(present);
  const auto may = othersRights(allowed_);
  // As long as it has another group, that group's members are anybody.
  const unsigned group = present.group == allowed_.group ? may[0] : may[2] & may[0];
  const bool isWider = (have[0] & ~group) != 0 || (have[1] & ~may[1]) != 0 || (have[2] & ~may[2]) != 0;
  if (isWider) problems_ += "mode " + std::to_string(present.mode) + " at look " + std::to_string(looks_) + "; ";
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

FileRightsTest::~FileRightsTest() { systemCalls = realSystemCalls(); }

void FileRightsTest::SetUp() {
  if (geteuid() != 0) GTEST_SKIP() << "needs several users";
}

void FileRightsTest::openFolder() const { chmod(folder_.path().c_str(), 0777); }

bool FileRightsTest::takesLists() const {
  const auto list = listOf(7, 6, 5, 5);
  return setxattr(folder_.path().c_str(), DEFAULT_LIST, list.data(), list.size(), 0) == 0 &&
         removexattr(folder_.path().c_str(), DEFAULT_LIST) == 0;
}

void FileRightsTest::give(const FileRights& rights) const {
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

void FileRightsTest::begin() {
  for (const char* name : {"store", ".store.bkp", "store.tmp", "store.cor"})
    std::filesystem::remove(folder_.path() / name);
  addMany(store_, 0, 60);
  ASSERT_TRUE(std::filesystem::exists(folder_.backup()));
}

ino_t FileRightsTest::inodeOf(const std::filesystem::path& path) const {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

void FileRightsTest::expectRightsKept(const FileRights& rights, const std::string& what) {
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

}  // namespace zon::test
