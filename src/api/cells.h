// ParameterBlock reads the callers' cells; OutputText carries a text into one; Provisional takes back what was written
// into one before the call was sure of success.
//
// The rule: a null block, slot or text is allowed everywhere, reads as empty or 0, and is not written; and a call that
// fails leaves every cell as it was. Cells may overlap, at any address: what is written is seen by what is read next,
// so they are read and written as bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
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
  std::uint32_t number(std::size_t slot) const { return numberOr(slot, 0); }

  // Where an output goes; null when the caller does not want it.
  zonOutputCell* output(std::size_t slot) const { return at<zonOutputCell>(slot); }
  std::uint32_t* count(std::size_t slot) const { return at<std::uint32_t>(slot); }

  void putNumber(std::size_t slot, std::int32_t value) const {
    if (auto* cell = at<std::int32_t>(slot)) std::memcpy(cell, &value, sizeof value);
  }

  void putCount(std::size_t slot, std::size_t value) const {
    putNumber(slot, static_cast<std::int32_t>(static_cast<std::uint32_t>(value)));
  }

  // What the count cell holds now; `count` itself without a cell.
  std::size_t presentCount(std::size_t slot, std::size_t count) const {
    return at<std::uint32_t>(slot) != nullptr ? numberOr(slot, 0) : count;
  }

 private:
  template <class Cell>
  Cell* at(std::size_t slot) const {
    return slots_ != nullptr ? static_cast<Cell*>(slots_[slot]) : nullptr;
  }

  [[nodiscard]] std::uint32_t numberOr(std::size_t slot, std::uint32_t value) const {
    if (const auto* cell = at<const std::uint32_t>(slot)) std::memcpy(&value, cell, sizeof value);
    return value;
  }

  void** slots_;
};

// The bytes of a cell as they were when this was made come back at its end, unless keep() says that the call succeeded.
template <class Cell>
class Provisional {
 public:
  explicit Provisional(Cell* cell) : cell_(cell) {
    if (cell_ != nullptr) std::memcpy(&before_, cell_, sizeof before_);
  }
  ~Provisional() {
    if (cell_ != nullptr) std::memcpy(cell_, &before_, sizeof before_);
  }
  Provisional(const Provisional&) = delete;
  Provisional& operator=(const Provisional&) = delete;

  void keep() { cell_ = nullptr; }

 private:
  Cell* cell_;
  Cell before_{};
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

  // The one place where a cell receives its text. What the cell held before is neither read nor released. The text
  // stays this object's until it is given away.
  void showIn(zonOutputCell* cell) const;
  void giveAway() {
    text_ = nullptr;
    length_ = 0;
  }
  // Both in one, for a cell that there is.
  void putInto(zonOutputCell* cell) {
    if (cell == nullptr) return;
    showIn(cell);
    giveAway();
  }

 private:
  std::string_view view() const { return {text_, length_ == 0 ? 0 : length_ - 1U}; }

  char* text_ = nullptr;
  std::uint32_t length_ = 0;  // with the closing NUL
};

}  // namespace zon
