// Two actors with two operations each on one file, in every schedule with up to two forced switches; and in schedules
// in which one of them dies at a call. What must hold: some order of the operations, that keeps to who was done before
// whom, explains every answer and the records that are left. A dead writer's operation took effect before its death or
// never does. After a power cut at any moment the same holds of what was answered until then.
//
// How it works: a pair of programs on a scene is tried in all of its schedules, then the next pair, in an order that
// the seed tells. ZON_EVIDENCE_SECONDS sets how long, ZON_EVIDENCE_SEED with which pair it begins.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iostream>
#include <random>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "evidence/two_actors.h"
#include "platform/registry/harness/fault_operations.h"
#include "platform/registry/harness/fault_scenes.h"
#include "platform/registry/harness/simulated_disk.h"
#include "support/evidence.h"

namespace zon::test {
namespace {

constexpr double QUICK_SECONDS = 5;
constexpr int MOST_FAILURES = 3;
constexpr std::uint64_t CUTS_EVERY = 5;  // schedules of which one is cut off
const Value PROBE{"probe", "probe", "p"};

struct Answer {
  std::uint32_t rc = MD_RC_OK;
  Values delivered;
  bool operator==(const Answer&) const = default;
};

// One operation: what it does, and what it must answer on these records, which it changes.
struct Step {
  std::string name;
  std::function<Answer(TestStore&)> run;
  std::function<Answer(Values&)> model;
  // What a crash in its midst may leave besides all or nothing.
  std::function<std::vector<Values>(const Values&)> parts;
  bool isReading = false;
};
using Program = std::array<Step, 2>;

// ---- The operations

Values::iterator find(Values& values, const Value& wanted) {
  return std::find_if(values.begin(), values.end(),
                      [&](const Value& value) { return value.group == wanted.group && value.key == wanted.key; });
}

Answer modelAdd(Values& values, const Value& value) {
  if (find(values, value) != values.end()) return {GENREG_RC_DUPLICATE_KEY, {}};
  values.push_back(value);
  return {};
}

Answer modelChange(Values& values, const Value& from, const Value& to) {
  const auto found = find(values, from);
  if (found == values.end()) return {GENREG_RC_NOT_FOUND, {}};
  if (*found == to) return {GENREG_RC_NO_CHANGE, {}};
  *found = to;
  return {};
}

Answer modelRemove(Values& values, const Value& value) {
  const auto found = find(values, value);
  if (found == values.end()) return {GENREG_RC_NOT_FOUND, {}};
  values.erase(found);
  return {};
}

Answer modelRemoveGroup(Values& values, const std::string& group) {
  const auto erased = std::erase_if(values, [&](const Value& value) { return value.group == group; });
  return {erased == 0 ? GENREG_RC_NOT_FOUND : MD_RC_OK, {}};
}

Step add(const Value& value) {
  return {.name = "add " + value.key,
          .run =
              [value](TestStore& store) {
                return Answer{store.add(value), {}};
              },
          .model = [value](Values& values) { return modelAdd(values, value); },
          .parts = {}};
}

Step change(const Value& value) {
  return {.name = "change " + value.key,
          .run =
              [value](TestStore& store) {
                return Answer{store.change(value), {}};
              },
          .model = [value](Values& values) { return modelChange(values, value, value); },
          .parts = {}};
}

Step rename(const Value& from, const Value& to) {
  return {.name = "rename " + from.key,
          .run =
              [from, to](TestStore& store) {
                return Answer{store.changeTo(from, to), {}};
              },
          .model = [from, to](Values& values) { return modelChange(values, from, to); },
          .parts = {}};
}

Step remove(const Value& value) {
  return {.name = "remove " + value.key,
          .run =
              [value](TestStore& store) {
                return Answer{store.remove(value.group, value.key), {}};
              },
          .model = [value](Values& values) { return modelRemove(values, value); },
          .parts = {}};
}

Step removeGroup(const std::string& group) {
  return {.name = "remove group " + group,
          .run =
              [group](TestStore& store) {
                return Answer{store.removeAll(group, "", GROUP), {}};
              },
          .model = [group](Values& values) { return modelRemoveGroup(values, group); },
          .parts = {}};
}

// Goes on behind an addition that is refused, and answers the first refusal.
Step batch(const Values& added) {
  const auto run = [added](TestStore& store) {
    if (const std::uint32_t rc = store.beginBatch()) return Answer{rc, {}};
    std::uint32_t refused = MD_RC_OK;
    for (const Value& value : added) {
      const std::uint32_t rc = store.add(value);
      refused = refused == MD_RC_OK ? rc : refused;
    }
    const std::uint32_t rc = store.commitBatch();
    return Answer{rc == MD_RC_OK ? refused : rc, {}};
  };
  const auto model = [added](Values& values) {
    Answer refused;
    for (const Value& value : added) {
      const Answer answer = modelAdd(values, value);
      refused = refused.rc == MD_RC_OK ? answer : refused;
    }
    return refused;
  };
  const auto parts = [added](const Values& values) {
    std::vector<Values> states;
    Values now = values;
    for (const Value& value : added) {
      if (modelAdd(now, value).rc == MD_RC_OK) states.push_back(now);
    }
    return states;
  };
  return {.name = "batch", .run = run, .model = model, .parts = parts};
}

Step compact() {
  return {.name = "compact",
          .run =
              [](TestStore& store) {
                return Answer{store.compact(), {}};
              },
          .model = [](Values&) { return Answer{}; },
          .parts = {}};
}

Step get(const Value& wanted) {
  const auto run = [wanted](TestStore& store) {
    Value value;
    const std::uint32_t rc = store.get(wanted.group, wanted.key, value);
    return rc == MD_RC_OK ? Answer{rc, {value}} : Answer{rc, {}};
  };
  const auto model = [wanted](Values& values) {
    const auto found = find(values, wanted);
    return found == values.end() ? Answer{GENREG_RC_NOT_FOUND, {}} : Answer{MD_RC_OK, {*found}};
  };
  return {.name = "get " + wanted.key, .run = run, .model = model, .parts = {}, .isReading = true};
}

Step list(const std::string& group) {
  const unsigned long flags = group.empty() ? 0 : GROUP;
  const auto run = [group, flags](TestStore& store) {
    Answer answer;
    answer.delivered = store.list(flags, {group, "", ""}, &answer.rc);
    return answer;
  };
  const auto model = [group](Values& values) {
    Answer answer;
    std::copy_if(values.begin(), values.end(), std::back_inserter(answer.delivered),
                 [&](const Value& value) { return group.empty() || value.group == group; });
    return answer;
  };
  return {.name = "list " + group, .run = run, .model = model, .parts = {}, .isReading = true};
}

const std::vector<Program>& programs() {
  static const Value FIRST{"g0", "k0", ""};
  static const Value NEW{"g0", "new", noise(300, 21)};
  static const std::vector<Program> ALL{
      {add(NEW), change({"g0", "k0", noise(500, 22)})},
      {change({"g0", "k0", "changed"}), remove(NEW)},
      {batch({{"g0", "b1", "b"}, {"g1", "b2", noise(200, 23)}, NEW}), get(FIRST)},
      {removeGroup("g0"), add({"g0", "again", "a"})},
      {rename(FIRST, {"g0", "renamed", noise(100, 24)}), compact()},
      {list(""), get(FIRST)},
      {list("g0"), list("")},
  };
  return ALL;
}

// ---- What happened, and whether an order explains it

struct Event {
  const Step* step = nullptr;
  std::uint64_t begun = 0;
  std::uint64_t done = 0;
  std::size_t logAtBegin = 0;
  std::size_t logAtEnd = 0;
  bool isAnswered = false;  // else it may have happened or not
  bool isCutOff = false;    // ... or in part
  Answer answer;
};

class Explanation {
 public:
  Explanation(std::vector<Event> events, const Values& left) : events_(std::move(events)), left_(left) {}
  bool existsFrom(const Values& before) const { return search(before, 0); }

