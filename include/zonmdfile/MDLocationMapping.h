/*
 * MDLocationMapping: the store of location mappings, in the file "zonlocationmap". All operations come from
 * OneKeyStore.
 */
#ifndef ZONMDFILE_MDLOCATIONMAPPING_H
#define ZONMDFILE_MDLOCATIONMAPPING_H

#include <cstdint>

#include "zonmdfile/OneKeyStore.h"

class ZON_EXPORT MDLocationMapping : public OneKeyStore<MDLocationMapping> {
 public:
  static const char* const FILENAME;
  static constexpr const char* SOURCE = "MDLocationMapping"; /* labels its allocations */
  static constexpr std::uint32_t TRACE_BASE = 451413600;     /* its range of trace points */
};

extern template class OneKeyStore<MDLocationMapping>;

#endif
