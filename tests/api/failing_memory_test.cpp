// Every entry point with every request for memory failing in turn, once and from then on, on a site where something
// else has happened just before (site_scenes.h).
//
// The method: the call is made once without a fault on a copy of the site, and what it answers and leaves is the truth.
// With a fault it may answer the truth, or fail and touch nothing; the records that it leaves lie between those before
// and those after; the same call then works; and no block is left behind. One entry point of each shape is swept
// whole, of the others, which are made of the same parts, a share is tried: ZON_FAULT_SCALE multiplies it, and
// ZON_FAULT_SEED chooses another one.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "api/entry_points.h"
#include "api/site_scenes.h"
#include "support/failing_memory.h"
#include "support/metadata_test.h"
#include "zonmdfile/platform/admin.h"

namespace {

using zontest::Call;
using zontest::EntryPointCase;
using zontest::FailingMemory;
using zontest::Records;
using zontest::Scene;
using zontest::Site;
using zontest::StoreOfSite;

// ---- Which requests are tried

constexpr double SHARE = 0.1;
constexpr double SHARE_WITH_SANITIZER = 0.01;

double numberFrom(const char* variable, double otherwise) {
  const char* text = std::getenv(variable);
  return text == nullptr ? otherwise : std::atof(text);
}

unsigned seed() { return static_cast<unsigned>(numberFrom("ZON_FAULT_SEED", 1)); }

bool isSweptWhole(std::string_view name) {
  static constexpr std::array<std::string_view, 12> WHOLE{
      "MDCustomTree_retrieve",  "MDCustomTree_retrieveAll",     "MDCustomTree_update",
      "MDContact_remove",       "MDJCLSkeleton_removeList",     "MDJCLSkeleton_retrieveList",
      "MDContactGroup_insert",  "MDContactGroup_removeAll",     "MDContactGroup_updateDescription",
      "ContactAPI_retrieveAll", "ContactGroupAPI_retrieveList", "ContactGroupAPI_retrieveAllContactNames"};
  return std::find(WHOLE.begin(), WHOLE.end(), name) != WHOLE.end();
}

// The same choice wherever and in whatever order the tests run.
class Choice {
 public:
  Choice(std::string_view name, Scene scene) {
    std::vector<unsigned> numbers(name.begin(), name.end());
    numbers.push_back(static_cast<unsigned>(scene));
    numbers.push_back(seed());
    std::seed_seq sequence(numbers.begin(), numbers.end());
    random_.seed(sequence);
    const bool isSlow = zontest::hasSanitizer();
    share_ = (isSlow ? SHARE_WITH_SANITIZER : isSweptWhole(name) ? 1 : SHARE) * numberFrom("ZON_FAULT_SCALE", 1);
  }

  bool takesNext() { return std::uniform_real_distribution<>()(random_) < share_; }

 private:
  std::mt19937_64 random_;
  double share_ = 1;
};

// ---- The calls

// The combined interfaces get slots for every entry that the site can have.
std::string slotsOf(const EntryPointCase& entry) {
  const std::string name = entry.name;
  std::string slots = entry.slots;
  const auto addMany = [&slots](const std::string& row) {
    for (int i = 0; i < zontest::FILLERS + 10; ++i) slots += row;
  };
  if (name == "ContactAPI_retrieveAll") addMany("o#o#o");
  if (name == "ContactGroupAPI_retrieveAllContactNames") addMany("o");
  if (name == "ContactGroupAPI_retrieveList" || name == "ContactGroupAPI_retrieveAll") addMany("oo");
  return slots;
}

struct Answer {
  std::int32_t sqlcode = 0;
  std::vector<std::string> outputs;
  bool isUntouched = true;

  bool operator==(const Answer& other) const { return sqlcode == other.sqlcode && outputs == other.outputs; }
};

class CallOfCase {
 public:
  explicit CallOfCase(const EntryPointCase& entry) : entry_(entry), slots_(slotsOf(entry)) {
    EntryPointCase whole = entry;
    whole.slots = slots_.c_str();
    whole.fill(call_);
  }

