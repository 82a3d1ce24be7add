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
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "api/entry_points.h"
#include "api/site_scenes.h"
#include "support/evidence.h"
#include "support/failing_memory.h"
#include "support/metadata_test.h"
#include "zonmdfile/MDCloningMapping.h"
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
  static constexpr std::array<std::string_view, 14> WHOLE{"MDCustomTree_retrieve",
                                                          "MDCustomTree_retrieveAll",
                                                          "MDCustomTree_update",
                                                          "MDContact_remove",
                                                          "MDJCLSkeleton_removeList",
                                                          "MDJCLSkeleton_retrieveList",
                                                          "MDContactGroup_insert",
                                                          "MDContactGroup_removeAll",
                                                          "MDContactGroup_updateDescription",
                                                          "ContactAPI_retrieveAll",
                                                          "ContactGroupAPI_retrieveList",
                                                          "ContactGroupAPI_retrieveAllContactNames",
                                                          "MDCloningMapping_retrieveAll",
                                                          "MDCloningMapping_insert"};
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

// One call on the site, with the request for memory that is to fail.
class TriedCall {
 public:
  TriedCall() = default;
  virtual ~TriedCall() = default;
  TriedCall(const TriedCall&) = delete;
  TriedCall& operator=(const TriedCall&) = delete;

  // Without a fault.
  Answer run() { return run(0, FailingMemory::Kind::ONCE); }
  virtual Answer run(std::uint64_t n, FailingMemory::Kind kind) = 0;
  virtual void releaseOutputs() = 0;

  std::uint64_t requests() const { return requests_; }
  bool hasFailed() const { return hasFailed_; }

  // Releases the outputs; what is left of the blocks that the call took.
  std::int64_t release() {
    const std::int64_t blocks = zontest::liveBlocks();
    releaseOutputs();
    return gained_ - (blocks - zontest::liveBlocks());
  }

 protected:
  template <class Work>
  void runFailing(std::uint64_t n, FailingMemory::Kind kind, Work work) {
    const std::int64_t blocks = zontest::liveBlocks();
    FailingMemory fault(n, kind);
    work();
    fault.disarm();
    gained_ = zontest::liveBlocks() - blocks;
    requests_ = fault.requests();
    hasFailed_ = fault.hasFailed();
  }

 private:
  std::int64_t gained_ = 0;
  std::uint64_t requests_ = 0;
  bool hasFailed_ = false;
};

class CallOfCase : public TriedCall {
 public:
  explicit CallOfCase(const EntryPointCase& entry) : entry_(entry), slots_(slotsOf(entry)) {
    EntryPointCase whole = entry;
    whole.slots = slots_.c_str();
    whole.fill(call_);
  }

  Answer run(std::uint64_t n, FailingMemory::Kind kind) override {
    block_ = call_.block();
    struct sqlca sqlca {};
    runFailing(n, kind, [&] { entry_.function(entry_.reserved(), block_.data(), &sqlca); });
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
  void releaseOutputs() override { call_.releaseOutputs(); }

 private:
  bool isInputNumber() const { return slots_ == "m#e#e" || slots_ == "n#e#e"; }

  const EntryPointCase& entry_;
  std::string slots_;
  Call call_;
  std::vector<void*> block_;
};

// What the one store that no entry point reaches is asked.
struct StoreOperation {
  using Texts = std::array<DString, 5>;

  const char* name;
  // Takes no memory of its own: the version is an empty text.
  std::uint32_t (*run)(MDCloningMapping& store, Texts& in, Texts& out);
};

constexpr std::array<StoreOperation, 6> OPERATIONS_OF_MAPPINGS{{
    {"MDCloningMapping_retrieveKeys",
     [](MDCloningMapping& store, auto&, auto& out) { return store.retrieveKeys(out[0], out[1], out[2]); }},
    {"MDCloningMapping_retrieveAll",
     [](MDCloningMapping& store, auto&, auto& out) {
       return store.retrieveAll(out[0], out[1], out[2], out[3], out[4]);
     }},
    {"MDCloningMapping_retrieve",
     [](MDCloningMapping& store, auto& in, auto& out) { return store.retrieve(in[0], in[1], in[2], out[0], out[1]); }},
    {"MDCloningMapping_insert",
     [](MDCloningMapping& store, auto& in, auto&) { return store.insert(in[0], in[1], in[4], in[3], DString()); }},
    {"MDCloningMapping_update",
     [](MDCloningMapping& store, auto& in, auto&) { return store.update(in[0], in[1], in[2], in[3], DString()); }},
    {"MDCloningMapping_remove",
     [](MDCloningMapping& store, auto& in, auto&) { return store.remove(in[0], in[1], in[2]); }},
}};

class CallOfStore : public TriedCall {
 public:
  explicit CallOfStore(const StoreOperation& operation) : operation_(operation) {}

