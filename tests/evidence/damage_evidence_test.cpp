// Record files with random histories, damaged in every bit, at every length, in every sector, and in two places at
// once, as long as the test may go on: five files of different kinds at a time, in eight rounds, each with another bit
// of each byte. Every answer is held against all that was ever written: see damage_harness.h. Beyond that: writers that
// go on beside damage which they do not meet, and backups that are damaged as well.
//
// ZON_EVIDENCE_SECONDS sets how long, ZON_EVIDENCE_SEED with which file it begins.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "evidence/random_history.h"
#include "platform/registry/harness/damage_harness.h"
#include "platform/registry/harness/simulated_disk.h"
#include "support/evidence.h"

namespace zon::test {
namespace {

constexpr double QUICK_SECONDS = 6;
constexpr std::size_t NEAR = 8;            // so far around what is not zero, header pages are spoilt
constexpr std::uint64_t WRITES_EVERY = 8;  // cases of which one is written on
constexpr std::size_t MOST_GONE = 3;
constexpr std::size_t LONGEST_BURST = 96;

// What a file is like before it is damaged.
enum class Kind { ONE_COMMIT, FEW, TRAILING_BACKUP, COMPACTED, CUT_OFF, COUNT };
constexpr std::array<const char*, 5> KIND_NAMES{"one commit", "few changes", "trailing backup", "compacted",
                                                "after a power cut"};

class RandomDamage : public DamagedFiles {
 protected:
  ~RandomDamage() override {
    for (std::size_t kind = 0; kind < casesOf_.size(); ++kind) {
      RecordProperty(KIND_NAMES[kind], std::to_string(casesOf_[kind]));
      zontest::tellEvidence(std::string("damage.") + KIND_NAMES[kind], casesOf_[kind], zontest::evidenceSeed());
    }
    zontest::tellEvidence("damage.written on", writtenOn_, zontest::evidenceSeed());
  }

  void make(std::uint64_t seed, unsigned round) {
    disk_.boot(DiskImage{});
    disk_.reseed(seed);
    random_.seed(seed ^ std::uint64_t{round} << 32);
    kind_ = static_cast<Kind>(seed % static_cast<std::uint64_t>(Kind::COUNT));
    name_ = "file " + std::to_string(seed);
    gone_ = {{"none", "none", ""}};
    RandomHistory history(seed, kind_ == Kind::TRAILING_BACKUP ? 2400 : 300);
    Values now;
    TestStore store(DISK_FOLDER);
    const auto live = [&](int deeds) {
      for (int deed = 0; deed < deeds; ++deed) now = perform(store, history, now);
    };
    live(kind_ == Kind::ONE_COMMIT ? 1 : 9);
    if (kind_ == Kind::COMPACTED) {
      note(store.compact());
      live(2);
    }
    for (int more = 0; kind_ == Kind::TRAILING_BACKUP && !isBackupTrailing(store) && more < 60; ++more) live(1);
    history_ = history.everWritten();
    // The machine goes on with what it finds on its disk.
    if (kind_ == Kind::CUT_OFF) disk_.boot(disk_.image());
    findGone(now);
    take();
    ASSERT_EQ(truth_, now) << name_;
  }

  // A writer whom damage elsewhere need not concern: what it was told is done is there, now and after a repair.
  void writeOn(const std::string& where, const std::shared_ptr<Bytes>& bytes) {
    if (failures_ > 0) return;
    ++writtenOn_;
    ++cases_;
    where_ = where + ", written on";
    DiskImage image = golden_;
    image.files[image.names.at("store")] = bytes;
    disk_.boot(image);
    disk_.setBootNumber(boot_ + static_cast<unsigned>(random_() % 2));
    TestStore store(DISK_FOLDER);
    const Value first{"new", "first", noise(70, 5)};
    const Value second{"new", "second", "s"};
    const Value changed{"new", "first", noise(90, 6)};
    if (store.add(first) == GENREG_RC_NOT_RECORD_FILE) return checkUntouched(bytes);
    demand("the change", store.change(changed));
    demand("the second insert", store.add(second));
    demand("the removal", store.remove("new", "second"));
    judgeWrittenOn(store, changed);
    if (const std::uint32_t rc = store.repair()) return fail("repair answers " + std::to_string(rc & 0xFFF));
    judgeWrittenOn(store, changed);
  }

  void demand(const std::string& what, std::uint32_t rc) {
    if (rc != MD_RC_OK) fail(what + " answers " + std::to_string(rc & 0xFFF));
  }

  void judgeWrittenOn(TestStore& store, const Value& written) {
    std::uint32_t rc = MD_RC_OK;
    Values listed = store.list(0, {}, &rc);
    const bool isThere = std::erase(listed, written) == 1;
    if (rc == MD_RC_OK && !isThere) return fail("what was written on is not listed");
    GenRegStatus status{};
    demand("status", store.status(status));
    if (rc == MD_RC_OK && status.lostBytes == 0 && listed != truth_) fail("other records, and no loss is told");
    for (const Value& value : listed) {
      if (!wasOnceThere(value)) fail("the listing makes records up");
    }
    Value value;
    if (store.get(written.group, written.key, value) != MD_RC_OK || !(value == written))
      fail("what was written on is not found");
    if (store.get("new", "second", value) == MD_RC_OK) fail("what was removed is found");
  }

  void look(const std::string& where, const std::shared_ptr<Bytes>& bytes, const std::string& name = "store") {
    const std::uint64_t before = cases_;
    check(name_ + ", " + where, bytes, name);
    if (name == "store" && isEndKnown_ && random_() % WRITES_EVERY == 0) writeOn(name_ + ", " + where, bytes);
    casesOf_[static_cast<std::size_t>(kind_)] += cases_ - before;
  }

