// Random steps through the exported functions, compared one by one with a model of the whole system in memory: all
// outputs with their lengths, SQLCODEs, messages, rc cells, counts and untouched cells, and from time to time the
// listings of all stores.
//
// When the two differ, the test shrinks the steps to a few that still differ and prints them as a trace. To repeat it:
//
//   ZON_MODEL_TRACE=FILE bin/model_test --gtest_filter=SystemModel.AgreesOnTraces
//
// A long run, with seeds and steps of one's own (they are split evenly between plain names and names with separators):
//
//   ZON_MODEL_SEED=1000 ZON_MODEL_STEPS=1000000 bin/model_test --gtest_filter='*LongRun*'
//
// To see that differences are noticed, mistakes were put into the library one at a time: a cascade that runs after a
// failed removal, does not enter emptied parents, or enters them with the member's kind; an update that goes on behind
// a failure; the code of the first failing group instead of the last; entries counted instead of groups; a code passed
// on that callers never see; a version field one byte shorter; an empty version handed out; a removal that takes both
// kinds; an unchanged record reported; skipped groups counted; the blank of a missing token left out. Each was found
// within the ordinary steps and shrunk to a trace of one to four lines, such as, for the parents that are not entered:
//
//   ; step 3
//   ; MDContactGroup_retrieveAll
//   ;   SQLCODE: expected -22271, got 0
//   MDContactGroup_insert c 0 a f 2
//   MDContactGroup_insert d 1 c f 1
//   removeMemberFromGroups a 0
//
// Which of two failures an expansion reports cannot be seen this way, since a file without damage knows only one.
//
// The rule: model and library share the table of functions and nothing else. Files lie in memory where there is a
// memory file system, since nothing here asks what a crash leaves.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>

#include "model/library_driver.h"
#include "model/replay.h"
#include "support/metadata_test.h"
#include "support/told_numbers.h"
#include "zonmdfile/platform/oss.h"

namespace {

namespace fs = std::filesystem;
using zonmodel::Generator;
using zonmodel::Names;
using zonmodel::Outcome;
using zonmodel::Reentry;
using zonmodel::Step;
using zonmodel::Subject;
using zonmodel::SystemModel;

Subject makeLibrary() {
  return [directory = std::make_shared<zontest::MetadataDirectory>(zontest::inMemory())](
             const Step& step, std::size_t rows) { return zonmodel::performOnLibrary(step, rows); };
}

std::vector<Step> generate(std::uint64_t seed, Names names, std::size_t count) {
  Generator generator(seed, names);
  std::vector<Step> steps;
  steps.reserve(count);
  for (std::size_t i = 0; i < count; ++i) steps.push_back(generator.next());
  return steps;
}

// Fails with a shrunk trace when library and model differ.
void expectAgreement(const std::vector<Step>& steps) {
  const std::uint64_t outstanding = ossMemOutstanding("MDRegFactory");
  const auto difference = zonmodel::replay(steps, makeLibrary);
  EXPECT_EQ(ossMemOutstanding("MDRegFactory"), outstanding);
  if (!difference) return;
  const std::vector<Step> few = zonmodel::shrink(steps, makeLibrary);
  FAIL() << "after " << difference->step << " steps; a trace of " << few.size() << ":\n"
         << zonmodel::writeTrace(few, makeLibrary);
}

struct Run {
  std::uint64_t seed;
  Names names;
};

void PrintTo(const Run& run, std::ostream* out) {
  *out << "seed " << run.seed << (run.names == Names::PLAIN ? "" : ", names with separators");
}

class RandomSteps : public testing::TestWithParam<Run> {};

TEST_P(RandomSteps, LibraryAndModelAgree) {
  constexpr std::size_t STEPS = 10000;
  expectAgreement(generate(GetParam().seed, GetParam().names, STEPS));
}

INSTANTIATE_TEST_SUITE_P(PlainNames, RandomSteps,
                         testing::Values(Run{1, Names::PLAIN}, Run{2, Names::PLAIN}, Run{3, Names::PLAIN}));
INSTANTIATE_TEST_SUITE_P(NamesWithSeparators, RandomSteps,
                         testing::Values(Run{4, Names::SEPARATORS}, Run{5, Names::SEPARATORS}));

TEST(LongRun, LibraryAndModelAgree) {
  constexpr std::size_t STEPS_PER_SEED = 50000;
  const std::uint64_t steps = zontest::toldNumber<std::uint64_t>("ZON_MODEL_STEPS", 2000);
  std::uint64_t seed = zontest::toldNumber<std::uint64_t>("ZON_MODEL_SEED", 1000);
  for (std::uint64_t done = 0; done < steps && !HasFailure(); done += STEPS_PER_SEED, ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const Names names = seed % 2 == 0 ? Names::PLAIN : Names::SEPARATORS;
    expectAgreement(generate(seed, names, std::min<std::uint64_t>(steps - done, STEPS_PER_SEED)));
  }
}

TEST(SystemModel, AgreesOnTraces) {
  std::vector<fs::path> traces;
  if (const char* one = std::getenv("ZON_MODEL_TRACE")) {
    traces.push_back(one);
  } else {
    for (const auto& entry : fs::directory_iterator(ZON_MODEL_TRACES)) traces.push_back(entry.path());
  }
  ASSERT_FALSE(traces.empty());
  for (const fs::path& trace : traces) {
    std::ifstream file(trace);
    const std::vector<Step> steps = zonmodel::readTrace(file);
    ASSERT_FALSE(steps.empty()) << trace;
    const auto difference = zonmodel::replay(steps, makeLibrary, 1);
    EXPECT_FALSE(difference) << trace << ", step " << difference->step << ":\n" << difference->what;
  }
}

TEST(Trace, ReadsBackAsItWasWritten) {
  for (const Step& step : generate(7, Names::SEPARATORS, 2000)) {
    std::ostringstream line;
    line << step;
    const Step read = zonmodel::readStep(line.str());
    EXPECT_EQ(read.function, step.function);
    EXPECT_EQ(read.texts, step.texts) << line.str();
    EXPECT_EQ(read.numbers, step.numbers);
  }
}

TEST(Trace, RefusesALineThatIsNoStep) {
  EXPECT_THROW(zonmodel::readStep("MDContact_forget a"), std::runtime_error);
  EXPECT_THROW(zonmodel::readStep("MDContact_remove a b"), std::runtime_error);
}

// A subject that reports the update of a contact to an empty version and does not do it.
Subject makeForgetfulSubject() {
  return [model = std::make_shared<SystemModel>()](const Step& step, std::size_t) {
    const bool isForgotten = step.function->name == "MDContact_update" && step.texts[2] == "";
    if (!isForgotten) return model->apply(step);
    return SystemModel(*model).apply(step);
  };
}

TEST(Harness, ShrinksADifferenceToTheStepsThatShowIt) {
  const std::vector<Step> steps = generate(11, Names::PLAIN, 3000);
  ASSERT_TRUE(zonmodel::replay(steps, makeForgetfulSubject));
  const std::vector<Step> few = zonmodel::shrink(steps, makeForgetfulSubject);
  // The contact is inserted and updated; the listing shows the rest.
  ASSERT_EQ(few.size(), 2U) << zonmodel::writeTrace(few, makeForgetfulSubject);
  EXPECT_TRUE(few[0].function->name.ends_with("_insert"));
  EXPECT_EQ(few[1].function->name, "MDContact_update");
  std::istringstream trace(zonmodel::writeTrace(few, makeForgetfulSubject));
  EXPECT_TRUE(zonmodel::replay(zonmodel::readTrace(trace), makeForgetfulSubject));
}

TEST(Harness, CallsEveryFunctionWithSuccess) {
  std::map<std::string_view, int> successes;
  SystemModel model;
  for (const Step& step : generate(12, Names::PLAIN, 20000)) {
    const Outcome outcome = model.apply(step);
    if (outcome.sqlcode.value_or(static_cast<std::int32_t>(outcome.returned.value_or(0))) == 0) {
      ++successes[step.function->name];
    }
  }
  for (const zonmodel::Function& function : zonmodel::functions()) {
    EXPECT_GT(successes[function.name], 3) << function.name;
  }
}

class GroupGraphs : public testing::Test {
 protected:
  // Random memberships of few names.
  void fill(SystemModel& model, const char* const* names, std::size_t nameCount) {
    model.groups().clear();
    const auto name = [&] { return std::string(names[random_() % nameCount]); };
    for (std::size_t left = 1 + random_() % 12; left > 0; --left) {
      const SystemModel::Record record{{name(), random_() % 3 == 0 ? "0" : "1", name()}, "d", "1"};
      const auto& records = model.groups();
      if (std::find(records.begin(), records.end(), record) == records.end()) model.groups().push_back(record);
    }
  }

