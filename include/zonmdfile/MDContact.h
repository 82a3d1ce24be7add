/*
 * MDContact: the store of notification contacts, in the file "zoncontact". The key is the contact's name; the data
 * holds four fields separated by 0x0F: e-mail address, notification type, description, maximum page length.
 */
#ifndef ZONMDFILE_MDCONTACT_H
#define ZONMDFILE_MDCONTACT_H

#include <cstdint>

#include "zonmdfile/OneKeyStore.h"

class ZON_EXPORT MDContact : public OneKeyStore<MDContact> {
 public:
  static const char* const FILENAME;
  static constexpr char FIELD_SEPARATOR = 0x0F;
  static constexpr bool UPDATE_MATCHES_IN_EXACT_SIZE = true; /* data of a few bytes does not need a megabyte */

  /*
   * Read one field of a contact's data. 0, or MD_RC_TOKEN_MISSING with the output untouched when the text is used up
   * before the field. A missing field reads as the last one there is. Numbers are read as by atoi.
   */
  [[nodiscard]] std::uint32_t getEmailAddress(DString& data, DString& address);
  [[nodiscard]] std::uint32_t getNotificationType(DString& data, int& type);
  [[nodiscard]] std::uint32_t getDescription(DString& data, DString& description);
  [[nodiscard]] std::uint32_t getMaxPageLength(DString& data, int& length);
};

extern template class OneKeyStore<MDContact>;

#endif
