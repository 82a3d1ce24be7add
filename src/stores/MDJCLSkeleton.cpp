// MDJCLSkeleton: binds the two-key store operations to the file of JCL skeletons.
//
// The rule: the operations of the family are compiled here for this store, and only here.
#include "zonmdfile/MDJCLSkeleton.h"

#include "stores/two_key_store_impl.h"

const char* const MDJCLSkeleton::FILENAME = "zonjclskel";

template <>
inline constexpr const char* zon::NAME<MDJCLSkeleton> = "MDJCLSkeleton";

template class TwoKeyStore<MDJCLSkeleton>;