  // Without a fault.
  Answer run() { return run(0, FailingMemory::Kind::ONCE); }
  Answer run(std::uint64_t n, FailingMemory::Kind kind) {
    block_ = call_.block();
    struct sqlca sqlca {};
    {
      const std::int64_t blocks = zontest::liveBlocks();
      FailingMemory fault(n, kind);
      entry_.function(entry_.reserved(), block_.data(), &sqlca);
      fault.disarm();
      gained_ = zontest::liveBlocks() - blocks;
      requests_ = fault.requests();
      hasFailed_ = fault.hasFailed();
    }
    Answer answer;
    answer.sqlcode = sqlca.sqlcode;
    for (std::size_t i = 0; i < slots_.size(); ++i) {
      const char kindOfSlot = slots_[i];
      if (kindOfSlot == 'o') {
        answer.outputs.push_back(call_.textAt(i));
        answer.isUntouched = answer.isUntouched && call_.isUntouched(i);
      } else if (kindOfSlot == '#' || kindOfSlot == 'c') {
        answer.outputs.push_back(std::to_string(call_.numberAt(i)));
        answer.isUntouched = answer.isUntouched && (isInputNumber() || call_.numberAt(i) == Call::MARK_NUMBER);
      }
    }
    return answer;
  }
  std::uint64_t requests() const { return requests_; }
  bool hasFailed() const { return hasFailed_; }

  // Releases the outputs; what is left of the blocks that the call took.
  std::int64_t release() {
    const std::int64_t blocks = zontest::liveBlocks();
    call_.releaseOutputs();
    return gained_ - (blocks - zontest::liveBlocks());
  }

 private:
  bool isInputNumber() const { return slots_ == "m#e#e" || slots_ == "n#e#e"; }

  const EntryPointCase& entry_;
  std::string slots_;
  Call call_;
  std::vector<void*> block_;
  std::int64_t gained_ = 0;
  std::uint64_t requests_ = 0;
  bool hasFailed_ = false;
};

// Blocks that the call may leave: a record kept on purpose, and those of a two-key scan that could not begin.
std::uint64_t mostKept(const std::string& name) {
  if (name == "MDUtilityHistory_update") return 1;
  const bool isTwoKey = name.rfind("MDJCL", 0) == 0 || name.find("History_") != std::string::npos;
  return isTwoKey && name.find("_retrieve") != std::string::npos ? 2 : 0;
}

bool isBetween(const Records& records, const Records& before, const Records& after) {
  return std::all_of(records.begin(), records.end(),
                     [&](const std::string& record) { return before.count(record) + after.count(record) > 0; }) &&
         std::all_of(before.begin(), before.end(),
                     [&](const std::string& record) { return after.count(record) == 0 || records.count(record) == 1; });
}

class FailingMemoryBelow : public testing::TestWithParam<StoreOfSite> {
 protected:
  FailingMemoryBelow() {
    std::ofstream(bootFolder_ / "id") << "01234567-89ab-cdef-0123-456789abcdef\n";
    bootId_ = (bootFolder_ / "id").string();
  }
  ~FailingMemoryBelow() override { std::cout << "seed " << seed() << ", requests that failed: " << failures_ << '\n'; }

  void sweep(Scene scene);

 private:
  void sweep(const EntryPointCase& entry, Scene scene);
  void failOne(const EntryPointCase& entry, std::uint64_t n, FailingMemory::Kind kind);

  // What the call answers and leaves without a fault.
  struct Truth {
    Records before;
    Answer answer;
    Records after;
    std::uint64_t requests = 0;
  };
  Truth learn(const EntryPointCase& entry);

