/*
 * MDUtilNameMapping: the store of utility name mappings, in the file "zonutilnamemap". All operations come from
 * OneKeyStore.
 */
#ifndef ZONMDFILE_MDUTILNAMEMAPPING_H
#define ZONMDFILE_MDUTILNAMEMAPPING_H

#include "zonmdfile/OneKeyStore.h"

class ZON_EXPORT MDUtilNameMapping : public OneKeyStore<MDUtilNameMapping> {
 public:
  static const char* const FILENAME;
};

extern template class OneKeyStore<MDUtilNameMapping>;

#endif
