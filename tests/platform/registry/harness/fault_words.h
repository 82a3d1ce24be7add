// What the parts of the fault harness say and compare alike: lists of records, codes, and how two lists differ.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>

#include "platform/registry/harness/test_records.h"

namespace zon::test {

inline Values with(Values values, const Value& value) {
  values.push_back(value);
  return values;
}

inline bool isSubsequence(const Values& part, const Values& whole) {
  auto at = whole.begin();
  for (const Value& value : part) {
    at = std::find(at, whole.end(), value);
    if (at == whole.end()) return false;
    ++at;
  }
  return true;
}

inline std::string code(std::uint32_t rc) { return rc == MD_RC_OK ? "0" : "code " + std::to_string(rc & 0xFFF); }

// What a listing has that the wanted one has not, and the other way round: the first of each.
inline std::string difference(const Values& values, const Values& wanted) {
  const auto firstOnly = [](const Values& in, const Values& notIn) -> std::string {
    for (const Value& value : in) {
      if (std::find(notIn.begin(), notIn.end(), value) == notIn.end()) return value.group + '/' + value.key;
    }
    return "nothing";
  };
  return std::to_string(values.size()) + " records instead of " + std::to_string(wanted.size()) +
         " (too many: " + firstOnly(values, wanted) + ", missing: " + firstOnly(wanted, values) + ')';
}

}  // namespace zon::test
