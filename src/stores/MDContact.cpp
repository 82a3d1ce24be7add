// MDContact: the one-key operations on the file of contacts, and the readers of a contact's four fields.
//
// The rule: the record operations never look into the data; only the field readers do.
#include "zonmdfile/MDContact.h"

#include <string_view>

#include "record/tokenized_text.h"
#include "stores/contact_fields.h"
#include "stores/one_key_store_impl.h"

const char* const MDContact::FILENAME = "zoncontact";

template <>
inline constexpr const char* zon::NAME<MDContact> = "MDContact";

template class OneKeyStore<MDContact>;

namespace {

// Reads one field; the output changes only when there is one.
[[nodiscard]] std::uint32_t readText(const DString& data, unsigned long field, DString& output) {
  std::string_view text;
  const std::uint32_t rc = zon::parseText(data, zon::CONTACT_TOKEN, field, text);
  if (rc == MD_RC_OK) output.assign(text);
  return rc;
}

[[nodiscard]] std::uint32_t readNumber(const DString& data, unsigned long field, int& output) {
  std::string_view text;
  const std::uint32_t rc = zon::parseText(data, zon::CONTACT_TOKEN, field, text);
  if (rc == MD_RC_OK) output = zon::numberOf(text);
  return rc;
}

}  // namespace

std::uint32_t MDContact::getEmailAddress(DString& data, DString& address) {
  return zon::traced(zon::operation<MDContact>("getEmailAddress"), {&data},
                     [&] { return readText(data, zon::EMAIL_ADDRESS, address); });
}

std::uint32_t MDContact::getNotificationType(DString& data, int& type) {
  return zon::traced(zon::operation<MDContact>("getNotificationType"), {&data},
                     [&] { return readNumber(data, zon::NOTIFICATION_TYPE, type); });
}

std::uint32_t MDContact::getDescription(DString& data, DString& description) {
  return zon::traced(zon::operation<MDContact>("getDescription"), {&data},
                     [&] { return readText(data, zon::DESCRIPTION, description); });
}

std::uint32_t MDContact::getMaxPageLength(DString& data, int& length) {
  return zon::traced(zon::operation<MDContact>("getMaxPageLength"), {&data},
                     [&] { return readNumber(data, zon::MAX_PAGE_LENGTH, length); });
}
