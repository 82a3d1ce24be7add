// Stubs, byte by byte: what is one is never taken for a record file, damaged or not, and never written to.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "platform/registry/files/system_calls.h"
#include "platform/registry/harness/memory_engine.h"
#include "platform/registry/harness/stub_file.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

std::string bytesOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// A folder with a backup of records that were there before the stub: what a repair would bring back.
class Stubs : public ::testing::Test {
 protected:
  Stubs() {
    for (int at = 0; at < 100; ++at) {
      EXPECT_EQ(store_.add({"g", numbered("k", at), noise(100, static_cast<unsigned>(at))}), MD_RC_OK);
    }
    EXPECT_TRUE(std::filesystem::exists(folder_.backup()));
    backup_ = bytesOf(folder_.backup());
  }
  ~Stubs() override { systemCalls = realSystemCalls(); }

  // Every operation answers this, and neither the stub nor the backup changes.
  void expectEveryCallToAnswer(std::uint32_t code, const std::string& what) {
    SCOPED_TRACE(what);
    const std::string before = bytesOf(folder_.file());
    const auto operations = std::vector<std::pair<const char*, std::function<std::uint32_t()>>>{
        {"get",
         [&] {
           Value value;
           return store_.get("g", "k1", value);
         }},
        {"add", [&] { return store_.add({"g", "new", "x"}); }},
        {"change", [&] { return store_.change({"g", "k1", "x"}); }},
        {"remove", [&] { return store_.remove("g", "k1"); }},
        {"remove all", [&] { return store_.removeAll("g", "", GROUP); }},
        {"scan", [&] { return store_.OpenScan(); }},
        {"batch", [&] { return store_.beginBatch(); }},
        {"status",
         [&] {
           GenRegStatus status;
           return store_.status(status);
         }},
        {"repair", [&] { return store_.repair(); }},
        {"compact", [&] { return store_.compact(); }},
        {"acknowledge", [&] { return store_.acknowledgeLoss(); }}};
    for (const auto& [name, operation] : operations) {
      ASSERT_EQ(operation(), code) << name;
      ASSERT_EQ(bytesOf(folder_.file()), before) << name;
    }
    ASSERT_EQ(bytesOf(folder_.backup()), backup_);
    ASSERT_FALSE(std::filesystem::exists(folder_.path() / "store.cor"));
    ASSERT_FALSE(std::filesystem::exists(folder_.path() / "store.tmp"));
  }

  TestFolder folder_{inMemory()};
  TestStore store_{folder_.path()};
  std::string backup_;
};

TEST_F(Stubs, ThatNameAnEngineWhichIsNotHereAreToldAndLeftAlone) {
  putFile(folder_.file(), stubBytes("elsewhere", "settings.conf"));
  expectEveryCallToAnswer(GENREG_RC_NO_ENGINE, "of another engine");
}

TEST_F(Stubs, OfALaterReleaseAreToldAndLeftAlone) {
  putFile(folder_.file(), stubBytes("memory", "settings.conf", 2));
  expectEveryCallToAnswer(GENREG_RC_NEWER_FORMAT, "version 2");
}

TEST_F(Stubs, LeadOnWithEachByteOfOneCopyDamaged) {
  keepInMemory(folder_.file());
  ASSERT_EQ(store_.add({"g", "of the engine", "x"}), MD_RC_OK);
  const std::string whole = bytesOf(folder_.file());
  ASSERT_EQ(whole.size(), 1024u);
  Value value;
  for (std::size_t at = 0; at < whole.size(); ++at) {
    std::string damaged = whole;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x55);
    putFile(folder_.file(), damaged);
    ASSERT_EQ(store_.get("g", "of the engine", value), MD_RC_OK) << at;
    ASSERT_EQ(store_.change({"g", "of the engine", numbered("x", static_cast<int>(at))}), MD_RC_OK) << at;
    ASSERT_EQ(bytesOf(folder_.file()), damaged) << at;
  }
}

