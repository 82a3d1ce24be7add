// The form told in zero_runs.h.
#include "platform/registry/format/zero_runs.h"

#include <algorithm>
#include <cstring>

namespace zon {

namespace {

// A shorter run costs more to count than to store.
constexpr std::size_t SHORTEST_RUN = 4;

void appendNumber(std::uint64_t number, std::vector<std::byte>& out) {
  while (number >= 0x80) {
    out.push_back(static_cast<std::byte>((number & 0x7F) | 0x80));
    number >>= 7;
  }
  out.push_back(static_cast<std::byte>(number));
}

// The length of the run of zeros that starts at `from`.
std::size_t zerosFrom(std::span<const std::byte> record, std::size_t from) {
  std::size_t at = from;
  for (std::uint64_t word = 0; at + sizeof word <= record.size(); at += sizeof word) {
    std::memcpy(&word, &record[at], sizeof word);
    if (word != 0) break;
  }
  while (at < record.size() && record[at] == std::byte{0}) ++at;
  return at - from;
}

// The start of the next run of zeros worth counting at or after `from`; the record's size when there is none.
std::size_t nextRun(std::span<const std::byte> record, std::size_t from, std::size_t& length) {
  while (from < record.size()) {
    const void* zero = std::memchr(&record[from], 0, record.size() - from);
    if (zero == nullptr) break;
    const auto start = static_cast<std::size_t>(static_cast<const std::byte*>(zero) - record.data());
    length = zerosFrom(record, start);
    if (length >= SHORTEST_RUN || start + length == record.size()) return start;
    from = start + length;
  }
  length = 0;
  return record.size();
}

}  // namespace

void encodeZeroRuns(std::span<const std::byte> record, std::vector<std::byte>& out) {
  appendNumber(record.size(), out);
  std::size_t at = 0;
  while (at < record.size()) {
    std::size_t zeros = 0;
    const std::size_t run = nextRun(record, at, zeros);
    appendNumber(run - at, out);
    out.insert(out.end(), record.begin() + static_cast<std::ptrdiff_t>(at),
               record.begin() + static_cast<std::ptrdiff_t>(run));
    appendNumber(zeros, out);
    at = run + zeros;
  }
}

// Complete when shift_ is 0 again.
bool ZeroRunDecoder::takeNumber(std::uint8_t next, std::uint64_t& number) {
  number_ |= std::uint64_t{next & 0x7Fu} << shift_;
  shift_ += 7;
  if (next >= 0x80) return shift_ < 42;  // no record is that large
  number = number_;
  number_ = 0;
  shift_ = 0;
  return true;
}

void ZeroRunDecoder::clear(std::uint64_t count) {
  if (written_ >= out_.size()) return;
  std::memset(out_.data() + written_, 0, static_cast<std::size_t>(std::min(count, out_.size() - written_)));
}

bool ZeroRunDecoder::numberDone(std::uint64_t number) {
  switch (state_) {
    case State::SIZE:
      if (number > out_.size() + room_) return false;
      size_ = number;
      state_ = size_ == 0 ? State::FINISHED : State::LITERAL_COUNT;
      return true;
    case State::LITERAL_COUNT:
      if (number > size_ - written_ || written_ + number > out_.size()) return false;
      literals_ = number;
      state_ = number == 0 ? State::ZERO_COUNT : State::LITERALS;
      return true;
    default:
      if (number > size_ - written_ || (number == 0 && literals_ == 0)) return false;
      clear(number);
      written_ += number;
      state_ = written_ == size_ ? State::FINISHED : State::LITERAL_COUNT;
      return true;
  }
}

bool ZeroRunDecoder::feed(std::span<const std::byte> piece) {
  std::uint64_t copied = 0;
  while (!piece.empty() && state_ != State::FINISHED) {
    if (state_ == State::LITERALS) {
      const std::uint64_t remaining = number_ == 0 ? literals_ : number_;
      copied = std::min<std::uint64_t>(remaining, piece.size());
      std::memcpy(out_.data() + written_, piece.data(), static_cast<std::size_t>(copied));
      written_ += copied;
      piece = piece.subspan(static_cast<std::size_t>(copied));
      number_ = remaining - copied;
      if (number_ == 0) state_ = State::ZERO_COUNT;
      continue;
    }
    const auto next = static_cast<std::uint8_t>(piece.front());
    piece = piece.subspan(1);
    // Most numbers are a byte.
    std::uint64_t number = next;
    if ((next >= 0x80 || shift_ != 0) && !takeNumber(next, number)) return false;
    if (shift_ == 0 && !numberDone(number)) return false;
  }
  padding_ += piece.size();
  return true;
}

}  // namespace zon
