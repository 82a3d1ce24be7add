// What is known about each return code. The rule: everything that depends on a code alone is looked up here and only
// here.
#pragma once

#include <cstdint>
#include <span>

namespace zon {

struct ReturnCode {
  std::uint32_t value;
  const char* name;
  std::int32_t sqlcode;  // negative and no other code's; 0 for success
  const char* sqlstate;  // five characters
  const char* description;
};

struct SqlState {
  std::int32_t sqlcode;
  const char* sqlstate;
};

// What the boundary reports for a record that is there already, or missing, instead of the return code's own SQLCODE.
// From the first to the last they are those that carry a message.
inline constexpr std::int32_t SQLCODE_CONTACT_EXISTS = -22270;  // a contact or contact group
inline constexpr std::int32_t SQLCODE_CONTACT_MISSING = -22271;
inline constexpr std::int32_t SQLCODE_RECORD_EXISTS = -22272;  // any other record
inline constexpr std::int32_t SQLCODE_RECORD_MISSING = -22273;

inline constexpr std::int32_t UNKNOWN_CODE_SQLCODE = -22399;
inline constexpr const char* UNKNOWN_SQLCODE_SQLSTATE = "58000";  // system error

std::span<const ReturnCode> returnCodes();

// SQLCODEs that the boundary gives instead of a return code's own, by the kind of object that a record describes.
std::span<const SqlState> boundarySqlStates();

// Null for a code that is not in the table.
const ReturnCode* findReturnCode(std::uint32_t value);

// Never null.
const char* findSqlState(std::int32_t sqlcode);

}  // namespace zon
