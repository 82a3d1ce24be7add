// MDCloningMapping: the three-key operations on the file of cloning mappings.
//
// The rule: as the two-key stores, one key wider.
#include "zonmdfile/MDCloningMapping.h"

#include "stores/store_frame.h"

const char* const MDCloningMapping::FILENAME = "zoncloningmapping";

template <>
inline constexpr const char* zon::NAME<MDCloningMapping> = "MDCloningMapping";

using zon::Field;
using zon::ListOutput;

namespace {

consteval zon::StoreOperation operation(std::string_view name) { return zon::operation<MDCloningMapping>(name); }

}  // namespace

MDCloningMapping::MDCloningMapping() : MDThreeKeyReg(FILENAME) {
  zon::TraceScope trace(operation(zon::trace::CONSTRUCTOR).point);
}

MDCloningMapping::~MDCloningMapping() { zon::TraceScope trace(operation(zon::trace::DESTRUCTOR).point); }

std::uint32_t MDCloningMapping::retrieveKeys(DString& groupKeys, DString& subGroupKeys, DString& keys) {
  return zon::listMatches(*this, operation("retrieveKeys"), zon::MATCH_ALL, {},
                          std::array{ListOutput{Field::GROUP_KEY, &groupKeys},
                                     ListOutput{Field::SUB_GROUP_KEY, &subGroupKeys}, ListOutput{Field::KEY, &keys}},
                          zon::OnFailedOpen::KEEP_BUFFERS);
}

std::uint32_t MDCloningMapping::retrieveAll(DString& groupKeys, DString& subGroupKeys, DString& keys, DString& data,
                                            DString& versions) {
  return zon::listMatches(
      *this, operation("retrieveAll"), zon::MATCH_ALL, {},
      std::array{ListOutput{Field::GROUP_KEY, &groupKeys}, ListOutput{Field::SUB_GROUP_KEY, &subGroupKeys},
                 ListOutput{Field::KEY, &keys}, ListOutput{Field::DATA, &data}, ListOutput{Field::VERSION, &versions}},
      zon::OnFailedOpen::KEEP_BUFFERS);
}

std::uint32_t MDCloningMapping::retrieve(DString& groupKey, DString& subGroupKey, DString& key, DString& data,
                                         DString& version) {
  return zon::retrieveRecord(*this, operation("retrieve"), {&groupKey, &subGroupKey, &key}, data, version);
}

std::uint32_t MDCloningMapping::insert(DString& groupKey, DString& subGroupKey, DString& key, DString& data,
                                       DString version) {
  return zon::insertRecord(*this, operation("insert"), {&groupKey, &subGroupKey, &key}, data, version);
}

std::uint32_t MDCloningMapping::update(DString& groupKey, DString& subGroupKey, DString& key, DString& data,
                                       DString version) {
  return zon::updateRecord(*this, operation("update"), {&groupKey, &subGroupKey, &key}, data, version);
}

std::uint32_t MDCloningMapping::remove(DString& groupKey, DString& subGroupKey, DString& key) {
  return zon::removeRecord(*this, operation("remove"), {&groupKey, &subGroupKey, &key});
}
