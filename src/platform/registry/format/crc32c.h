// CRC-32C (Castagnoli polynomial 0x1EDC6F41, reflected; the checksum of iSCSI, RFC 3720 section 12.1).
#pragma once

#include <cstddef>
#include <cstdint>

namespace zon {

// Continues a checksum over further bytes: crc32c(crc32c(0, a), b) is the checksum of a followed by b.
std::uint32_t crc32c(std::uint32_t crc, const void* data, std::size_t size);

// The same by table look-up, for machines without the instruction and for tests of the other.
std::uint32_t crc32cByTable(std::uint32_t crc, const void* data, std::size_t size);

}  // namespace zon
