// What engines know of the records of one file: the record type's callbacks and the field sets it is indexed by.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/registry/format/format.h"
#include "zonmdfile/platform/GenRegBase.h"
#include "zonmdfile/platform/return_codes.h"

namespace zon {

// A record may be longer than the record type's maximum by so many bytes, if those are zero. They are not copied out:
// the caller's buffer is made for the maximum.
constexpr std::size_t RECORD_ROOM = 8;
constexpr std::size_t STORE_NAME_SIZE = 64;

struct RecordType {
  GenRegBase::MatchCallback match = nullptr;
  GenRegBase::ValidateCallback validate = nullptr;
  GenRegBase::SizeCallback recordSize = nullptr;
  GenRegBase::DigestCallback digest = nullptr;
  std::size_t maxSize = 0;
  // What the record file is called: one of another store under this name is not ours. Filled up with NULs.
  std::array<char, STORE_NAME_SIZE> store{};
  std::array<std::uint8_t, GenRegBase::MAX_INDEXES> indexFlags{};
  std::size_t indexCount = 1;

  // `path` is the record file's, of which only the last component counts.
  void setStore(std::string_view path) {
    store = {};
    path.substr(path.rfind('/') + 1).copy(store.data(), store.size() - 1);
  }
  // The callbacks take void* for what they only read.
  bool matches(unsigned long flags, const void* key, const void* record) const {
    return match(flags, const_cast<void*>(record), const_cast<void*>(key)) == 1;
  }

  // What the record's own fields tell of its size; 0 when they tell nothing.
  std::size_t sizeOf(const void* record) const {
    unsigned long size = 0;
    return recordSize(const_cast<void*>(record), &size) == 0 ? size : 0;
  }

  // Whether the record may be stored, by its own size and by what the record type says; `flags` are those of Add, 0 for
  // Change.
  [[nodiscard]] std::uint32_t check(unsigned long flags, const void* record, std::size_t& size) const {
    size = sizeOf(record);
    if (size == 0 || size > maxSize + RECORD_ROOM) return GENREG_RC_BAD_RECORD;
    const auto* bytes = static_cast<const std::byte*>(record);
    const bool fits =
        std::all_of(bytes + std::min(size, maxSize), bytes + size, [](std::byte byte) { return byte == std::byte{0}; });
    return fits && validate(flags, const_cast<void*>(record)) == 0 ? MD_RC_OK : GENREG_RC_BAD_RECORD;
  }

  // Each index has digests of its own: the same text as a group and as a key must not meet in one list.
  std::uint64_t digestFor(std::size_t index, const void* record, std::uint64_t seed) const {
    return digest(indexFlags[index], record, seed + index * format::GOLDEN_RATIO);
  }

  // The index that narrows a question the most; indexCount when none of them may be used for it.
  std::size_t bestIndex(unsigned long flags) const {
    std::size_t best = indexCount;
    int bits = 0;
    for (std::size_t index = 0; index < indexCount; ++index) {
      const unsigned long fields = indexFlags[index];
      if (fields != 0 && (fields & flags) == fields && std::popcount(fields) > bits) {
        best = index;
        bits = std::popcount(fields);
      }
    }
    return best;
  }
};

}  // namespace zon
