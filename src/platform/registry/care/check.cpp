// See check.h.
#include "platform/registry/care/check.h"

#include "platform/registry/care/raw_log.h"
#include "platform/registry/care/salvage.h"
#include "platform/registry/log/index_blocks.h"

namespace zon {

namespace {

bool isArea(const Frame& frame, std::uint64_t packed) {
  const Segment segment = unpackSegment(packed);
  return segment.offset == frame.area.blocksOffset && segment.blockCount == frame.area.blockCount;
}

}  // namespace

std::uint32_t checkLog(const LogView& view, std::uint64_t fileSize, bool& isDamaged) {
  const RawLog log(view.type(), view.file(), view.header(), fileSize);
  Frame frame;
  std::size_t segments = 0;
  isDamaged = false;
  for (std::uint64_t offset = format::LOG_START; offset < view.end(); offset = frame.end()) {
    isDamaged = !log.hasFrame(offset, frame) || frame.end() > view.end();
    if (!isDamaged && frame.kind == format::FrameKind::AREA) {
      if (segments < segmentCount(view.slot()) && isArea(frame, view.slot().segments[segments])) ++segments;
      const std::uint32_t rc = log.bytes().verifyBlocks(frame.area);
      if (rc != MD_RC_OK && !isDamage(rc)) return rc;
      isDamaged = rc != MD_RC_OK;
    }
    if (isDamaged) break;
  }
  isDamaged = isDamaged || segments != segmentCount(view.slot());
  return log.isDeviceFailing() ? GENREG_RC_IO_ERROR : MD_RC_OK;
}

}  // namespace zon
