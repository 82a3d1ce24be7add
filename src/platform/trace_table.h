// How the system's trace points are told: each floor has a table of its classes, families of entry points and free
// functions, and a trace point is a row of that table and one of the row's operations.
//
// The rule: this header knows no name of any floor. Identifiers are part of recorded traces: never change or reuse one;
// give a new function the next free number of its row.
//
//   TraceScope trace(point("MDCustomTree_retrieve"));     the name in full, for whoever looks for it
//   TraceScope trace(point(NAME, "retrieve"));            where one text serves many classes
//
// Either is worked out while compiling; what is not in the table does not compile.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace zon::trace {

// What the value that a function's exit carries means to a reader.
enum class Result : std::uint8_t { RETURN_CODE, SQLCODE, NUMBER };

struct Operation {
  std::uint32_t offset;
  std::string_view name;
  Result result = Result::RETURN_CODE;
};

// The two operations that are called after their class, in C++ as in a table.
inline constexpr std::string_view CONSTRUCTOR = "constructor";
inline constexpr std::string_view DESTRUCTOR = "destructor";

// What stands between the name of a row and that of an operation.
inline constexpr std::string_view MEMBER = "::";
inline constexpr std::string_view ENTRY_POINT = "_";
inline constexpr std::string_view FREE_FUNCTION = "";

struct Row {
  std::uint32_t base;
  std::string_view name;
  std::string_view separator;
  std::span<const Operation> operations;
};

using Table = std::span<const Row>;

constexpr bool isCalled(const Row& row, const Operation& operation, std::string_view name) {
  if (!name.starts_with(row.name)) return false;
  name.remove_prefix(row.name.size());
  if (!name.starts_with(row.separator)) return false;
  name.remove_prefix(row.separator.size());
  if (operation.name == CONSTRUCTOR) return name == row.name;
  if (operation.name == DESTRUCTOR) return name.starts_with('~') && name.substr(1) == row.name;
  return name == operation.name;
}

consteval std::uint32_t find(Table table, std::string_view name) {
  for (const Row& row : table) {
    for (const Operation& operation : row.operations) {
      if (isCalled(row, operation, name)) return row.base + operation.offset;
    }
  }
  throw "no such trace point";
}

// A member of a class.
consteval std::uint32_t find(Table table, std::string_view className, std::string_view operationName) {
  for (const Row& row : table) {
    if (row.name != className || row.separator != MEMBER) continue;
    for (const Operation& operation : row.operations) {
      if (operation.name == operationName) return row.base + operation.offset;
    }
  }
  throw "no such trace point";
}

// Entry points answer SQLCODEs, all of them.
constexpr Result resultOf(const Row& row, const Operation& operation) {
  return row.separator == ENTRY_POINT ? Result::SQLCODE : operation.result;
}

inline std::string nameOf(const Row& row, const Operation& operation) {
  std::string name(row.name);
  name += row.separator;
  if (operation.name == CONSTRUCTOR) return name += row.name;
  if (operation.name == DESTRUCTOR) return (name += '~') += row.name;
  return name += operation.name;
}

}  // namespace zon::trace
