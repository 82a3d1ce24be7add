// Every cell of the table in docs/damage.md: states of a record file and of its companions, and what a reader, a
// writer, a writer who is not to repair, and one who may not give a new file the old one's owner get. Each answer is
// held against all that was ever written: a code of 0 promises the present records, no record is made up, and what was
// damaged keeps a name.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "platform/registry/format/format.h"
#include "platform/registry/harness/simulated_disk.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

enum class File { SOUND, DAMAGED, EMPTY, GONE };
enum class Backup { SOUND, OLDER, DAMAGED, GONE, OTHER };

const Value PROBE{"probe", "probe", "p"};

struct State {
  File file;
  Backup backup;
  bool hasTemporary;
  bool hasCorruptCopy;
  bool canLink;

  std::string name() const {
    const char* files[] = {"sound", "damaged", "empty", "gone"};
    const char* backups[] = {"sound", "older", "damaged", "gone", "other"};
    return std::string("file ") + files[static_cast<int>(file)] + ", backup " + backups[static_cast<int>(backup)] +
           (hasTemporary ? ", temporary file left" : "") + (hasCorruptCopy ? ", older corrupt copy" : "") +
           (canLink ? "" : ", no links");
  }
  // The damaged place is whole in a backup that reaches it.
  bool isHelped() const { return file == File::DAMAGED && (backup == Backup::SOUND || backup == Backup::OLDER); }
  bool isNothingLeft() const { return file != File::SOUND && file != File::DAMAGED && backup == Backup::GONE; }
  bool isLossy() const { return file != File::SOUND && !isHelped() && !isNothingLeft(); }
  // Whether a repair, or a new file, takes a name from somebody.
  bool needsCorruptCopy() const { return file == File::DAMAGED || isLossy(); }
};

class DamageStates : public ::testing::Test {
 protected:
  DamageStates() {
    TestStore store(DISK_FOLDER);
    for (unsigned at = 0; at < 4; ++at) add(store, {"g", "k" + std::to_string(at), noise(1500, at)});
    older_ = content(".store.bkp");
    EXPECT_NE(older_, nullptr);
    EXPECT_EQ(store.remove("g", "k1"), MD_RC_OK);
    for (unsigned at = 4; at < 8; ++at) add(store, {"g", "k" + std::to_string(at), noise(3900, at)});
    EXPECT_EQ(store.change({"g", "k2", "newest"}), MD_RC_OK);
    written_.push_back({"g", "k2", "newest"});
    add(store, {"g", "last", noise(3000, 90)});
    truth_ = store.list();
    golden_ = disk_.image();
    boot_ = disk_.bootNumber();
    disk_.boot(DiskImage{});
    for (unsigned at = 0; at < 4; ++at) {
      EXPECT_EQ(store.add({"other", "o" + std::to_string(at), noise(2000, at)}), MD_RC_OK);
      written_.push_back({"other", "o" + std::to_string(at), noise(2000, at)});
    }
    other_ = content(".store.bkp");
  }

  void add(TestStore& store, const Value& value) {
    EXPECT_EQ(store.add(value), MD_RC_OK);
    written_.push_back(value);
  }

  Content content(const std::string& name) const {
    const DiskImage image = disk_.image();
    return image.has(name) ? image.files.at(image.names.at(name)) : nullptr;
  }

  static Content spoilt(const Content& content, const std::string& text) {
    auto bytes = std::make_shared<Bytes>(*content);
    const auto* wanted = reinterpret_cast<const std::byte*>(text.data());
    const auto found = std::search(bytes->begin() + format::LOG_START, bytes->end(), wanted, wanted + text.size());
    spoilByte(*bytes, static_cast<std::size_t>(found - bytes->begin()));
    return bytes;
  }

  void boot(const State& state) {
    DiskImage image = golden_;
    const std::uint64_t file = image.names.at("store");
    const std::uint64_t backup = image.names.at(".store.bkp");
    const std::string damagedText = noise(1500, 0);
    if (state.file == File::DAMAGED) image.files[file] = spoilt(image.files[file], damagedText);
    if (state.file == File::EMPTY) image.files[file] = std::make_shared<Bytes>();
    if (state.file == File::GONE) image.names.erase("store");
    if (state.backup == Backup::OLDER) image.files[backup] = older_;
    if (state.backup == Backup::DAMAGED) image.files[backup] = spoilt(image.files[backup], damagedText);
    if (state.backup == Backup::OTHER) image.files[backup] = other_;
    if (state.backup == Backup::GONE) image.names.erase(".store.bkp");
    const auto put = [&](const char* name, std::uint64_t inode) {
      image.names[name] = inode;
      image.files[inode] = std::make_shared<Bytes>(5000, std::byte{7});
    };
    if (state.hasTemporary) put("store.tmp", 7001);
    if (state.hasCorruptCopy) put("store.cor", 7002);
    disk_.boot(image);
    disk_.setBootNumber(boot_);
    disk_.fault = [&state](Call call) { return call == Call::LINK && !state.canLink ? EPERM : 0; };
  }

