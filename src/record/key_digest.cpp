// The hash behind the index of record files.
//
// The rule: its results are on disk, the same on every machine; tests hold them against published vectors.
#include "record/key_digest.h"

#include <bit>
#include <cstring>

namespace zon {

namespace {

struct SipState {
  std::uint64_t v0;
  std::uint64_t v1;
  std::uint64_t v2;
  std::uint64_t v3;

  SipState(std::uint64_t key0, std::uint64_t key1)
      : v0(key0 ^ 0x736F'6D65'7073'6575),
        v1(key1 ^ 0x646F'7261'6E64'6F6D),
        v2(key0 ^ 0x6C79'6765'6E65'7261),
        v3(key1 ^ 0x7465'6462'7974'6573) {}

  void round() {
    v0 += v1;
    v1 = std::rotl(v1, 13) ^ v0;
    v0 = std::rotl(v0, 32);
    v2 += v3;
    v3 = std::rotl(v3, 16) ^ v2;
    v0 += v3;
    v3 = std::rotl(v3, 21) ^ v0;
    v2 += v1;
    v1 = std::rotl(v1, 17) ^ v2;
    v2 = std::rotl(v2, 32);
  }

  void compress(std::uint64_t word) {
    v3 ^= word;
    round();
    v0 ^= word;
  }

  std::uint64_t finish() {
    v2 ^= 0xFF;
    round();
    round();
    round();
    return v0 ^ v1 ^ v2 ^ v3;
  }
};

std::uint64_t loadWord(const unsigned char* bytes, std::size_t count) {
  std::uint64_t word = 0;
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(&word, bytes, count);
  } else {
    for (std::size_t i = 0; i < count; ++i) word |= static_cast<std::uint64_t>(bytes[i]) << (8 * i);
  }
  return word;
}

}  // namespace

std::uint64_t sipHash13(std::uint64_t key0, std::uint64_t key1, const void* input, std::size_t length) {
  constexpr std::size_t WORD = sizeof(std::uint64_t);
  const auto* bytes = static_cast<const unsigned char*>(input);
  SipState state(key0, key1);
  std::size_t at = 0;
  for (; at + WORD <= length; at += WORD) state.compress(loadWord(bytes + at, WORD));
  state.compress(loadWord(bytes + at, length - at) | static_cast<std::uint64_t>(length) << 56);
  return state.finish();
}

void KeyDigest::add(std::string_view text) {
  std::memcpy(input_ + length_, text.data(), text.size());
  length_ += text.size();
  input_[length_++] = '\0';
}

std::uint64_t KeyDigest::finish() const { return sipHash13(seed_, seed_ ^ SEED_COMPLEMENT, input_, length_); }

}  // namespace zon