 private:
  bool search(const Values& now, unsigned placed) const {
    if (isComplete(placed) && now == left_) return true;
    for (unsigned at = 0; at < events_.size(); ++at) {
      if ((placed & 1U << at) != 0 || !mayComeNext(at, placed)) continue;
      const Event& event = events_[at];
      Values after = now;
      const Answer answer = event.step->model(after);
      if (event.isAnswered && !(answer == event.answer)) continue;
      if (search(after, placed | 1U << at)) return true;
      if (event.isCutOff && event.step->parts && searchParts(event, now, placed | 1U << at)) return true;
    }
    return false;
  }

  bool searchParts(const Event& event, const Values& now, unsigned placed) const {
    const std::vector<Values> parts = event.step->parts(now);
    return std::any_of(parts.begin(), parts.end(), [&](const Values& part) { return search(part, placed); });
  }

  bool isComplete(unsigned placed) const {
    for (unsigned at = 0; at < events_.size(); ++at) {
      if (events_[at].isAnswered && (placed & 1U << at) == 0) return false;
    }
    return true;
  }

  // Nothing that was done before this one began is still to come.
  bool mayComeNext(unsigned at, unsigned placed) const {
    for (unsigned other = 0; other < events_.size(); ++other) {
      const bool isPlaced = (placed & 1U << other) != 0;
      if (other == at) continue;
      if (!isPlaced && events_[other].isAnswered && events_[other].done <= events_[at].begun) return false;
      // What has no answer ended with its actor.
      if (isPlaced && !events_[at].isAnswered && !events_[at].isCutOff && events_[at].done <= events_[other].begun)
        return false;
    }
    return true;
  }

