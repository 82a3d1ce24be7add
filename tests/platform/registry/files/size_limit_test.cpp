// A process whose files may not grow beyond a limit (RLIMIT_FSIZE): passing it would end the process by a signal. What
// must hold at every limit, below, at and above what the files have: an operation works below it, or answers
// GENREG_RC_FILE_TOO_LARGE and changes nothing; reading goes on. On real files in a child process; on the simulated
// disk beside power cuts and dead writers.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <initializer_list>
#include <map>
#include <set>

#include "platform/registry/files/system_calls.h"
#include "platform/registry/harness/simulated_disk.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

constexpr std::size_t SMALL_RECORDS = 65536;
constexpr int WORKED = 0;
constexpr int REFUSED = 1;

struct Operation {
  const char* name;
  std::function<std::uint32_t(TestStore&)> run;
};

std::uint32_t addBatch(TestStore& store) {
  if (const std::uint32_t rc = store.beginBatch()) return rc;
  for (int at = 0; at < 20; ++at) {
    if (const std::uint32_t rc = store.add({"batch", std::to_string(at), noise(500, 1)})) return rc;
  }
  return store.commitBatch();
}

const std::vector<Operation>& operations() {
  static const std::vector<Operation> ALL{
      {"insert",
       [](TestStore& store) {
         return store.add({"new", "new", "n"});
       }},
      {"large insert",
       [](TestStore& store) {
         return store.add({"new", "new", noise(40000, 1)});
       }},
      {"update",
       [](TestStore& store) {
         return store.change({"g0", "k0", noise(700, 2)});
       }},
      {"remove", [](TestStore& store) { return store.remove("g0", "k0"); }},
      {"group removal", [](TestStore& store) { return store.removeAll("g1", "", GROUP); }},
      {"batch", addBatch},
      {"compact", [](TestStore& store) { return store.compact(); }},
      {"repair", [](TestStore& store) { return store.repair(); }},
  };
  return ALL;
}

void fill(TestStore& store, int records) {
  ASSERT_EQ(store.beginBatch(), MD_RC_OK);
  for (int at = 0; at < records; ++at) {
    const std::string number = std::to_string(at);
    ASSERT_EQ(store.add({"g" + std::to_string(at % 3), "k" + number, noise(200, static_cast<unsigned>(at))}), MD_RC_OK);
  }
  ASSERT_EQ(store.commitBatch(), MD_RC_OK);
}

class SizeLimits : public EngineTest {
 protected:
  std::map<std::string, std::string> files() const {
    std::map<std::string, std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
      std::ifstream file(entry.path(), std::ios::binary);
      found[entry.path().filename()] = std::string(std::istreambuf_iterator<char>(file), {});
    }
    return found;
  }

  static std::map<std::string, std::size_t> sizes(const std::map<std::string, std::string>& files) {
    std::map<std::string, std::size_t> found;
    for (const auto& [name, bytes] : files) found[name] = bytes.size();
    return found;
  }

  void putBack(const std::map<std::string, std::string>& kept) const {
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) std::filesystem::remove(entry.path());
    for (const auto& [name, bytes] : kept) std::ofstream(folder_.path() / name, std::ios::binary) << bytes;
  }

  // Limits around every size that matters here.
  std::set<rlim_t> limits(const std::map<std::string, std::string>& kept) const {
    std::set<rlim_t> chosen{0, 1, 512, 4096, 4097, 8192, 12288, 16384, 24576};
    for (const auto& [name, bytes] : kept) {
      const rlim_t size = bytes.size();
      if (size == 0) continue;
      for (const rlim_t limit : {size / 2, size - 4096, size - 1, size, size + 1, size + 4096, size * 3 / 2, size * 4})
        chosen.insert(limit);
    }
    return chosen;
  }

  // How the operation ends below the limit: WORKED, REFUSED, another number for any other answer, -1 for a signal.
  int under(rlim_t most, const Operation& operation) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(30);
      const struct rlimit limit { .rlim_cur = most, .rlim_max = most };
      if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(90);
      TestStore store(folder_.path());
      const Values before = store.list();
      const std::uint32_t rc = operation.run(store);
      std::uint32_t listed = MD_RC_OK;
      const Values after = TestStore(folder_.path()).list(0, {}, &listed);
      if (listed != MD_RC_OK) _exit(91);
      if (rc == GENREG_RC_FILE_TOO_LARGE && after != before) _exit(92);
      _exit(rc == MD_RC_OK ? WORKED : rc == GENREG_RC_FILE_TOO_LARGE ? REFUSED : 93);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
  }

  void tryEveryLimit() {
    const auto kept = files();
    for (const Operation& operation : operations()) {
      bool hasWorked = false;
      for (const rlim_t most : limits(kept)) {
        putBack(kept);
        const int result = under(most, operation);
        EXPECT_TRUE(result == WORKED || result == REFUSED) << operation.name << " below " << most << ": " << result;
        hasWorked = result == WORKED;
        if (result == REFUSED) {
          EXPECT_EQ(sizes(files()), sizes(kept)) << operation.name << " below " << most;
        }
        EXPECT_EQ(store_.add({"after", "after", "a"}), MD_RC_OK) << operation.name << " below " << most;
      }
      EXPECT_TRUE(hasWorked) << operation.name << ": the largest limit leaves room";
    }
  }

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
};

