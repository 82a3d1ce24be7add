/*
 * TwoKeyStore: the operations of every two-key store, whose records are addressed by a group key and a key within the
 * group. The stores differ only in the file they keep; what a store does otherwise it says with a named constant.
 */
#ifndef ZONMDFILE_TWOKEYSTORE_H
#define ZONMDFILE_TWOKEYSTORE_H

#include <cstdint>

#include "zonmdfile/MDTwoKeyReg.h"

/*
 * As OneKeyStore, with the group key checked before the key and versions of at most 9 bytes. When a scan cannot begin,
 * its two record buffers stay allocated: behaviour that callers' memory accounts have always seen.
 */
template <class Store>
class ZON_EXPORT TwoKeyStore : public MDTwoKeyReg {
 public:
  /* update leaves the record that it wrote allocated. */
  static constexpr bool UPDATE_KEEPS_NEW_RECORD = false;

  TwoKeyStore();
  ~TwoKeyStore();

  [[nodiscard]] std::uint32_t retrieveKeys(DString& groupKeys, DString& keys);
  [[nodiscard]] std::uint32_t retrieveAll(DString& groupKeys, DString& keys, DString& data, DString& versions);

  /* The records of one group. */
  [[nodiscard]] std::uint32_t retrieveList(DString& groupKey, DString& keys, DString& data, DString& versions);

  [[nodiscard]] std::uint32_t retrieve(DString& groupKey, DString& key, DString& data, DString& version);
  [[nodiscard]] std::uint32_t insert(DString& groupKey, DString& key, DString& data, DString version);
  [[nodiscard]] std::uint32_t update(DString& groupKey, DString& key, DString& data, DString version);
  [[nodiscard]] std::uint32_t remove(DString& groupKey, DString& key);

  /* Removes the whole group, all or nothing. */
  [[nodiscard]] std::uint32_t removeList(DString& groupKey);
};

#endif
