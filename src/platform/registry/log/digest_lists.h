// Every question by digest. Each digest has one list in each index: all events of the records with that digest, newest
// first; its newest frame is the head. An event is an insertion, change or removal; of the events of one place the
// newest one counts.
//
// The rule: what lies at or behind the state's end does not exist, though an index block may lead there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/registry/format/answer.h"
#include "platform/registry/log/log_bytes.h"
#include "platform/registry/log/log_state.h"

namespace zon {

class DigestLists {
 public:
  DigestLists(const LogBytes& bytes, const LogState& state) : bytes_(bytes), state_(state) {}

  // The head of the list of a digest; 0 without a list.
  Answer<std::uint64_t> headOf(std::size_t index, std::uint64_t digest) const;

  // Follows the list of the whole key to the live record that matches, for files in which whole keys are unique.
  [[nodiscard]] std::uint32_t findByWholeKey(unsigned long flags, const void* key, std::byte* out, LiveRecord& found,
                                             std::size_t& size) const;

  // The live records, in scan order, that an index offers for a digest; all others are known not to match.
  [[nodiscard]] std::uint32_t gather(std::size_t index, std::uint64_t digest, std::vector<LiveRecord>& live) const;
  // The same of the one list that starts at a frame.
  [[nodiscard]] std::uint32_t gatherFrom(std::size_t index, std::uint64_t head, std::vector<LiveRecord>& live) const;

  // Whether the frame at offset is the oldest of its list.
  Answer<bool> isOldest(std::size_t index, std::uint64_t offset) const;

  // The first of the targets, which fall, that the list from `from` on runs through; 0 when it misses all.
  Answer<std::uint64_t> firstReached(std::size_t index, std::uint64_t from, std::span<const std::uint64_t> targets,
                                     ReadAllowance& allowance) const;

 private:
  ReadAllowance newAllowance() const { return ReadAllowance(bytes_.file(), state_.end()); }
  // Looks for the key in the list that starts at a frame.
  [[nodiscard]] std::uint32_t followWholeKey(std::uint64_t head, unsigned long flags, const void* key,
                                             ReadAllowance& allowance, std::byte* out, LiveRecord& found,
                                             std::size_t& size) const;
  Answer<bool> hasDigest(std::uint64_t offset, std::size_t index, std::uint64_t digest, ReadAllowance& allowance) const;
  // All events of a list, in any order; of a removal the offset has its lowest bit set.
  [[nodiscard]] std::uint32_t collectEvents(std::size_t index, std::uint64_t head,
                                            std::vector<LiveRecord>& events) const;

  const LogBytes& bytes_;
  const LogState& state_;
  // What the last search by whole key found out: the head of the list of its digest, 0 when there is no list. A change
  // follows the search for what it changes, and need not search once more. Good until the state moves.
  struct FoundHead {
    std::uint64_t digest;
    std::uint64_t offset;
    std::uint64_t end;
  };
  mutable std::optional<FoundHead> foundHead_;
};

}  // namespace zon
