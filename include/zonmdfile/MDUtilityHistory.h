/*
 * MDUtilityHistory: the store of the utility history, in the file "zonutilityhistory". All operations come from
 * TwoKeyStore.
 */
#ifndef ZONMDFILE_MDUTILITYHISTORY_H
#define ZONMDFILE_MDUTILITYHISTORY_H

#include "zonmdfile/TwoKeyStore.h"

class ZON_EXPORT MDUtilityHistory : public TwoKeyStore<MDUtilityHistory> {
 public:
  static const char* const FILENAME;

  /* update leaves the record that it wrote allocated: callers have always accounted for one buffer per update. */
  static constexpr bool UPDATE_KEEPS_NEW_RECORD = true;
};

extern template class TwoKeyStore<MDUtilityHistory>;

#endif
