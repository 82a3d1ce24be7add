// Tokenized strings on views: the splitting rules of MDStringParser without a copy, and a walk over lists in linear
// time.
//
// The rule: what a field is gets decided in splitText and nowhere else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "zonmdfile/platform/return_codes.h"

namespace zon {

inline constexpr char LIST_SEPARATOR = 0x0E;
inline constexpr std::string_view LIST_TOKEN("\x0E", 1);

// head: what stands before the first token; rest: what follows one byte after the token's start, whatever the token's
// length. Both are the whole source when the token does not occur, and untouched when source or token is empty.
[[nodiscard]] inline std::uint32_t splitText(std::string_view source, std::string_view token, std::string_view& head,
                                             std::string_view& rest) {
  if (source.empty() || token.empty()) return MD_RC_TOKEN_MISSING;
  const std::size_t at = source.find(token);
  head = source.substr(0, at);
  rest = at == std::string_view::npos ? source : source.substr(at + 1);
  return MD_RC_OK;
}

// Field `index` from 1, by `index` splits; the code is that of the last one. Further splits of a text that no longer
// changes give the same again, so a large index costs no more than the number of fields.
[[nodiscard]] inline std::uint32_t parseText(std::string_view source, std::string_view token, unsigned long index,
                                             std::string_view& field) {
  std::string_view head;
  std::string_view rest;
  std::string_view work = source;
  std::uint32_t rc = MD_RC_OK;
  for (unsigned long i = 0; i < index; ++i) {
    rc = splitText(work, token, head, rest);
    const bool isSettled = work.size() == rest.size();
    work = rest;
    if (isSettled) break;
  }
  field = head;
  return rc;
}

// Walks a list entry by entry, giving what parseText gives for the fields 1, 2, 3, ... with the list separator. Behind
// the last entry it goes on giving that entry.
class ListReader {
 public:
  explicit ListReader(std::string_view list) : rest_(list) {}

  // MD_RC_TOKEN_MISSING when the list is used up.
  [[nodiscard]] std::uint32_t next(std::string_view& entry) {
    std::string_view rest = rest_;
    const std::uint32_t rc = splitText(rest_, LIST_TOKEN, entry_, rest);
    rest_ = rest;
    entry = entry_;
    return rc;
  }

 private:
  std::string_view rest_;
  std::string_view entry_;
};

inline std::size_t countEntries(std::string_view list) {
  std::size_t count = 0;
  for (const char byte : list) count += byte == LIST_SEPARATOR ? 1 : 0;
  return count;
}

}  // namespace zon
