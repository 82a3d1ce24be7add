/*
 * MDLocationMapping: the store of location mappings, in the file "zonlocationmap". All operations come from
 * OneKeyStore.
 */
#ifndef ZONMDFILE_MDLOCATIONMAPPING_H
#define ZONMDFILE_MDLOCATIONMAPPING_H

#include "zonmdfile/OneKeyStore.h"

class ZON_EXPORT MDLocationMapping : public OneKeyStore<MDLocationMapping> {
 public:
  static const char* const FILENAME;
};

extern template class OneKeyStore<MDLocationMapping>;

#endif
