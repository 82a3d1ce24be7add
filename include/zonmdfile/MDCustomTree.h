/* MDCustomTree: the store of custom trees, in the file "zoncustomtree". All operations come from OneKeyStore. */
#ifndef ZONMDFILE_MDCUSTOMTREE_H
#define ZONMDFILE_MDCUSTOMTREE_H

#include "zonmdfile/OneKeyStore.h"

class ZON_EXPORT MDCustomTree : public OneKeyStore<MDCustomTree> {
 public:
  static const char* const FILENAME;
};

extern template class OneKeyStore<MDCustomTree>;

#endif
