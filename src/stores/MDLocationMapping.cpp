// MDLocationMapping: binds the one-key store operations to the file of location mappings.
//
// The rule: the operations of the family are compiled here for this store, and only here.
#include "zonmdfile/MDLocationMapping.h"

#include "platform/trace_points.h"
#include "stores/one_key_store_impl.h"

static_assert(MDLocationMapping::TRACE_BASE == zon::trace::MD_LOCATION_MAPPING);

const char* const MDLocationMapping::FILENAME = "zonlocationmap";

template class OneKeyStore<MDLocationMapping>;