  std::vector<Event> events_;
  const Values& left_;
};

// ---- The schedules

class Interleavings : public ::testing::Test {
 protected:
  Interleavings() {
    prepareOperations();
    for (const char* base : {"no file", "small", "overlay nearly full", "overlay just applied", "backup due",
                             "compaction due", "group with a history"}) {
      scenes_.push_back(quietScene(disk_, baseNamed(base)));
    }
    for (const Scene& scene : powerCutScenes(disk_, baseNamed("small"))) {
      if (scene.truths.size() == 1 && !scene.isDamaged) scenes_.push_back(scene);
    }
  }

  ~Interleavings() override {
    const std::uint64_t seed = zontest::evidenceSeed();
    std::cout << "seed " << seed << ", pairs of programs on a scene " << pairs_ << ", schedules " << schedules_
              << ", of which with a death " << deaths_ << ", power cuts " << cuts_ << '\n';
    zontest::tellEvidence("schedules.two", schedules_, seed);
    zontest::tellEvidence("schedules.dying", deaths_, seed);
    zontest::tellEvidence("schedules.cuts", cuts_, seed);
    zontest::tellEvidence("schedules.pairs", pairs_, seed);
  }

  struct Pair {
    std::size_t scene;
    std::size_t one;
    std::size_t other;
  };

  std::vector<Pair> allPairs() const {
    std::vector<Pair> pairs;
    for (std::size_t scene = 0; scene < scenes_.size(); ++scene) {
      for (std::size_t one = 0; one < programs().size(); ++one) {
        for (std::size_t other = one; other < programs().size(); ++other) {
          if (!isReading(one) || !isReading(other)) pairs.push_back({scene, one, other});
        }
      }
    }
    std::mt19937_64 random(zontest::evidenceSeed());
    std::shuffle(pairs.begin(), pairs.end(), random);
    return pairs;
  }

