// Side-by-side replay and delta debugging.
//
// The rule: a difference is a difference, whichever; shrinking may end with another one than it began with.
#include "model/replay.h"

#include <algorithm>
#include <sstream>

namespace zonmodel {

namespace {

std::size_t rowsOf(const Function& function, const Outcome& expected) {
  if (function.rows.empty()) return 0;
  const std::size_t texts = expected.texts.empty() ? 0 : expected.texts.rbegin()->first + 1;
  const std::size_t fixed = function.slots.size();
  return texts > fixed ? (texts - fixed) / function.rows.size() + 1 : 0;
}

class SideBySide {
 public:
  explicit SideBySide(const SubjectMaker& makeSubject) : subject_(makeSubject()) {}

  // What differs, or nothing.
  std::string perform(const Step& step) {
    const Outcome expected = model_.apply(step);
    const Outcome actual = subject_(step, rowsOf(*step.function, expected));
    if (expected == actual) return "";
    std::ostringstream text;
    text << step << '\n' << describeDifference(expected, actual);
    return text.str();
  }

  std::string compareListings() {
    for (const Step& step : listingSteps()) {
      if (std::string what = perform(step); !what.empty()) return what;
    }
    return "";
  }

 private:
  SystemModel model_;
  Subject subject_;
};

std::vector<Step> without(const std::vector<Step>& steps, std::size_t from, std::size_t count) {
  std::vector<Step> rest(steps.begin(), steps.begin() + static_cast<std::ptrdiff_t>(from));
  rest.insert(rest.end(), steps.begin() + static_cast<std::ptrdiff_t>(std::min(from + count, steps.size())),
              steps.end());
  return rest;
}

}  // namespace

std::optional<Difference> replay(const std::vector<Step>& steps, const SubjectMaker& makeSubject,
                                 std::size_t listingInterval) {
  SideBySide sides(makeSubject);
  for (std::size_t i = 0; i < steps.size(); ++i) {
    std::string what = sides.perform(steps[i]);
    const bool isListed = (i + 1) % listingInterval == 0 || i + 1 == steps.size();
    if (what.empty() && isListed) what = sides.compareListings();
    if (!what.empty()) return Difference{i + 1, what};
  }
  return std::nullopt;
}

std::vector<Step> shrink(std::vector<Step> steps, const SubjectMaker& makeSubject) {
  const auto cutBehindDifference = [&](std::vector<Step>& candidate) {
    const auto difference = replay(candidate, makeSubject);
    if (difference) candidate.resize(difference->step, candidate.front());
    return difference.has_value();
  };
  if (!cutBehindDifference(steps)) return steps;
  for (std::size_t part = std::max<std::size_t>(steps.size() / 2, 1);;) {
    bool isShorter = false;
    // From the end: what comes last is needed least often.
    for (std::size_t from = steps.size(); from > 0 && steps.size() > 1;) {
      from = from > part ? from - part : 0;
      std::vector<Step> candidate = without(steps, from, part);
      if (candidate.empty() || !cutBehindDifference(candidate)) continue;
      steps = std::move(candidate);
      from = std::min(from, steps.size());
      isShorter = true;
    }
    if (part == 1 && !isShorter) return steps;
    if (part > 1) part /= 2;
  }
}

std::string writeTrace(const std::vector<Step>& steps, const SubjectMaker& makeSubject) {
  std::ostringstream text;
  if (const auto difference = replay(steps, makeSubject)) {
    std::istringstream lines(difference->what);
    text << "; step " << difference->step << '\n';
    for (std::string line; std::getline(lines, line);) text << "; " << line << '\n';
  }
  for (const Step& step : steps) text << step << '\n';
  return text.str();
}

}  // namespace zonmodel
