// The operations of the one-key stores; included only by the source file of each store, which instantiates them.
//
// The rule: a store differs by the named constants of its class, never by code of its own.
#pragma once

#include "stores/store_frame.h"
#include "zonmdfile/OneKeyStore.h"

template <class Store>
OneKeyStore<Store>::OneKeyStore() : MDOneKeyReg(Store::FILENAME) {
  zon::TraceScope trace(zon::operation<Store>(zon::trace::CONSTRUCTOR).point);
}

template <class Store>
OneKeyStore<Store>::~OneKeyStore() {
  zon::TraceScope trace(zon::operation<Store>(zon::trace::DESTRUCTOR).point);
}

template <class Store>
std::uint32_t OneKeyStore<Store>::retrieveKeys(DString& keys) {
  return zon::listMatches(*this, zon::operation<Store>("retrieveKeys"), zon::MATCH_ALL, {},
                          std::array{zon::ListOutput{zon::Field::KEY, &keys}});
}

template <class Store>
std::uint32_t OneKeyStore<Store>::retrieveAll(DString& keys, DString& data, DString& versions) {
  return zon::listMatches(*this, zon::operation<Store>("retrieveAll"), zon::MATCH_ALL, {},
                          std::array{zon::ListOutput{zon::Field::KEY, &keys}, zon::ListOutput{zon::Field::DATA, &data},
                                     zon::ListOutput{zon::Field::VERSION, &versions}});
}

template <class Store>
std::uint32_t OneKeyStore<Store>::retrieve(DString& key, DString& data, DString& version) {
  return zon::retrieveRecord(*this, zon::operation<Store>("retrieve"), {&key}, data, version);
}

template <class Store>
std::uint32_t OneKeyStore<Store>::insert(DString& key, DString& data, DString version) {
  return zon::insertRecord(*this, zon::operation<Store>("insert"), {&key}, data, version);
}

template <class Store>
std::uint32_t OneKeyStore<Store>::update(DString& key, DString& data, DString version) {
  return zon::updateRecord(*this, zon::operation<Store>("update"), {&key}, data, version,
                           {.matchesInExactSize = Store::UPDATE_MATCHES_IN_EXACT_SIZE});
}

template <class Store>
std::uint32_t OneKeyStore<Store>::remove(DString& key) {
  return zon::removeRecord(*this, zon::operation<Store>("remove"), {&key});
}
