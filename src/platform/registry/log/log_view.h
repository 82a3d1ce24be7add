// What may be asked of one committed state of a log, or of a writer's state that is ahead of it.
//
// The rule: a view changes nothing, and owns nothing: it lives as long as the parts that it shows.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/registry/log/digest_lists.h"
#include "platform/registry/log/log_bytes.h"
#include "platform/registry/log/log_state.h"

namespace zon {

class LogView {
 public:
  LogView(const LogBytes& bytes, const LogState& state) : bytes_(bytes), state_(state), lists_(bytes, state) {}
  LogView(const LogView&) = delete;
  LogView& operator=(const LogView&) = delete;

  const LogBytes& bytes() const { return bytes_; }
  const DigestLists& lists() const { return lists_; }

  const RecordType& type() const { return bytes_.type(); }
  int file() const { return bytes_.file(); }
  const FrameKey& key() const { return bytes_.key(); }
  const format::FileHeader& header() const { return state_.header(); }
  const format::Slot& slot() const { return state_.slot(); }
  std::uint64_t end() const { return state_.end(); }
  std::uint64_t records() const { return state_.slot().records; }
  bool isUnique() const { return state_.isUnique(); }
  std::uint64_t digestOf(std::size_t index, const void* record) const { return state_.digestOf(index, record); }

  // For one search.
  ReadAllowance newAllowance() const { return ReadAllowance(file(), end()); }

  // The checksum of the frame that ends at offset, as the frame behind it tells; 0 when there is no frame behind it.
  std::uint32_t chainAt(std::uint64_t offset) const {
    if (offset == end()) return slot().chain;
    FrameBytes bytes;
    Frame next;
    return bytes_.readFrame(offset, bytes, next) == MD_RC_OK ? next.chain : 0;
  }

 private:
  const LogBytes& bytes_;
  const LogState& state_;
  DigestLists lists_;
};

// The parts of a log that belong together: what a snapshot and a writer own.
struct LogParts {
  explicit LogParts(const RecordType& type) : bytes(type), state(type), view(bytes, state) {}

  LogBytes bytes;
  LogState state;
  LogView view;
};

}  // namespace zon
