// MDCloningHistory: binds the two-key store operations to the file of the cloning history.
//
// The rule: the operations of the family are compiled here for this store, and only here.
#include "zonmdfile/MDCloningHistory.h"

#include "platform/trace_points.h"
#include "stores/two_key_store_impl.h"

static_assert(MDCloningHistory::TRACE_BASE == zon::trace::MD_CLONING_HISTORY);

const char* const MDCloningHistory::FILENAME = "zoncloninghistory";

template class TwoKeyStore<MDCloningHistory>;
