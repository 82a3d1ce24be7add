// Every allocation of every operation fails, on the real file system. What must hold: the answer names the cause; the
// records are as before the call, or as after it where the answer is success or leaves it open; nothing is leaked or
// lies about; the next call works. What else may fail, and after what: combined_faults_test.cpp.
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <new>

#include "platform/registry/format/format.h"
#include "platform/registry/harness/test_records.h"
#include "support/evidence.h"
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

using Bytes = std::vector<std::byte>;

constexpr std::size_t SMALL_RECORDS = 8192;

std::string text(std::size_t size, char letter) { return std::string(size, letter); }

// What an operation does, with its records made beforehand.
struct Operation {
  const char* name;
  std::function<std::uint32_t(TestStore&)> run;
};

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
    zontest::tellEvidence("memory.engine", static_cast<std::uint64_t>(faults_), 0);
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
