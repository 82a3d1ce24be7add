// Makes what was appended durable and visible, or takes it back.
//
// Where a commit stands, and what leads on from there:
//
//   state       in the file                                             next
//   PUBLISHED   the newest slot shows everything that was written       writeAll -> WRITTEN
//   WRITTEN     bytes behind the published end that may not be durable  sync -> DURABLE, rollBack -> ROLLED_BACK
//   DURABLE     a complete commit behind the published end              publish -> PUBLISHED, rollBack -> ROLLED_BACK
//   ROLLED_BACK what PUBLISHED was, as far as rollBack could do it      none: the object must not be used any more; but
//                                                                       a segment that growIndex could not add is
//                                                                       forgotten -> PUBLISHED
//
// The file takes part in the order of these steps: (1) the frames and the zeros behind them are written; (2) one sync
// makes them durable, and with them everything written since the sync before: the last slot and the last index blocks;
// (3) the slot is written, which shows the commit to readers. Afterwards, from PUBLISHED to PUBLISHED, comes a
// checkpoint when it is due: (4) the slot's overlay, or what the slot had no room for, goes on to the index
// blocks, and the slot says so. Blocks may lag behind, because every reader looks at the overlay first, and walks the
// frames from indexedEnd on. Steps 3 and 4 need no sync of their own, but where the slot had no room for all heads, or
// a new mount would not be noticed: a crash of the machine that loses them leaves a durable commit behind the slot's
// end, which the next opening rolls forward over.
//
// The rule: blocks never run ahead of the slot (I3), so that a commit which is rolled back has no entry in them.
#pragma once

#include <cstdint>

#include "platform/registry/log/log_appender.h"
#include "platform/registry/log/log_room.h"
#include "platform/registry/log/log_view.h"
#include "platform/registry/log/slot_writer.h"

namespace zon {

class LogCommitter {
 public:
  LogCommitter(LogParts& log, LogRoom& room, SlotWriter& slots, LogAppender& appender)
      : log_(log), room_(room), slots_(slots), appender_(appender) {}

  // Something was appended that is not published.
  bool isDirty() const { return log_.state.end() != slots_.published().end; }

  // After a failure the log is rolled back; GENREG_RC_DURABILITY_UNKNOWN when it could not be.
  [[nodiscard]] std::uint32_t commit();

  // The last commit is published, and its heads found no place because of damage.
  bool isIndexDamaged() const { return isIndexDamaged_; }

  // Notes in the published slot how far the backup reaches.
  void republish(std::uint64_t backupEnd);
  void noteUpkeepBlocked(bool isBlocked);
  // Takes note, durably, of all losses that the header counts. REQUIRES: nothing is dirty.
  [[nodiscard]] std::uint32_t acknowledgeLosses();

 private:
  enum class Stage { PUBLISHED, WRITTEN, DURABLE, ROLLED_BACK };

  [[nodiscard]] std::uint32_t requireAllowedSizes() const;
  [[nodiscard]] std::uint32_t commitAppended();
  [[nodiscard]] std::uint32_t writeAll();
  [[nodiscard]] std::uint32_t sync();
  // False when what was not published may still be found by the next writer.
  bool rollBack();
  [[nodiscard]] std::uint32_t publish(const std::vector<format::OverlayEntry>& heads);

  [[nodiscard]] std::uint32_t addSegmentFor(std::size_t entries);
  [[nodiscard]] std::uint32_t appendArea(std::uint64_t blockCount);

  [[nodiscard]] std::uint32_t checkpointIfDue(std::uint64_t commitSize);
  [[nodiscard]] std::uint32_t checkpoint();
  [[nodiscard]] std::uint32_t place(const std::vector<format::OverlayEntry>& entries);
  [[nodiscard]] std::uint32_t growIndex();

  LogParts& log_;
  LogRoom& room_;
  SlotWriter& slots_;
  LogAppender& appender_;
  Stage stage_ = Stage::PUBLISHED;
  bool isIndexDamaged_ = false;
};

}  // namespace zon
