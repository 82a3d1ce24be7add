// The operations of the two-key stores; included only by the source file of each store, which instantiates them.
//
// The rule: a store differs by the named constants of its class, never by code of its own.
#pragma once

#include "stores/store_operations.h"
#include "zonmdfile/TwoKeyStore.h"

template <class Store>
TwoKeyStore<Store>::TwoKeyStore() : MDTwoKeyReg(Store::FILENAME) {
  zon::TraceScope trace(Store::TRACE_BASE + zon::trace::CONSTRUCT_OP);
}

template <class Store>
TwoKeyStore<Store>::~TwoKeyStore() {
  zon::TraceScope trace(Store::TRACE_BASE + zon::trace::DESTROY_OP);
}

template <class Store>
std::uint32_t TwoKeyStore<Store>::retrieveKeys(DString& groupKeys, DString& keys) {
  return zon::tracedOperation(Store::TRACE_BASE + zon::trace::RETRIEVE_KEYS_OP, {}, [&] {
    return zon::listRecords<zon::TwoKeyLayout>(
        *this, Store::SOURCE, zon::MATCH_ALL, {},
        std::array{zon::ListOutput{zon::Field::GROUP_KEY, &groupKeys}, zon::ListOutput{zon::Field::KEY, &keys}},
        zon::OnFailedOpen::KEEP_BUFFERS);
  });
}

template <class Store>
std::uint32_t TwoKeyStore<Store>::retrieveAll(DString& groupKeys, DString& keys, DString& data, DString& versions) {
  return zon::tracedOperation(Store::TRACE_BASE + zon::trace::RETRIEVE_ALL_OP, {}, [&] {
    return zon::listRecords<zon::TwoKeyLayout>(
        *this, Store::SOURCE, zon::MATCH_ALL, {},
        std::array{zon::ListOutput{zon::Field::GROUP_KEY, &groupKeys}, zon::ListOutput{zon::Field::KEY, &keys},
                   zon::ListOutput{zon::Field::DATA, &data}, zon::ListOutput{zon::Field::VERSION, &versions}},
        zon::OnFailedOpen::KEEP_BUFFERS);
  });
}

template <class Store>
std::uint32_t TwoKeyStore<Store>::retrieveList(DString& groupKey, DString& keys, DString& data, DString& versions) {
  return zon::tracedOperation(Store::TRACE_BASE + zon::trace::RETRIEVE_LIST_OP, {&groupKey}, [&] {
    const zon::Keys<zon::TwoKeyLayout> recordKeys{&groupKey};
    if (const std::uint32_t rc = zon::checkKeys(*this, recordKeys)) return rc;
    return zon::listRecords<zon::TwoKeyLayout>(
        *this, Store::SOURCE, zon::MATCH_GROUP_KEY, recordKeys,
        std::array{zon::ListOutput{zon::Field::KEY, &keys}, zon::ListOutput{zon::Field::DATA, &data},
                   zon::ListOutput{zon::Field::VERSION, &versions}},
        zon::OnFailedOpen::KEEP_BUFFERS);
  });
}

template <class Store>
std::uint32_t TwoKeyStore<Store>::retrieve(DString& groupKey, DString& key, DString& data, DString& version) {
  return zon::tracedOperation(Store::TRACE_BASE + zon::trace::RETRIEVE_OP, {&groupKey, &key}, [&] {
    const zon::Keys<zon::TwoKeyLayout> recordKeys{&groupKey, &key};
    if (const std::uint32_t rc = zon::checkKeys(*this, recordKeys)) return rc;
    return zon::getRecord<zon::TwoKeyLayout>(*this, Store::SOURCE, recordKeys, data, version);
  });
}

template <class Store>
std::uint32_t TwoKeyStore<Store>::insert(DString& groupKey, DString& key, DString& data, DString version) {
  return zon::tracedOperation(Store::TRACE_BASE + zon::trace::INSERT_OP, {&groupKey, &key, &data, &version}, [&] {
    const zon::Keys<zon::TwoKeyLayout> recordKeys{&groupKey, &key};
    if (const std::uint32_t rc = zon::checkRecord<zon::TwoKeyLayout>(*this, recordKeys, data, version)) return rc;
    return zon::addRecord<zon::TwoKeyLayout>(*this, Store::SOURCE, recordKeys, data, version);
  });
}

template <class Store>
std::uint32_t TwoKeyStore<Store>::update(DString& groupKey, DString& key, DString& data, DString version) {
  return zon::tracedOperation(Store::TRACE_BASE + zon::trace::UPDATE_OP, {&groupKey, &key, &data, &version}, [&] {
    const zon::Keys<zon::TwoKeyLayout> recordKeys{&groupKey, &key};
    if (const std::uint32_t rc = zon::checkRecord<zon::TwoKeyLayout>(*this, recordKeys, data, version)) return rc;
    return zon::changeRecord<zon::TwoKeyLayout>(*this, Store::SOURCE, recordKeys, data, version,
                                                {.keepsNewRecord = Store::UPDATE_KEEPS_NEW_RECORD});
  });
}

template <class Store>
std::uint32_t TwoKeyStore<Store>::remove(DString& groupKey, DString& key) {
  return zon::tracedOperation(Store::TRACE_BASE + zon::trace::REMOVE_OP, {&groupKey, &key}, [&] {
    const zon::Keys<zon::TwoKeyLayout> recordKeys{&groupKey, &key};
    if (const std::uint32_t rc = zon::checkKeys(*this, recordKeys)) return rc;
    return zon::deleteRecords<zon::TwoKeyLayout>(*this, Store::SOURCE, zon::TwoKeyLayout::WHOLE_KEY, recordKeys);
  });
}

template <class Store>
std::uint32_t TwoKeyStore<Store>::removeList(DString& groupKey) {
  return zon::tracedOperation(Store::TRACE_BASE + zon::trace::REMOVE_LIST_OP, {&groupKey}, [&] {
    const zon::Keys<zon::TwoKeyLayout> recordKeys{&groupKey};
    if (const std::uint32_t rc = zon::checkKeys(*this, recordKeys)) return rc;
    const zon::DeleteAllScope all(*this);
    return zon::deleteRecords<zon::TwoKeyLayout>(*this, Store::SOURCE, zon::MATCH_GROUP_KEY, recordKeys);
  });
}
