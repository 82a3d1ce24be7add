// The table of functions, the text form of a step, and the generator.
//
// The rule: alphabets are small, so that random steps meet the same records again and again.
#include "model/steps.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <istream>
#include <ostream>
#include <sstream>
#include <stdexcept>

namespace zonmodel {

namespace {

constexpr std::size_t MAX_KEY_BYTES = 128;
constexpr std::size_t MAX_DATA_BYTES = 1024000;
constexpr std::size_t SHORTEST_RUN = 17;
constexpr std::size_t MAX_NUMBERS = 3;

std::size_t numberCountOf(const Function& function) {
  const bool readsReserved = function.name == "ContactAPI_update" || function.name == "ContactAPI_insert";
  return static_cast<std::size_t>(std::count_if(function.slots.begin(), function.slots.end(), isNumberIn)) +
         (readsReserved ? 1 : 0);
}

std::string encode(const Text& text) {
  if (!text) return "-";
  if (text->empty()) return "''";
  if (text->size() >= SHORTEST_RUN && text->find_first_not_of((*text)[0]) == std::string::npos) {
    return "x" + std::to_string(text->size()) + ":" + encode(text->substr(0, 1));
  }
  std::string encoded;
  for (const char byte : *text) {
    if (std::isalnum(static_cast<unsigned char>(byte)) != 0) {
      encoded += byte;
    } else {
      char hex[4];
      std::snprintf(hex, sizeof hex, "%%%02X", static_cast<unsigned>(static_cast<unsigned char>(byte)));
      encoded += hex;
    }
  }
  return encoded;
}

Text decode(const std::string& word) {
  if (word == "-") return std::nullopt;
  if (word == "''") return std::string();
  if (const std::size_t colon = word.find(':'); word[0] == 'x' && colon != std::string::npos) {
    const Text byte = decode(word.substr(colon + 1));
    if (!byte || byte->size() != 1) throw std::runtime_error("not a repeated byte: " + word);
    return std::string(std::stoul(word.substr(1, colon - 1)), (*byte)[0]);
  }
  std::string text;
  for (std::size_t i = 0; i < word.size(); ++i) {
    if (word[i] != '%') {
      text += word[i];
      continue;
    }
    text += static_cast<char>(std::stoul(word.substr(i + 1, 2), nullptr, 16));
    i += 2;
  }
  return text;
}

}  // namespace

const std::vector<Function>& functions() {
  static const std::vector<Function> table = {
      {"MDCustomTree_retrieveKeys", "ro", "", "", 1},
      {"MDCustomTree_retrieveAll", "rooo", "", "", 1},
      {"MDCustomTree_remove", "nr", "0", "", 2},
      {"MDCustomTree_retrieve", "nroo", "0", "", 2},
      {"MDCustomTree_update", "ndvr", "0", "", 2},
      {"MDCustomTree_insert", "ndvr", "0", "", 3},
      {"MDSubSystemSetting_retrieveKeys", "ro", "", "", 1},
      {"MDSubSystemSetting_retrieveAll", "rooo", "", "", 1},
      {"MDSubSystemSetting_remove", "nr", "0", "", 2},
      {"MDSubSystemSetting_retrieve", "nroo", "0", "", 2},
      {"MDSubSystemSetting_update", "ndvr", "0", "", 2},
      {"MDSubSystemSetting_insert", "ndvr", "0", "", 3},
      {"MDUtilNameMapping_retrieveKeys", "ro", "", "", 1},
      {"MDUtilNameMapping_retrieveAll", "rooo", "", "", 1},
      {"MDUtilNameMapping_remove", "nr", "0", "", 2},
      {"MDUtilNameMapping_retrieve", "nroo", "0", "", 2},
      {"MDUtilNameMapping_update", "ndvr", "0", "", 2},
      {"MDUtilNameMapping_insert", "ndvr", "0", "", 3},
      {"MDLocationMapping_retrieveKeys", "ro", "", "", 1},
      {"MDLocationMapping_retrieveAll", "rooo", "", "", 1},
      {"MDLocationMapping_remove", "nr", "0", "", 2},
      {"MDLocationMapping_retrieve", "nroo", "0", "", 2},
      {"MDLocationMapping_update", "ndvr", "0", "", 2},
      {"MDLocationMapping_insert", "ndvr", "0", "", 3},
      {"MDCloningSubSystemSetting_retrieveKeys", "ro", "", "", 1},
      {"MDCloningSubSystemSetting_retrieveAll", "rooo", "", "", 1},
      {"MDCloningSubSystemSetting_remove", "nr", "0", "", 2},
      {"MDCloningSubSystemSetting_retrieve", "nroo", "0", "", 2},
      {"MDCloningSubSystemSetting_update", "ndvr", "0", "", 2},
      {"MDCloningSubSystemSetting_insert", "ndvr", "0", "", 3},
      {"MDContact_retrieveKeys", "ro", "", "", 2},
      {"MDContact_retrieveAll", "rooo", "", "", 3},
      {"MDContact_remove", "nr", "0", "", 7},
      {"MDContact_retrieve", "nroo", "0", "", 4},
      {"MDContact_update", "ncvr", "0", "", 8},
      {"MDContact_insert", "ncvr", "0", "", 10},
      {"MDJCLSkeleton_retrieveKeys", "roo", "", "", 1},
      {"MDJCLSkeleton_retrieveAll", "roooo", "", "", 1},
      {"MDJCLSkeleton_removeList", "nr", "0", "", 2},
      {"MDJCLSkeleton_retrieveList", "nrooo", "0", "", 3},
      {"MDJCLSkeleton_remove", "nnr", "01", "", 3},
      {"MDJCLSkeleton_retrieve", "nnroo", "01", "", 3},
      {"MDJCLSkeleton_update", "nndwr", "01", "", 4},
      {"MDJCLSkeleton_insert", "nndwr", "01", "", 10},
      {"MDCloningHistory_retrieveKeys", "roo", "", "", 1},
      {"MDCloningHistory_retrieveAll", "roooo", "", "", 1},
      {"MDCloningHistory_removeList", "nr", "0", "", 2},
      {"MDCloningHistory_retrieveList", "nrooo", "0", "", 3},
      {"MDCloningHistory_remove", "nnr", "01", "", 3},
      {"MDCloningHistory_retrieve", "nnroo", "01", "", 3},
      {"MDCloningHistory_update", "nndwr", "01", "", 4},
      {"MDCloningHistory_insert", "nndwr", "01", "", 10},
      {"MDUtilityHistory_retrieveKeys", "roo", "", "", 1},
      {"MDUtilityHistory_retrieveAll", "roooo", "", "", 1},
      {"MDUtilityHistory_removeList", "nr", "0", "", 2},
      {"MDUtilityHistory_retrieveList", "nrooo", "0", "", 3},
      {"MDUtilityHistory_remove", "nnr", "01", "", 3},
      {"MDUtilityHistory_retrieve", "nnroo", "01", "", 3},
      {"MDUtilityHistory_update", "nndwr", "01", "", 4},
      {"MDUtilityHistory_insert", "nndwr", "01", "", 10},
      {"MDContactGroup_retrieveAllContactNames", "nro", "0", "", 12},
      {"MDContactGroup_updateDescription", "nsxr", "0", "", 10},
      {"MDContactGroup_retrieveKeys", "rooo", "", "", 2},
      {"MDContactGroup_retrieveAll", "rooooo", "", "", 2},
      {"MDContactGroup_removeList", "nkr", "0", "", 7},
      {"MDContactGroup_removeAll", "nr", "0", "", 6},
      {"MDContactGroup_remove", "nknr", "02", "", 20},
      {"MDContactGroup_retrieveParentGroupList", "knrooo", "1", "", 10},
      {"MDContactGroup_retrieveContactOrGroupList", "nkrooo", "0", "", 10},
      {"MDContactGroup_retrieveList", "nroooo", "0", "", 8},
      {"MDContactGroup_insert", "nknsxr", "02", "", 80},
      {"ContactAPI_retrieveAll", "DC", "", "oNoNo", 6},
      {"ContactAPI_retrieve", "nNoNo", "0", "", 10},
      {"ContactAPI_update", "n#s#s", "0", "", 8},
      {"ContactAPI_insert", "n#s#s", "0", "", 10},
      {"ContactGroupAPI_retrieveAllContactNames", "nDC", "0", "o", 10},
      {"ContactGroupAPI_retrieveList", "DnCo", "0", "oo", 8},
      {"ContactGroupAPI_retrieveAll", "DC", "", "oo", 6},
      {"MDCloningMapping.retrieveKeys", "ooo", "", "", 2},
      {"MDCloningMapping.retrieveAll", "ooooo", "", "", 2},
      {"MDCloningMapping.remove", "nnn", "", "", 5},
      {"MDCloningMapping.retrieve", "nnnoo", "", "", 5},
      {"MDCloningMapping.update", "nnndx", "", "", 5},
      {"MDCloningMapping.insert", "nnndx", "", "", 15},
      // Of the sets that come back, contacts and visited groups; the second name of the last is a group visited before.
      {"MDContactGroup.retrieveAllContact", "no", "", "", 8},
      {"MDContactGroup.retrieveAllNames", "nnoo", "", "", 8},
      {"removeMemberFromGroups", "nk", "", "", 8},
      // Numbers: return code, subject kind, count of tokens.
      {"mapMDFileRcToSqlca", "nn###", "", "", 3},
  };
  return table;
}

const Function* findFunction(std::string_view name) {
  for (const Function& function : functions()) {
    if (function.name == name) return &function;
  }
  return nullptr;
}

std::ostream& operator<<(std::ostream& out, const Step& step) {
  out << step.function->name;
  for (const Text& text : step.texts) out << ' ' << encode(text);
  for (std::size_t i = 0; i < numberCountOf(*step.function); ++i) out << " #" << step.numbers[i];
  return out;
}

Step readStep(const std::string& line) {
  std::istringstream words(line);
  std::string word;
  words >> word;
  Step step{findFunction(word), {}, {}};
  if (step.function == nullptr) throw std::runtime_error("no such function: " + word);
  while (words >> word) {
    if (word[0] == '#') {
      step.numbers.push_back(static_cast<std::uint32_t>(std::stoul(word.substr(1))));
    } else {
      step.texts.push_back(decode(word));
    }
  }
  const auto wanted = std::count_if(step.function->slots.begin(), step.function->slots.end(), isTextIn);
  if (step.texts.size() != static_cast<std::size_t>(wanted)) throw std::runtime_error("wrong number of texts: " + line);
  step.numbers.resize(MAX_NUMBERS);
  return step;
}

std::vector<Step> readTrace(std::istream& in) {
  std::vector<Step> steps;
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line[0] != ';') steps.push_back(readStep(line));
  }
  return steps;
}

