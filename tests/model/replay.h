// Replay of steps against the model, and the shrinking of steps that show a difference.
//
// The rule: a replay starts from nothing, so that the same steps always end the same way.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "model/outcome.h"
#include "model/steps.h"
#include "model/system_model.h"

namespace zonmodel {

// What is compared with the model; made anew for each replay. The number is that of the rows to provide.
using Subject = std::function<Outcome(const Step&, std::size_t)>;
using SubjectMaker = std::function<Subject()>;

struct Difference {
  std::size_t step;  // how many steps had been done, the differing one included
  std::string what;
};

// Performs the steps on subject and model side by side. All stores are listed after every `listingInterval` steps and
// after the last one.
std::optional<Difference> replay(const std::vector<Step>& steps, const SubjectMaker& makeSubject,
                                 std::size_t listingInterval = 100);

// The shortest steps found, by leaving out ever smaller parts, that still show a difference.
std::vector<Step> shrink(std::vector<Step> steps, const SubjectMaker& makeSubject);

// A trace that readTrace reads, with what differs as a comment before it.
std::string writeTrace(const std::vector<Step>& steps, const SubjectMaker& makeSubject);

}  // namespace zonmodel
