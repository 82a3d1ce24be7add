/*
 * GenRegBin: the record operations of the registry engine. A record is a run of bytes whose size the record type's
 * callback tells; which records a call concerns is what the match callback says for the flags given (0: every record).
 *
 * Every operation opens the file, does its work, and leaves nothing behind: no descriptor, lock, mapping or cache. A
 * change that returned 0 is on stable storage. All return 0 or a code of return_codes.h; none throws. One object serves
 * one thread at a time; any number of objects, threads and processes may work on one file.
 */
#ifndef ZONMDFILE_PLATFORM_GENREGBIN_H
#define ZONMDFILE_PLATFORM_GENREGBIN_H

#include <cstdint>

#include "zonmdfile/platform/GenRegFile.h"

class ZON_EXPORT GenRegBin : public GenRegFile {
 public:
  GenRegBin();
  ~GenRegBin();

  /* Adds the record at the end of the scan order. GENREG_RC_DUPLICATE_KEY when a record matches it under flags (not 0).
   */
  [[nodiscard]] std::uint32_t Add(unsigned long flags, void* record);

  /*
   * Copies the first record in scan order that matches `key` to `out`, which must hold the maximum record size. `key`
   * is a record of which only the fields selected by flags are read. GENREG_RC_NOT_FOUND when none matches. A buffer
   * that held zeros before holds the record and zeros behind it after success, and zeros when none matches; after any
   * other answer it may hold a part of a record.
   */
  [[nodiscard]] std::uint32_t Get(unsigned long flags, void* key, void* out);

  /*
   * Replaces the first record that matches `key` by `record`, which keeps its place in the scan order.
   * GENREG_RC_NO_CHANGE when it holds these bytes already (nothing is written), GENREG_RC_NOT_FOUND when none matches.
   */
  [[nodiscard]] std::uint32_t Change(unsigned long flags, void* key, void* record);

  /* Removes the first record that matches, or with FEATURE_DELETE_ALL every one, all or nothing. */
  [[nodiscard]] std::uint32_t Delete(unsigned long flags, void* key);

  /*
   * Copies the next record of the scan that matches `key` under flags to `out`; GENREG_RC_END_OF_SCAN after the last.
   * Any other code is a failure and ends the scan: it is told once, every further call answers GENREG_RC_END_OF_SCAN,
   * and CloseScan tells it again. `out` then holds no record. Given to the whole scan, a buffer that held zeros before
   * holds zeros behind the longest of the records delivered, unless the scan fails.
   */
  [[nodiscard]] std::uint32_t GetNext(unsigned long flags, void* key, void* out);

 private:
  template <class Work>
  [[nodiscard]] std::uint32_t onRecords(Work work);
  template <class Work>
  [[nodiscard]] std::uint32_t changeRecords(Work work);
};

#endif