  void expectNothingInvented(const Values& values, const std::string& where) const {
    for (const Value& value : values) {
      const bool isKnown = value == PROBE || std::find(written_.begin(), written_.end(), value) != written_.end();
      EXPECT_TRUE(isKnown) << where;
    }
  }

  void checkReader(const State& state) {
    const std::string where = state.name() + ", reader";
    TestStore store(DISK_FOLDER);
    std::uint32_t rc = MD_RC_OK;
    const Values listed = store.list(0, {}, &rc);
    expectNothingInvented(listed, where);
    const bool readsAsEmpty = state.file == File::GONE || state.isNothingLeft();
    EXPECT_EQ(rc, state.isLossy() && !readsAsEmpty ? GENREG_RC_DAMAGED : MD_RC_OK) << where;
    if (rc == MD_RC_OK) {
      EXPECT_EQ(listed, readsAsEmpty ? Values{} : truth_) << where;
    }
    Value value;
    for (const Value& wanted : truth_) {
      const std::uint32_t got = store.get(wanted.group, wanted.key, value);
      if (got == MD_RC_OK) {
        EXPECT_EQ(value, wanted) << where;
      }
      if (got == GENREG_RC_NOT_FOUND) {
        EXPECT_TRUE(readsAsEmpty) << where << ", " << wanted.key;
      }
    }
    EXPECT_NE(store.get("g", "k1", value), MD_RC_OK) << where;  // it was removed
    GenRegStatus status{};
    EXPECT_EQ(store.status(status), MD_RC_OK) << where;
    const bool isDamaged = state.file == File::DAMAGED || (state.file == File::EMPTY && state.backup != Backup::GONE);
    EXPECT_EQ(status.damaged != 0, isDamaged) << where;
    EXPECT_EQ(status.orphanedBackup != 0, state.file == File::GONE && state.backup != Backup::GONE) << where;
    EXPECT_EQ(status.corruptCopy != 0, state.hasCorruptCopy) << where;
  }

  void checkWriter(const State& state) {
    const std::string where = state.name() + ", writer";
    const DiskImage before = disk_.image();
    TestStore store(DISK_FOLDER);
    std::uint32_t rc = store.add(PROBE);
    if (rc == MD_RC_OK) rc = store.repair();
    if (!state.canLink && state.needsCorruptCopy()) {
      EXPECT_EQ(rc, GENREG_RC_NO_PERMISSION) << where;
      expectKept(before, where);
      disk_.fault = nullptr;  // the next one has the right
      if (store.add(PROBE) == GENREG_RC_DUPLICATE_KEY) rc = MD_RC_OK;
      rc = store.repair();
    }
    EXPECT_EQ(rc, MD_RC_OK) << where;
    EXPECT_EQ(store.hasMetLoss(), state.isLossy()) << where;
    Values listed = store.list(0, {}, &rc);
    EXPECT_EQ(rc, MD_RC_OK) << where;
    expectNothingInvented(listed, where);
    ASSERT_FALSE(listed.empty()) << where;
    EXPECT_EQ(listed.back(), PROBE) << where;
    listed.pop_back();
    if (!state.isLossy()) {
      EXPECT_EQ(listed, state.isNothingLeft() ? Values{} : truth_) << where;
    }
    GenRegStatus status{};
    EXPECT_EQ(store.status(status), MD_RC_OK) << where;
    EXPECT_EQ(status.damaged, 0u) << where;
    EXPECT_EQ(status.unacknowledgedLosses, state.isLossy() ? 1u : 0u) << where;
    if (state.needsCorruptCopy()) expectKept(before, where);
  }

