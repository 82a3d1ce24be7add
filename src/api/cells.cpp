// The way of a text into an output cell.
//
// The rule: every text that callers receive is labelled with the name that they know the boundary by.
#include "api/cells.h"

#include <cstring>

#include "zonmdfile/platform/oss.h"

namespace zon {

namespace {

constexpr const char* SOURCE = "MDRegFactory";

}  // namespace

OutputText::~OutputText() {
  void* text = text_;
  _ossMemFree(&text, 0, 0, SOURCE, __builtin_LINE());
}

bool OutputText::take(DString& result, int line) {
  if (result.isEmpty()) return copy(std::string_view(), line);
  const std::size_t length = result.length() + 1;
  OutputText taken;
  taken.text_ = result.release(SOURCE, static_cast<std::uint32_t>(line));
  if (taken.text_ == nullptr) return false;
  taken.length_ = static_cast<std::uint32_t>(length);
  *this = std::move(taken);
  return true;
}

bool OutputText::copy(std::string_view text, int line) {
  void* buffer = nullptr;
  if (_ossMemAlloc(&buffer, 0, text.size() + 1, 1, SOURCE, static_cast<std::uint32_t>(line)) != 0) return false;
  if (!text.empty()) std::memcpy(buffer, text.data(), text.size());
  OutputText copied;
  copied.text_ = static_cast<char*>(buffer);
  copied.length_ = static_cast<std::uint32_t>(text.size() + 1);
  *this = std::move(copied);
  return true;
}

// Member by member: what lies between them may be another cell.
void OutputText::showIn(zonOutputCell* cell) const {
  std::memcpy(&cell->length, &length_, sizeof length_);
  std::memcpy(&cell->text, &text_, sizeof text_);
}

}  // namespace zon
