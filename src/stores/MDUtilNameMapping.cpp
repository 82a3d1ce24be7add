// MDUtilNameMapping: binds the one-key store operations to the file of utility name mappings.
//
// The rule: the operations of the family are compiled here for this store, and only here.
#include "zonmdfile/MDUtilNameMapping.h"

#include "platform/trace_points.h"
#include "stores/one_key_store_impl.h"

static_assert(MDUtilNameMapping::TRACE_BASE == zon::trace::MD_UTIL_NAME_MAPPING);

const char* const MDUtilNameMapping::FILENAME = "zonutilnamemap";

template class OneKeyStore<MDUtilNameMapping>;
