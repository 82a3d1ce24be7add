// The way of a step through parameter block, cells and SQLCA.
//
// The rule: only what callers have is used: the exported functions and classes. Which slots a call has is read from the
// table that the model uses too; the cells themselves are made as all tests make them.
#include "model/library_driver.h"

#include <cstring>
#include <map>
#include <stdexcept>
#include <string>

#include "api/entry_points.h"
#include "support/cells.h"
#include "zonmdfile/MDCloningMapping.h"
#include "zonmdfile/MDContactGroup.h"
#include "zonmdfile/zonmdfile.h"

namespace zonmodel {

namespace {

using zontest::EntryPoint;

const std::map<std::string_view, EntryPoint>& entryPoints() {
  static const auto table = [] {
    std::map<std::string_view, EntryPoint> functions;
    for (const zontest::EntryPointCase& entry : zontest::allEntryPoints()) functions[entry.name] = entry.function;
    return functions;
  }();
  return table;
}

constexpr std::size_t SPARE_ROWS = 2;

// The slots of a step's parameter block, with some more rows than the caller has entries for.
std::string slotsOf(const Step& step, std::size_t rows) {
  std::string slots(step.function->slots);
  for (std::size_t row = 0; row < rows + SPARE_ROWS; ++row) slots += step.function->rows;
  return slots;
}

void fill(zontest::Call& call, const std::string& slots, const Step& step) {
  std::size_t text = 0;
  std::size_t number = 0;
  for (const char slot : slots) {
    if (isTextIn(slot)) {
      const Text& input = step.texts[text++];
      input ? call.in(*input) : call.inNull();
    } else if (slot == 'o') {
      call.out();
    } else if (isNumberIn(slot)) {
      call.number(step.numbers[number++]);
    } else {
      call.number();
    }
  }
}

// Takes what the library wrote.
void collect(const zontest::Call& call, const std::string& slots, Outcome& outcome) {
  for (std::size_t slot = 0; slot < slots.size(); ++slot) {
    if (slots[slot] == 'o' && !call.isUntouched(slot)) outcome.texts[slot] = call.textAt(slot);
    const bool isNumberOut = slots[slot] == 'r' || slots[slot] == 'C' || slots[slot] == 'N';
    if (isNumberOut && call.numberAt(slot) != zontest::Call::MARK_NUMBER) outcome.numbers[slot] = call.rcCell(slot);
  }
}

void collect(const struct sqlca& sqlca, Outcome& outcome) {
  outcome.sqlcode = sqlca.sqlcode;
  const bool isWellFormed = std::memcmp(sqlca.sqlcaid, "SQLCA   ", sizeof sqlca.sqlcaid) == 0 && sqlca.sqlcabc == 136 &&
                            std::memcmp(sqlca.sqlerrp, "mapMDFil", sizeof sqlca.sqlerrp) == 0 && sqlca.sqlerrml >= 0 &&
                            sqlca.sqlerrml <= static_cast<int>(sizeof sqlca.sqlerrmc);
  outcome.message =
      isWellFormed ? std::string(sqlca.sqlerrmc, static_cast<std::size_t>(sqlca.sqlerrml)) : "<not a whole SQLCA>";
}

Outcome callEntryPoint(zontest::EntryPoint entryPoint, const Step& step, std::size_t rows) {
  const std::string slots = slotsOf(step, rows);
  zontest::Call call;
  fill(call, slots, step);
  std::uint32_t reserved = step.numbers[2];
  call.run(entryPoint, &reserved);
  Outcome outcome;
  collect(call, slots, outcome);
  collect(call.sqlca(), outcome);
  return outcome;
}

DString stringOf(const Text& text) { return text ? DString(text->data(), text->size()) : DString(); }

constexpr const char* STALE = "the caller's own";

// A call of the class itself: outputs that still hold what the caller had in them are left alone.
Outcome callCloningMapping(std::string_view operation, const Step& step) {
  MDCloningMapping store;
  std::vector<DString> in;
  for (const Text& text : step.texts) in.push_back(stringOf(text));
  std::vector<DString> out(5, DString(STALE));
  Outcome outcome;
  if (operation == "retrieveKeys") outcome.returned = store.retrieveKeys(out[0], out[1], out[2]);
  if (operation == "retrieveAll") outcome.returned = store.retrieveAll(out[0], out[1], out[2], out[3], out[4]);
  if (operation == "retrieve") outcome.returned = store.retrieve(in[0], in[1], in[2], out[0], out[1]);
  if (operation == "remove") outcome.returned = store.remove(in[0], in[1], in[2]);
  if (operation == "insert") outcome.returned = store.insert(in[0], in[1], in[2], in[3], in[4]);
  if (operation == "update") outcome.returned = store.update(in[0], in[1], in[2], in[3], in[4]);
  std::size_t next = 0;
  for (std::size_t slot = 0; slot < step.function->slots.size(); ++slot) {
    if (step.function->slots[slot] != 'o') continue;
    const DString& text = out[next++];
    if (text != STALE) outcome.texts[slot] = std::string(text.view());
  }
  return outcome;
}

std::string namesOf(const DSet<DString>& set) {
  std::string list;
  for (std::size_t i = 1; i <= set.count(); ++i) list += std::string(set.elementAt(i).view()) + '\x0E';
  return list;
}

Outcome callExpansion(std::string_view operation, const Step& step) {
  MDContactGroup store;
  DString group = stringOf(step.texts[0]);
  DSet<DString> contacts;
  Outcome outcome;
  if (operation == "retrieveAllContact") {
    outcome.returned = store.retrieveAllContact(group, contacts);
    outcome.texts[1] = namesOf(contacts);
    return outcome;
  }
  DSet<DString> visited;
  visited.add(stringOf(step.texts[1]));
  outcome.returned = store.retrieveAllNames(group, contacts, visited);
  outcome.texts[2] = namesOf(contacts);
  outcome.texts[3] = namesOf(visited);
  return outcome;
}

Outcome callMapping(const Step& step) {
  std::vector<const char*> tokens;
  for (const Text& text : step.texts) tokens.push_back(text ? text->c_str() : nullptr);
  struct sqlca sqlca;
  std::memset(&sqlca, 0x7F, sizeof sqlca);
  // Only the low half of the code counts.
  const std::uint64_t rc = step.numbers[0] | std::uint64_t{0xABCD} << 32;
  Outcome outcome;
  outcome.returned = static_cast<std::uint32_t>(
      mapMDFileRcToSqlca(rc, static_cast<std::int32_t>(step.numbers[2]), tokens.data(), step.numbers[1], &sqlca));
  collect(sqlca, outcome);
  return outcome;
}

}  // namespace

Outcome performOnLibrary(const Step& step, std::size_t rows) {
  const std::string_view name = step.function->name;
  const std::size_t dot = name.find('.');
  if (name.starts_with("MDCloningMapping.")) return callCloningMapping(name.substr(dot + 1), step);
  if (name.starts_with("MDContactGroup.")) return callExpansion(name.substr(dot + 1), step);
  if (name == "mapMDFileRcToSqlca") return callMapping(step);
  if (name == "removeMemberFromGroups") {
    DString member = stringOf(step.texts[0]);
    Outcome outcome;
    outcome.returned = removeMemberFromGroups(member, stringOf(step.texts[1]));
    return outcome;
  }
  const auto found = entryPoints().find(name);
  if (found == entryPoints().end()) throw std::runtime_error("nothing to call: " + std::string(name));
  return callEntryPoint(found->second, step, rows);
}

}  // namespace zonmodel
