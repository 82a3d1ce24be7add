// Outcome: everything of one call that its caller can see.
//
// The rule: what a call left untouched does not appear.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace zonmodel {

struct Outcome {
  std::optional<std::uint32_t> returned;        // what the function itself returned
  std::optional<std::int32_t> sqlcode;          // of the SQLCA, for a function that fills it
  std::string message;                          // the SQLCA's message
  std::map<std::size_t, std::string> texts;     // texts in output cells, by slot
  std::map<std::size_t, std::int32_t> numbers;  // numbers, counts and the rc cell, by slot

  friend bool operator==(const Outcome&, const Outcome&) = default;
};

// One line for each part in which the two differ.
std::string describeDifference(const Outcome& expected, const Outcome& actual);

}  // namespace zonmodel
