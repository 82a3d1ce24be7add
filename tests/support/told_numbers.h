// Numbers that whoever runs a test may tell by environment variables: how much is tried, and from which seed.
//
// The rule: what is told is taken or refused, never guessed; and a seed that a test prints can be told to it again.
#pragma once

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace zontest {

// A whole number, or a factor where `otherwise` is one.
template <class Number>
Number toldNumber(const char* variable, Number otherwise) {
  const char* told = std::getenv(variable);
  if (told == nullptr) return otherwise;
  const std::string_view text = told;
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{} || end != text.data() + text.size()) {
    throw std::runtime_error(std::string(variable) + " is no number: " + told);
  }
  return number;
}

// The seed that is told, else another one in each run.
inline std::uint64_t toldSeed(const char* variable) {
  const std::uint64_t seed = toldNumber<std::uint64_t>(variable, std::random_device{}());
  std::cout << "seed " << seed << ", again by " << variable << '=' << seed << '\n';
  return seed;
}

}  // namespace zontest
