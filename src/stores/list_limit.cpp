// The limit of list_limit.h, as the interface has it.
#include "stores/list_limit.h"

namespace zon {

std::uint64_t mostListBytes = MOST_LIST_BYTES;

}  // namespace zon
