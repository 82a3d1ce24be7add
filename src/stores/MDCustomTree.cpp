// MDCustomTree: binds the one-key store operations to the file of custom trees.
//
// The rule: the operations of the family are compiled here for this store, and only here.
#include "zonmdfile/MDCustomTree.h"

#include "stores/one_key_store_impl.h"

const char* const MDCustomTree::FILENAME = "zoncustomtree";

template <>
inline constexpr const char* zon::NAME<MDCustomTree> = "MDCustomTree";

template class OneKeyStore<MDCustomTree>;
