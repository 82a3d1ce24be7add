// How the difference of two outcomes reads.
//
// The rule: long texts are shortened in the middle; their lengths are told.
#include "model/outcome.h"

#include <cctype>
#include <cstdio>
#include <set>

namespace zonmodel {

namespace {

std::string shown(const std::string& text) {
  constexpr std::size_t LONGEST = 160;
  std::string line = "\"";
  for (const char byte : text.substr(0, LONGEST)) {
    if (std::isprint(static_cast<unsigned char>(byte)) != 0) {
      line += byte;
      continue;
    }
    char hex[8];
    std::snprintf(hex, sizeof hex, "<%02X>", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    line += hex;
  }
  return line + "\"" + (text.size() > LONGEST ? " and on, " + std::to_string(text.size()) + " bytes" : "");
}

std::string shown(std::int32_t number) { return std::to_string(number); }
std::string shown(std::uint32_t number) { return std::to_string(number); }

template <class Value>
std::string shown(const std::optional<Value>& value) {
  return value ? shown(*value) : "nothing";
}

template <class Value>
void compare(const std::string& part, const Value& expected, const Value& actual, std::string& lines) {
  if (expected == actual) return;
  lines += "  " + part + ": expected " + shown(expected) + ", got " + shown(actual) + "\n";
}

template <class Value>
void compareSlots(const char* part, const std::map<std::size_t, Value>& expected,
                  const std::map<std::size_t, Value>& actual, std::string& lines) {
  const auto at = [](const std::map<std::size_t, Value>& values, std::size_t slot) {
    const auto found = values.find(slot);
    return found != values.end() ? std::optional<Value>(found->second) : std::nullopt;
  };
  std::set<std::size_t> slots;
  for (const auto& entry : expected) slots.insert(entry.first);
  for (const auto& entry : actual) slots.insert(entry.first);
  for (const std::size_t slot : slots) {
    compare(part + std::to_string(slot), at(expected, slot), at(actual, slot), lines);
  }
}

}  // namespace

std::string describeDifference(const Outcome& expected, const Outcome& actual) {
  std::string lines;
  compare("returned", expected.returned, actual.returned, lines);
  compare("SQLCODE", expected.sqlcode, actual.sqlcode, lines);
  compare("message", expected.message, actual.message, lines);
  compareSlots("number in slot ", expected.numbers, actual.numbers, lines);
  compareSlots("text in slot ", expected.texts, actual.texts, lines);
  return lines;
}

}  // namespace zonmodel
