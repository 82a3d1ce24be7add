/*
 * MDCloningHistory: the store of the cloning history, in the file "zoncloninghistory". All operations come from
 * TwoKeyStore.
 */
#ifndef ZONMDFILE_MDCLONINGHISTORY_H
#define ZONMDFILE_MDCLONINGHISTORY_H

#include <cstdint>

#include "zonmdfile/TwoKeyStore.h"

class ZON_EXPORT MDCloningHistory : public TwoKeyStore<MDCloningHistory> {
 public:
  static const char* const FILENAME;
  static constexpr const char* SOURCE = "MDCloningHistory"; /* labels its allocations */
  static constexpr std::uint32_t TRACE_BASE = 451413800;    /* its range of trace points */
};

extern template class TwoKeyStore<MDCloningHistory>;

#endif
