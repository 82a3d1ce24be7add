// The slots of the one-key entry points, contacts included.
//
// The rule: listings have the rc cell first; whatever takes a key has it right after its inputs.
#pragma once

#include "api/MDRegFactory.h"

namespace zon::one_key {

using namespace slot;

inline constexpr SlotTable RETRIEVE_KEYS{RC, OUT};
inline constexpr SlotTable RETRIEVE_ALL{RC, OUT, OUT, OUT};
inline constexpr SlotTable REMOVE{KEY, RC};
inline constexpr SlotTable RETRIEVE{KEY, RC, OUT, OUT};
inline constexpr SlotTable UPDATE{KEY, IN, IN, RC};
inline constexpr SlotTable INSERT{KEY, IN, IN, RC};

}  // namespace zon::one_key
