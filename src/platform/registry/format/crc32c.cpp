// CRC-32C by the processor's instruction where there is one, else eight bytes at a time from tables.
//
// The instruction takes three cycles and could be started in each of them: three stretches of a longer text are
// computed side by side. As the checksum is linear, what stands before so many bytes is brought behind them by a table.
#include "platform/registry/format/crc32c.h"

#include <array>
#include <cstring>

namespace zon {

namespace {

constexpr std::uint32_t POLYNOMIAL = 0x82F63B78;

using Tables = std::array<std::array<std::uint32_t, 256>, 8>;

constexpr Tables makeTables() {
  Tables tables{};
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    std::uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? POLYNOMIAL : 0);
    tables[0][byte] = crc;
  }
  for (std::size_t table = 1; table < tables.size(); ++table) {
    for (std::size_t byte = 0; byte < 256; ++byte) {
      const std::uint32_t before = tables[table - 1][byte];
      tables[table][byte] = (before >> 8) ^ tables[0][before & 0xFF];
    }
  }
  return tables;
}

constexpr Tables TABLES = makeTables();

#if defined(__x86_64__)
constexpr std::size_t STRETCH = 64;

using Shift = std::array<std::array<std::uint32_t, 256>, 4>;

// What so many zero bytes make of each byte of a state.
constexpr Shift makeShift(std::size_t zeros) {
  std::array<std::uint32_t, 32> ofBit{};
  for (std::size_t bit = 0; bit < 32; ++bit) {
    std::uint32_t state = std::uint32_t{1} << bit;
    for (std::size_t zero = 0; zero < zeros; ++zero) state = (state >> 8) ^ TABLES[0][state & 0xFF];
    ofBit[bit] = state;
  }
  Shift shift{};
  for (std::size_t place = 0; place < 4; ++place) {
    for (std::size_t byte = 0; byte < 256; ++byte) {
      for (std::size_t bit = 0; bit < 8; ++bit) {
        if ((byte >> bit & 1) != 0) shift[place][byte] ^= ofBit[place * 8 + bit];
      }
    }
  }
  return shift;
}

constexpr Shift OVER_ONE = makeShift(STRETCH);
constexpr Shift OVER_TWO = makeShift(2 * STRETCH);

std::uint32_t shifted(const Shift& shift, std::uint64_t state) {
  return shift[0][state & 0xFF] ^ shift[1][state >> 8 & 0xFF] ^ shift[2][state >> 16 & 0xFF] ^ shift[3][state >> 24];
}

std::uint64_t wordAt(const unsigned char* bytes) {
  std::uint64_t word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

__attribute__((target("sse4.2"))) std::uint32_t crc32cByInstruction(std::uint32_t crc, const void* data,
                                                                    std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::uint64_t state = static_cast<std::uint32_t>(~crc);
  for (; size >= 3 * STRETCH; size -= 3 * STRETCH, bytes += 3 * STRETCH) {
    std::uint64_t second = 0;
    std::uint64_t third = 0;
    for (std::size_t at = 0; at < STRETCH; at += 8) {
      state = __builtin_ia32_crc32di(state, wordAt(bytes + at));
      second = __builtin_ia32_crc32di(second, wordAt(bytes + STRETCH + at));
      third = __builtin_ia32_crc32di(third, wordAt(bytes + 2 * STRETCH + at));
    }
    state = shifted(OVER_TWO, state) ^ shifted(OVER_ONE, second) ^ third;
  }
  for (; size >= 32; size -= 32, bytes += 32) {
    for (std::size_t at = 0; at < 32; at += 8) state = __builtin_ia32_crc32di(state, wordAt(bytes + at));
  }
  for (; size >= 8; size -= 8, bytes += 8) state = __builtin_ia32_crc32di(state, wordAt(bytes));
  auto state32 = static_cast<std::uint32_t>(state);
  for (; size > 0; --size, ++bytes) state32 = __builtin_ia32_crc32qi(state32, *bytes);
  return ~state32;
}
#endif

}  // namespace

std::uint32_t crc32cByTable(std::uint32_t crc, const void* data, std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::uint32_t state = ~crc;
  for (; size >= 8; size -= 8, bytes += 8) {
    std::uint32_t low;
    std::uint32_t high;
    std::memcpy(&low, bytes, 4);
    std::memcpy(&high, bytes + 4, 4);
    low ^= state;
    state = TABLES[7][low & 0xFF] ^ TABLES[6][(low >> 8) & 0xFF] ^ TABLES[5][(low >> 16) & 0xFF] ^
            TABLES[4][low >> 24] ^ TABLES[3][high & 0xFF] ^ TABLES[2][(high >> 8) & 0xFF] ^
            TABLES[1][(high >> 16) & 0xFF] ^ TABLES[0][high >> 24];
  }
  for (; size > 0; --size, ++bytes) state = (state >> 8) ^ TABLES[0][(state ^ *bytes) & 0xFF];
  return ~state;
}

std::uint32_t crc32c(std::uint32_t crc, const void* data, std::size_t size) {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("sse4.2")) return crc32cByInstruction(crc, data, size);
#endif
  return crc32cByTable(crc, data, size);
}

}  // namespace zon
