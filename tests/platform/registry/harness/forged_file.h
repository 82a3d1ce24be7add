// Record files that somebody made to do harm: every number in them can be changed, and all checksums are right again
// afterwards. Two ways to make one: ForgedFile changes a file that the engine wrote, ForgedLog puts one together.
#pragma once

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <span>
#include <vector>

#include "platform/registry/format/format.h"
#include "platform/registry/format/frame.h"
#include "platform/registry/log/file_header.h"

namespace zon::test {

using FileBytes = std::vector<std::byte>;

FileBytes contentOf(const std::filesystem::path& path);
void putContent(const std::filesystem::path& path, const FileBytes& bytes);

// Numbers without a pattern, the same for the same seed.
class Dice {
 public:
  explicit Dice(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next();
  // One of [0, count).
  std::uint64_t below(std::uint64_t count) { return count == 0 ? 0 : next() % count; }

 private:
  std::uint64_t state_;
};

class ForgedFile {
 public:
  // Finds out what lies where; of a file that is not intact, as far as it is.
  ForgedFile(FileBytes bytes, std::size_t indexCount);

  const FileBytes& bytes() const { return bytes_; }
  format::FileHeader header() const;
  format::Slot slot(std::size_t number) const;
  std::size_t newestSlot() const { return slot(1).sequence > slot(0).sequence ? 1 : 0; }
  const std::vector<Frame>& frames() const { return frames_; }

  // Each stores without making any checksum right.
  void setHeader(const format::FileHeader& header);
  void setSlot(std::size_t number, const format::Slot& slot);
  template <class T>
  void set(std::size_t at, const T& value) {
    if (at + sizeof value <= bytes_.size()) std::memcpy(bytes_.data() + at, &value, sizeof value);
  }

  // Makes every checksum and the chain of frames right, for the places of things as they were found.
  void seal();

  // Changes one number to one that may do harm, anywhere; seals, most of the time. False when what was changed is
  // what a record holds, so that nobody can tell what is right.
  bool mutate(Dice& dice);

 private:
  std::uint64_t harmfulNumber(Dice& dice) const;
  void mutateHeader(Dice& dice);
  void mutateSlot(Dice& dice);
  void mutateFrame(Dice& dice);
  void mutatePayload(Dice& dice);
  void mutateBlock(Dice& dice);
  void mutateLength(Dice& dice);
  void sealFrames(std::uint32_t salt);
  void sealBlocks(std::uint32_t salt);

  template <class T>
  T get(std::size_t at) const {
    T value{};
    if (at + sizeof value <= bytes_.size()) std::memcpy(&value, bytes_.data() + at, sizeof value);
    return value;
  }

  FileBytes bytes_;
  std::size_t indexCount_;
  std::vector<Frame> frames_;
  std::vector<std::uint64_t> blocks_;
};

class ForgedLog {
 public:
  ForgedLog(const format::FileHeader& header, std::size_t indexCount);

  std::uint64_t end() const { return bytes_.size(); }
  const FrameKey& key() const { return key_; }

  // Appends a frame with this kind, links and body at the end, as a commit of its own; answers its offset.
  std::uint64_t append(Frame frame, std::span<const std::byte> payload);
  // Appends an area of empty blocks and makes it a segment; answers the offset of its first block.
  std::uint64_t appendArea(std::uint64_t blocks);
  void setBlock(std::uint64_t offset, format::Block block);
  void lead(std::size_t index, std::uint64_t digest, std::uint64_t offset);
  // The bytes of the log, for those who lay frames into frames.
  FileBytes& bytes() { return bytes_; }
  void setChain(std::uint32_t crc) { slot_.chain = crc; }
  format::Slot& slot() { return slot_; }

  // The whole file: the header page publishes the log up to `end`, or all of it.
  FileBytes file(std::uint64_t end = 0) const;

 private:
  format::FileHeader header_;
  FrameKey key_;
  format::Slot slot_{};
  FileBytes bytes_;
};

}  // namespace zon::test