  const Site site_{GetParam()};
  const zontest::TemporaryFolder bootFolder_;
  const zontest::MetadataDirectory folder_{zontest::inMemory()};  // the one that is set
  std::string bootId_;
  const zontest::Files* files_ = nullptr;
  Truth truth_;
  std::uint64_t failures_ = 0;
};

FailingMemoryBelow::Truth FailingMemoryBelow::learn(const EntryPointCase& entry) {
  Truth truth;
  zontest::writeFiles(folder_.path(), *files_);
  truth.before = site_.records();
  zontest::writeFiles(folder_.path(), *files_);
  CallOfCase call(entry);
  truth.answer = call.run();
  truth.requests = call.requests();
  truth.after = site_.records();
  return truth;
}

void FailingMemoryBelow::sweep(Scene scene) {
  SCOPED_TRACE(zontest::nameOfScene(scene));
  files_ = &site_.files(scene);
  const std::unique_ptr<zontest::AnotherBoot> restarted(
      scene == Scene::POWER_CUT ? std::make_unique<zontest::AnotherBoot>(bootId_.c_str()) : nullptr);
  for (const EntryPointCase& entry : zontest::allEntryPoints()) {
    if (std::string(entry.name).rfind(GetParam().prefix, 0) == 0) sweep(entry, scene);
    if (HasFatalFailure()) return;
  }
}

void FailingMemoryBelow::sweep(const EntryPointCase& entry, Scene scene) {
  SCOPED_TRACE(entry.name);
  truth_ = learn(entry);
  Choice choice(entry.name, scene);
  for (const auto kind : {FailingMemory::Kind::ONCE, FailingMemory::Kind::FROM_THEN_ON}) {
    for (std::uint64_t n = 1; n <= truth_.requests; ++n) {
      SCOPED_TRACE("request " + std::to_string(n) + (kind == FailingMemory::Kind::ONCE ? "" : " and all later ones"));
      if (choice.takesNext()) failOne(entry, n, kind);
      if (HasFatalFailure()) return;
    }
  }
}

void FailingMemoryBelow::failOne(const EntryPointCase& entry, std::uint64_t n, FailingMemory::Kind kind) {
  zontest::writeFiles(folder_.path(), *files_);
  CallOfCase call(entry);
  const zontest::MemoryAccount account(nullptr);
  const Answer answer = call.run(n, kind);
  failures_ += call.hasFailed() ? 1 : 0;
  if (!(answer == truth_.answer)) {
    ASSERT_TRUE(call.hasFailed());
    ASSERT_NE(answer.sqlcode, 0);
    ASSERT_TRUE(answer.isUntouched) << answer.sqlcode;
  }
  ASSERT_LE(call.release(), static_cast<std::int64_t>(mostKept(entry.name)));
  ASSERT_LE(account.buffers(), mostKept(entry.name));
  const Records left = site_.records();
  if (answer.sqlcode == 0) {
    ASSERT_EQ(left, truth_.after);
  } else {
    ASSERT_TRUE(isBetween(left, truth_.before, truth_.after)) << answer.sqlcode;
  }
  CallOfCase again(entry);
  const std::int32_t next = again.run().sqlcode;
  ASSERT_NE(next, ecfToSqlError(GENREG_RC_NO_MEMORY));
  ASSERT_NE(next, ecfToSqlError(GENREG_RC_INTERNAL));
  ASSERT_NE(next, ecfToSqlError(GENREG_RC_NO_SCAN));
}

std::string nameOf(const testing::TestParamInfo<StoreOfSite>& info) {
  const std::string_view prefix = info.param.prefix;
  return std::string(prefix.substr(0, prefix.size() - 1));
}

INSTANTIATE_TEST_SUITE_P(All, FailingMemoryBelow, testing::ValuesIn(zontest::storesOfSites()), nameOf);

TEST_P(FailingMemoryBelow, IsToldAndLosesNothing) { sweep(Scene::NOTHING); }
TEST_P(FailingMemoryBelow, IsToldAndLosesNothingAfterAPowerCut) { sweep(Scene::POWER_CUT); }
TEST_P(FailingMemoryBelow, IsToldAndLosesNothingAfterAWritersDeath) { sweep(Scene::DEAD_WRITER); }
TEST_P(FailingMemoryBelow, IsToldAndLosesNothingInADamagedFile) { sweep(Scene::DAMAGE); }
TEST_P(FailingMemoryBelow, IsToldAndLosesNothingInAFileThatNothingMends) { sweep(Scene::DAMAGE_TWICE); }

}  // namespace
