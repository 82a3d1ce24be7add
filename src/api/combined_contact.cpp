// The combined contact interface: a contact's fields one by one instead of one data text.
//
// The rule: the outcome is in the SQLCA alone. Callers see a count that is written before the detail switch is read,
// and no other cell touched before all texts are made.
#include <string>
#include <string_view>
#include <vector>

#include "api/MDRegFactory.h"
#include "platform/guarded.h"
#include "record/tokenized_text.h"
#include "stores/contact_fields.h"
#include "zonmdfile/MDContact.h"

using namespace zon;

namespace {

// The five slots of one contact, counted from its first.
enum ContactSlot : std::size_t { NAME_SLOT, TYPE_SLOT, EMAIL_SLOT, PAGE_LENGTH_SLOT, DESCRIPTION_SLOT, CONTACT_SLOTS };

constexpr std::size_t DETAIL_SLOT = 0;
constexpr std::size_t COUNT_SLOT = 1;
constexpr std::size_t FIRST_CONTACT_SLOT = 2;

// A contact's fields as the parser finds them in its data text.
struct ContactFields {
  std::string_view email;
  std::string_view type;
  std::string_view description;
  std::string_view pageLength;
};

// A contact as one listing has it.
struct ContactEntry {
  std::string_view name;
  ContactFields fields;
};

// The code is that of the last field that could not be read; its place holds what the parser left.
[[nodiscard]] std::uint32_t readFields(std::string_view data, ContactFields& fields) {
  std::uint32_t failure = MD_RC_OK;
  const auto read = [&](unsigned long field, std::string_view& text) {
    const std::uint32_t rc = parseText(data, CONTACT_TOKEN, field, text);
    if (rc != MD_RC_OK) failure = rc;
  };
  read(EMAIL_ADDRESS, fields.email);
  read(NOTIFICATION_TYPE, fields.type);
  read(DESCRIPTION, fields.description);
  read(MAX_PAGE_LENGTH, fields.pageLength);
  return failure;
}

// One contact on its way into its slots.
class ContactRow {
 public:
  bool make(const ContactFields& fields) {
    type_ = numberOf(fields.type);
    pageLength_ = numberOf(fields.pageLength);
    return email_.copy(fields.email) && description_.copy(fields.description);
  }
  bool make(const ContactEntry& entry) { return name_.copy(entry.name) && make(entry.fields); }

  void putName(const ParameterBlock& block, std::size_t first) { name_.putInto(block.output(first + NAME_SLOT)); }
  void putFields(const ParameterBlock& block, std::size_t first) {
    email_.putInto(block.output(first + EMAIL_SLOT));
    description_.putInto(block.output(first + DESCRIPTION_SLOT));
    block.putNumber(first + TYPE_SLOT, type_);
    block.putNumber(first + PAGE_LENGTH_SLOT, pageLength_);
  }

 private:
  OutputText name_;
  OutputText email_;
  OutputText description_;
  std::int32_t type_ = 0;
  std::int32_t pageLength_ = 0;
};

// The data text that the five slots make.
DString joinFields(const ParameterBlock& block) {
  DString data = block.input(EMAIL_SLOT);
  data += CONTACT_SEPARATOR;
  data.append(std::to_string(block.number(TYPE_SLOT)));
  data += CONTACT_SEPARATOR;
  data += block.input(DESCRIPTION_SLOT);
  data += CONTACT_SEPARATOR;
  data.append(std::to_string(block.number(PAGE_LENGTH_SLOT)));
  return data;
}

using WriteOperation = std::uint32_t (OneKeyStore<MDContact>::*)(DString&, DString&, DString);

// Writes the contact of the five slots; the version is the number that `reserved` points to.
void writeContact(std::uint32_t tracePoint, WriteOperation operation, const void* reserved, void** slots,
                  struct sqlca* sqlca) {
  TraceScope trace(tracePoint);
  const ParameterBlock block(slots);
  DString name;
  DString data;
  DString version;
  std::uint32_t rc = guarded([&] {
    const auto* number = static_cast<const std::uint32_t*>(reserved);
    name = block.input(NAME_SLOT);
    data = joinFields(block);
    version.append(std::to_string(number != nullptr ? *number : 0));
    return MD_RC_OK;
  });
  if (rc == MD_RC_OK) {
    rc = withStore<MDContact>([&](MDContact& store) { return (store.*operation)(name, data, version); });
  }
  reportToSqlca<MDContact>(trace, rc, block.text(NAME_SLOT), sqlca);
}

[[nodiscard]] std::uint32_t readContact(MDContact& store, const ParameterBlock& block) {
  DString name = block.input(NAME_SLOT);
  DString data;
  DString version;
  if (const std::uint32_t rc = store.retrieve(name, data, version)) return rc;
  if (data.isEmpty() || version.isEmpty()) return MD_RC_NO_DATA;
  ContactFields fields;
  const std::uint32_t rc = readFields(data, fields);
  ContactRow row;
  if (!row.make(fields)) return GENREG_RC_NO_MEMORY;
  row.putFields(block, 0);
  return rc;
}

// The contacts of the lists, one after the other. Behind the last entry, lists go on giving that entry.
class ContactReader {
 public:
  ContactReader(TraceScope& trace, const DString& keys, const DString& data)
      : trace_(trace), keys_(keys), data_(data) {}

