// Step: one call of the library as text, and the table of everything that can be called.
//
// The rule: the table is written from the documented parameter blocks; it is all that the model and the driver of the
// library have in common.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace zonmodel {

// What can be called. Each letter of `slots` is a slot of the parameter block, or an argument in its order:
//
//   n name, k kind, d data, c contact data, s description, v version of at most 10 bytes, w of 9, x of 8: texts in
//   D detail switch, # number in, N number out, C count cell, r rc cell, o text out
//
// `rows` are the slots that repeat for each entry behind them, `tokens` the numbers of the texts, counted from 0, that
// name the record in the SQLCA.
struct Function {
  std::string_view name;
  std::string_view slots;
  std::string_view tokens;
  std::string_view rows;
  int weight;  // how often the generator takes it, among the others
};

const std::vector<Function>& functions();
// Null when there is none of this name.
const Function* findFunction(std::string_view name);

constexpr bool isTextIn(char slot) { return std::string_view("nkdcsvwx").find(slot) != std::string_view::npos; }
constexpr bool isNumberIn(char slot) { return slot == 'D' || slot == '#'; }

using Text = std::optional<std::string>;  // a null pointer, or a text

// One call. Texts and numbers stand in the order of their slots; ContactAPI_update and ContactAPI_insert have one
// number more, the one behind the reserved argument. There is room for three numbers whether they are used or not.
struct Step {
  const Function* function;
  std::vector<Text> texts;
  std::vector<std::uint32_t> numbers;
};

// A step as one line: the function's name, then its texts, then its numbers with # before them. A text is written with
// %XX for everything but letters and digits, '' when it is empty, - when it is null, x128:a for a byte that repeats.
std::ostream& operator<<(std::ostream& out, const Step& step);
// Throws std::runtime_error for a line that is no step.
Step readStep(const std::string& line);
// Lines that are empty or begin with ; are passed over.
std::vector<Step> readTrace(std::istream& in);

// Which names are drawn: with SEPARATORS, some hold the bytes that lists and contact data are split at.
enum class Names : std::uint8_t { PLAIN, SEPARATORS };

// Records come and go in turns: for some hundred steps inserts prevail, then removals until little is left.
class Generator {
 public:
  Generator(std::uint64_t seed, Names names);
  Step next();

 private:
  const Function& function();
  bool oneIn(std::uint32_t n) { return random_() % n == 0; }
  template <std::size_t SIZE>
  std::string pick(const char* const (&texts)[SIZE]) {
    return texts[random_() % SIZE];
  }
  Text textFor(char slot);
  void drawMapping(Step& step);
  Text name();
  Text kind();
  std::string data();
  std::string contactData();
  std::string description();
  std::string version(std::size_t maxLength);
  std::uint32_t number();

  std::mt19937_64 random_;
  Names names_;
  std::discrete_distribution<std::size_t> distribution_;
  std::size_t stepsLeftInTurn_ = 0;
  bool isGrowing_ = false;
};

// The steps that list all records of every store.
const std::vector<Step>& listingSteps();

}  // namespace zonmodel
