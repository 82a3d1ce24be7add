// How record bytes lie in a frame: long runs of zeros, of which records have many, are counted instead of stored.
//
// Form: a number, the record's size; then, until so many bytes are told: a number n, n literal bytes, and a number of
// zero bytes that follow. Numbers are LEB128: seven bits a byte, lowest first, the top bit set on all but the last
// byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace zon {

// Appends the encoded record to out.
void encodeZeroRuns(std::span<const std::byte> record, std::vector<std::byte>& out);

// Takes an encoded record in pieces of any size and writes the record to a buffer. Any input is safe: what does not fit
// the form, or the buffer, makes feed answer false.
class ZeroRunDecoder {
 public:
  // A record may be longer than the buffer by `room` bytes at the end, which must be zero and are not written.
  explicit ZeroRunDecoder(std::span<std::byte> out, std::size_t room = 0) : out_(out), room_(room) {}

  // Takes the next bytes; what follows a finished record is left alone.
  bool feed(std::span<const std::byte> piece);

  // All of the record has been told.
  bool finished() const { return state_ == State::FINISHED; }

  // So many bytes came behind the finished record, for all that feed took.
  std::size_t padding() const { return padding_; }

  // The record's size; valid once finished.
  std::size_t size() const { return static_cast<std::size_t>(size_); }

 private:
  enum class State { SIZE, LITERAL_COUNT, LITERALS, ZERO_COUNT, FINISHED };

  bool takeNumber(std::uint8_t next, std::uint64_t& number);
  bool numberDone(std::uint64_t number);
  void clear(std::uint64_t count);

  std::span<std::byte> out_;
  std::size_t room_;
  State state_ = State::SIZE;
  std::uint64_t size_ = 0;
  std::uint64_t written_ = 0;
  std::uint64_t literals_ = 0;
  std::uint64_t number_ = 0;
  std::size_t padding_ = 0;
  unsigned shift_ = 0;
};

}  // namespace zon
