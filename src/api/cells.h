// ParameterBlock reads the callers' cells; OutputText carries a text into one.
//
// The rule: a null block, slot or text is allowed everywhere, reads as empty or 0, and is not written; and no cell is
// touched before everything that can fail has been done.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "zonmdfile/platform/DString.h"
#include "zonmdfile/zonmdfile.h"

namespace zon {

class ParameterBlock {
 public:
  explicit ParameterBlock(void** slots) : slots_(slots) {}

  // The text of an input cell as it stands there; may be null.
  const char* text(std::size_t slot) const {
    const auto* cell = at<const zonInputCell>(slot);
    return cell != nullptr ? cell->text : nullptr;
  }
  DString input(std::size_t slot) const { return DString(text(slot)); }

  // An input number or a detail switch.
  std::uint32_t number(std::size_t slot) const {
    const auto* cell = at<const std::uint32_t>(slot);
    return cell != nullptr ? *cell : 0;
  }

  // Where an output goes; null when the caller does not want it.
  zonOutputCell* output(std::size_t slot) const { return at<zonOutputCell>(slot); }

  void putNumber(std::size_t slot, std::int32_t value) const {
    if (auto* cell = at<std::int32_t>(slot)) *cell = value;
  }

  void putCount(std::size_t slot, std::size_t value) const {
    if (auto* cell = at<std::uint32_t>(slot)) *cell = static_cast<std::uint32_t>(value);
  }

  // What the count cell holds now; `count` itself without a cell.
  std::size_t presentCount(std::size_t slot, std::size_t count) const {
    const auto* cell = at<const volatile std::uint32_t>(slot);
    return cell != nullptr ? *cell : count;
  }

 private:
  template <class Cell>
  Cell* at(std::size_t slot) const {
    return slots_ != nullptr ? static_cast<Cell*>(slots_[slot]) : nullptr;
  }

  void** slots_;
};

// A text that is the caller's as soon as it is put into a cell: the receiver releases it with _ossMemFree. What is not
// put anywhere is released here. An empty object holds no text.
class OutputText {
 public:
  OutputText() = default;
  OutputText(OutputText&& other) noexcept
      : text_(std::exchange(other.text_, nullptr)), length_(std::exchange(other.length_, 0)) {}
  OutputText& operator=(OutputText&& other) noexcept {
    std::swap(text_, other.text_);
    std::swap(length_, other.length_);
    return *this;
  }
  ~OutputText();

  // Takes a result over without copying it; false when there is no memory.
  bool take(DString& result, int line = __builtin_LINE());
  // Copies a part of a result; false when there is no memory.
  bool copy(std::string_view text, int line = __builtin_LINE());
  bool copy(const OutputText& other, int line = __builtin_LINE()) { return copy(other.view(), line); }

  // The one place where a cell receives its text. What the cell held before is neither read nor released.
  void putInto(zonOutputCell* cell);

 private:
  std::string_view view() const { return {text_, length_ == 0 ? 0 : length_ - 1U}; }

  char* text_ = nullptr;
  std::uint32_t length_ = 0;  // with the closing NUL
};

}  // namespace zon
