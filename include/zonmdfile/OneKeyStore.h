/*
 * OneKeyStore: the operations of every one-key store. The stores differ only in the file they keep; what a store does
 * otherwise it says with a named constant in its class.
 */
#ifndef ZONMDFILE_ONEKEYSTORE_H
#define ZONMDFILE_ONEKEYSTORE_H

#include <cstdint>

#include "zonmdfile/MDOneKeyReg.h"

/*
 * All operations return 0 or a code of return_codes.h, and none throws. Checks come before any file is touched and
 * leave the outputs alone: first the key (MD_RC_KEY_EMPTY, MD_RC_KEY_TOO_LONG), then the data (MD_RC_DATA_EMPTY,
 * MD_RC_DATA_TOO_LONG), then the version (MD_RC_DATA_TOO_LONG beyond 10 bytes). Engine codes pass through unchanged.
 * An object keeps nothing between operations and serves one thread at a time.
 */
template <class Store>
class ZON_EXPORT OneKeyStore : public MDOneKeyReg {
 public:
  /* update allocates its match record at the size of the new record instead of the maximum. */
  static constexpr bool UPDATE_MATCHES_IN_EXACT_SIZE = false;

  OneKeyStore();
  ~OneKeyStore();

  /*
   * The listings give one entry for each record, each followed by 0x0E, in the order of insertion; parallel lists have
   * the same order. No record: GENREG_RC_NOT_FOUND and empty lists. With 0 the lists are complete; a failure in the
   * middle ends the listing with its code and leaves the records read so far in the lists (of a damaged file all that
   * is intact). A scan that cannot begin, and lists for which there is no memory, leave the lists untouched.
   */
  [[nodiscard]] std::uint32_t retrieveKeys(DString& keys);
  [[nodiscard]] std::uint32_t retrieveAll(DString& keys, DString& data, DString& versions);

  /* Any failure but that of the key check empties data and version. */
  [[nodiscard]] std::uint32_t retrieve(DString& key, DString& data, DString& version);

  /* GENREG_RC_DUPLICATE_KEY when the key is there already. */
  [[nodiscard]] std::uint32_t insert(DString& key, DString& data, DString version);

  /* Replaces data and version; 0 also when they were the same before. */
  [[nodiscard]] std::uint32_t update(DString& key, DString& data, DString version);

  [[nodiscard]] std::uint32_t remove(DString& key);
};

#endif
