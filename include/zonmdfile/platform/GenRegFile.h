/*
 * GenRegFile: what concerns a record file as a whole: scans, batches, its state, repair and compaction.
 */
#ifndef ZONMDFILE_PLATFORM_GENREGFILE_H
#define ZONMDFILE_PLATFORM_GENREGFILE_H

#include <cstdint>

#include "zonmdfile/platform/GenRegBase.h"

namespace zon {
class RecordBatch;
class RecordScan;
struct EngineSettings;
}  // namespace zon

/* What GenRegFile::status tells of the records, whatever engine keeps them. */
struct GenRegRecordStatus {
  std::uint64_t records;              /* live records */
  std::uint64_t recordBytes;          /* their sizes added up, in bytes */
  std::uint64_t changes;              /* commits since the file was created, compactions and repairs included */
  std::uint64_t unacknowledgedLosses; /* how often records were lost, or may have been, since acknowledgeLoss */
  std::uint32_t damaged;              /* non-zero when the full check that this call makes met damage */
  char engine[32];                    /* the engine's name; "file" where the records lie in the record file itself */
};

/* What it tells of a record file and its companions, in bytes where nothing else is said. All zero when another engine
 * has the records. */
struct GenRegFileStatus {
  std::uint64_t fileBytes;      /* size of the record file */
  std::uint64_t usedBytes;      /* of these, header, frames and index; the rest is reserved for the next changes */
  std::uint64_t backupBytes;    /* how far the backup follows the file; 0 without a backup */
  std::uint64_t repairs;        /* number of repairs in the file's history */
  std::uint64_t lostBytes;      /* what repairs could restore neither from the file nor from the backup */
  std::uint32_t formatVersion;  /* 0 when there is no file */
  std::uint32_t orphanedBackup; /* non-zero when there is no record file, but its backup */
  std::uint32_t corruptCopy;    /* non-zero when a damaged file or an orphaned backup was kept under the name for it */
};

struct GenRegStatus : GenRegRecordStatus, GenRegFileStatus {};

/* What the records of a scan come to at most. */
struct GenRegScanExtent {
  std::uint64_t records;
  std::uint64_t bytes; /* of all texts in them, with a byte behind each text */
};

class ZON_EXPORT GenRegFile : public GenRegBase {
 public:
  GenRegFile();
  ~GenRegFile();

  /*
   * Begins a pass over the records: GetNext sees the one state committed when OpenScan is called, whatever writers do
   * meanwhile. A file that does not exist is an empty one. Needs no write permission and takes no lock.
   */
  [[nodiscard]] std::uint32_t OpenScan();

  /* How much the open pass can deliver, as far as is known without reading; all 0 without a pass. */
  GenRegScanExtent scanExtent() const;

  /* Ends the pass and frees all that it held. 0, what made GetNext fail, or GENREG_RC_NO_SCAN without a pass. */
  [[nodiscard]] std::uint32_t CloseScan();

  /*
   * Gathers the following changes of this object under one sync. Until commitBatch, other processes see nothing of them
   * and this object sees them all. A crash leaves a prefix of them. beginBatch takes the lock; a batch that grows large
   * is synced in between. Destroying the object without commitBatch takes back what was not synced yet. While a scan is
   * open within a batch, changes are refused with GENREG_RC_SCAN_OPEN. commitBatch ends the batch, whatever it answers,
   * and a scan that was opened in it; GENREG_RC_NO_BATCH without one; while one is under way, beginBatch, repair and
   * compact answer GENREG_RC_BATCH_OPEN. After a change that failed half way (no memory, a failed sync in between) all
   * further ones of the batch, and commitBatch, answer that failure, and what was not synced is taken back. In a child
   * that is forked meanwhile all that belongs to the batch answers GENREG_RC_NO_BATCH; the parent's goes on.
   */
  [[nodiscard]] std::uint32_t beginBatch();
  [[nodiscard]] std::uint32_t commitBatch();

  /* Reads the whole file and its checksums; changes nothing. */
  [[nodiscard]] std::uint32_t status(GenRegStatus& status);

  /* Writes the file anew from all that file and backup hold intact; keeps the present file as the corrupt copy when
   * damaged. */
  [[nodiscard]] std::uint32_t repair();

  /*
   * Whether a call of this object repaired the file with a loss, or met a backup without its file: records are gone, or
   * may be, though the call may have answered 0.
   */
  bool hasMetLoss() const { return hasMetLoss_; }

  /*
   * Takes note of all losses so far: GenRegStatus::unacknowledgedLosses counts from here. Durable when it answers 0.
   * GENREG_RC_NOT_FOUND when there is no file.
   */
  [[nodiscard]] std::uint32_t acknowledgeLoss();

  /* Writes the live records anew, in their order. Happens by itself when needed. */
  [[nodiscard]] std::uint32_t compact();

 protected:
  /* The settings, as engines want them. */
  zon::EngineSettings engineSettings() const;

  zon::RecordScan* scan_ = nullptr;
  zon::RecordBatch* batch_ = nullptr;
  bool hasMetLoss_ = false;

 private:
  template <class Work>
  [[nodiscard]] std::uint32_t onEngine(Work work);
  template <class Work>
  [[nodiscard]] std::uint32_t careForFile(Work work);
};

#endif
