// Places that the device cannot read, met by a batch that has changed something already, by a repair whose power is cut
// at each of its steps, and by one whose writer is killed at each of its system calls.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "platform/registry/harness/damage_harness.h"
#include "platform/registry/harness/simulated_disk.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

constexpr std::uint64_t SECTOR = 4096;
constexpr std::size_t RECORD_BYTES = 4000;  // nearly a sector each
constexpr unsigned RECORDS = 7;             // the backup has the first six
const Value VICTIM{"victims", "k1", ""};

// A file of records that have groups of their own, one of them in a place that cannot be read.
class BadSectors : public DamagedFiles {
 protected:
  void make(bool withBackup) {
    disk_.badSectors.clear();
    disk_.boot(DiskImage{});
    TestStore store(DISK_FOLDER);
    if (!withBackup) store.unsetFeature(GenRegBase::FEATURE_BACKUP);
    for (unsigned at = 0; at < RECORDS; ++at) {
      note(store.add({at == 1 ? VICTIM.group : "g", "k" + std::to_string(at), noise(RECORD_BYTES, at)}));
    }
    note(store.add({"last", "last", noise(RECORD_BYTES, RECORDS)}));
    take();
    history_ = truth_;
    hasBackup_ = withBackup;
    victimSector_ = sectorOf(noise(RECORD_BYTES, 1));
  }

  // Where a record's data begin.
  std::size_t positionOf(const std::string& data) const {
    const Bytes& bytes = bytesOf("store");
    std::size_t at = format::LOG_START;
    while (std::memcmp(&bytes[at], data.data(), data.size()) != 0) ++at;
    return at;
  }

  // The sector in the middle of them.
  std::uint64_t sectorOf(const std::string& data) const { return (positionOf(data) + data.size() / 2) / SECTOR; }

  void boot() { boot(golden_, boot_); }
  void boot(const DiskImage& image, unsigned number) {
    disk_.boot(image);
    disk_.setBootNumber(number);
    disk_.badSectors = {{golden_.names.at("store"), victimSector_}};
  }

  // Where there is no backup, what the sector has a part of may be gone; the victim, when only a byte of it is damaged.
  bool mayBeGone(const Value& value, bool isSector) const {
    if (hasBackup_) return false;
    if (!isSector) return value.key == VICTIM.key;
    const std::size_t at = positionOf(value.data);
    return at < (victimSector_ + 1) * SECTOR && at + value.data.size() > victimSector_ * SECTOR;
  }

  bool isKept(const Values& values, bool isSector) const {
    auto next = values.begin();
    for (const Value& value : truth_) {
      if (next != values.end() && *next == value) {
        ++next;
      } else if (!mayBeGone(value, isSector)) {
        return false;
      }
    }
    return next == values.end();
  }

  std::uint64_t victimSector_ = 0;
};

// Every kind of change, as the second one of a batch.
TEST_F(BadSectors, ABatchRepairsWhatItMeetsBehindItsFirstChange) {
  using Operation = std::uint32_t (*)(TestStore&);
  const Operation operations[] = {
      [](TestStore& store) { return store.remove(VICTIM.group, VICTIM.key); },
      [](TestStore& store) { return store.removeAll(VICTIM.group, "", GROUP); },
      [](TestStore& store) {
        return store.change({VICTIM.group, VICTIM.key, "changed"});
      },
      [](TestStore& store) {
        return store.changeTo(VICTIM, {"renamed", "renamed", "r"});
      },
      [](TestStore& store) {
        const std::uint32_t rc = store.add({VICTIM.group, VICTIM.key, "again"});
        return rc == GENREG_RC_DUPLICATE_KEY ? MD_RC_OK : rc;
      },
  };
  for (const bool withBackup : {true, false}) {
    ASSERT_NO_FATAL_FAILURE(make(withBackup));
    for (std::size_t at = 0; at < std::size(operations); ++at) {
      boot();
      TestStore store(DISK_FOLDER);
      note(store.beginBatch());
      note(store.add(PROBE));
      const std::uint32_t rc = operations[at](store);
      EXPECT_TRUE(rc == MD_RC_OK || (!withBackup && rc == GENREG_RC_NOT_FOUND)) << at << ": " << (rc & 0xFFF);
      EXPECT_EQ(store.commitBatch(), MD_RC_OK) << at;
      EXPECT_EQ(store.hasMetLoss(), !withBackup) << at;
      Value value;
      EXPECT_EQ(store.get(PROBE.group, PROBE.key, value), MD_RC_OK) << at;
      std::uint32_t listed = MD_RC_OK;
      const Values values = store.list(0, {}, &listed);
      EXPECT_EQ(listed, MD_RC_OK) << at;
      EXPECT_GE(values.size(), truth_.size() - 2) << at;
      EXPECT_TRUE(disk_.image().has("store.cor")) << at;
    }
  }
}

