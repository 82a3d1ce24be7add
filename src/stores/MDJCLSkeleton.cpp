// MDJCLSkeleton: binds the two-key store operations to the file of JCL skeletons.
//
// The rule: the operations of the family are compiled here for this store, and only here.
#include "zonmdfile/MDJCLSkeleton.h"

#include "platform/trace_points.h"
#include "stores/two_key_store_impl.h"

static_assert(MDJCLSkeleton::TRACE_BASE == zon::trace::MD_JCL_SKELETON);

const char* const MDJCLSkeleton::FILENAME = "zonjclskel";

template class TwoKeyStore<MDJCLSkeleton>;