  // Of a failure a store's outputs tell nothing.
  Answer run(std::uint64_t n, FailingMemory::Kind kind) override {
    std::uint32_t rc = MD_RC_OK;
    runFailing(n, kind, [&] { rc = operation_.run(store_, in_, out_); });
    Answer answer;
    answer.sqlcode = ecfToSqlError(rc);
    if (rc != MD_RC_OK) return answer;
    for (const DString& text : out_) answer.outputs.push_back(zontest::textOf(text));
    return answer;
  }
  void releaseOutputs() override { out_ = StoreOperation::Texts(); }

 private:
  const StoreOperation& operation_;
  MDCloningMapping store_;
  StoreOperation::Texts in_{DString("group"), DString("sub"), DString("key"), DString("some other data"),
                            DString("new key")};
  StoreOperation::Texts out_;
};

// Blocks that the call may leave: a record kept on purpose, and those of a scan that could not begin in a store
// of two keys, or of cloning mappings.
std::uint64_t mostKept(const std::string& name) {
  if (name == "MDUtilityHistory_update") return 1;
  const bool keepsBuffers = name.rfind("MDJCL", 0) == 0 || name.rfind("MDCloningMapping", 0) == 0 ||
                            name.find("History_") != std::string::npos;
  return keepsBuffers && name.find("_retrieve") != std::string::npos ? 2 : 0;
}

bool isBetween(const Records& records, const Records& before, const Records& after) {
  return std::all_of(records.begin(), records.end(),
                     [&](const std::string& record) { return before.count(record) + after.count(record) > 0; }) &&
         std::all_of(before.begin(), before.end(),
                     [&](const std::string& record) { return after.count(record) == 0 || records.count(record) == 1; });
}

using MakeCall = std::function<std::unique_ptr<TriedCall>()>;

class Sweep {
 public:
  explicit Sweep(const StoreOfSite& store) : site_(store) {
    std::ofstream(bootFolder_ / "id") << "01234567-89ab-cdef-0123-456789abcdef\n";
    bootId_ = (bootFolder_ / "id").string();
  }
  ~Sweep() {
    std::cout << "seed " << seed() << ", requests that failed: " << failures_ << '\n';
    zontest::tellEvidence("memory.entry points", failures_, seed());
  }
  Sweep(const Sweep&) = delete;
  Sweep& operator=(const Sweep&) = delete;

  // What follows happens on the site of this scene.
  void begin(Scene scene) {
    scene_ = scene;
    files_ = &site_.files(scene);
    if (scene == Scene::POWER_CUT) restarted_ = std::make_unique<zontest::AnotherBoot>(bootId_.c_str());
  }
  void failEverything(const std::string& name, const MakeCall& makeCall);

 private:
  // What the call answers and leaves without a fault.
  struct Truth {
    Records before;
    Answer answer;
    Records after;
    std::uint64_t requests = 0;
  };
  Truth learn(const MakeCall& makeCall);
  void failOne(const std::string& name, const MakeCall& makeCall, std::uint64_t n, FailingMemory::Kind kind);