// The place that cannot be read is the one in which the log goes on: what the batch did so far is not read back from
// it.
TEST_F(BadSectors, ABatchKeepsWhatWouldHaveGoneToABadSector) {
  for (const bool withBackup : {true, false}) {
    ASSERT_NO_FATAL_FAILURE(make(withBackup));
    boot();
    disk_.badSectors.clear();
    TestStore store(DISK_FOLDER);
    note(store.beginBatch());
    disk_.badSectors = {{golden_.names.at("store"), (used_ - 1) / SECTOR}};
    note(store.add(PROBE));
    const std::uint32_t rc = store.remove("last", "last");
    EXPECT_TRUE(rc == MD_RC_OK || rc == GENREG_RC_NOT_FOUND) << (rc & 0xFFF);
    EXPECT_EQ(store.commitBatch(), MD_RC_OK);
    Value value;
    EXPECT_EQ(store.get(PROBE.group, PROBE.key, value), MD_RC_OK);
  }
}

using Repairer = std::uint32_t (*)(TestStore&);
struct Repairing {
  const char* name;
  Repairer run;
};
const Repairing REPAIRERS[] = {
    {"repair", [](TestStore& store) { return store.repair(); }},
    {"add", [](TestStore& store) { return store.add(PROBE); }},
    {"compact", [](TestStore& store) { return store.compact(); }},
    {"batch",
     [](TestStore& store) {
       if (const std::uint32_t rc = store.beginBatch()) return rc;
       std::uint32_t rc = store.add(PROBE);
       if (rc == MD_RC_OK) rc = store.add({VICTIM.group, VICTIM.key, "again"});
       if (rc != MD_RC_OK && rc != GENREG_RC_DUPLICATE_KEY) return rc;
       return store.commitBatch();
     }},
};

// Looks at what something left of the file, first as a reader and then as a writer.
class RepairsThatBreakOff : public BadSectors {
 protected:
  // `isSector`: the place cannot be read; else a byte of it is another one.
  void damage(bool withBackup, bool isSector) {
    ASSERT_NO_FATAL_FAILURE(make(withBackup));
    isSector_ = isSector;
    if (isSector) return;
    const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
    spoilText(*bytes, noise(RECORD_BYTES, 1));
    golden_.files[golden_.names.at("store")] = bytes;
  }

  void bootDamaged(const DiskImage& image, unsigned number) {
    boot(image, number);
    if (!isSector_) disk_.badSectors.clear();
  }