  // A data text that lacks fields is no failure here. False when there is no memory.
  bool next(ContactRow& row) {
    ContactEntry entry;
    std::string_view text;
    traceFailure(trace_, keys_.next(entry.name));
    traceFailure(trace_, data_.next(text));
    traceFailure(trace_, readFields(text, entry.fields));
    return row.make(entry);
  }

 private:
  TraceScope& trace_;
  ListReader keys_;
  ListReader data_;
};

// Fills contact after contact for as long as the count cell says, which an output may have overwritten if the caller
// let their slots overlap.
[[nodiscard]] std::uint32_t putRows(const ParameterBlock& block, std::vector<ContactRow>& rows, ContactReader& reader) {
  for (std::size_t k = 0; k < block.presentCount(COUNT_SLOT, rows.size()); ++k) {
    ContactRow beyond;
    if (k >= rows.size() && !reader.next(beyond)) return GENREG_RC_NO_MEMORY;
    ContactRow& row = k < rows.size() ? rows[k] : beyond;
    const std::size_t first = FIRST_CONTACT_SLOT + CONTACT_SLOTS * k;
    row.putName(block, first);
    row.putFields(block, first);
  }
  return MD_RC_OK;
}

[[nodiscard]] std::uint32_t readAllContacts(MDContact& store, const ParameterBlock& block, TraceScope& trace) {
  DString keys;
  DString data;
  DString versions;
  const std::uint32_t rc = store.retrieveAll(keys, data, versions);
  if (rc == GENREG_RC_NOT_FOUND) {
    block.putCount(COUNT_SLOT, 0);
    return MD_RC_OK;
  }
  if (rc != MD_RC_OK) return rc;
  if (keys.isEmpty() || data.isEmpty() || versions.isEmpty()) return MD_RC_NO_DATA;

  const std::size_t count = countEntries(keys);
  Provisional written(block.count(COUNT_SLOT));
  block.putCount(COUNT_SLOT, count);
  std::vector<ContactRow> rows(block.number(DETAIL_SLOT) != 0 ? count : 0);
  ContactReader reader(trace, keys, data);
  for (ContactRow& row : rows) {
    if (!reader.next(row)) return GENREG_RC_NO_MEMORY;
  }
  written.keep();
  return rows.empty() ? MD_RC_OK : putRows(block, rows, reader);
}

}  // namespace

MD_ENTRY ContactAPI_retrieveAll(void*, void** slots, struct sqlca* sqlca) {
  TraceScope trace(trace::point("ContactAPI_retrieveAll"));
  const ParameterBlock block(slots);
  const std::uint32_t rc = withStore<MDContact>([&](MDContact& store) { return readAllContacts(store, block, trace); });
  reportToSqlca<MDContact>(trace, rc, sqlca);
}

MD_ENTRY ContactAPI_retrieve(void*, void** slots, struct sqlca* sqlca) {
  TraceScope trace(trace::point("ContactAPI_retrieve"));
  const ParameterBlock block(slots);
  const std::uint32_t rc = withStore<MDContact>([&](MDContact& store) { return readContact(store, block); });
  reportToSqlca<MDContact>(trace, rc, block.text(NAME_SLOT), sqlca);
}

MD_ENTRY ContactAPI_update(void* reserved, void** block, struct sqlca* sqlca) {
  writeContact(trace::point("ContactAPI_update"), &MDContact::update, reserved, block, sqlca);
}

MD_ENTRY ContactAPI_insert(void* reserved, void** block, struct sqlca* sqlca) {
  writeContact(trace::point("ContactAPI_insert"), &MDContact::insert, reserved, block, sqlca);
}
