/* MDCustomTree: the store of custom trees, in the file "zoncustomtree". All operations come from OneKeyStore. */
#ifndef ZONMDFILE_MDCUSTOMTREE_H
#define ZONMDFILE_MDCUSTOMTREE_H

#include <cstdint>

#include "zonmdfile/OneKeyStore.h"

class ZON_EXPORT MDCustomTree : public OneKeyStore<MDCustomTree> {
 public:
  static const char* const FILENAME;
  static constexpr const char* SOURCE = "MDCustomTree";  /* labels its allocations */
  static constexpr std::uint32_t TRACE_BASE = 451413000; /* its range of trace points */
};

extern template class OneKeyStore<MDCustomTree>;

#endif
