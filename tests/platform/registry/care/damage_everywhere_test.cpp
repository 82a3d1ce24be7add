// Record files with every byte spoilt, every length cut and every sector lost.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/registry/harness/damage_harness.h"
#include "platform/registry/harness/simulated_disk.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

TEST_F(DamagedFiles, EveryByteWithoutABackup) {
  makeSmall();
  spoilEveryByte();
}

TEST_F(DamagedFiles, EveryByteWithABackup) {
  makeWithBackup();
  spoilEveryByte();
}

// A file of no bytes reads as an empty one where there is no backup: whoever makes a file by hand makes such.
TEST_F(DamagedFiles, EveryLengthWithoutABackup) {
  makeSmall();
  cutEveryLength(1);
}

TEST_F(DamagedFiles, EveryLengthWithABackup) {
  makeWithBackup();
  cutEveryLength(0);
}

TEST_F(DamagedFiles, EveryByteOfTheBackup) {
  makeWithBackup();
  const Bytes& golden = bytesOf(".store.bkp");
  for (std::size_t at = 0; at < golden.size(); ++at) {
    const auto bytes = std::make_shared<Bytes>(golden);
    spoilByte(*bytes, at);
    check("byte " + std::to_string(at) + " of the backup", bytes, ".store.bkp");
  }
}

TEST_F(DamagedFiles, EverySector) {
  makeWithBackup();
  const Bytes& golden = bytesOf("store");
  for (std::size_t at = 0; at + UNIT <= golden.size(); at += UNIT) {
    for (const int fill : {0, 0xFF, 0x5A}) {
      const auto bytes = std::make_shared<Bytes>(golden);
      std::fill_n(bytes->begin() + static_cast<std::ptrdiff_t>(at), UNIT, static_cast<std::byte>(fill));
      check("sector at " + std::to_string(at), bytes);
    }
  }
}

TEST_F(DamagedFiles, EverySectorWithoutABackup) {
  makeSmall();
  const Bytes& golden = bytesOf("store");
  for (std::size_t at = 0; at < used_; at += UNIT) {
    for (const int fill : {0, 0xFF, 0x5A}) {
      const auto bytes = std::make_shared<Bytes>(golden);
      std::fill_n(bytes->begin() + static_cast<std::ptrdiff_t>(at), UNIT, static_cast<std::byte>(fill));
      check("sector at " + std::to_string(at), bytes);
    }
  }
}

// A place that the device cannot read is damage: what is intact elsewhere is answered, and the next change moves the
// file away from it.
class BadSectorsOnTheDisk : public DamagedFiles {
 protected:
  void exercise(const std::string& name, std::uint64_t sector) {
    using Operation = std::uint32_t (*)(TestStore&);
    const std::pair<const char*, Operation> operations[] = {
        {"Add", [](TestStore& store) { return store.add(PROBE); }},
        {"Change",
         [](TestStore& store) {
           return store.change({"g1", "a", "changed"});
         }},
        {"Delete", [](TestStore& store) { return store.remove("g1", "a"); }},
        {"repair", [](TestStore& store) { return store.repair(); }},
        {"compact", [](TestStore& store) { return store.compact(); }},
    };
    for (const auto& [what, operation] : operations) {
      where_ = name + ", sector " + std::to_string(sector) + ", " + what;
      disk_.boot(golden_);
      disk_.setBootNumber(boot_);
      disk_.badSectors = {{golden_.names.at(name), sector}};
      checkReader();
      TestStore store(DISK_FOLDER);
      const std::uint32_t rc = operation(store);
      GenRegStatus status{};
      if (store.status(status) != MD_RC_OK) fail("has no status");
      const bool mayBeLost = rc == GENREG_RC_NOT_FOUND && status.lostBytes > 0;
      if (rc != MD_RC_OK && !mayBeLost) fail("answers " + std::to_string(rc & 0xFFF));
      const Values listed = store.list();
      if (hasBackup_ && status.lostBytes != 0) fail("something was lost despite the backup");
      if (status.lostBytes == 0 && std::string(what) == "repair" && listed != truth_) fail("other records");
      for (const Value& value : listed) {
        const bool isNew = value == PROBE || value == Value{"g1", "a", "changed"};
        if (!isNew && !wasOnceThere(value)) fail("makes records up");
      }
      Value value;
      if (store.add({"later", "later", ""}) != MD_RC_OK || store.get("later", "later", value) != MD_RC_OK)
        fail("takes no further records");
    }
  }

  void exerciseAll() {
    for (const char* name : {"store", ".store.bkp"}) {
      if (!golden_.has(name)) continue;
      for (std::uint64_t sector = 0; sector * 4096 < bytesOf(name).size(); ++sector) exercise(name, sector);
    }
  }
};

TEST_F(BadSectorsOnTheDisk, AreHelpedByTheBackup) {
  makeWithBackup();
  exerciseAll();
}

TEST_F(BadSectorsOnTheDisk, LoseNoMoreThanTheyHold) {
  makeSmall();
  exerciseAll();
}

// Who is handed a record clears the buffer for the next user no further than that record reaches.
TEST_F(DamagedFiles, LeaveNothingOfARecordThatIsSpoiltInTheBuffer) {
  const std::string text = noise(900, 1);
  {
    TestStore store(DISK_FOLDER);
    note(store.add({"g", "long", text}));
    note(store.add({"h", "short", "x"}));
    take();
  }
  const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
  spoilText(*bytes, text.substr(600));
  bootWith(bytes);
  TestStore store(DISK_FOLDER);
  auto key = encode({"", "short", ""}, true);
  const std::size_t size = encode({"h", "short", "x"}).size();
  const auto expectNothingBehind = [size](const std::vector<std::byte>& out) {
    EXPECT_TRUE(std::all_of(out.begin() + static_cast<std::ptrdiff_t>(size), out.end(),
                            [](std::byte byte) { return byte == std::byte{0}; }));
  };
  std::vector<std::byte> out(key.size());
  ASSERT_EQ(store.Get(KEY, key.data(), out.data()), MD_RC_OK);
  expectNothingBehind(out);
  std::vector<std::byte> scanned(key.size());
  ASSERT_EQ(store.OpenScan(), MD_RC_OK);
  ASSERT_EQ(store.GetNext(KEY, key.data(), scanned.data()), MD_RC_OK);
  expectNothingBehind(scanned);
  EXPECT_EQ(store.CloseScan(), MD_RC_OK);
}

}  // namespace
}  // namespace zon::test
