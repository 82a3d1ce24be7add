// The slots of every entry point stand twice: here as the model reads them, in api/entry_points.h as one call of each
// is filled. The model keeps its own reading on purpose, and its letters tell which texts may stand in a slot; but of
// what kind each slot is, both must say the same.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "api/entry_points.h"
#include "model/steps.h"

namespace {

// T text in, # number in or out, D detail switch, C count, r rc cell, o text out.
char kindOf(char slot, std::string_view textLetters, char detail, char count) {
  if (textLetters.find(slot) != std::string_view::npos) return 'T';
  if (slot == detail) return 'D';
  if (slot == count) return 'C';
  return slot == 'N' ? '#' : slot;
}

std::string shapeOfCall(std::string_view slots) {
  std::string shape;
  for (const char slot : slots) shape += kindOf(slot, "kngmx0ev", 'd', 'c');
  return shape;
}

std::string shapeOfModel(std::string_view slots) {
  std::string shape;
  for (const char slot : slots) shape += kindOf(slot, "nkdcsvwx", 'D', 'C');
  return shape;
}

TEST(SlotsOfEntryPoints, AreOfTheSameKindsForTheModelAndForTheCalls) {
  for (const zontest::EntryPointCase& entry : zontest::allEntryPoints()) {
    const zonmodel::Function* function = zonmodel::findFunction(entry.name);
    ASSERT_NE(function, nullptr) << entry.name;
    const std::string called = shapeOfCall(entry.slots);
    std::string modelled = shapeOfModel(function->slots);
    const std::string row = shapeOfModel(function->rows);
    while (!row.empty() && modelled.size() < called.size()) modelled += row;
    EXPECT_EQ(called, modelled) << entry.name;
  }
}

}  // namespace
