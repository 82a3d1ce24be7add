/* MDJCLSkeleton: the store of JCL skeletons, in the file "zonjclskel". All operations come from TwoKeyStore. */
#ifndef ZONMDFILE_MDJCLSKELETON_H
#define ZONMDFILE_MDJCLSKELETON_H

#include <cstdint>

#include "zonmdfile/TwoKeyStore.h"

class ZON_EXPORT MDJCLSkeleton : public TwoKeyStore<MDJCLSkeleton> {
 public:
  static const char* const FILENAME;
  static constexpr const char* SOURCE = "MDJCLSkeleton"; /* labels its allocations */
  static constexpr std::uint32_t TRACE_BASE = 451413400; /* its range of trace points */
};

extern template class TwoKeyStore<MDJCLSkeleton>;

#endif
