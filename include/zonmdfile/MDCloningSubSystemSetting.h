/*
 * MDCloningSubSystemSetting: the store of cloning subsystem settings, in the file "zoncloningsubsyssetting". All
 * operations come from OneKeyStore.
 */
#ifndef ZONMDFILE_MDCLONINGSUBSYSTEMSETTING_H
#define ZONMDFILE_MDCLONINGSUBSYSTEMSETTING_H

#include <cstdint>

#include "zonmdfile/OneKeyStore.h"

class ZON_EXPORT MDCloningSubSystemSetting : public OneKeyStore<MDCloningSubSystemSetting> {
 public:
  static const char* const FILENAME;
  static constexpr const char* SOURCE = "MDCloningSubSystemSetting"; /* labels its allocations */
  static constexpr std::uint32_t TRACE_BASE = 451413700;             /* its range of trace points */
};

extern template class OneKeyStore<MDCloningSubSystemSetting>;

#endif
