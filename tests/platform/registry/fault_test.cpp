// Every system call of every operation fails once, and from some call on always, with every error that it may give; and
// every allocation fails. What must hold: the answer names the cause; the records are as before the call, or as after
// it where the answer is success or leaves it open; nothing stays open or lies about; the next call works. A power cut
// after the failure must not bring back what was refused.
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <new>
#include <set>

#include "platform/registry/format.h"
#include "simulated_disk.h"
#include "test_records.h"
#include "zonmdfile/platform/oss.h"

namespace {

// Counts down over allocations; the one that reaches zero fails, with `sticky` all after it.
bool isArmed = false;
bool isSticky = false;
long long allocationsLeft = 0;
long long liveAllocations = 0;
bool hasFailed = false;

[[gnu::noinline]] void* allocate(std::size_t size) {
  if (isArmed && (allocationsLeft == 0 || --allocationsLeft == 0) && (isSticky || !hasFailed)) {
    hasFailed = true;
    return nullptr;
  }
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory != nullptr) ++liveAllocations;
  return memory;
}

[[gnu::noinline]] void release(void* memory) {
  if (memory != nullptr) --liveAllocations;
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
  void* memory = allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* memory) noexcept { release(memory); }
void operator delete[](void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t) noexcept { release(memory); }
void operator delete[](void* memory, std::size_t) noexcept { release(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { release(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { release(memory); }

namespace zon::test {
namespace {

constexpr std::size_t SMALL_RECORDS = 8192;
constexpr std::size_t MOST_CALLS = 2000000;  // more than any wait that ends needs
constexpr int MOST_FAILURES = 5;

std::string text(std::size_t size, char letter) { return std::string(size, letter); }

// What an operation does, with its records made beforehand.
struct Operation {
  const char* name;
  std::function<std::uint32_t(TestStore&)> run;
};

const Value PROBE{"probe", "probe", "p"};
const Value NEW{"new", "new", text(300, 'n')};

Bytes NEW_RECORD;
Bytes CHANGED_RECORD;
Bytes FIRST_KEY;
Bytes RENAMED_RECORD;
Bytes OUT;

void makeRecords() {
  NEW_RECORD = encode(NEW, true);
  CHANGED_RECORD = encode({"g0", "k0", text(500, 'c')}, true);
  RENAMED_RECORD = encode({"renamed", "renamed", "r"}, true);
  FIRST_KEY = encode({"g0", "k0", ""}, true);
  OUT = Bytes(FIRST_KEY.size());
}

std::uint32_t batch(TestStore& store) {
  if (const std::uint32_t rc = store.beginBatch()) return rc;
  if (const std::uint32_t rc = store.Add(WHOLE_KEY, NEW_RECORD.data())) return rc;
  const std::uint32_t rc = store.Delete(WHOLE_KEY, FIRST_KEY.data());
  return rc == MD_RC_OK || rc == GENREG_RC_NOT_FOUND ? store.commitBatch() : rc;
}

// What a batch may leave that had the file repaired and then failed.
bool isPrefixOfBatch(const Operation& operation, const Values& before, Values values) {
  if (std::string(operation.name) != "batch" || values.empty() || !(values.back() == NEW)) return false;
  values.pop_back();
  return values == before;
}

std::uint32_t scan(TestStore& store, unsigned long flags) {
  if (const std::uint32_t rc = store.OpenScan()) return rc;
  std::uint32_t rc = MD_RC_OK;
  while ((rc = store.GetNext(flags, FIRST_KEY.data(), OUT.data())) == MD_RC_OK) {
  }
  const std::uint32_t closed = store.CloseScan();
  return rc == GENREG_RC_END_OF_SCAN ? closed : rc;
}

const std::vector<Operation>& operations() {
  static const std::vector<Operation> ALL{
      {"Add", [](TestStore& store) { return store.Add(WHOLE_KEY, NEW_RECORD.data()); }},
      {"Change", [](TestStore& store) { return store.Change(WHOLE_KEY, FIRST_KEY.data(), CHANGED_RECORD.data()); }},
      {"rename", [](TestStore& store) { return store.Change(WHOLE_KEY, FIRST_KEY.data(), RENAMED_RECORD.data()); }},
      {"Delete", [](TestStore& store) { return store.Delete(WHOLE_KEY, FIRST_KEY.data()); }},
      {"delete group",
       [](TestStore& store) {
         store.setFeature(GenRegBase::FEATURE_DELETE_ALL);
         return store.Delete(GROUP, FIRST_KEY.data());
       }},
      {"batch", batch},
      {"Get", [](TestStore& store) { return store.Get(WHOLE_KEY, FIRST_KEY.data(), OUT.data()); }},
      {"scan", [](TestStore& store) { return scan(store, 0); }},
      {"group scan", [](TestStore& store) { return scan(store, GROUP); }},
      {"compact", [](TestStore& store) { return store.compact(); }},
      {"repair", [](TestStore& store) { return store.repair(); }},
      {"status",
       [](TestStore& store) {
         GenRegStatus status;
         return store.status(status);
       }},
  };
  return ALL;
}

void addMany(TestStore& store, int count, std::size_t size) {
  ASSERT_EQ(store.beginBatch(), MD_RC_OK);
  for (int at = 0; at < count; ++at) {
    const std::string number = std::to_string(at);
    ASSERT_EQ(store.add({"g" + std::to_string(at % 3), "k" + number, noise(size, static_cast<unsigned>(at))}),
              MD_RC_OK);
  }
  ASSERT_EQ(store.commitBatch(), MD_RC_OK);
}

void addSingly(TestStore& store, int count, std::size_t size) {
  for (int at = 0; at < count; ++at) {
    const std::string number = std::to_string(at);
    ASSERT_EQ(store.add({"g" + number, "s" + number, noise(size, static_cast<unsigned>(at))}), MD_RC_OK);
  }
}

// A file as some history left it.
struct Shape {
  const char* name;
  std::function<void(TestStore&, SimulatedDisk&)> make;
};

void spoil(SimulatedDisk& disk, const std::string& name, std::size_t offset) {
  DiskImage image = disk.image();
  auto bytes = std::make_shared<Bytes>(*image.files.at(image.names.at(name)));
  spoilByte(*bytes, offset);
  image.files[image.names.at(name)] = bytes;
  const unsigned boot = disk.bootNumber();
  disk.boot(image);
  disk.setBootNumber(boot);
}

const std::vector<Shape>& shapes() {
  static const std::vector<Shape> ALL{
      {"no file", [](TestStore&, SimulatedDisk&) {}},
      {"small", [](TestStore& store, SimulatedDisk&) { addMany(store, 5, 40); }},
      {"overlay nearly full", [](TestStore& store, SimulatedDisk&) { addSingly(store, 20, 10); }},
      {"overlay just applied", [](TestStore& store, SimulatedDisk&) { addSingly(store, 21, 10); }},
      {"area nearly full",
       [](TestStore& store, SimulatedDisk&) {
         addMany(store, 380, 10);
         addSingly(store, 1, 10);
       }},
      {"backup due", [](TestStore& store, SimulatedDisk&) { addMany(store, 10, 380); }},
      {"backup behind",
       [](TestStore& store, SimulatedDisk&) {
         addMany(store, 10, 600);
         for (unsigned at = 0; at < 3; ++at) {
           ASSERT_EQ(store.add({"big", std::to_string(at), noise(5200, at)}), MD_RC_OK);
         }
       }},
      {"compaction due",
       [](TestStore& store, SimulatedDisk&) {
         addMany(store, 5, 40);
         for (unsigned at = 0; at < 13; ++at) {
           ASSERT_EQ(store.change({"g1", "k1", noise(7000, at)}), MD_RC_OK);
         }
       }},
      {"left temporary file",
       [](TestStore& store, SimulatedDisk& disk) {
         addMany(store, 10, 380);
         DiskImage image = disk.image();
         image.names["store.tmp"] = 999;
         image.files[999] = std::make_shared<Bytes>(5000, std::byte{7});
         disk.boot(image);
       }},
      {"of another owner, with an access list",
       [](TestStore& store, SimulatedDisk& disk) {
         addMany(store, 10, 380);
         DiskImage image = disk.image();
         for (auto& [inode, rights] : image.rights)
           rights = Rights{.mode = 0100640, .owner = 7, .group = 8, .accessList = Bytes(44, std::byte{1})};
         disk.boot(image);
       }},
      {"started anew",
       [](TestStore& store, SimulatedDisk& disk) {
         addSingly(store, 22, 10);
         disk.boot(disk.image());
       }},
      {"killed before publishing",
       [](TestStore& store, SimulatedDisk& disk) {
         addMany(store, 5, 40);
         bool synced = false;
         disk.fault = [&synced](Call call) {
           synced = synced || call == Call::SYNC_DATA;
           return synced && call == Call::WRITE ? EIO : 0;
         };
         store.add({"g1", "dying", "x"});
         disk.fault = nullptr;
         disk.killProcesses();
       }},
      {"damaged, with a backup",
       [](TestStore& store, SimulatedDisk& disk) {
         addMany(store, 10, 600);
         ASSERT_EQ(store.add({"g1", "behind", "x"}), MD_RC_OK);
         const DiskImage image = disk.image();
         ASSERT_TRUE(image.has(".store.bkp"));
         const Bytes& bytes = *image.files.at(image.names.at("store"));
         std::size_t at = format::LOG_START;
         while (std::memcmp(&bytes[at], noise(600, 0).data(), 8) != 0) ++at;
         spoil(disk, "store", at);
       }},
  };
  return ALL;
}

const std::vector<int>& errorsOf(Call call) {
  static const std::vector<int> OPENING{EACCES, EMFILE, ENFILE, ENOMEM, EROFS, ELOOP, ENOSPC, EDQUOT, EIO, EINTR};
  static const std::vector<int> READING{EIO, EINTR};
  static const std::vector<int> WRITING{EIO, ENOSPC, EDQUOT, EFBIG, EINTR};
  static const std::vector<int> SYNCING{EIO, ENOSPC, EDQUOT, EINTR};
  static const std::vector<int> RESERVING{ENOSPC, EDQUOT, EFBIG, EIO, EINTR, EOPNOTSUPP};
  static const std::vector<int> LOCKING{ENOLCK, EINTR, ENOMEM};
  static const std::vector<int> ASKING{ENOMEM, EIO, EACCES};
  static const std::vector<int> NAMING{EACCES, EIO, ENOSPC, EROFS, EDQUOT, EPERM};
  static const std::vector<int> OWNING{EPERM, EIO, EROFS};
  static const std::vector<int> GUESSING{EINTR, ENOSYS};
  switch (call) {
    case Call::OPEN:
      return OPENING;
    case Call::READ:
      return READING;
    case Call::WRITE:
      return WRITING;
    case Call::SYNC_DATA:
    case Call::SYNC:
      return SYNCING;
    case Call::ALLOCATE:
    case Call::TRUNCATE:
      return RESERVING;
    case Call::LOCK:
      return LOCKING;
    case Call::STAT:
      return ASKING;
    case Call::RENAME:
    case Call::LINK:
    case Call::UNLINK:
      return NAMING;
    case Call::CHANGE_MODE:
    case Call::CHANGE_OWNER:
    case Call::GET_ATTRIBUTE:
    case Call::SET_ATTRIBUTE:
    case Call::REMOVE_ATTRIBUTE:
      return OWNING;
    default:
      return GUESSING;
  }
}

bool namesCause(std::uint32_t rc, int error) {
  if (rc == MD_RC_OK || rc == GENREG_RC_DURABILITY_UNKNOWN) return true;
  switch (error) {
    case EIO:
      return rc == GENREG_RC_IO_ERROR;
    case ENOSPC:
    case EDQUOT:
      return rc == GENREG_RC_NO_SPACE;
    case EACCES:
    case EPERM:
      return rc == GENREG_RC_NO_PERMISSION;
    case EROFS:
      return rc == GENREG_RC_READ_ONLY;
    case EMFILE:
    case ENFILE:
      return rc == GENREG_RC_TOO_MANY_FILES;
    case ENOMEM:
      return rc == GENREG_RC_NO_MEMORY;
    case EFBIG:
      return rc == GENREG_RC_FILE_TOO_LARGE;
    case ELOOP:
      return rc == GENREG_RC_NOT_REGULAR;
    case ENOLCK:
      return rc == GENREG_RC_LOCK_UNSUPPORTED;
    case EINTR:
      return rc == GENREG_RC_SYSTEM_ERROR || rc == GENREG_RC_LOCK_TIMEOUT;
    default:
      return rc == GENREG_RC_SYSTEM_ERROR;
  }
}

class FaultyCalls : public ::testing::TestWithParam<std::size_t> {
 protected:
  FaultyCalls() { makeRecords(); }
  ~FaultyCalls() override { std::cout << "faults " << faults_ << ", power cuts after them " << cuts_ << '\n'; }

  Values listNow() {
    TestStore store(DISK_FOLDER);
    std::uint32_t rc = MD_RC_OK;
    Values values = store.list(0, {}, &rc);
    if (rc != MD_RC_OK) fail("the listing answers " + std::to_string(rc & 0xFFF));
    return values;
  }

  void fail(const std::string& what) {
    if (++failures_ <= MOST_FAILURES) ADD_FAILURE() << where_ << ": " << what;
  }

  void restore() {
    disk_.fault = nullptr;
    disk_.mostBytes = 0;
    disk_.isRecording = false;
    disk_.log.clear();
    disk_.boot(before_);
    disk_.setBootNumber(boot_);
    disk_.reseed();
  }

  std::uint32_t attempt(const Operation& operation) {
    TestStore store(DISK_FOLDER);
    return operation.run(store);
  }

  void breakEveryCall(const Operation& operation) {
    restore();
    valuesBefore_ = listNow();
    {
      TestStore store(DISK_FOLDER);
      EXPECT_EQ(store.add(PROBE), MD_RC_OK);
    }
    valuesSettled_ = listNow();
    valuesSettled_.pop_back();
    restore();
    disk_.setBootNumber(boot_ + 1);
    valuesTakenIn_ = listNow();
    restore();
    std::vector<Call> calls;
    disk_.fault = [&calls](Call call) {
      calls.push_back(call);
      return 0;
    };
    expected_ = attempt(operation);
    disk_.fault = nullptr;
    valuesAfter_ = listNow();
    isMended_ = disk_.image().has("store.cor");
    for (std::size_t at = 0; at < calls.size(); ++at) {
      for (const int error : errorsOf(calls[at])) {
        for (const bool sticky : {false, true}) breakOne(operation, at, calls[at], error, sticky);
      }
    }
  }

  void breakOne(const Operation& operation, std::size_t at, Call which, int error, bool sticky) {
    if (failures_ > MOST_FAILURES) return;
    ++faults_;
    where_ = std::string(shapes()[GetParam()].name) + ", " + operation.name + ", call " + std::to_string(at) + " (" +
             nameOf(which) + ") gives " + std::to_string(error) + (sticky ? " from there on" : " once");
    restore();
    std::size_t count = 0;
    disk_.fault = [&count, at, which, error, sticky, this](Call call) {
      const std::size_t number = count++;
      if (number > MOST_CALLS) {
        std::cerr << where_ << ": does not end\n";
        std::abort();
      }
      return number == at || (sticky && number > at && call == which) ? error : 0;
    };
    disk_.isRecording = true;
    const std::uint32_t rc = attempt(operation);
    disk_.isRecording = false;
    disk_.fault = nullptr;
    const std::vector<DiskOp> ops = std::move(disk_.log);
    disk_.log.clear();
    // A call that is interrupted once is simply repeated.
    if (error == EINTR && !sticky && rc != expected_ && which != Call::LOCK) fail("is not repeated");
    // A reader who cannot open the backup says what he met: damage.
    const bool isDamage = rc == GENREG_RC_DAMAGED && ops.empty() && (which == Call::OPEN || which == Call::STAT);
    if (rc != expected_ && !isDamage && !namesCause(rc, error)) fail("answers " + std::to_string(rc & 0xFFF));
    if (disk_.openDescriptors() != 0) fail("leaves descriptors open");
    const bool mayUnlink = which != Call::UNLINK && !sticky;
    if (mayUnlink && disk_.image().has("store.tmp") && !before_.has("store.tmp")) fail("leaves a temporary file");
    checkState(operation, rc, sticky);
    if (which == Call::WRITE || which == Call::SYNC_DATA || which == Call::SYNC)
      checkPowerCuts(operation, ops, rc, sticky);
  }

  bool isPrefix(const Operation& operation, const Values& values) const {
    return disk_.image().has("store.cor") && isPrefixOfBatch(operation, valuesBefore_, values);
  }

  void checkState(const Operation& operation, std::uint32_t rc, bool sticky) {
    const Values values = listNow();
    const bool mayBeBefore = rc != expected_ || valuesBefore_ == valuesAfter_;
    const bool mayBeAfter = rc == expected_ || rc == GENREG_RC_DURABILITY_UNKNOWN;
    const bool isBefore = values == valuesBefore_ || values == valuesSettled_;
    const bool isHalf = rc != expected_ && isPrefix(operation, values);
    if (!(mayBeBefore && isBefore) && !(mayBeAfter && values == valuesAfter_) && !isHalf) {
      fail("answers " + std::to_string(rc & 0xFFF) + " and leaves another state, of " + std::to_string(values.size()));
      return;
    }
    if (rc != expected_ && rc != GENREG_RC_DURABILITY_UNKNOWN && !sticky && !isHalf) checkSecondAttempt(operation);
    TestStore store(DISK_FOLDER);
    if (const std::uint32_t next = store.add(PROBE)) fail("the next Add answers " + std::to_string(next & 0xFFF));
    Values after = listNow();
    if (after.empty() || !(after.back() == PROBE)) {
      fail("the next Add is not there");
      return;
    }
    after.pop_back();
    const bool isKnown =
        after == values || after == valuesSettled_ || (rc == GENREG_RC_DURABILITY_UNKNOWN && after == valuesAfter_);
    if (!isKnown) fail("the next Add changes other records");
    for (std::size_t number = 0; number < after.size(); number += after.size() / 8 + 1) {
      Value value;
      if (store.get(after[number].group, after[number].key, value) != MD_RC_OK || !(value == after[number])) {
        fail("afterwards Get does not find " + after[number].key);
      }
    }
  }

  // What was refused is done the next time, as if nothing had happened.
  void checkSecondAttempt(const Operation& operation) {
    const DiskImage image = disk_.image();
    if (attempt(operation) != expected_) fail("it is refused again");
    if (disk_.image().has("store.cor") && !isMended_) fail("what it left is taken for damage");
    disk_.boot(image);
    disk_.setBootNumber(boot_);
  }

  void checkPowerCuts(const Operation& operation, const std::vector<DiskOp>& ops, std::uint32_t rc, bool sticky) {
    PowerCut cut(before_);
    for (const DiskOp& op : ops) cut.follow(op);
    for (int sample = 0; sample < 6; ++sample) {
      ++cuts_;
      disk_.boot(sample == 0 ? cut.oldest() : sample == 1 ? cut.newest() : cut.randomState(random_));
      const Values values = listNow();
      // Where the disk refuses every sync, what it holds is its own secret.
      const bool mayBeBefore = rc != expected_;
      const bool mayBeAfter = rc == expected_ || rc == GENREG_RC_DURABILITY_UNKNOWN || sticky;
      if ((mayBeBefore && (values == valuesBefore_ || values == valuesSettled_ || values == valuesTakenIn_)) ||
          (mayBeAfter && values == valuesAfter_) || (mayBeBefore && isPrefix(operation, values)))
        continue;
      fail("answers " + std::to_string(rc & 0xFFF) + ", after a power cut there are " + std::to_string(values.size()));
    }
  }

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
  SimulatedDisk disk_;
  DiskImage before_;
  unsigned boot_ = 1;
  Values valuesBefore_;
  Values valuesAfter_;
  Values valuesSettled_;  // as a writer leaves it that finds something behind the end
  Values valuesTakenIn_;  // as it is after a restart
  std::uint32_t expected_ = MD_RC_OK;
  bool isMended_ = false;  // the operation repairs the file, and keeps the damaged one
  std::string where_;
  std::uint64_t faults_ = 0;
  std::uint64_t cuts_ = 0;
  int failures_ = 0;
  std::mt19937_64 random_{3};
};

TEST_P(FaultyCalls, LeaveAStateThatTheAnswerTells) {
  {
    TestStore store(DISK_FOLDER);
    ASSERT_NO_FATAL_FAILURE(shapes()[GetParam()].make(store, disk_));
  }
  before_ = disk_.image();
  boot_ = disk_.bootNumber();
  for (const Operation& operation : operations()) breakEveryCall(operation);
}

TEST_P(FaultyCalls, ShortReadsAndWritesAreContinued) {
  {
    TestStore store(DISK_FOLDER);
    ASSERT_NO_FATAL_FAILURE(shapes()[GetParam()].make(store, disk_));
  }
  before_ = disk_.image();
  boot_ = disk_.bootNumber();
  for (const Operation& operation : operations()) {
    where_ = std::string(shapes()[GetParam()].name) + ", " + operation.name;
    restore();
    expected_ = attempt(operation);
    valuesAfter_ = listNow();
    for (const std::size_t most : {1u, 7u, 100u}) {
      restore();
      disk_.mostBytes = most;
      EXPECT_EQ(attempt(operation), expected_) << where_ << " by " << most;
      disk_.mostBytes = 0;
      EXPECT_EQ(listNow(), valuesAfter_) << where_ << " by " << most;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, FaultyCalls, ::testing::Range<std::size_t>(0, shapes().size()), [](const auto& shape) {
  std::string name = shapes()[shape.param].name;
  for (char& letter : name) letter = letter == ' ' || letter == ',' ? '_' : letter;
  return name;
});

// Allocations of the engine's own and of the memory service, on the real file system.
class FaultyMemory : public ::testing::Test {
 protected:
  FaultyMemory() { makeRecords(); }

  static Values listOf(const std::filesystem::path& folder) {
    TestStore store(folder);
    std::uint32_t rc = MD_RC_OK;
    Values values = store.list(0, {}, &rc);
    EXPECT_EQ(rc, MD_RC_OK);
    return values;
  }

  static void copyFolder(const std::filesystem::path& from, const std::filesystem::path& to) {
    for (const auto& entry : std::filesystem::directory_iterator(to)) std::filesystem::remove(entry.path());
    std::filesystem::copy(from, to);
  }

  // Makes the n-th allocation fail for every n until the operation no longer asks so often.
  template <class Arm, class Disarm>
  void failEveryAllocation(const std::filesystem::path& original, const Operation& operation, Arm arm, Disarm disarm) {
    TestFolder work(inMemory());
    const Values before = listOf(original);
    copyFolder(original, work.path());
    std::uint32_t expected = MD_RC_OK;
    {
      TestStore store(work.path());
      expected = operation.run(store);
    }
    const Values after = listOf(work.path());
    for (const bool sticky : {false, true}) {
      for (long long number = 1;; ++number) {
        ASSERT_LT(number, 100000);
        copyFolder(original, work.path());
        const long long balance = liveAllocations;
        bool triggered = false;
        std::uint32_t rc = MD_RC_OK;
        {
          TestStore store(work.path());
          arm(number, sticky);
          rc = operation.run(store);
          triggered = disarm();
        }
        ++faults_;
        ASSERT_EQ(liveAllocations, balance) << operation.name << " leaks at allocation " << number;
        ASSERT_TRUE(rc == expected || rc == GENREG_RC_NO_MEMORY || rc == GENREG_RC_DURABILITY_UNKNOWN)
            << operation.name << " answers " << rc << " at allocation " << number;
        const Values values = listOf(work.path());
        const bool fits = rc == expected                       ? values == after
                          : rc == GENREG_RC_DURABILITY_UNKNOWN ? values == after || values == before
                                                               : values == before;
        const bool isHalf = rc != expected && std::filesystem::exists(work.path() / "store.cor") &&
                            isPrefixOfBatch(operation, before, values);
        ASSERT_TRUE(fits || isHalf) << operation.name << " answers " << rc << " at allocation " << number
                                    << " and leaves " << values.size() << " records";
        if (rc != expected && rc != GENREG_RC_DURABILITY_UNKNOWN) {
          EXPECT_FALSE(std::filesystem::exists(work.path() / "store.tmp")) << operation.name << ' ' << number;
        }
        TestStore next(work.path());
        ASSERT_EQ(next.add({"next", "next", "n"}), MD_RC_OK) << operation.name << " at allocation " << number;
        if (!triggered) break;
      }
    }
  }

  void failEverywhere(const std::filesystem::path& original) {
    for (const Operation& operation : operations()) {
      failEveryAllocation(
          original, operation,
          [](long long number, bool sticky) {
            allocationsLeft = number;
            isSticky = sticky;
            hasFailed = false;
            isArmed = true;
          },
          [] {
            isArmed = false;
            return hasFailed;
          });
      std::uint64_t asked = 0;
      std::uint64_t wanted = 0;
      failEveryAllocation(
          original, operation,
          [&](long long number, bool sticky) {
            asked = ossMemAllocationCount();
            wanted = static_cast<std::uint64_t>(number);
            ossMemFailAt(wanted, sticky ? 1 : 0);
          },
          [&] {
            ossMemFailAt(0, 0);
            return ossMemAllocationCount() - asked >= wanted;
          });
      if (HasFatalFailure()) return;
    }
    std::cout << "failed allocations " << faults_ << '\n';
  }

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
  TestFolder folder_{inMemory()};
  std::uint64_t faults_ = 0;
};

TEST_F(FaultyMemory, OfASmallFile) {
  TestStore store(folder_.path());
  addMany(store, 5, 40);
  failEverywhere(folder_.path());
}

TEST_F(FaultyMemory, OfAFileThatIsNotThere) { failEverywhere(folder_.path()); }

TEST_F(FaultyMemory, WithTheOverlayNearlyFull) {
  TestStore store(folder_.path());
  addSingly(store, 20, 10);
  failEverywhere(folder_.path());
}

TEST_F(FaultyMemory, WithABackupDue) {
  TestStore store(folder_.path());
  addMany(store, 10, 380);
  failEverywhere(folder_.path());
}

TEST_F(FaultyMemory, WithACompactionDue) {
  TestStore store(folder_.path());
  addMany(store, 5, 40);
  for (unsigned at = 0; at < 13; ++at) ASSERT_EQ(store.change({"g1", "k1", noise(7000, at)}), MD_RC_OK);
  failEverywhere(folder_.path());
}

// A group delete that runs out of memory half way must not be completed by what follows in the batch.
TEST_F(FaultyMemory, InABatchThatGoesOn) {
  {
    TestStore store(folder_.path());
    addMany(store, 30, 40);
  }
  const Values before = listOf(folder_.path());
  Values without;
  std::copy_if(before.begin(), before.end(), std::back_inserter(without),
               [](const Value& value) { return value.group != "g0"; });
  TestFolder work(inMemory());
  for (long long number = 1;; ++number) {
    copyFolder(folder_.path(), work.path());
    std::uint32_t rc = MD_RC_OK;
    std::uint32_t added = MD_RC_OK;
    std::uint32_t committed = MD_RC_OK;
    {
      TestStore store(work.path());
      ASSERT_EQ(store.beginBatch(), MD_RC_OK);
      store.setFeature(GenRegBin::FEATURE_DELETE_ALL);
      allocationsLeft = number;
      isSticky = false;
      hasFailed = false;
      isArmed = true;
      rc = store.Delete(GROUP, FIRST_KEY.data());
      isArmed = false;
      added = store.Add(WHOLE_KEY, NEW_RECORD.data());
      committed = store.commitBatch();
    }
    if (committed != MD_RC_OK) {
      ASSERT_EQ(added, committed) << "allocation " << number;
    }
    Values values = listOf(work.path());
    const bool isAdded = added == MD_RC_OK && committed == MD_RC_OK;
    if (isAdded) {
      ASSERT_EQ(values.back(), NEW);
      values.pop_back();
    }
    ASSERT_EQ(values, rc == MD_RC_OK && committed == MD_RC_OK ? without : before) << "allocation " << number;
    TestStore next(work.path());
    ASSERT_EQ(next.add({"next", "next", "n"}), MD_RC_OK) << number;
    if (!hasFailed) break;
  }
}

TEST_F(FaultyMemory, OfADamagedFile) {
  {
    TestStore store(folder_.path());
    addMany(store, 10, 600);
    ASSERT_EQ(store.add({"g1", "behind", "x"}), MD_RC_OK);
  }
  std::ifstream file(folder_.file(), std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(file)), {});
  const std::size_t at = bytes.find(noise(600, 0).substr(0, 20), format::LOG_START);
  ASSERT_NE(at, std::string::npos);
  spoilByteOfFile(folder_.file(), at);
  failEverywhere(folder_.path());
}

}  // namespace
}  // namespace zon::test