  std::mt19937_64 random_{99};
};

TEST_F(GroupGraphs, WithoutSeparatorsInNamesTheRuleAgainstReenteringChangesNothing) {
  static constexpr const char* NAMES[] = {"a", "b", "c", "g", "h"};
  for (int i = 0; i < 50000; ++i) {
    SystemModel ruled;
    fill(ruled, NAMES, std::size(NAMES));
    ASSERT_TRUE(ruled.hasPlainNames());
    SystemModel unruled = ruled;
    const std::string member = NAMES[random_() % std::size(NAMES)];
    const std::string kind = random_() % 2 == 0 ? "0" : "1";
    ASSERT_EQ(ruled.withdraw(member, kind, Reentry::REFUSED), unruled.withdraw(member, kind, Reentry::ALLOWED));
    ASSERT_EQ(ruled.groups(), unruled.groups());
  }
}

TEST_F(GroupGraphs, WithSeparatorsInNamesOnlyTheRuleEndsEveryWithdrawal) {
  static constexpr const char* NAMES[] = {"x", "x\x0Ey", "y", "a"};
  int endless = 0;
  for (int i = 0; i < 2000; ++i) {
    SystemModel ruled;
    fill(ruled, NAMES, std::size(NAMES));
    SystemModel unruled = ruled;
    const std::string member = NAMES[random_() % std::size(NAMES)];
    EXPECT_EQ(ruled.withdraw(member, "1", Reentry::REFUSED), 0U);
    try {
      unruled.withdraw(member, "1", Reentry::ALLOWED);
      EXPECT_EQ(ruled.groups(), unruled.groups());
    } catch (const zonmodel::EndlessWithdrawal&) {
      ++endless;
    }
  }
  EXPECT_GT(endless, 0);
}

TEST_F(GroupGraphs, GroupThatReadsBackAsItsOwnMemberIsWithdrawnOnce) {
  SystemModel model;
  model.groups().push_back({{"x\x0Ey", "1", "x"}, "d", "1"});
  SystemModel unruled = model;
  EXPECT_EQ(model.withdraw("x", "1", Reentry::REFUSED), 0U);
  EXPECT_EQ(model.groups().size(), 1U);
  EXPECT_THROW(unruled.withdraw("x", "1", Reentry::ALLOWED), zonmodel::EndlessWithdrawal);
}

}  // namespace