  void tryAllSchedules(const Pair& pair) {
    prepare(pair);
    tryPlan({.first = 0, .switches = {}});
    const std::array<std::size_t, 2> calls{actors_.callsOf(0), actors_.callsOf(1)};
    tryPlan({.first = 1, .switches = {}});
    for (std::size_t first : {0u, 1u}) {
      const std::size_t other = 1 - first;
      // Later schedules may have more calls than the first: then these are not switched at.
      for (std::size_t at = 1; at < calls[first] && !isOver(); ++at) {
        tryPlan({.first = first, .switches = {{first, at}}});
        for (std::size_t back = 0; back < calls[other] + SLACK; ++back) {
          if (!tryPlan({.first = first, .switches = {{first, at}, {other, back}}})) break;
        }
      }
      if (!isReading(programs_[first])) tryDeaths(first, calls);
    }
    pairs_ += isOver() ? 0 : 1;
  }

  bool isOver() const { return failures_ >= MOST_FAILURES || allowance_.isOver(); }

 private:
  static constexpr std::size_t SLACK = 40;

  static bool isReading(std::size_t program) {
    return std::all_of(programs()[program].begin(), programs()[program].end(),
                       [](const Step& step) { return step.isReading; });
  }

  void tryDeaths(std::size_t dying, const std::array<std::size_t, 2>& calls) {
    const std::size_t other = 1 - dying;
    for (std::size_t last = 1; last < calls[dying] && !isOver(); ++last) {
      tryPlan({.first = dying, .switches = {}, .dying = dying, .lastCall = last});
      for (std::size_t at = 1; at < calls[other]; ++at) {
        tryPlan({.first = other, .switches = {{other, at}}, .dying = dying, .lastCall = last});
      }
    }
  }

  void prepare(const Pair& pair) {
    scene_ = &scenes_[pair.scene];
    programs_ = {pair.one, pair.other};
    seenTraces_.clear();
    seenCuts_.clear();
    restore();
    TestStore store(DISK_FOLDER);
    before_ = store.list();
  }

  void restore() {
    disk_.isRecording = false;
    disk_.log.clear();
    disk_.boot(scene_->image);
    disk_.setBootNumber(scene_->boot);
    disk_.setMountNumber(scene_->mount);
    disk_.reseed();
  }

  // Whether all switches of the plan came about.
  bool tryPlan(const Plan& plan) {
    if (failures_ >= MOST_FAILURES) return false;
    restore();
    disk_.isRecording = true;
    events_.clear();
    actors_.run(plan, [this](std::size_t actor) { perform(actor); });
    disk_.isRecording = false;
    const std::vector<DiskOp> log = std::exchange(disk_.log, {});
    const bool hasSwitched =
        plan.switches.empty() || actors_.callsOf(plan.switches.back().actor) > plan.switches.back().call;
    const bool isDying = plan.dying != Plan::NOBODY;
    if (!seenTraces_.insert(actors_.trace() ^ (isDying ? actors_.timeOfDeath() << 20 : 0)).second) return hasSwitched;
    ++schedules_;
    deaths_ += isDying ? 1 : 0;
    plan_ = plan;
    judge(log);
    return hasSwitched;
  }

  void perform(std::size_t actor) {
    TestStore store(DISK_FOLDER);
    for (const Step& step : programs()[programs_[actor]]) {
      if (actors_.isDead(actor)) return;
      // By number: the other one adds events meanwhile.
      const std::size_t number = events_.size();
      events_.push_back({.step = &step, .begun = actors_.now(), .logAtBegin = disk_.log.size(), .answer = {}});
      Answer answer = step.run(store);
      Event& event = events_[number];
      event.isAnswered = !actors_.isDead(actor);
      event.done = event.isAnswered ? actors_.now() : actors_.timeOfDeath();
      event.logAtEnd = disk_.log.size();
      event.answer = std::move(answer);
    }
  }

