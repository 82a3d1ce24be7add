// What the tests of file rights work with: who is who, a watch over the temporary file, and everything that puts one
// file in the place of another.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "platform/registry/files/file_rights.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {

constexpr std::size_t SMALL_RECORDS = 65536;
constexpr uid_t OWNER = 1234;
constexpr gid_t GROUP_OF_FILE = 5678;
constexpr uid_t STRANGER = 65534;
constexpr const char* ACCESS_LIST = "system.posix_acl_access";
constexpr const char* DEFAULT_LIST = "system.posix_acl_default";

// An access list of the file's own bits, and of what a certain user may do.
std::vector<std::byte> listOf(unsigned owner, unsigned named, unsigned group, unsigned other);

FileRights rightsOfPath(const std::filesystem::path& path);

// Looks at the temporary file after every call that touches it.
class Watch {
 public:
  explicit Watch(const TestFolder& folder);
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  // Whether the file was ever open to more people than the record file.
  const std::string& problems() const { return problems_; }
  int looks() const { return looks_; }

 private:
  static void look();
  static void compare(const FileRights& present);

  static inline std::filesystem::path path_;
  static inline FileRights allowed_;
  static inline std::string problems_;
  static inline int looks_ = 0;
};

// What puts a file in the place of the record file or of its backup.
struct Rewrite {
  const char* name;
  std::function<void(TestStore&, const TestFolder&)> prepare;
  std::function<std::uint32_t(TestStore&)> run;
  bool makesFile;
};
const std::vector<Rewrite>& rewrites();

class FileRightsTest : public EngineTest {
 protected:
  ~FileRightsTest() override;

  void SetUp() override;

  bool takesLists() const;

  // Everybody may work in the folder: what is looked at here are the files.
  void openFolder() const;

  void give(const FileRights& rights) const;

  void begin();

  ino_t inodeOf(const std::filesystem::path& path) const;

  void expectRightsKept(const FileRights& rights, const std::string& what);

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
};

}  // namespace zon::test
