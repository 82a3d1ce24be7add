// Putting heads into the index blocks: what a checkpoint does.
//
// The rule: only heads of published frames are placed (I3), or those of a file that nobody sees yet; and a list has one
// entry, whose older head is replaced (I5).
#pragma once

#include <vector>

#include "platform/registry/format/answer.h"
#include "platform/registry/log/log_view.h"

namespace zon {

enum class Placing {
  COMPLETE,
  SEGMENT_FULL,  // some were placed; the newest segment has no room for the next one
};

// Counts what is new to the newest segment in the state's slot.
Answer<Placing> placeEntries(LogParts& log, std::vector<format::OverlayEntry> entries);

}  // namespace zon
