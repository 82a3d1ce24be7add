// Writes a recording for a reader or for a program.
#pragma once

#include <ostream>

#include "ring_reader.h"

namespace zontrace {

enum class Output { TEXT, JSON, JSON_LINES };

// TEXT: a call tree per thread. JSON: one document. JSON_LINES: one line for the recording, then one per call and
// variable.
void printRecording(const Recording& recording, Output output, std::ostream& out);

}  // namespace zontrace
