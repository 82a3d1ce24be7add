/*
 * MDCloningHistory: the store of the cloning history, in the file "zoncloninghistory". All operations come from
 * TwoKeyStore.
 */
#ifndef ZONMDFILE_MDCLONINGHISTORY_H
#define ZONMDFILE_MDCLONINGHISTORY_H

#include "zonmdfile/TwoKeyStore.h"

class ZON_EXPORT MDCloningHistory : public TwoKeyStore<MDCloningHistory> {
 public:
  static const char* const FILENAME;
};

extern template class TwoKeyStore<MDCloningHistory>;

#endif
