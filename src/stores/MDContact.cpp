// MDContact: the one-key operations on the file of contacts, and the readers of a contact's four fields.
//
// The rule: the record operations never look into the data; only the field readers do.
#include "zonmdfile/MDContact.h"

#include <string_view>

#include "platform/trace_points.h"
#include "record/tokenized_text.h"
#include "stores/contact_fields.h"
#include "stores/one_key_store_impl.h"

static_assert(MDContact::TRACE_BASE == zon::trace::MD_CONTACT);

const char* const MDContact::FILENAME = "zoncontact";

template class OneKeyStore<MDContact>;

namespace {

// Reads one field; the output changes only when there is one.
std::uint32_t readText(const DString& data, unsigned long field, DString& output) {
  std::string_view text;
  const std::uint32_t rc = zon::parseText(data, zon::CONTACT_TOKEN, field, text);
  if (rc == MD_RC_OK) output.assign(text);
  return rc;
}

std::uint32_t readNumber(const DString& data, unsigned long field, int& output) {
  std::string_view text;
  const std::uint32_t rc = zon::parseText(data, zon::CONTACT_TOKEN, field, text);
  if (rc == MD_RC_OK) output = zon::numberOf(text);
  return rc;
}

}  // namespace

std::uint32_t MDContact::getEmailAddress(DString& data, DString& address) {
  return zon::tracedOperation(TRACE_BASE + zon::trace::GET_EMAIL_ADDRESS_OP, {&data},
                              [&] { return readText(data, zon::EMAIL_ADDRESS, address); });
}

std::uint32_t MDContact::getNotificationType(DString& data, int& type) {
  return zon::tracedOperation(TRACE_BASE + zon::trace::GET_NOTIFICATION_TYPE_OP, {&data},
                              [&] { return readNumber(data, zon::NOTIFICATION_TYPE, type); });
}

std::uint32_t MDContact::getDescription(DString& data, DString& description) {
  return zon::tracedOperation(TRACE_BASE + zon::trace::GET_DESCRIPTION_OP, {&data},
                              [&] { return readText(data, zon::DESCRIPTION, description); });
}

std::uint32_t MDContact::getMaxPageLength(DString& data, int& length) {
  return zon::tracedOperation(TRACE_BASE + zon::trace::GET_MAX_PAGE_LENGTH_OP, {&data},
                              [&] { return readNumber(data, zon::MAX_PAGE_LENGTH, length); });
}
