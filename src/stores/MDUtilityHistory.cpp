// MDUtilityHistory: binds the two-key store operations to the file of the utility history.
//
// The rule: the operations of the family are compiled here for this store, and only here.
#include "zonmdfile/MDUtilityHistory.h"

#include "platform/trace_points.h"
#include "stores/two_key_store_impl.h"

static_assert(MDUtilityHistory::TRACE_BASE == zon::trace::MD_UTILITY_HISTORY);

const char* const MDUtilityHistory::FILENAME = "zonutilityhistory";

template class TwoKeyStore<MDUtilityHistory>;
