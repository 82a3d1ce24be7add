// MDUtilityHistory: binds the two-key store operations to the file of the utility history.
//
// The rule: the operations of the family are compiled here for this store, and only here.
#include "zonmdfile/MDUtilityHistory.h"

#include "stores/two_key_store_impl.h"

const char* const MDUtilityHistory::FILENAME = "zonutilityhistory";

template <>
inline constexpr const char* zon::NAME<MDUtilityHistory> = "MDUtilityHistory";

template class TwoKeyStore<MDUtilityHistory>;
