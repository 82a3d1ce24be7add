// MDLocationMapping: binds the one-key store operations to the file of location mappings.
//
// The rule: the operations of the family are compiled here for this store, and only here.
#include "zonmdfile/MDLocationMapping.h"

#include "stores/one_key_store_impl.h"

const char* const MDLocationMapping::FILENAME = "zonlocationmap";

template <>
inline constexpr const char* zon::NAME<MDLocationMapping> = "MDLocationMapping";

template class OneKeyStore<MDLocationMapping>;
