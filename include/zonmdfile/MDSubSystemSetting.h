/*
 * MDSubSystemSetting: the store of subsystem settings, in the file "zonsubsystemsetting". All operations come from
 * OneKeyStore.
 */
#ifndef ZONMDFILE_MDSUBSYSTEMSETTING_H
#define ZONMDFILE_MDSUBSYSTEMSETTING_H

#include "zonmdfile/OneKeyStore.h"

class ZON_EXPORT MDSubSystemSetting : public OneKeyStore<MDSubSystemSetting> {
 public:
  static const char* const FILENAME;
};

extern template class OneKeyStore<MDSubSystemSetting>;

#endif
