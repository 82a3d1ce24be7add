// MDCustomTree: binds the one-key store operations to the file of custom trees.
//
// The rule: the operations of the family are compiled here for this store, and only here.
#include "zonmdfile/MDCustomTree.h"

#include "platform/trace_points.h"
#include "stores/one_key_store_impl.h"

static_assert(MDCustomTree::TRACE_BASE == zon::trace::MD_CUSTOM_TREE);

const char* const MDCustomTree::FILENAME = "zoncustomtree";

template class OneKeyStore<MDCustomTree>;
