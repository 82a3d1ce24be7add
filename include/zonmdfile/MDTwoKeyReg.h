/*
 * MDTwoKeyReg: a record file whose records carry two keys, a version of at most 9 bytes, and data. The base of the
 * two-key stores: it binds the registry engine to the store's file in the metadata directory and tells it how records
 * compare.
 */
#ifndef ZONMDFILE_MDTWOKEYREG_H
#define ZONMDFILE_MDTWOKEYREG_H

#include <cstdint>

#include "zonmdfile/MDStringParser.h"
#include "zonmdfile/platform/DString.h"
#include "zonmdfile/platform/GenRegBin.h"

/* Serves one thread at a time. Construction and destruction touch no file. */
class ZON_EXPORT MDTwoKeyReg : public GenRegBin, public MDStringParser {
 public:
  /*
   * Binds the object to `fileName` in the metadata directory (getMetadataPath), or in the current directory when there
   * is none. Paths are cut at 4095 bytes.
   */
  explicit MDTwoKeyReg(const char* fileName);
  ~MDTwoKeyReg();

  /* 0, MD_RC_KEY_EMPTY, or MD_RC_KEY_TOO_LONG for more than 128 bytes. */
  [[nodiscard]] std::uint32_t checkGroupKeyLength(DString& groupKey);
  [[nodiscard]] std::uint32_t checkKeyLength(DString& key);
  /* 0, MD_RC_DATA_EMPTY, or MD_RC_DATA_TOO_LONG for more than 1,024,000 bytes. */
  [[nodiscard]] std::uint32_t checkDataLength(DString& data);

  /* Prints "RC = <rc> (<description>)" and a line end to standard output; nothing for 0. For diagnosis. */
  void checkRC(long rc);

  /*
   * The record callbacks of the engine; records are whole records.
   *
   * MatchRecord: 1 when all fields that flags select are equal, else 0. 2 group key, 8 key, 16 data size,
   * 32 data, 64 version; texts are compared up to their NUL, other bits are ignored.
   */
  static int MatchRecord(unsigned long flags, void* record, void* other);
  /* 0: every record is valid. */
  static int ValidateRecord(unsigned long flags, void* record);
  /* Prints the record's fields in one line to standard output; 0. */
  static int PrintRecord(void* record);
  /* Stores the record's size in bytes; 0. */
  static int GetRecordSize(void* record, unsigned long* size);
  /* Stores the size in bytes of the largest record that a buffer for results must hold; 0. */
  static int GetMaxRecordSize(unsigned long* size);
};

#endif
