// MDUtilNameMapping: binds the one-key store operations to the file of utility name mappings.
//
// The rule: the operations of the family are compiled here for this store, and only here.
#include "zonmdfile/MDUtilNameMapping.h"

#include "stores/one_key_store_impl.h"

const char* const MDUtilNameMapping::FILENAME = "zonutilnamemap";

template <>
inline constexpr const char* zon::NAME<MDUtilNameMapping> = "MDUtilNameMapping";

template class OneKeyStore<MDUtilNameMapping>;