  void checkWriterWithoutRight(const State& state) {
    const std::string where = state.name() + ", writer without the right";
    const DiskImage before = disk_.image();
    TestStore store(DISK_FOLDER);
    store.unsetFeature(GenRegBase::FEATURE_REPAIR);
    const std::uint32_t rc = store.removeAll("", "", 0);
    if (state.file == File::GONE) {
      EXPECT_EQ(rc, GENREG_RC_NOT_FOUND) << where;
    } else if (state.file != File::SOUND) {
      EXPECT_TRUE(rc == GENREG_RC_DAMAGED || rc == GENREG_RC_NOT_RECORD_FILE) << where;
      EXPECT_FALSE(disk_.image().has("store.cor.1")) << where;
      EXPECT_EQ(disk_.image().has("store.cor"), state.hasCorruptCopy) << where;
    } else {
      EXPECT_EQ(rc, MD_RC_OK) << where;
    }
    EXPECT_FALSE(store.hasMetLoss()) << where;
    if (state.file != File::SOUND) expectKept(before, where);
  }

  // All belongs to somebody else, and nothing can be given to him.
  void checkStrangersWriter(const State& state) {
    const std::string where = state.name() + ", writer of another user";
    DiskImage before = disk_.image();
    for (auto& [name, inode] : before.names) before.rights[inode] = Rights{.owner = 7, .group = 8, .accessList = {}};
    disk_.boot(before);
    disk_.setBootNumber(boot_);
    disk_.fault = [&state](Call call) {
      return call == Call::CHANGE_OWNER || (call == Call::LINK && !state.canLink) ? EPERM : 0;
    };
    TestStore store(DISK_FOLDER);
    const std::uint32_t rc = store.removeAll("", "", 0);
    if (state.file == File::SOUND) {
      EXPECT_EQ(rc, MD_RC_OK) << where;
    } else if (state.file == File::GONE) {
      EXPECT_EQ(rc, GENREG_RC_NOT_FOUND) << where;
    } else {
      EXPECT_EQ(rc, GENREG_RC_NO_PERMISSION) << where;
      EXPECT_EQ(disk_.image().names.at("store"), before.names.at("store")) << where;
      expectAnswersOf(state, where);
    }
    EXPECT_FALSE(store.hasMetLoss()) << where;
    if (!state.hasTemporary) {
      EXPECT_FALSE(disk_.image().has("store.tmp")) << where;
    }
    if (state.file != File::SOUND) expectKept(before, where);
  }

  // Nothing has become worse for readers.
  void expectAnswersOf(const State& state, const std::string& where) {
    TestStore store(DISK_FOLDER);
    std::uint32_t rc = MD_RC_OK;
    const Values listed = store.list(0, {}, &rc);
    EXPECT_EQ(rc, state.isLossy() ? GENREG_RC_DAMAGED : MD_RC_OK) << where;
    if (!state.isLossy()) {
      EXPECT_EQ(listed, state.isNothingLeft() ? Values{} : truth_) << where;
    }
    expectNothingInvented(listed, where);
  }

  // The damaged file, or without one its backup, still has a name.
  void expectKept(const DiskImage& before, const std::string& where) const {
    const std::string name = before.has("store") ? "store" : ".store.bkp";
    if (!before.has(name)) return;
    const std::uint64_t inode = before.names.at(name);
    const DiskImage after = disk_.image();
    const bool isNamed =
        std::any_of(after.names.begin(), after.names.end(), [&](const auto& entry) { return entry.second == inode; });
    EXPECT_TRUE(isNamed) << where;
  }

  const SettingScope<std::size_t> small_{largestData, 4096};
  SimulatedDisk disk_;
  DiskImage golden_;
  unsigned boot_ = 1;
  Content older_;
  Content other_;
  Values truth_;
  Values written_;
};

TEST_F(DamageStates, AreAnsweredAsTheTableSays) {
  std::size_t states = 0;
  for (const File file : {File::SOUND, File::DAMAGED, File::EMPTY, File::GONE}) {
    for (const Backup backup : {Backup::SOUND, Backup::OLDER, Backup::DAMAGED, Backup::GONE, Backup::OTHER}) {
      for (const unsigned rest : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u}) {
        const State state{.file = file,
                          .backup = backup,
                          .hasTemporary = (rest & 1) != 0,
                          .hasCorruptCopy = (rest & 2) != 0,
                          .canLink = (rest & 4) == 0};
        boot(state);
        checkReader(state);
        boot(state);
        checkWriter(state);
        boot(state);
        checkWriterWithoutRight(state);
        boot(state);
        checkStrangersWriter(state);
        ++states;
      }
    }
  }
  EXPECT_EQ(states, 160u);
}

}  // namespace
}  // namespace zon::test
