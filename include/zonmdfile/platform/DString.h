/*
 * DString (libzoncmncoll): the string class of the whole system. The rule: a string is its stored bytes. A NUL is a
 * byte like any other, comparison is by bytes, lengths count bytes, and positions are counted from 1.
 */
#ifndef ZONMDFILE_PLATFORM_DSTRING_H
#define ZONMDFILE_PLATFORM_DSTRING_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

#include "zonmdfile/platform/DBuffer.h"
#include "zonmdfile/platform/export.h"

/*
 * An object belongs to one thread at a time. Whatever needs memory throws std::bad_alloc when there is none and leaves
 * the string as it was. An argument may be, or point into, the string that is being changed. A null `const char*`
 * counts as the empty text everywhere.
 */
class ZON_EXPORT DString {
 public:
  /* As a length: up to the end of the string. */
  static constexpr std::size_t TO_END = static_cast<std::size_t>(-1);

  /* The empty string; allocates nothing. */
  DString() noexcept {}
  DString(const char* text) { append(toView(text)); }
  explicit DString(char character) { append(&character, 1); }
  /* The `count` bytes at `bytes`, NUL or not; null only with count 0. */
  DString(const char* bytes, std::size_t count) : buffer_(bytes, count) {}
  explicit DString(std::string_view text) : buffer_(text.data(), text.size()) {}
  DString(const DString&) = default;
  DString(DString&&) noexcept = default; /* leaves the empty string behind */
  DString& operator=(const DString&) = default;
  DString& operator=(DString&&) noexcept = default;
  DString& operator=(const char* text) { return assign(toView(text)); }
  ~DString() = default;

  /* In bytes, the stored ones: a NUL among them counts. */
  std::size_t length() const noexcept { return buffer_.length(); }
  bool isEmpty() const noexcept { return buffer_.length() == 0; }
  /* Never null; a NUL stands behind the last byte. Valid until the string is changed. */
  const char* c_str() const noexcept { return buffer_.data(); }
  /* The stored bytes, valid until the string is changed. */
  std::string_view view() const noexcept { return {buffer_.data(), buffer_.length()}; }
  operator std::string_view() const noexcept { return view(); }

  /* All of these add at the end, in amortised constant time for each byte. */
  DString& append(const char* bytes, std::size_t count) {
    buffer_.append(bytes, count);
    return *this;
  }
  DString& append(std::string_view text) { return append(text.data(), text.size()); }
  DString& operator+=(const DString& text) { return append(text.view()); }
  DString& operator+=(const char* text) { return append(toView(text)); }
  DString& operator+=(char character) { return append(&character, 1); }

  DString& assign(std::string_view text) {
    buffer_.assign(text.data(), text.size());
    return *this;
  }

  /* Makes room for a length of `count` bytes, so that appending up to there allocates nothing. */
  void reserve(std::size_t count) { buffer_.reserve(count); }
  /* Makes the string empty and keeps its room. */
  void clear() noexcept { buffer_.clear(); }

  /*
   * The bytes from `position`, at most `count` of them and none beyond the end. A position that the string does not
   * have (0, or beyond the end) gives the empty string.
   */
  DString subString(std::size_t position, std::size_t count = TO_END) const;

  /*
   * The position of the first occurrence of `text` that begins at `start` or later; 0 when there is none. The empty
   * text occurs nowhere, and nothing is found from a start that the string does not have.
   */
  std::size_t indexOf(std::string_view text, std::size_t start = 1) const noexcept;
  std::size_t indexOf(const char* text, std::size_t start = 1) const noexcept { return indexOf(toView(text), start); }
  std::size_t indexOf(char character, std::size_t start = 1) const noexcept {
    return indexOf(std::string_view(&character, 1), start);
  }

  /*
   * How often `text` occurs from `start` on. Occurrences do not overlap: the search goes on behind the one found, so
   * that "aaaa" holds "aa" twice. The empty text occurs nowhere.
   */
  std::size_t occurrencesOf(std::string_view text, std::size_t start = 1) const noexcept;
  std::size_t occurrencesOf(const char* text, std::size_t start = 1) const noexcept {
    return occurrencesOf(toView(text), start);
  }
  std::size_t occurrencesOf(char character, std::size_t start = 1) const noexcept {
    return occurrencesOf(std::string_view(&character, 1), start);
  }

  /*
   * Takes out `count` bytes from `position`, none beyond the end. Nothing happens at a position that the string does
   * not have.
   */
  DString& remove(std::size_t position, std::size_t count = TO_END) noexcept;

  /*
   * Hands the text over without copying it: a block of the memory service with length() + 1 bytes, the last a NUL,
   * which the receiver releases with _ossMemFree and which is counted under (file, line) from now on. The string is
   * empty afterwards. Null when it was empty before; null, with the string as it was, when the memory service refuses.
   */
  [[nodiscard]] char* release(const char* file, std::uint32_t line) noexcept { return buffer_.release(file, line); }

 private:
  static std::string_view toView(const char* text) noexcept {
    return text != nullptr ? std::string_view(text) : std::string_view();
  }

  DBuffer buffer_;
};

inline DString operator+(DString left, const DString& right) {
  left += right;
  return left;
}
inline DString operator+(DString left, const char* right) {
  left += right;
  return left;
}
inline DString operator+(DString left, char right) {
  left += right;
  return left;
}
inline DString operator+(const char* left, const DString& right) { return DString(left) + right; }
inline DString operator+(char left, const DString& right) { return DString(left) + right; }

inline bool operator==(const DString& left, const DString& right) noexcept { return left.view() == right.view(); }
inline bool operator==(const DString& left, const char* right) noexcept {
  return left.view() == (right != nullptr ? std::string_view(right) : std::string_view());
}
inline bool operator==(const char* left, const DString& right) noexcept { return right == left; }
inline bool operator!=(const DString& left, const DString& right) noexcept { return !(left == right); }
inline bool operator!=(const DString& left, const char* right) noexcept { return !(left == right); }
inline bool operator!=(const char* left, const DString& right) noexcept { return !(right == left); }

template <>
struct std::hash<DString> {
  std::size_t operator()(const DString& text) const noexcept { return std::hash<std::string_view>()(text.view()); }
};

#endif
