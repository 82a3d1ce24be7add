// From a digest to its head, and down its list.
//
// The rule: every loop over frames goes down in offset, so that no file can make it endless.
#include "platform/registry/log/digest_lists.h"

#include <algorithm>
#include <set>

#include "platform/registry/format/scratch_record.h"
#include "platform/registry/log/index_blocks.h"

namespace zon {

namespace {

constexpr std::uint64_t REMOVED_MARK = 1;
static_assert(REMOVED_MARK < format::FRAME_ALIGNMENT);

}  // namespace

Answer<bool> DigestLists::hasDigest(std::uint64_t offset, std::size_t index, std::uint64_t digest,
                                    ReadAllowance& allowance) const {
  FrameBytes bytes;
  Frame frame;
  if (const std::uint32_t rc = bytes_.readFrame(offset, bytes, frame)) return {.rc = rc};
  if (const std::uint32_t rc = allowance.charge(frame)) return {.rc = rc};
  if (frame.kind == format::FrameKind::SUMMARY) {
    return {.value = frame.summary.index == index && frame.summary.digest == digest};
  }
  if (frame.kind == format::FrameKind::REMOVE) {
    Digests digests;
    if (const std::uint32_t rc = bytes_.readRemovedDigests(frame, bytes.all(), digests)) return {.rc = rc};
    return {.value = digests[index] == digest};
  }
  if (!frame.isRecord()) return {};
  ScratchRecord record(bytes_.type().maxSize);
  if (!record.isThere()) return {.rc = GENREG_RC_NO_MEMORY};
  std::size_t size = 0;
  const auto read = [&](std::byte* out) { return bytes_.readRecord(frame, bytes.all(), out, size); };
  if (const std::uint32_t rc = record.fill(size, read)) return {.rc = rc};
  return {.value = state_.digestOf(index, record.get()) == digest};
}

Answer<std::uint64_t> DigestLists::headOf(std::size_t index, std::uint64_t digest) const {
  if (const std::uint64_t head = state_.newHead(index, digest)) return {.value = head};
  if (index == 0 && foundHead_.has_value() && foundHead_->digest == digest && foundHead_->end == state_.end()) {
    return {.value = foundHead_->offset};
  }
  ReadAllowance allowance = newAllowance();
  EntrySearch search(bytes_.file(), bytes_.key().salt, state_.slot(), index, digest);
  for (;;) {
    const Answer<std::uint64_t> candidate = search.next();
    if (candidate.rc != MD_RC_OK || candidate.value == 0) return candidate;
    const Answer<bool> isOurs = hasDigest(candidate.value, index, digest, allowance);
    if (isOurs.rc != MD_RC_OK) return {.rc = isOurs.rc};
    if (isOurs.value) return candidate;
  }
}

std::uint32_t DigestLists::findByWholeKey(unsigned long flags, const void* key, std::byte* out, LiveRecord& found,
                                          std::size_t& size) const {
  const std::uint64_t digest = state_.digestOf(0, key);
  ReadAllowance allowance = newAllowance();
  if (const std::uint64_t head = state_.newHead(0, digest)) {
    return followWholeKey(head, flags, key, allowance, out, found, size);
  }
  EntrySearch search(bytes_.file(), bytes_.key().salt, state_.slot(), 0, digest);
  // The list of another digest is followed in vain, and the search goes on.
  for (bool hasCandidates = false;; hasCandidates = true) {
    const Answer<std::uint64_t> candidate = search.next();
    if (candidate.rc != MD_RC_OK) return candidate.rc;
    if (candidate.value == 0) {
      if (!hasCandidates) foundHead_ = FoundHead{.digest = digest, .offset = 0, .end = state_.end()};
      return GENREG_RC_NOT_FOUND;
    }
    const std::uint32_t rc = followWholeKey(candidate.value, flags, key, allowance, out, found, size);
    if (rc == GENREG_RC_NOT_FOUND) continue;
    if (rc == MD_RC_OK && state_.digestOf(0, out) == digest) {
      foundHead_ = FoundHead{.digest = digest, .offset = candidate.value, .end = state_.end()};
    }
    return rc;
  }
}

std::uint32_t DigestLists::followWholeKey(std::uint64_t offset, unsigned long flags, const void* key,
                                          ReadAllowance& allowance, std::byte* out, LiveRecord& found,
                                          std::size_t& size) const {
  std::set<std::uint64_t> seen;
  FrameBytes bytes;
  Frame frame;
  for (std::uint64_t above = format::MAX_OFFSET; offset != 0; above = frame.offset) {
    if (const std::uint32_t rc = bytes_.readFrameBelow(offset, above, bytes, frame)) return rc;
    if (const std::uint32_t rc = allowance.charge(frame)) return rc;
    if (offset >= state_.end() || !frame.isEvent()) {
      offset = frame.previous;
      continue;
    }
    const bool superseded = seen.contains(frame.place);
    if (frame.isRecord() && !superseded) {
      if (const std::uint32_t rc = bytes_.readRecord(frame, bytes.all(), out, size)) return rc;
      if (bytes_.type().matches(flags, key, out)) {
        found = LiveRecord{.place = frame.place, .offset = offset};
        return MD_RC_OK;
      }
      wipe(bytes_.type(), out, size);
    }
    if (frame.kind == format::FrameKind::INSERT) {
      offset = frame.previous;
    } else {
      seen.insert(frame.place);
      offset = frame.below;
    }
  }
  return GENREG_RC_NOT_FOUND;
}

std::uint32_t DigestLists::collectEvents(std::size_t index, std::uint64_t head, std::vector<LiveRecord>& events) const {
  FrameBytes bytes;
  Frame frame;
  std::uint64_t above = format::MAX_OFFSET;
  for (std::uint64_t offset = head; offset != 0; offset = frame.previousIn(index)) {
    if (const std::uint32_t rc = bytes_.readFrameBelow(offset, above, bytes, frame)) return rc;
    above = offset;
    if (offset >= state_.end()) continue;
    if (frame.isEvent()) {
      const std::uint64_t mark = frame.kind == format::FrameKind::REMOVE ? REMOVED_MARK : 0;
      events.push_back(LiveRecord{.place = frame.place, .offset = offset | mark});
    } else if (frame.kind == format::FrameKind::SUMMARY && frame.summary.index == index) {
      return bytes_.readSummary(frame, events);
    }
  }
  return MD_RC_OK;
}

std::uint32_t DigestLists::gather(std::size_t index, std::uint64_t digest, std::vector<LiveRecord>& live) const {
  const Answer<std::uint64_t> head = headOf(index, digest);
  return head.rc != MD_RC_OK ? head.rc : gatherFrom(index, head.value, live);
}

// The answer is made where the events are: it takes no more memory than they do.
std::uint32_t DigestLists::gatherFrom(std::size_t index, std::uint64_t head, std::vector<LiveRecord>& live) const {
  if (const std::uint32_t rc = collectEvents(index, head, live)) return rc;
  std::sort(live.begin(), live.end(), [](const LiveRecord& a, const LiveRecord& b) {
    return a.place != b.place ? a.place < b.place : a.offset > b.offset;
  });
  const auto isOlderForm = [](const LiveRecord& newer, const LiveRecord& older) { return newer.place == older.place; };
  live.erase(std::unique(live.begin(), live.end(), isOlderForm), live.end());
  std::erase_if(live, [](const LiveRecord& event) { return (event.offset & REMOVED_MARK) != 0; });
  return MD_RC_OK;
}

Answer<bool> DigestLists::isOldest(std::size_t index, std::uint64_t offset) const {
  FrameBytes bytes;
  Frame frame;
  if (const std::uint32_t rc = bytes_.readFrame(offset, bytes, frame)) return {.rc = rc};
  return {.value = frame.previousIn(index) == 0};
}

Answer<std::uint64_t> DigestLists::firstReached(std::size_t index, std::uint64_t from,
                                                std::span<const std::uint64_t> targets,
                                                ReadAllowance& allowance) const {
  FrameBytes bytes;
  Frame frame;
  std::uint64_t above = format::MAX_OFFSET;
  while (!targets.empty() && from >= targets.back()) {
    while (targets.front() > from) targets = targets.subspan(1);
    if (targets.front() == from) return {.value = from};
    if (const std::uint32_t rc = bytes_.readFrameBelow(from, above, bytes, frame)) return {.rc = rc};
    if (const std::uint32_t rc = allowance.charge(frame)) return {.rc = rc};
    above = from;
    from = frame.previousIn(index);
  }
  return {};
}

}  // namespace zon