TEST_F(Stubs, DamagedInBothCopiesAreNotRepairedFromABackup) {
  const std::string whole = stubBytes("elsewhere", "settings.conf");
  for (std::size_t at = 0; at < whole.size() / 2; at += 3) {
    std::string damaged = whole;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x55);
    damaged[512 + (at * 7) % 512] = static_cast<char>(damaged[512 + (at * 7) % 512] ^ 0x55);
    putFile(folder_.file(), damaged);
    // The version's lowest byte, changed alone, tells of a later release.
    const bool isLater = at == 8 || at == 9 || (at * 7) % 512 == 8 || (at * 7) % 512 == 9;
    ASSERT_NO_FATAL_FAILURE(
        expectEveryCallToAnswer(isLater ? GENREG_RC_NEWER_FORMAT : GENREG_RC_DAMAGED_STUB, std::to_string(at)));
  }
  putFile(folder_.file(), std::string(1024, '\0'));
  expectEveryCallToAnswer(GENREG_RC_DAMAGED_STUB, "zeros");
}

TEST_F(Stubs, CutAnywhereAreNotRepairedFromABackup) {
  const std::string whole = stubBytes("elsewhere", "settings.conf");
  for (std::size_t size = 1; size < whole.size(); size += size < 20 ? 1 : 97) {
    putFile(folder_.file(), whole.substr(0, size));
    ASSERT_NO_FATAL_FAILURE(
        expectEveryCallToAnswer(size < 512 ? GENREG_RC_DAMAGED_STUB : GENREG_RC_NO_ENGINE, std::to_string(size)));
  }
  putFile(folder_.file(), whole + "more");
  expectEveryCallToAnswer(GENREG_RC_NO_ENGINE, "longer");
}

TEST_F(Stubs, ThatCannotBeReadAreNotRepairedFromABackup) {
  static std::filesystem::path stub;
  stub = folder_.file();
  putFile(stub, stubBytes("elsewhere", "settings.conf"));
  const std::string before = bytesOf(stub);
  systemCalls.pread = [](int file, void* data, std::size_t size, off_t offset) {
    std::error_code failed;
    if (std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file), failed) == stub) {
      errno = EIO;
      return ssize_t{-1};
    }
    return realSystemCalls().pread(file, data, size, offset);
  };
  expectEveryCallToAnswer(GENREG_RC_IO_ERROR, "unreadable");
  systemCalls = realSystemCalls();
  EXPECT_EQ(bytesOf(stub), before);
}

TEST_F(Stubs, ThatTellWhatCannotBeAreDamaged) {
  const std::vector<std::pair<std::string, std::string>> impossible = {{"", "settings.conf"},
                                                                       {"memory", ""},
                                                                       {"../memory", "settings.conf"},
                                                                       {"Memory", "settings.conf"},
                                                                       {"memory", "../up"},
                                                                       {"memory", "/etc/passwd"},
                                                                       {"memory", std::string("\x01")},
                                                                       {"memory", ".."},
                                                                       {std::string(32, 'm'), "settings.conf"},
                                                                       {std::string("mem\0ory", 7), "settings.conf"},
                                                                       {"memory", std::string(256, 's')}};
  for (const auto& [engine, settings] : impossible) {
    putFile(folder_.file(), stubBytes(engine, settings));
    ASSERT_NO_FATAL_FAILURE(expectEveryCallToAnswer(GENREG_RC_DAMAGED_STUB, engine + " " + settings));
  }
}

// A damaged record file that happens to have a stub's size is still one.
TEST_F(Stubs, AreNoRecordFilesThatWereCutToTheirSize) {
  const Values before = store_.list();
  std::filesystem::resize_file(folder_.file(), 1024);
  ASSERT_EQ(store_.add({"g", "next", "x"}), MD_RC_OK);
  EXPECT_GT(store_.list().size(), 1u);
}

TEST_F(Stubs, UnderTheNameOfTheBackupKeepNobodyFromTheRecords) {
  const Values before = store_.list();
  putFile(folder_.backup(), stubBytes("elsewhere", "settings.conf"));
  spoilByteOfFile(folder_.file(), 8192 + 5000);
  std::uint32_t rc = MD_RC_OK;
  EXPECT_EQ(store_.list(0, {}, &rc).size(), before.size() - 1);
  EXPECT_EQ(rc, GENREG_RC_DAMAGED);
  EXPECT_EQ(store_.repair(), MD_RC_OK);
  EXPECT_EQ(store_.list(0, {}, &rc).size(), before.size() - 1);
  EXPECT_EQ(rc, MD_RC_OK);
}

}  // namespace
}  // namespace zon::test
