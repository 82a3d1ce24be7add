/*
 * MDUtilNameMapping: the store of utility name mappings, in the file "zonutilnamemap". All operations come from
 * OneKeyStore.
 */
#ifndef ZONMDFILE_MDUTILNAMEMAPPING_H
#define ZONMDFILE_MDUTILNAMEMAPPING_H

#include <cstdint>

#include "zonmdfile/OneKeyStore.h"

class ZON_EXPORT MDUtilNameMapping : public OneKeyStore<MDUtilNameMapping> {
 public:
  static const char* const FILENAME;
  static constexpr const char* SOURCE = "MDUtilNameMapping"; /* labels its allocations */
  static constexpr std::uint32_t TRACE_BASE = 451413500;     /* its range of trace points */
};

extern template class OneKeyStore<MDUtilNameMapping>;

#endif