Generator::Generator(std::uint64_t seed, Names names) : random_(seed), names_(names) {
  std::vector<int> weights;
  for (const Function& function : functions()) weights.push_back(function.weight);
  distribution_ = std::discrete_distribution<std::size_t>(weights.begin(), weights.end());
}

const Function& Generator::function() {
  constexpr std::uint32_t LONGEST_TURN = 600;
  constexpr std::uint32_t INSERT_WHILE_SHRINKING = 12;
  if (stepsLeftInTurn_ == 0) {
    stepsLeftInTurn_ = 1 + random_() % LONGEST_TURN;
    isGrowing_ = !isGrowing_;
  }
  --stepsLeftInTurn_;
  for (;;) {
    const Function& drawn = functions()[distribution_(random_)];
    if (isGrowing_ || !drawn.name.ends_with("insert") || oneIn(INSERT_WHILE_SHRINKING)) return drawn;
  }
}

Step Generator::next() {
  Step step{&function(), {}, {}};
  for (const char slot : step.function->slots) {
    if (isTextIn(slot)) step.texts.push_back(textFor(slot));
    if (slot == 'D') step.numbers.push_back(oneIn(4) ? 0 : number() | 1U);
    if (slot == '#') step.numbers.push_back(number());
  }
  if (numberCountOf(*step.function) > step.numbers.size()) step.numbers.push_back(number());
  step.numbers.resize(MAX_NUMBERS);
  if (step.function->name == "mapMDFileRcToSqlca") drawMapping(step);
  return step;
}

