// performOnLibrary: makes a step's call to the library as a caller would, and tells what became visible.
//
// The rule: every cell starts with a mark, so that what the library leaves alone is known; every text that it hands
// out is released.
#pragma once

#include <cstddef>

#include "model/outcome.h"
#include "model/steps.h"

namespace zonmodel {

// `rows` is how many entries the caller has provided slots for; a few more are there to be left alone.
Outcome performOnLibrary(const Step& step, std::size_t rows);

}  // namespace zonmodel
