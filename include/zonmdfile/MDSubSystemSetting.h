/*
 * MDSubSystemSetting: the store of subsystem settings, in the file "zonsubsystemsetting". All operations come from
 * OneKeyStore.
 */
#ifndef ZONMDFILE_MDSUBSYSTEMSETTING_H
#define ZONMDFILE_MDSUBSYSTEMSETTING_H

#include <cstdint>

#include "zonmdfile/OneKeyStore.h"

class ZON_EXPORT MDSubSystemSetting : public OneKeyStore<MDSubSystemSetting> {
 public:
  static const char* const FILENAME;
  static constexpr const char* SOURCE = "MDSubSystemSetting"; /* labels its allocations */
  static constexpr std::uint32_t TRACE_BASE = 451413300;      /* its range of trace points */
};

extern template class OneKeyStore<MDSubSystemSetting>;

#endif
