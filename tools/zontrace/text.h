// Words for numbers: function names, return values, times, and untrusted bytes made fit for a terminal or for JSON.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zontrace {

// The function's name, or "function <number>" for one that this release does not know.
std::string functionName(std::uint32_t point);

// "0", "31004 MD_RC_KEY_EMPTY", "SQLCODE -22273": the return value as its function means it.
std::string resultText(std::uint32_t point, std::uint32_t result);

// The name of the return code, or empty when the value is none or has no name.
std::string resultName(std::uint32_t point, std::uint32_t result);

// The return value as a number: SQLCODEs are signed.
std::int64_t resultNumber(std::uint32_t point, std::uint32_t result);

// "2026-11-21T05:13:38.123456789Z" for nanoseconds since 1970.
std::string wallTimeText(std::uint64_t nanoseconds);

// "912 ns", "1.234 us", "5.678 ms", "1.500 s".
std::string durationText(std::uint64_t nanoseconds);

// Printable ASCII as it is, everything else as \xNN, so that no byte of a trace reaches the terminal as a command.
std::string escaped(std::string_view bytes);

// A JSON string with its quotes. Bytes that are no UTF-8 become U+FFFD.
std::string jsonString(std::string_view bytes);

}  // namespace zontrace
