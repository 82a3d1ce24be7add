// MDCloningHistory: binds the two-key store operations to the file of the cloning history.
//
// The rule: the operations of the family are compiled here for this store, and only here.
#include "zonmdfile/MDCloningHistory.h"

#include "stores/two_key_store_impl.h"

const char* const MDCloningHistory::FILENAME = "zoncloninghistory";

template <>
inline constexpr const char* zon::NAME<MDCloningHistory> = "MDCloningHistory";

template class TwoKeyStore<MDCloningHistory>;
