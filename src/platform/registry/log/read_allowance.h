// How much one search may read. Frames do not overlap, and each is in one list of an index, so that together those that
// a search meets are no longer than the log: a file in which they are was forged to cost time.
//
// The rule: every frame that a search meets is charged.
#pragma once

#include <cstdint>

#include "platform/registry/format/frame.h"

namespace zon {

class ReadAllowance {
 public:
  // Of a log up to `end` in this file. A reader beside a writer, and a writer that goes on after one that died, may
  // meet a frame once for each segment.
  ReadAllowance(int file, std::uint64_t end, std::uint64_t readsOfAFrame = format::MAX_SEGMENTS)
      : file_(file), readsOfAFrame_(readsOfAFrame), left_(end * readsOfAFrame) {}

  // GENREG_RC_DAMAGED when this frame is one too many.
  [[nodiscard]] std::uint32_t charge(const Frame& frame);

 private:
  int file_;
  std::uint64_t readsOfAFrame_;
  std::uint64_t left_;
  bool isRaised_ = false;
};

}  // namespace zon
