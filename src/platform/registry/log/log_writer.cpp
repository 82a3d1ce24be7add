// Opening, building, and what the log's space is used for.
//
// The rule: as log_writer.h says.
#include "platform/registry/log/log_writer.h"

#include <algorithm>

#include "platform/registry/log/index_blocks.h"
#include "platform/registry/log/recovery.h"

namespace zon {

namespace {

constexpr std::uint64_t MOST_ENTRY_BYTES = 48;  // of index for each live record and index; more counts as dead

}  // namespace

std::uint32_t LogWriter::open(int file, std::uint64_t fileSize) { return recover(file, fileSize, log_, room_, slots_); }

std::uint32_t LogWriter::create(int file, const format::FileHeader& header, const Expected& expected) {
  builder_.emplace(log_, room_, slots_, appender_, expected.records);
  return builder_->begin(file, header, expected);
}

std::uint32_t LogWriter::finish() {
  if (const std::uint32_t rc = builder_->finish()) return rc;
  builder_.reset();
  appender_.beginPublication();
  return MD_RC_OK;
}

bool LogWriter::isIndexFull() const { return segmentCount(log_.state.slot()) + 1 >= format::MAX_SEGMENTS; }

std::uint64_t LogWriter::areaBytes() const {
  const format::Slot& slot = log_.state.slot();
  std::uint64_t bytes = 0;
  for (std::size_t segment = 0; segment < segmentCount(slot); ++segment) {
    bytes += unpackSegment(slot.segments[segment]).blockCount * format::BLOCK_SIZE;
  }
  return bytes;
}

std::uint64_t LogWriter::deadBytes() const {
  const format::Slot& slot = log_.state.slot();
  const std::uint64_t used = slot.end - format::LOG_START;
  // Segments that were lost count with slots leave more room in the index than the records need.
  const std::uint64_t entries = slot.records * log_.bytes.type().indexCount;
  const std::uint64_t useful = 4 * LEAST_BLOCKS * format::BLOCK_SIZE + entries * MOST_ENTRY_BYTES;
  const std::uint64_t live = slot.liveFrameBytes + std::min(areaBytes(), useful);
  return used > live ? used - live : 0;
}

}  // namespace zon
