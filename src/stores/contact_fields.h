// The fields of a contact's data text: their numbers, their separator, and how a number among them is read.
//
// The rule: these numbers are on disk, in the data of every contact.
#pragma once

#include <cstdlib>
#include <string>
#include <string_view>

namespace zon {

inline constexpr char CONTACT_SEPARATOR = 0x0F;
inline constexpr std::string_view CONTACT_TOKEN("\x0F", 1);

inline constexpr unsigned long EMAIL_ADDRESS = 1;
inline constexpr unsigned long NOTIFICATION_TYPE = 2;
inline constexpr unsigned long DESCRIPTION = 3;
inline constexpr unsigned long MAX_PAGE_LENGTH = 4;

// Its leading digits, 0 without any: callers rely on what atoi makes of a malformed number.
inline int numberOf(std::string_view text) {
  return std::atoi(std::string(text).c_str());  // NOLINT(cert-err34-c): no conversion error is reported, on purpose
}

}  // namespace zon
