/*
 * GenRegBase: the settings of a registry engine object. The engine keeps records of one record type in one file; it
 * knows nothing of their layout beyond the callbacks set here.
 *
 * Objects are cheap (no file is opened by construction), belong to one thread at a time, and may not be copied.
 */
#ifndef ZONMDFILE_PLATFORM_GENREGBASE_H
#define ZONMDFILE_PLATFORM_GENREGBASE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "zonmdfile/platform/export.h"

class ZON_EXPORT GenRegBase {
 public:
  /* 1 when every field selected by the bits of flags is equal in both records, else 0; flags 0 must give 1. */
  using MatchCallback = int (*)(unsigned long flags, void* record, void* other);
  /* 0 when the record may be stored. Asked with the flags of Add, or 0 for Change. */
  using ValidateCallback = int (*)(unsigned long flags, void* record);
  /* Prints the record to standard output; returns 0. */
  using PrintCallback = int (*)(void* record);
  /* Stores the record's size in bytes; returns 0. */
  using SizeCallback = int (*)(void* record, unsigned long* size);
  /* Stores the size of the largest record that the callers' buffers are made for; returns 0. */
  using MaxSizeCallback = int (*)(unsigned long* size);
  /*
   * A 64-bit digest, keyed with `seed`, of exactly the fields that `flags` select: records that match under these flags
   * have the same digest. Others should differ, also for fields that an attacker chose.
   */
  using DigestCallback = std::uint64_t (*)(unsigned long flags, const void* record, std::uint64_t seed);

  static constexpr std::size_t PATH_SIZE = 4096; /* of a name: 4095 bytes and the closing NUL */
  static constexpr std::size_t MAX_INDEXES = 3;
  static constexpr std::uint64_t OPTION_DURABLE = 0x100; /* option bit: a change is synced before it is acknowledged */
  static constexpr unsigned long FEATURE_REPAIR = 0;     /* the first writer that meets damage repairs the file */
  static constexpr unsigned long FEATURE_BACKUP = 1;     /* writers keep the backup up to date */
  static constexpr unsigned long FEATURE_DELETE_ALL = 2; /* Delete takes every matching record, not only the first */
  static constexpr std::uint32_t DEFAULT_LOCK_WAIT_MS = 30000;

  /* The names of the record file and its companions. */
  struct FileNames {
    std::string_view file;
    std::string_view temporary;
    std::string_view corruptCopy;
    std::string_view lock;
    std::string_view backup;
  };

  GenRegBase();
  ~GenRegBase();
  GenRegBase(const GenRegBase&) = delete;
  GenRegBase& operator=(const GenRegBase&) = delete;

  /* Features are numbered 0 to 63; other numbers are ignored. */
  void setFeature(unsigned long feature);
  void unsetFeature(unsigned long feature);
  bool hasFeature(unsigned long feature) const;

  /* How long a change waits for other writers before GENREG_RC_LOCK_TIMEOUT; in milliseconds. */
  void setLockWait(std::uint32_t milliseconds) { lockWaitMs_ = milliseconds; }

 protected:
  struct Callbacks {
    MatchCallback match;
    ValidateCallback validate;
    PrintCallback print;
    SizeCallback recordSize;
    MaxSizeCallback maxRecordSize;
    DigestCallback digest;
  };

  using IndexFlags = std::array<std::uint8_t, MAX_INDEXES>;

  /* What a record type's constructor sets; indexFlags as the field below. */
  void setRecordType(const Callbacks& callbacks, const IndexFlags& indexFlags);
  /*
   * Keeps copies of the names, cut at PATH_SIZE - 1 bytes; a cut name is refused when it is used. Without memory for
   * them every operation answers GENREG_RC_NO_MEMORY. REQUIRES: neither a scan nor a batch is under way.
   */
  void setFileNames(const FileNames& names) noexcept;
  /* What is kept, each name followed by a NUL. */
  const FileNames& fileNames() const { return names_; }
  bool hasLostFileNames() const { return hasLostNames_; }
  /* Changes are durable, damage is repaired, a backup is kept; all files get this creation mode. */
  void keepDurably(std::uint32_t creationMode);

  Callbacks callbacks_{};
  /*
   * Field sets that the file is indexed by, as match flags. The first selects the whole key; a zero ends the list. They
   * are part of the file: a file written with other sets is refused with GENREG_RC_WRONG_RECORD_TYPE.
   */
  std::uint8_t indexFlags_[MAX_INDEXES]{};
  std::uint64_t options_;
  std::uint32_t fileMode_;      /* creation mode of the record file, its temporary and corrupt copies */
  std::uint32_t companionMode_; /* creation mode of the lock file and the backup */
  std::uint64_t features_;
  std::uint32_t lockWaitMs_;
  void* reserved_[4]{}; /* room for later settings without a change of the ABI */

 private:
  FileNames names_{.file = "", .temporary = "", .corruptCopy = "", .lock = "", .backup = ""};
  char* nameBytes_ = nullptr;
  bool hasLostNames_ = false;
};

#endif
