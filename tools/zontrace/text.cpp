// See text.h.
#include "text.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "catalogue.h"
#ifdef ZON_HAS_RETURN_CODE_NAMES
#include "zonmdfile/platform/admin.h"
#endif

namespace zontrace {

namespace {

constexpr std::uint64_t NANOSECONDS = 1'000'000'000;

// What is not in the catalogue is taken for a return code.
Result resultOf(std::uint32_t point) {
  const TracedFunction* const function = findFunction(point);
  return function != nullptr ? function->result : Result::RETURN_CODE;
}

const char* codeName(std::uint32_t rc) {
#ifdef ZON_HAS_RETURN_CODE_NAMES
  return ::ecfErrorGetName(rc);
#else
  static_cast<void>(rc);
  return nullptr;
#endif
}

[[gnu::format(printf, 1, 2)]] std::string formatted(const char* format, ...) {
  std::array<char, 64> text{};
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  return text.data();
}

// Length of the well-formed UTF-8 character at the beginning of `bytes`, or 0.
std::size_t characterLength(std::string_view bytes) {
  const auto at = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const unsigned char lead = at(0);
  const std::size_t length = lead < 0x80                   ? 1
                             : lead >= 0xC2 && lead < 0xE0 ? 2
                             : lead >= 0xE0 && lead < 0xF0 ? 3
                             : lead >= 0xF0 && lead < 0xF5 ? 4
                                                           : 0;
  if (length == 0 || length > bytes.size()) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((at(i) & 0xC0) != 0x80) return 0;
  }
  if (lead == 0xE0 && at(1) < 0xA0) return 0;  // longer than needed
  if (lead == 0xED && at(1) > 0x9F) return 0;  // half of a surrogate pair
  if (lead == 0xF0 && at(1) < 0x90) return 0;
  if (lead == 0xF4 && at(1) > 0x8F) return 0;  // beyond U+10FFFF
  return length;
}

}  // namespace

std::string functionName(std::uint32_t point) {
  const TracedFunction* const function = findFunction(point);
  return function == nullptr ? "function " + std::to_string(point) : function->name;
}

std::int64_t resultNumber(std::uint32_t point, std::uint32_t result) {
  if (resultOf(point) == Result::RETURN_CODE) return result;
  return static_cast<std::int32_t>(result);
}

std::string resultName(std::uint32_t point, std::uint32_t result) {
  if (resultOf(point) != Result::RETURN_CODE) return {};
  const char* const name = codeName(result);
  return name == nullptr ? std::string() : std::string(name);
}

std::string resultText(std::uint32_t point, std::uint32_t result) {
  const std::string number = std::to_string(resultNumber(point, result));
  switch (resultOf(point)) {
    case Result::SQLCODE:
      return "SQLCODE " + number;
    case Result::NUMBER:
      return number;
    case Result::RETURN_CODE:
      break;
  }
  // The engine's codes are known by their hexadecimal form.
  constexpr std::uint32_t ENGINE_CODES = 0x90000000;
  const std::string code = result >= ENGINE_CODES ? formatted("0x%08X", result) : number;
  const std::string name = resultName(point, result);
  return name.empty() ? code : code + " " + name;
}

std::string wallTimeText(std::uint64_t nanoseconds) {
  const auto seconds = static_cast<std::time_t>(nanoseconds / NANOSECONDS);
  std::tm parts{};
  std::array<char, 64> text{};
  if (::gmtime_r(&seconds, &parts) == nullptr) return "?";
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  return std::string(text.data(), length) +
         formatted(".%09lluZ", static_cast<unsigned long long>(nanoseconds % NANOSECONDS));
}

std::string durationText(std::uint64_t nanoseconds) {
  const auto value = static_cast<double>(nanoseconds);
  if (nanoseconds < 1'000) return std::to_string(nanoseconds) + " ns";
  if (nanoseconds < 1'000'000) return formatted("%.3f us", value / 1e3);
  if (nanoseconds < NANOSECONDS) return formatted("%.3f ms", value / 1e6);
  return formatted("%.3f s", value / 1e9);
}

std::string escaped(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    if (byte == '"' || byte == '\\') {
      text += {'\\', byte};
    } else if (value >= 0x20 && value < 0x7F) {
      text += byte;
    } else {
      text += formatted("\\x%02X", static_cast<unsigned>(value));
    }
  }
  return text;
}

std::string jsonString(std::string_view bytes) {
  std::string text = "\"";
  while (!bytes.empty()) {
    const auto value = static_cast<unsigned char>(bytes.front());
    const std::size_t length = characterLength(bytes);
    if (length == 0) {
      text += "\xEF\xBF\xBD";
    } else if (bytes.front() == '"' || bytes.front() == '\\') {
      text += {'\\', bytes.front()};
    } else if (value < 0x20 || value == 0x7F) {
      text += formatted("\\u%04X", static_cast<unsigned>(value));
    } else {
      text += bytes.substr(0, length);
    }
    bytes.remove_prefix(length == 0 ? 1 : length);
  }
  return text + '"';
}

}  // namespace zontrace
