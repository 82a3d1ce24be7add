/* MDJCLSkeleton: the store of JCL skeletons, in the file "zonjclskel". All operations come from TwoKeyStore. */
#ifndef ZONMDFILE_MDJCLSKELETON_H
#define ZONMDFILE_MDJCLSKELETON_H

#include "zonmdfile/TwoKeyStore.h"

class ZON_EXPORT MDJCLSkeleton : public TwoKeyStore<MDJCLSkeleton> {
 public:
  static const char* const FILENAME;
};

extern template class TwoKeyStore<MDJCLSkeleton>;

#endif
