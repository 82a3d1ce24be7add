// Searching and cutting strings. The rule: positions that callers give are counted from 1, those inside from 0, and the
// step between the two is made first and last in each function.
#include "zonmdfile/platform/DString.h"

#include <algorithm>

namespace {

bool isPositionIn(std::string_view text, std::size_t position) { return position >= 1 && position <= text.size(); }

}  // namespace

DString DString::subString(std::size_t position, std::size_t count) const {
  const std::string_view text = view();
  return isPositionIn(text, position) ? DString(text.substr(position - 1, count)) : DString();
}

std::size_t DString::indexOf(std::string_view text, std::size_t start) const noexcept {
  if (text.empty() || !isPositionIn(view(), start)) return 0;
  const std::size_t offset = view().find(text, start - 1);
  return offset != std::string_view::npos ? offset + 1 : 0;
}

std::size_t DString::occurrencesOf(std::string_view text, std::size_t start) const noexcept {
  if (text.empty() || !isPositionIn(view(), start)) return 0;
  const std::string_view searched = view().substr(start - 1);
  if (text.size() == 1) return static_cast<std::size_t>(std::count(searched.begin(), searched.end(), text.front()));
  std::size_t count = 0;
  for (std::size_t offset = searched.find(text); offset != std::string_view::npos;
       offset = searched.find(text, offset + text.size())) {
    ++count;
  }
  return count;
}

DString& DString::remove(std::size_t position, std::size_t count) noexcept {
  if (isPositionIn(view(), position)) buffer_.erase(position - 1, count);
  return *this;
}