  void judge(const std::vector<DiskOp>& log) {
    {
      TestStore store(DISK_FOLDER);
      std::uint32_t rc = MD_RC_OK;
      const Values left = store.list(0, {}, &rc);
      if (rc != MD_RC_OK) return fail("a reader answers " + std::to_string(rc & 0xFFF));
      if (!Explanation(events_, left).existsFrom(before_)) return fail("no order explains it", left);
      if (disk_.openDescriptors() != 0) fail("descriptors stay open");
      if (const std::uint32_t next = store.add(PROBE))
        return fail("the next writer answers " + std::to_string(next & 0xFFF));
      Values after = store.list();
      if (after.empty() || !(after.back() == PROBE)) return fail("the next writer's record is not there");
      after.pop_back();
      if (after != left) return fail("the next writer changes what was there", after);
    }
    if (schedules_ % CUTS_EVERY == 0) cutOff(log);
  }

  // A power cut at some moment: what was answered until then holds.
  void cutOff(const std::vector<DiskOp>& log) {
    const std::size_t at = random_() % (log.size() + 1);
    PowerCut cut = scene_->cut;
    for (std::size_t number = 0; number < at; ++number) cut.follow(log[number]);
    std::vector<Event> known;
    for (const Event& event : events_) {
      if (event.logAtBegin > at) continue;
      known.push_back(event);
      known.back().isAnswered = event.isAnswered && event.logAtEnd <= at;
      known.back().isCutOff = !known.back().isAnswered;
    }
    for (const DiskImage& image : {cut.oldest(), cut.newest(), cut.randomState(random_)}) {
      if (!seenCuts_.insert(image.hash() ^ known.size() << 32 ^ actors_.trace()).second) continue;
      ++cuts_;
      disk_.boot(image);
      disk_.setBootNumber(scene_->boot + 1);
      TestStore store(DISK_FOLDER);
      std::uint32_t rc = MD_RC_OK;
      const Values left = store.list(0, {}, &rc);
      if (rc != MD_RC_OK) return fail("after a power cut a reader answers " + std::to_string(rc & 0xFFF));
      if (!Explanation(known, left).existsFrom(before_))
        return fail(
            "no order explains what a power cut leaves at " + std::to_string(at) + " of " + std::to_string(log.size()),
            left);
    }
  }

  void fail(const std::string& what, const Values& left = {}) {
    ++failures_;
    std::string told = scene_->name + ": " + what + "\n  first " + std::to_string(plan_.first);
    for (const Plan::Switch& at : plan_.switches)
      told += ", " + std::to_string(at.actor) + " gives way at its call " + std::to_string(at.call);
    if (plan_.dying != Plan::NOBODY)
      told += ", " + std::to_string(plan_.dying) + " dies at its call " + std::to_string(plan_.lastCall);
    for (const Event& event : events_) {
      told += "\n  " + std::to_string(event.begun) + " to " + std::to_string(event.done) + ": " + event.step->name +
              (event.isAnswered ? " answers " + std::to_string(event.answer.rc & 0xFFF) : " is not answered") + ' ' +
              ::testing::PrintToString(event.answer.delivered);
    }
    ADD_FAILURE() << told << "\n  left: " << ::testing::PrintToString(left);
  }

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
  SimulatedDisk disk_;
  TwoActors actors_{disk_};
  const zontest::Allowance allowance_{QUICK_SECONDS};
  std::vector<Scene> scenes_;
  const Scene* scene_ = nullptr;
  std::array<std::size_t, 2> programs_{};
  Values before_;
  Plan plan_;
  std::vector<Event> events_;
  std::unordered_set<std::uint64_t> seenTraces_;
  std::unordered_set<std::uint64_t> seenCuts_;
  std::mt19937_64 random_{zontest::evidenceSeed()};
  std::uint64_t pairs_ = 0;
  std::uint64_t schedules_ = 0;
  std::uint64_t deaths_ = 0;
  std::uint64_t cuts_ = 0;
  int failures_ = 0;
};

TEST_F(Interleavings, AreExplainedBySomeOrder) {
  for (const Pair& pair : allPairs()) {
    if (isOver()) return;
    tryAllSchedules(pair);
  }
}

}  // namespace
}  // namespace zon::test
