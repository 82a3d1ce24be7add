// The order: frames and index as they come, header and slots at the end, one sync.
//
// The rule: as log_builder.h says.
#include "platform/registry/log/log_builder.h"

#include <algorithm>

#include "platform/registry/files/file_io.h"
#include "platform/registry/log/index_blocks.h"
#include "platform/registry/log/index_update.h"

namespace zon {

LogBuilder::LogBuilder(LogParts& log, LogRoom& room, SlotWriter& slots, LogAppender& appender, std::uint64_t records)
    : log_(log), room_(room), slots_(slots), appender_(appender), known_(records) {
  appender_.skipSearchesBy(&known_);
}

// All of the room is asked for at once: on a full disk nothing is to be read and written for nothing.
std::uint32_t LogBuilder::begin(int file, const format::FileHeader& header, const ExpectedRecords& expected) {
  format::Slot slot{};
  slot.end = format::LOG_START;
  slot.chain = saltOf(header.fileId);
  slot.flags = format::SLOT_NAME_UNSYNCED;
  room_.begin(file, 0);
  log_.bytes.open(file, header.fileId);
  log_.bytes.beginTail(format::LOG_START);
  log_.state.begin(header, slot);
  slots_.begin(file, true);
  const std::uint64_t entries = expected.records * log_.bytes.type().indexCount;
  const std::uint64_t blocks =
      std::clamp((entries + entries / 4) / (format::BLOCK_ENTRIES * 4 / 5), LEAST_BLOCKS, format::MAX_BLOCKS);
  if (const std::uint32_t rc = appender_.makeRoomForArea(blocks, expected.bytes)) return rc;
  if (const std::uint32_t rc = appender_.appendArea(blocks)) return rc;
  log_.state.slot().commits = 0;
  return MD_RC_OK;
}

std::uint32_t LogBuilder::writeTail() {
  if (const std::uint32_t rc = appender_.makeRoomForTail()) return rc;
  return appender_.writeTail();
}

std::uint32_t LogBuilder::placeHeads() {
  const std::vector<format::OverlayEntry> heads = log_.state.unindexedHeads();
  for (;;) {
    const Answer<Placing> placing = placeEntries(log_, heads);
    if (placing.rc != MD_RC_OK) return placing.rc;
    if (placing.value == Placing::COMPLETE) break;
    const std::size_t segments = segmentCount(log_.state.slot());
    const std::uint64_t newest = unpackSegment(log_.state.slot().segments[segments - 1]).blockCount;
    if (const std::uint32_t rc = appender_.appendArea(2 * newest)) return rc;
  }
  log_.state.forgetNewHeads();
  return MD_RC_OK;
}

std::uint32_t LogBuilder::spill() {
  if (const std::uint32_t rc = writeTail()) return rc;
  return appender_.isHeavy() ? placeHeads() : MD_RC_OK;
}

std::uint32_t LogBuilder::finish() {
  if (const std::uint32_t rc = writeTail()) return rc;
  if (const std::uint32_t rc = placeHeads()) return rc;
  const int file = log_.bytes.file();
  for (const std::uint64_t offset : {std::uint64_t{0}, format::HEADER_COPY_OFFSET}) {
    if (const std::uint32_t rc = writeAt(file, offset, bytesOf(log_.state.header()))) return rc;
  }
  if (const std::uint32_t rc = slots_.publishBoth()) return rc;
  return syncFile(file);
}

}  // namespace zon