  bool isOver(const zontest::Allowance& allowance) const { return failures_ > 0 || allowance.isOver(); }

  void flipInEveryByte(unsigned bit, const zontest::Allowance& allowance) {
    const Bytes& golden = bytesOf("store");
    for (std::size_t at = 0; at < used_ + NEAR && !isOver(allowance); ++at) {
      if (at < format::LOG_START && isFarFromContent(golden, at)) continue;
      const auto bytes = std::make_shared<Bytes>(golden);
      (*bytes)[at] ^= std::byte{1} << bit;
      look("bit " + std::to_string(bit) + " of byte " + std::to_string(at), bytes);
    }
  }

  void loseEverySector(const zontest::Allowance& allowance) {
    const Bytes& golden = bytesOf("store");
    for (std::size_t at = 0; at + UNIT <= golden.size() && at < used_ && !isOver(allowance); at += UNIT) {
      for (const int fill : {0, 0xFF, 0x5A}) {
        const auto bytes = std::make_shared<Bytes>(golden);
        std::fill_n(bytes->begin() + static_cast<std::ptrdiff_t>(at), UNIT, static_cast<std::byte>(fill));
        look("sector at " + std::to_string(at) + " of " + std::to_string(fill), bytes);
      }
    }
  }

  // Any bytes in the log, in one or in two places.
  void spoilPlaces(const zontest::Allowance& allowance) {
    for (std::size_t number = 0; number < used_ / 8 && !isOver(allowance); ++number) {
      const auto bytes = std::make_shared<Bytes>(bytesOf("store"));
      std::string where = "spoilt";
      for (std::uint64_t places = 1 + random_() % 2; places > 0; --places) where += spoilPlace(*bytes);
      look(where, bytes);
    }
  }

  // The backup in every 16th bit, and file and backup together: what neither has is lost, and told.
  void spoilBackup(const zontest::Allowance& allowance) {
    if (!golden_.has(".store.bkp")) return;
    const Content backup = golden_.files.at(golden_.names.at(".store.bkp"));
    for (std::size_t at = random_() % 2; at < backup->size() && !isOver(allowance); at += 2) {
      const auto bytes = std::make_shared<Bytes>(*backup);
      (*bytes)[at] ^= std::byte{1} << (random_() % 8);
      look("byte " + std::to_string(at) + " of the backup", bytes, ".store.bkp");
      auto both = std::make_shared<Bytes>(bytesOf("store"));
      const std::string where = spoilPlace(*both);
      Content& kept = golden_.files.at(golden_.names.at(".store.bkp"));
      kept = bytes;
      look("backup at " + std::to_string(at) + ", file" + where, both);
      kept = backup;
    }
  }

  void damageOtherwise(const zontest::Allowance& allowance) {
    loseEverySector(allowance);
    spoilPlaces(allowance);
    spoilBackup(allowance);
    if (isOver(allowance)) return;
    const std::uint64_t before = cases_;
    cutEveryLength(1);
    casesOf_[static_cast<std::size_t>(kind_)] += cases_ - before;
    isEndKnown_ = true;
  }

  const zontest::Allowance allowance_{QUICK_SECONDS};

 private:
  Values perform(TestStore& store, RandomHistory& history, const Values& now) {
    const Deed deed = history.next(now);
    EXPECT_EQ(deed.work(store), deed.expected) << name_ << ", " << deed.name;
    return deed.after.back();
  }

  bool isBackupTrailing(TestStore& store) const {
    GenRegStatus status{};
    EXPECT_EQ(store.status(status), MD_RC_OK);
    return status.backupBytes > format::LOG_START && status.backupBytes < status.usedBytes;
  }

  void findGone(const Values& now) {
    for (const Value& value : history_) {
      if (gone_.size() > MOST_GONE) return;
      const bool isThere = std::any_of(now.begin(), now.end(), [&](const Value& other) {
        return other.group == value.group && other.key == value.key;
      });
      if (!isThere) gone_.push_back({value.group, value.key, ""});
    }
  }

  static bool isFarFromContent(const Bytes& bytes, std::size_t at) {
    const std::size_t from = at < NEAR ? 0 : at - NEAR;
    const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(from);
    return std::all_of(begin, begin + 2 * NEAR, [](std::byte byte) { return byte == std::byte{0}; });
  }

  // Some bytes of the log become others; tells where.
  std::string spoilPlace(Bytes& bytes) {
    const std::size_t length = 1 + random_() % LONGEST_BURST;
    const std::size_t from = format::LOG_START + random_() % (used_ - format::LOG_START);
    const std::size_t to = std::min({from + length, bytes.size(), static_cast<std::size_t>(used_)});
    for (std::size_t at = from; at < to; ++at) bytes[at] = static_cast<std::byte>(random_());
    return " from " + std::to_string(from) + " to " + std::to_string(to);
  }

  std::mt19937_64 random_;
  Kind kind_ = Kind::FEW;
  std::string name_;
  std::array<std::uint64_t, KIND_NAMES.size()> casesOf_{};
  std::uint64_t writtenOn_ = 0;
};

TEST_F(RandomDamage, IsNeverAnsweredAsTruth) {
  const std::uint64_t first = zontest::evidenceSeed() * 1000000;
  for (std::uint64_t round = 0; !isOver(allowance_); ++round) {
    for (std::uint64_t kind = 0; kind < KIND_NAMES.size() && !isOver(allowance_); ++kind) {
      const auto bit = static_cast<unsigned>(round % 8);
      make(first + round / 8 * KIND_NAMES.size() + kind, bit);
      if (HasFailure()) return;
      flipInEveryByte(bit, allowance_);
      if (bit == 0) damageOtherwise(allowance_);
    }
  }
}

}  // namespace
}  // namespace zon::test