  void look(const std::string& where) {
    TestStore reader(DISK_FOLDER);
    std::uint32_t rc = MD_RC_OK;
    Values seen = reader.list(0, {}, &rc);
    if (hasBackup_) {
      EXPECT_EQ(rc, MD_RC_OK) << where;
    }
    EXPECT_TRUE(isKept(withoutNew(seen), isSector_)) << where << ": the reader sees " << seen.size();
    TestStore writer(DISK_FOLDER);
    EXPECT_EQ(writer.add({"later", "later", "x"}), MD_RC_OK) << where;
    EXPECT_EQ(writer.repair(), MD_RC_OK) << where;
    seen = writer.list(0, {}, &rc);
    EXPECT_EQ(rc, MD_RC_OK) << where;
    EXPECT_TRUE(isKept(withoutNew(seen), isSector_)) << where << ": behind the next writer there are " << seen.size();
    Value value;
    EXPECT_EQ(writer.get("later", "later", value), MD_RC_OK) << where;
    GenRegStatus status{};
    EXPECT_EQ(writer.status(status), MD_RC_OK) << where;
    EXPECT_EQ(status.damaged, 0u) << where;
    EXPECT_EQ(status.unacknowledgedLosses, hasBackup_ ? 0u : 1u) << where;
    expectKept(where);
  }

  static Values withoutNew(Values values) {
    std::erase_if(values, [](const Value& value) {
      return value == PROBE || value.key == "later" || (value.key == VICTIM.key && value.data == "again");
    });
    return values;
  }

  void expectKept(const std::string& where) const {
    const DiskImage image = disk_.image();
    EXPECT_TRUE(image.has("store.cor") && image.names.at("store.cor") == golden_.names.at("store")) << where;
    EXPECT_FALSE(image.has("store.cor.1")) << where;
    EXPECT_FALSE(image.has("store.tmp")) << where;
  }

  template <class Work>
  void forEachKind(Work work) {
    for (const bool isSector : {false, true}) {
      for (const bool withBackup : {true, false}) {
        for (const Repairing& repairing : REPAIRERS) {
          ASSERT_NO_FATAL_FAILURE(damage(withBackup, isSector));
          bootDamaged(golden_, boot_);
          work(repairing, std::string(repairing.name) + (isSector ? ", bad sector" : ", damaged byte") +
                              (withBackup ? ", with a backup" : ""));
          if (HasFailure()) return;
        }
      }
    }
  }

  bool isSector_ = false;
};

TEST_F(RepairsThatBreakOff, ByAPowerCutAtEachStep) {
  std::size_t states = 0;
  forEachKind([&](const Repairing& repairing, const std::string& name) {
    disk_.log.clear();
    disk_.isRecording = true;
    {
      TestStore store(DISK_FOLDER);
      EXPECT_EQ(repairing.run(store), MD_RC_OK) << name;
    }
    disk_.isRecording = false;
    const std::vector<DiskOp> ops = std::exchange(disk_.log, {});
    PowerCut cut(golden_);
    std::mt19937_64 random(3);
    for (std::size_t step = 0; step <= ops.size(); ++step) {
      if (step > 0) cut.follow(ops[step - 1]);
      for (const DiskImage& image : {cut.oldest(), cut.newest(), cut.randomState(random)}) {
        bootDamaged(image, boot_ + 1);
        look(name + ", cut at step " + std::to_string(step));
        ++states;
        if (HasFailure()) return;
      }
    }
  });
  std::cout << "states after power cuts " << states << '\n';
}

// The machine goes on: what was written is there, and nobody has the locks.
TEST_F(RepairsThatBreakOff, ByTheDeathOfTheirWriterAtEachSystemCall) {
  std::size_t deaths = 0;
  forEachKind([&](const Repairing& repairing, const std::string& name) {
    for (std::size_t last = 0;; ++last) {
      bootDamaged(golden_, boot_);
      std::size_t calls = 0;
      disk_.fault = [&calls, last](Call) { return calls++ < last ? 0 : EIO; };
      {
        TestStore store(DISK_FOLDER);
        repairing.run(store);
        disk_.fault = [](Call) { return EIO; };
      }
      disk_.fault = nullptr;
      disk_.killProcesses();
      if (calls <= last) break;
      ++deaths;
      look(name + ", killed before call " + std::to_string(last));
      if (HasFailure()) return;
    }
  });
  std::cout << "deaths " << deaths << '\n';
}

}  // namespace
}  // namespace zon::test