void Generator::drawMapping(Step& step) {
  static constexpr std::uint32_t CODES[] = {0,     31001,      31002,      31003,      31004,
                                            31005, 0x900001F1, 0x900001F6, 0x900001F6, 31006};
  step.numbers = {CODES[random_() % std::size(CODES)], static_cast<std::uint32_t>(random_() % 3),
                  static_cast<std::uint32_t>(random_() % 3)};
  for (Text& token : step.texts) {
    if (oneIn(4)) token = oneIn(2) ? Text() : Text("");
  }
}

Text Generator::textFor(char slot) {
  switch (slot) {
    case 'n':
      return name();
    case 'k':
      return kind();
    case 'd':
      return data();
    case 'c':
      return contactData();
    case 's':
      return description();
    case 'v':
      return version(10);
    case 'w':
      return version(9);
    default:
      return version(8);
  }
}

Text Generator::name() {
  static constexpr const char* PLAIN[] = {"a", "b", "c", "d", "g", "h", "ab"};
  static constexpr const char* SPLIT[] = {"a\016b",     "g\016a", "\016",        "g\016", "\016a",
                                          "a\016\016g", "b\016a", "a\016g\016h", "b\017c"};
  if (names_ == Names::SEPARATORS && oneIn(4)) return pick(SPLIT);
  if (!oneIn(15)) return pick(PLAIN);
  switch (random_() % 7) {
    case 0:
      return std::nullopt;
    case 1:
      return std::string();
    case 2:
      return std::string(MAX_KEY_BYTES + 1, 'L');
    case 3:
      return std::string(MAX_KEY_BYTES - 1, 'L') + 'M';
    case 4:
      return std::string("a b");
    case 5:
      return std::string("\xC3\xA4");
    default:
      return std::string(MAX_KEY_BYTES, 'L');
  }
}

