/*
 * MDCloningSubSystemSetting: the store of cloning subsystem settings, in the file "zoncloningsubsyssetting". All
 * operations come from OneKeyStore.
 */
#ifndef ZONMDFILE_MDCLONINGSUBSYSTEMSETTING_H
#define ZONMDFILE_MDCLONINGSUBSYSTEMSETTING_H

#include "zonmdfile/OneKeyStore.h"

class ZON_EXPORT MDCloningSubSystemSetting : public OneKeyStore<MDCloningSubSystemSetting> {
 public:
  static const char* const FILENAME;
};

extern template class OneKeyStore<MDCloningSubSystemSetting>;

#endif
