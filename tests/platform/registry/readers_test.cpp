// What readers may rely on: one committed state, whatever a writer does beside them; no lock, no right to write, and no
// trace of them on the disk.
#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry/files/system_calls.h"
#include "platform/registry/format/format.h"
#include "platform/registry/harness/engine_promises.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

class Readers : public EnginePromises {};

TEST_F(Readers, SeeAMissingFileAsAnEmptyOneAndMakeNone) {
  expectNothingThere();
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
  {
    const SettingScope oneChain(digestsCollide, true);
    ASSERT_EQ(store_.add(small), MD_RC_OK);
    ASSERT_EQ(store_.add({"g", "large", noise(5000, 1)}), MD_RC_OK);
    EXPECT_EQ(bytesBehind(WHOLE_KEY, small), 0);
  }
  ASSERT_EQ(store_.removeAll("", "", 0), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "large", noise(5000, 1)}), MD_RC_OK);
  ASSERT_EQ(store_.add(small), MD_RC_OK);
  EXPECT_EQ(bytesBehind(KEY, small), 0);
  EXPECT_EQ(bytesBehind(GROUP | DATA, small), 0);
  spoilByteOfFile(folder_.file(), format::LOG_START + 1024);
  for (const std::uint64_t slot : format::SLOT_OFFSET) spoilByteOfFile(folder_.file(), slot);
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
      FileNames names = fileNames();
      const std::string path = std::string(PATH_SIZE - 5, '/') + "none";
      names.file = path;
      setFileNames(names);
    }
  };
  LongPath store(folder_.path());
  Value value;
  EXPECT_EQ(store.get("g", "k", value), GENREG_RC_NAME_TOO_LONG);
  EXPECT_EQ(store.OpenScan(), GENREG_RC_NAME_TOO_LONG);
  EXPECT_EQ(store.add({"g", "k", "x"}), GENREG_RC_NAME_TOO_LONG);
}

}  // namespace
}  // namespace zon::test