Text Generator::kind() {
  static constexpr const char* ODD[] = {"", "2", "10", "00", "a", " "};
  static constexpr const char* SPLIT[] = {"0\0160", "1\016", "\0161", "0\0161"};
  if (names_ == Names::SEPARATORS && oneIn(20)) return pick(SPLIT);
  if (oneIn(80)) return std::nullopt;
  if (oneIn(80)) return std::string(MAX_KEY_BYTES + 1, '1');
  if (oneIn(20)) return pick(ODD);
  return std::string(oneIn(2) ? "0" : "1");
}

std::string Generator::data() {
  static constexpr const char* TEXTS[] = {"d", "e", "f", "text", "two words", "a\016b", "\016"};
  if (oneIn(3000)) return std::string(MAX_DATA_BYTES + (oneIn(2) ? 1 : 0), 'D');
  if (oneIn(20)) return "";
  return pick(TEXTS);
}

std::string Generator::contactData() {
  static constexpr const char* TEXTS[] = {
      "ops\0172\017text\01760",
      "pager\0171\017memo\01780",
      "ops\0172",
      "ops\0172\017",
      "ops\0172\017\017",
      "ops",
      "17",
      "\017",
      "\017\017\017",
      "ops\017 -12x\017text\017+7",
      "ops\0172\017text\01760\017more",
      "ops\01799999999999\017t\0174294967295",
      "\0172\017\01760",
      "a\016\0173\017b\0174",
      "\016",
  };
  if (oneIn(3000)) return std::string(MAX_DATA_BYTES + (oneIn(2) ? 1 : 0), 'C');
  if (oneIn(20)) return "";
  return pick(TEXTS);
}

std::string Generator::description() {
  static constexpr const char* TEXTS[] = {"d", "d", "d", "e", "f", "two words", "a\016b", "\016", "\017", "x\017y"};
  if (oneIn(5000)) return std::string(MAX_DATA_BYTES + 1, 'S');
  if (oneIn(20)) return "";
  return pick(TEXTS);
}

std::string Generator::version(std::size_t maxLength) {
  static constexpr const char* TEXTS[] = {"1", "1", "2", "2.0", "\016"};
  if (oneIn(12)) return "";
  if (oneIn(25)) return std::string(maxLength, '9');
  if (oneIn(25)) return std::string(maxLength + 1, '9');
  return pick(TEXTS);
}

std::uint32_t Generator::number() {
  static constexpr std::uint32_t NUMBERS[] = {0, 1, 2, 3, 60, 2147483647, 2147483648, 4294967295};
  return NUMBERS[random_() % std::size(NUMBERS)];
}

const std::vector<Step>& listingSteps() {
  static const std::vector<Step> steps = [] {
    std::vector<Step> all;
    for (const Function& function : functions()) {
      const bool isListing = function.name.starts_with("MD") && function.name.ends_with("retrieveAll");
      if (isListing) all.push_back({&function, {}, std::vector<std::uint32_t>(MAX_NUMBERS)});
    }
    return all;
  }();
  return steps;
}

}  // namespace zonmodel
