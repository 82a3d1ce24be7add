// Call: one call of an entry point as its callers make it, through a parameter block of cells.
//
// The rule: output cells start with a mark in length and text, so that a test sees whether they were touched.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "zonmdfile/platform/oss.h"
#include "zonmdfile/zonmdfile.h"

namespace zontest {

using EntryPoint = void (*)(void*, void**, struct sqlca*);

class Call {
 public:
  static constexpr std::uint32_t MARK_LENGTH = 4711;
  static constexpr std::uint32_t MARK_NUMBER = 0x5A5A5A5A;
  static constexpr unsigned char MARK_BYTE = 0x7F;

  Call() = default;
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call() { releaseOutputs(); }

  // Each adds the next slot.
  Call& in(const std::string& text) { return add(Slot{.kind = Kind::IN, .text = text}); }
  Call& inNull() { return add(Slot{.kind = Kind::IN, .isNull = true}); }
  Call& out() { return add(Slot{.kind = Kind::OUT}); }
  Call& rc() { return add(Slot{.kind = Kind::NUMBER, .number = MARK_NUMBER}); }
  Call& number(std::uint32_t value = MARK_NUMBER) { return add(Slot{.kind = Kind::NUMBER, .number = value}); }
  Call& null() { return add(Slot{.kind = Kind::NONE}); }
  // The same number cell as an earlier slot.
  Call& sameAs(std::size_t slot) { return add(Slot{.kind = Kind::ALIAS, .alias = slot}); }

  // The parameter block, for a test that makes the call itself.
  std::vector<void*> block() {
    std::vector<void*> block;
    for (Slot& slot : slots_) block.push_back(addressOf(slot));
    return block;
  }

  Call& run(EntryPoint entryPoint, void* reserved = nullptr) {
    std::vector<void*> block = this->block();
    std::memset(&sqlca_, MARK_BYTE, sizeof sqlca_);
    entryPoint(reserved, block.data(), &sqlca_);
    return *this;
  }

  const struct sqlca& sqlca() const { return sqlca_; }
  std::int32_t sqlcode() const { return sqlca_.sqlcode; }
  std::string message() const { return {sqlca_.sqlerrmc, static_cast<std::size_t>(sqlca_.sqlerrml)}; }
  std::string warnings() const { return {sqlca_.sqlwarn, sizeof sqlca_.sqlwarn}; }
  std::int32_t rcCell(std::size_t slot) const { return static_cast<std::int32_t>(slots_[slot].number); }
  std::uint32_t numberAt(std::size_t slot) const { return slots_[slot].number; }

  // The text of an output; the length must count it with its NUL.
  std::string textAt(std::size_t slot) const {
    const zonOutputCell& cell = slots_[slot].output;
    if (isUntouched(slot)) return "<untouched>";
    if (cell.text == mark()) return "<length without a text>";
    if (cell.text == nullptr) return "<null>";
    const std::size_t length = ::strnlen(cell.text, cell.length);
    return length + 1 == cell.length ? std::string(cell.text, length) : "<wrong length>";
  }
  const zonOutputCell& cellAt(std::size_t slot) const { return slots_[slot].output; }

  bool isUntouched(std::size_t slot) const {
    const zonOutputCell& cell = slots_[slot].output;
    return cell.length == MARK_LENGTH && cell.text == mark();
  }

  bool areOutputsUntouched() const {
    for (std::size_t i = 0; i < slots_.size(); ++i) {
      if (slots_[i].kind == Kind::OUT && !isUntouched(i)) return false;
    }
    return true;
  }

  // Every byte of the SQLCA is as it was before the call.
  bool isSqlcaUntouched() const {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&sqlca_);
    return std::all_of(bytes, bytes + sizeof sqlca_, [](unsigned char byte) { return byte == MARK_BYTE; });
  }

  std::size_t slotCount() const { return slots_.size(); }
  std::size_t outputCount() const {
    std::size_t count = 0;
    for (const Slot& slot : slots_) count += slot.kind == Kind::OUT ? 1 : 0;
    return count;
  }

  // Releases what the caller was given, as a caller does, and marks the cells anew.
  void releaseOutputs() {
    for (Slot& slot : slots_) {
      if (slot.kind != Kind::OUT || slot.output.text == mark()) continue;
      void* text = slot.output.text;
      _ossMemFree(&text, 0, 0, "test", 0);
      slot.output = {MARK_LENGTH, mark()};
    }
  }

 private:
  enum class Kind : std::uint8_t { IN, OUT, NUMBER, ALIAS, NONE };
  struct Slot {
    Kind kind;
    std::string text{};
    bool isNull = false;
    std::uint32_t number = 0;
    std::size_t alias = 0;
    zonInputCell input{};
    zonOutputCell output{MARK_LENGTH, mark()};
  };

  static char* mark() {
    static char marked[] = "the caller's own";
    return marked;
  }

  Call& add(Slot slot) {
    slots_.push_back(std::move(slot));
    return *this;
  }

  void* addressOf(Slot& slot) {
    switch (slot.kind) {
      case Kind::IN:
        slot.input = {99, slot.isNull ? nullptr : slot.text.c_str()};
        return &slot.input;
      case Kind::OUT:
        return &slot.output;
      case Kind::NUMBER:
        return &slot.number;
      case Kind::ALIAS:
        return &slots_[slot.alias].number;
      case Kind::NONE:
        return nullptr;
    }
    return nullptr;
  }

  std::deque<Slot> slots_;
  struct sqlca sqlca_ {};
};

}  // namespace zontest
