// MDCloningMapping: the three-key operations on the file of cloning mappings.
//
// The rule: as the two-key stores, one key wider.
#include "zonmdfile/MDCloningMapping.h"

#include "stores/store_operations.h"

static_assert(MDCloningMapping::TRACE_BASE == zon::trace::MD_CLONING_MAPPING);

const char* const MDCloningMapping::FILENAME = "zoncloningmapping";

using zon::Field;
using zon::ListOutput;
using zon::ThreeKeyLayout;

MDCloningMapping::MDCloningMapping() : MDThreeKeyReg(FILENAME) {
  zon::TraceScope trace(TRACE_BASE + zon::trace::CONSTRUCT_OP);
}

MDCloningMapping::~MDCloningMapping() { zon::TraceScope trace(TRACE_BASE + zon::trace::DESTROY_OP); }

std::uint32_t MDCloningMapping::retrieveKeys(DString& groupKeys, DString& subGroupKeys, DString& keys) {
  return zon::tracedOperation(TRACE_BASE + zon::trace::RETRIEVE_KEYS_OP, {}, [&] {
    return zon::listRecords<ThreeKeyLayout>(
        *this, SOURCE, zon::MATCH_ALL, {},
        std::array{ListOutput{Field::GROUP_KEY, &groupKeys}, ListOutput{Field::SUB_GROUP_KEY, &subGroupKeys},
                   ListOutput{Field::KEY, &keys}},
        zon::OnFailedOpen::KEEP_BUFFERS);
  });
}

std::uint32_t MDCloningMapping::retrieveAll(DString& groupKeys, DString& subGroupKeys, DString& keys, DString& data,
                                            DString& versions) {
  return zon::tracedOperation(TRACE_BASE + zon::trace::RETRIEVE_ALL_OP, {}, [&] {
    return zon::listRecords<ThreeKeyLayout>(
        *this, SOURCE, zon::MATCH_ALL, {},
        std::array{ListOutput{Field::GROUP_KEY, &groupKeys}, ListOutput{Field::SUB_GROUP_KEY, &subGroupKeys},
                   ListOutput{Field::KEY, &keys}, ListOutput{Field::DATA, &data},
                   ListOutput{Field::VERSION, &versions}},
        zon::OnFailedOpen::KEEP_BUFFERS);
  });
}

std::uint32_t MDCloningMapping::retrieve(DString& groupKey, DString& subGroupKey, DString& key, DString& data,
                                         DString& version) {
  return zon::tracedOperation(TRACE_BASE + zon::trace::RETRIEVE_OP, {&groupKey, &subGroupKey, &key}, [&] {
    const zon::Keys<ThreeKeyLayout> recordKeys{&groupKey, &subGroupKey, &key};
    if (const std::uint32_t rc = zon::checkKeys(*this, recordKeys)) return rc;
    return zon::getRecord<ThreeKeyLayout>(*this, SOURCE, recordKeys, data, version);
  });
}

std::uint32_t MDCloningMapping::insert(DString& groupKey, DString& subGroupKey, DString& key, DString& data,
                                       DString version) {
  return zon::tracedOperation(
      TRACE_BASE + zon::trace::INSERT_OP, {&groupKey, &subGroupKey, &key, &data, &version}, [&] {
        const zon::Keys<ThreeKeyLayout> recordKeys{&groupKey, &subGroupKey, &key};
        if (const std::uint32_t rc = zon::checkRecord<ThreeKeyLayout>(*this, recordKeys, data, version)) return rc;
        return zon::addRecord<ThreeKeyLayout>(*this, SOURCE, recordKeys, data, version);
      });
}

std::uint32_t MDCloningMapping::update(DString& groupKey, DString& subGroupKey, DString& key, DString& data,
                                       DString version) {
  return zon::tracedOperation(
      TRACE_BASE + zon::trace::UPDATE_OP, {&groupKey, &subGroupKey, &key, &data, &version}, [&] {
        const zon::Keys<ThreeKeyLayout> recordKeys{&groupKey, &subGroupKey, &key};
        if (const std::uint32_t rc = zon::checkRecord<ThreeKeyLayout>(*this, recordKeys, data, version)) return rc;
        return zon::changeRecord<ThreeKeyLayout>(*this, SOURCE, recordKeys, data, version);
      });
}

std::uint32_t MDCloningMapping::remove(DString& groupKey, DString& subGroupKey, DString& key) {
  return zon::tracedOperation(TRACE_BASE + zon::trace::REMOVE_OP, {&groupKey, &subGroupKey, &key}, [&] {
    const zon::Keys<ThreeKeyLayout> recordKeys{&groupKey, &subGroupKey, &key};
    if (const std::uint32_t rc = zon::checkKeys(*this, recordKeys)) return rc;
    return zon::deleteRecords<ThreeKeyLayout>(*this, SOURCE, ThreeKeyLayout::WHOLE_KEY, recordKeys);
  });
}
