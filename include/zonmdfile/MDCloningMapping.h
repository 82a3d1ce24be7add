/*
 * MDCloningMapping: the store of cloning mappings, in the file "zoncloningmapping". A record is addressed by a group
 * key, a sub-group key and a key.
 */
#ifndef ZONMDFILE_MDCLONINGMAPPING_H
#define ZONMDFILE_MDCLONINGMAPPING_H

#include <cstdint>

#include "zonmdfile/MDThreeKeyReg.h"

/*
 * As TwoKeyStore, one key wider: checks run from the group key over the sub-group key to the key, versions have at
 * most 8 bytes, and the buffers of a scan that cannot begin stay allocated.
 */
class ZON_EXPORT MDCloningMapping : public MDThreeKeyReg {
 public:
  static const char* const FILENAME;

  MDCloningMapping();
  ~MDCloningMapping();

  [[nodiscard]] std::uint32_t retrieveKeys(DString& groupKeys, DString& subGroupKeys, DString& keys);
  [[nodiscard]] std::uint32_t retrieveAll(DString& groupKeys, DString& subGroupKeys, DString& keys, DString& data,
                                          DString& versions);

  [[nodiscard]] std::uint32_t retrieve(DString& groupKey, DString& subGroupKey, DString& key, DString& data,
                                       DString& version);
  [[nodiscard]] std::uint32_t insert(DString& groupKey, DString& subGroupKey, DString& key, DString& data,
                                     DString version);
  [[nodiscard]] std::uint32_t update(DString& groupKey, DString& subGroupKey, DString& key, DString& data,
                                     DString version);
  [[nodiscard]] std::uint32_t remove(DString& groupKey, DString& subGroupKey, DString& key);
};

#endif