TEST_F(SizeLimits, EndNoOperationOnAFileWithABackup) {
  fill(store_, 60);
  ASSERT_TRUE(std::filesystem::exists(folder_.backup()));
  tryEveryLimit();
}

TEST_F(SizeLimits, EndNoOperationOnAFileWhoseBackupIsDue) {
  fill(store_, 12);
  ASSERT_FALSE(std::filesystem::exists(folder_.backup()));
  tryEveryLimit();
}

TEST_F(SizeLimits, EndNoOperationOnAFileThatIsDueForCompaction) {
  fill(store_, 5);
  for (unsigned at = 0; at < 15; ++at) ASSERT_EQ(store_.change({"g1", "k1", noise(6000 + at, at)}), MD_RC_OK);
  tryEveryLimit();
}

TEST_F(SizeLimits, EndNoOperationOnADamagedFile) {
  fill(store_, 60);
  const std::string bytes = files().at("store");
  const std::size_t at = bytes.find(noise(200, 7).substr(0, 20));
  ASSERT_NE(at, std::string::npos);
  spoilByteOfFile(folder_.file(), at);
  const auto kept = files();
  for (const Operation& operation : operations()) {
    for (const rlim_t most : limits(kept)) {
      putBack(kept);
      const int result = under(most, operation);
      EXPECT_GE(result, 0) << operation.name << " below " << most;
      std::uint32_t rc = MD_RC_OK;
      EXPECT_GE(store_.list(0, {}, &rc).size(), 39u) << operation.name << " below " << most;
      EXPECT_EQ(rc, MD_RC_OK);
    }
  }
}

TEST_F(SizeLimits, EndNoCreation) {
  const Operation insert = operations().front();
  for (const rlim_t most : std::initializer_list<rlim_t>{0, 1, 4095, 4096, 8192, 12288, 100000}) {
    putBack({});
    const int result = under(most, insert);
    EXPECT_EQ(result, most < 100000 && result == REFUSED ? REFUSED : WORKED) << most;
    if (result == REFUSED) {
      EXPECT_FALSE(std::filesystem::exists(folder_.file()));
    }
    EXPECT_FALSE(std::filesystem::exists(folder_.path() / "store.tmp"));
  }
}

// ---- Beside a power cut and a dead writer

class SizeLimitsAfterACrash : public ::testing::Test {
 protected:
  // All but the record of the writer that died.
  static Values settled() {
    Values values = TestStore(DISK_FOLDER).list();
    std::erase_if(values, [](const Value& value) { return value.key == "dying"; });
    return values;
  }

  // Whatever the limit, the call ends, no limit is passed, and what is refused changes nothing.
  void tryEveryLimit(const DiskImage& found, unsigned boot) {
    const std::size_t size = found.files.at(found.names.at("store"))->size();
    for (const Operation& operation : operations()) {
      for (const std::size_t most : {std::size_t{0}, std::size_t{4096}, size / 2, size - 512, size, size + 512}) {
        disk_.mostFileSize = 0;
        disk_.boot(found);
        disk_.setBootNumber(boot);
        const Values before = settled();
        disk_.mostFileSize = most + 1;
        TestStore store(DISK_FOLDER);
        const std::uint32_t rc = operation.run(store);
        EXPECT_FALSE(disk_.isLimitPassed) << operation.name << " below " << most;
        EXPECT_TRUE(rc == MD_RC_OK || rc == GENREG_RC_FILE_TOO_LARGE) << operation.name << " below " << most;
        if (rc == GENREG_RC_FILE_TOO_LARGE) {
          EXPECT_EQ(settled(), before) << operation.name << " below " << most;
        }
      }
    }
  }

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
  SimulatedDisk disk_;
};

TEST_F(SizeLimitsAfterACrash, AreKeptByTheFirstWriterAfterAPowerCut) {
  TestStore store(DISK_FOLDER);
  fill(store, 60);
  PowerCut cut(disk_.image());
  disk_.isRecording = true;
  ASSERT_EQ(store.add({"g", "newest", noise(3000, 9)}), MD_RC_OK);
  disk_.isRecording = false;
  for (const DiskOp& op : disk_.log) cut.follow(op);
  tryEveryLimit(cut.oldest(), disk_.bootNumber() + 1);
  tryEveryLimit(cut.newest(), disk_.bootNumber() + 1);
}

TEST_F(SizeLimitsAfterACrash, AreKeptAfterAWriterThatDied) {
  TestStore store(DISK_FOLDER);
  fill(store, 60);
  bool synced = false;
  disk_.fault = [&synced](Call call) {
    synced = synced || call == Call::SYNC_DATA;
    return synced && call == Call::WRITE ? EIO : 0;
  };
  store.add({"g", "dying", "x"});
  disk_.fault = nullptr;
  disk_.killProcesses();
  tryEveryLimit(disk_.image(), disk_.bootNumber());
}

}  // namespace
}  // namespace zon::test
