// The operations of the one-key stores; included only by the source file of each store, which instantiates them.
//
// The rule: a store differs by the named constants of its class, never by code of its own.
#pragma once

#include "stores/store_operations.h"
#include "zonmdfile/OneKeyStore.h"

template <class Store>
OneKeyStore<Store>::OneKeyStore() : MDOneKeyReg(Store::FILENAME) {
  zon::TraceScope trace(Store::TRACE_BASE + zon::trace::CONSTRUCT_OP);
}

template <class Store>
OneKeyStore<Store>::~OneKeyStore() {
  zon::TraceScope trace(Store::TRACE_BASE + zon::trace::DESTROY_OP);
}

template <class Store>
std::uint32_t OneKeyStore<Store>::retrieveKeys(DString& keys) {
  return zon::tracedOperation(Store::TRACE_BASE + zon::trace::RETRIEVE_KEYS_OP, {}, [&] {
    return zon::listRecords<zon::OneKeyLayout>(*this, Store::SOURCE, zon::MATCH_ALL, {},
                                               std::array{zon::ListOutput{zon::Field::KEY, &keys}});
  });
}

template <class Store>
std::uint32_t OneKeyStore<Store>::retrieveAll(DString& keys, DString& data, DString& versions) {
  return zon::tracedOperation(Store::TRACE_BASE + zon::trace::RETRIEVE_ALL_OP, {}, [&] {
    return zon::listRecords<zon::OneKeyLayout>(
        *this, Store::SOURCE, zon::MATCH_ALL, {},
        std::array{zon::ListOutput{zon::Field::KEY, &keys}, zon::ListOutput{zon::Field::DATA, &data},
                   zon::ListOutput{zon::Field::VERSION, &versions}});
  });
}

template <class Store>
std::uint32_t OneKeyStore<Store>::retrieve(DString& key, DString& data, DString& version) {
  return zon::tracedOperation(Store::TRACE_BASE + zon::trace::RETRIEVE_OP, {&key}, [&] {
    const zon::Keys<zon::OneKeyLayout> recordKeys{&key};
    if (const std::uint32_t rc = zon::checkKeys(*this, recordKeys)) return rc;
    return zon::getRecord<zon::OneKeyLayout>(*this, Store::SOURCE, recordKeys, data, version);
  });
}

template <class Store>
std::uint32_t OneKeyStore<Store>::insert(DString& key, DString& data, DString version) {
  return zon::tracedOperation(Store::TRACE_BASE + zon::trace::INSERT_OP, {&key, &data, &version}, [&] {
    const zon::Keys<zon::OneKeyLayout> recordKeys{&key};
    if (const std::uint32_t rc = zon::checkRecord<zon::OneKeyLayout>(*this, recordKeys, data, version)) return rc;
    return zon::addRecord<zon::OneKeyLayout>(*this, Store::SOURCE, recordKeys, data, version);
  });
}

template <class Store>
std::uint32_t OneKeyStore<Store>::update(DString& key, DString& data, DString version) {
  return zon::tracedOperation(Store::TRACE_BASE + zon::trace::UPDATE_OP, {&key, &data, &version}, [&] {
    const zon::Keys<zon::OneKeyLayout> recordKeys{&key};
    if (const std::uint32_t rc = zon::checkRecord<zon::OneKeyLayout>(*this, recordKeys, data, version)) return rc;
    return zon::changeRecord<zon::OneKeyLayout>(*this, Store::SOURCE, recordKeys, data, version,
                                                {.matchesInExactSize = Store::UPDATE_MATCHES_IN_EXACT_SIZE});
  });
}

template <class Store>
std::uint32_t OneKeyStore<Store>::remove(DString& key) {
  return zon::tracedOperation(Store::TRACE_BASE + zon::trace::REMOVE_OP, {&key}, [&] {
    const zon::Keys<zon::OneKeyLayout> recordKeys{&key};
    if (const std::uint32_t rc = zon::checkKeys(*this, recordKeys)) return rc;
    return zon::deleteRecords<zon::OneKeyLayout>(*this, Store::SOURCE, zon::MATCH_KEY, recordKeys);
  });
}