  const Site site_;
  const zontest::TemporaryFolder bootFolder_;
  const zontest::MetadataDirectory folder_{zontest::inMemory()};  // the one that is set
  std::string bootId_;
  std::unique_ptr<zontest::AnotherBoot> restarted_;
  Scene scene_ = Scene::NOTHING;
  const zontest::Files* files_ = nullptr;
  Truth truth_;
  std::uint64_t failures_ = 0;
};

Sweep::Truth Sweep::learn(const MakeCall& makeCall) {
  Truth truth;
  zontest::writeFiles(folder_.path(), *files_);
  truth.before = site_.records();
  zontest::writeFiles(folder_.path(), *files_);
  const auto call = makeCall();
  truth.answer = call->run();
  truth.requests = call->requests();
  truth.after = site_.records();
  return truth;
}

void Sweep::failEverything(const std::string& name, const MakeCall& makeCall) {
  SCOPED_TRACE(name + " after " + zontest::nameOfScene(scene_));
  truth_ = learn(makeCall);
  Choice choice(name, scene_);
  for (const auto kind : {FailingMemory::Kind::ONCE, FailingMemory::Kind::FROM_THEN_ON}) {
    for (std::uint64_t n = 1; n <= truth_.requests; ++n) {
      SCOPED_TRACE("request " + std::to_string(n) + (kind == FailingMemory::Kind::ONCE ? "" : " and all later ones"));
      if (choice.takesNext()) failOne(name, makeCall, n, kind);
      if (testing::Test::HasFatalFailure()) return;
    }
  }
}

void Sweep::failOne(const std::string& name, const MakeCall& makeCall, std::uint64_t n, FailingMemory::Kind kind) {
  zontest::writeFiles(folder_.path(), *files_);
  const auto call = makeCall();
  const zontest::MemoryAccount account(nullptr);
  const Answer answer = call->run(n, kind);
  failures_ += call->hasFailed() ? 1 : 0;
  if (!(answer == truth_.answer)) {
    ASSERT_TRUE(call->hasFailed());
    ASSERT_NE(answer.sqlcode, 0);
    ASSERT_TRUE(answer.isUntouched) << answer.sqlcode;
  }
  ASSERT_LE(call->release(), static_cast<std::int64_t>(mostKept(name)));
  ASSERT_LE(account.buffers(), mostKept(name));
  const Records left = site_.records();
  if (answer.sqlcode == 0) {
    ASSERT_EQ(left, truth_.after);
  } else {
    ASSERT_TRUE(isBetween(left, truth_.before, truth_.after)) << answer.sqlcode;
  }
  const std::int32_t next = makeCall()->run().sqlcode;
  ASSERT_NE(next, ecfToSqlError(GENREG_RC_NO_MEMORY));
  ASSERT_NE(next, ecfToSqlError(GENREG_RC_INTERNAL));
  ASSERT_NE(next, ecfToSqlError(GENREG_RC_NO_SCAN));
}

class FailingMemoryBelow : public testing::TestWithParam<StoreOfSite> {
 protected:
  void sweep(Scene scene) {
    sweep_.begin(scene);
    for (const EntryPointCase& entry : zontest::allEntryPoints()) {
      if (std::string(entry.name).rfind(GetParam().prefix, 0) != 0) continue;
      sweep_.failEverything(entry.name, [&entry] { return std::make_unique<CallOfCase>(entry); });
      if (HasFatalFailure()) return;
    }
  }

 private:
  Sweep sweep_{GetParam()};
};

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

class FailingMemoryBelowMappings : public testing::TestWithParam<Scene> {};

std::string nameOfSceneAt(const testing::TestParamInfo<Scene>& info) {
  std::string name = zontest::nameOfScene(info.param);
  for (char& letter : name) letter = std::isalnum(static_cast<unsigned char>(letter)) != 0 ? letter : '_';
  return name;
}

INSTANTIATE_TEST_SUITE_P(After, FailingMemoryBelowMappings,
                         testing::Values(Scene::NOTHING, Scene::POWER_CUT, Scene::DEAD_WRITER, Scene::DAMAGE,
                                         Scene::DAMAGE_TWICE),
                         nameOfSceneAt);

TEST_P(FailingMemoryBelowMappings, IsToldAndLosesNothing) {
  Sweep sweep(zontest::cloningMappings());
  sweep.begin(GetParam());
  for (const StoreOperation& operation : OPERATIONS_OF_MAPPINGS) {
    sweep.failEverything(operation.name, [&operation] { return std::make_unique<CallOfStore>(operation); });
  }
}

}  // namespace
