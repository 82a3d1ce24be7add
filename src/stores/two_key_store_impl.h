// The operations of the two-key stores; included only by the source file of each store, which instantiates them.
//
// The rule: a store differs by the named constants of its class, never by code of its own.
#pragma once

#include "stores/store_frame.h"
#include "zonmdfile/TwoKeyStore.h"

template <class Store>
TwoKeyStore<Store>::TwoKeyStore() : MDTwoKeyReg(Store::FILENAME) {
  zon::TraceScope trace(zon::operation<Store>(zon::trace::CONSTRUCTOR).point);
}

template <class Store>
TwoKeyStore<Store>::~TwoKeyStore() {
  zon::TraceScope trace(zon::operation<Store>(zon::trace::DESTRUCTOR).point);
}

template <class Store>
std::uint32_t TwoKeyStore<Store>::retrieveKeys(DString& groupKeys, DString& keys) {
  return zon::listMatches(
      *this, zon::operation<Store>("retrieveKeys"), zon::MATCH_ALL, {},
      std::array{zon::ListOutput{zon::Field::GROUP_KEY, &groupKeys}, zon::ListOutput{zon::Field::KEY, &keys}},
      zon::OnFailedOpen::KEEP_BUFFERS);
}

template <class Store>
std::uint32_t TwoKeyStore<Store>::retrieveAll(DString& groupKeys, DString& keys, DString& data, DString& versions) {
  return zon::listMatches(
      *this, zon::operation<Store>("retrieveAll"), zon::MATCH_ALL, {},
      std::array{zon::ListOutput{zon::Field::GROUP_KEY, &groupKeys}, zon::ListOutput{zon::Field::KEY, &keys},
                 zon::ListOutput{zon::Field::DATA, &data}, zon::ListOutput{zon::Field::VERSION, &versions}},
      zon::OnFailedOpen::KEEP_BUFFERS);
}

template <class Store>
std::uint32_t TwoKeyStore<Store>::retrieveList(DString& groupKey, DString& keys, DString& data, DString& versions) {
  return zon::listMatches(*this, zon::operation<Store>("retrieveList"), zon::MATCH_GROUP_KEY, {&groupKey},
                          std::array{zon::ListOutput{zon::Field::KEY, &keys}, zon::ListOutput{zon::Field::DATA, &data},
                                     zon::ListOutput{zon::Field::VERSION, &versions}},
                          zon::OnFailedOpen::KEEP_BUFFERS);
}

template <class Store>
std::uint32_t TwoKeyStore<Store>::retrieve(DString& groupKey, DString& key, DString& data, DString& version) {
  return zon::retrieveRecord(*this, zon::operation<Store>("retrieve"), {&groupKey, &key}, data, version);
}

template <class Store>
std::uint32_t TwoKeyStore<Store>::insert(DString& groupKey, DString& key, DString& data, DString version) {
  return zon::insertRecord(*this, zon::operation<Store>("insert"), {&groupKey, &key}, data, version);
}

template <class Store>
std::uint32_t TwoKeyStore<Store>::update(DString& groupKey, DString& key, DString& data, DString version) {
  return zon::updateRecord(*this, zon::operation<Store>("update"), {&groupKey, &key}, data, version,
                           {.keepsNewRecord = Store::UPDATE_KEEPS_NEW_RECORD});
}

template <class Store>
std::uint32_t TwoKeyStore<Store>::remove(DString& groupKey, DString& key) {
  return zon::removeRecord(*this, zon::operation<Store>("remove"), {&groupKey, &key});
}

template <class Store>
std::uint32_t TwoKeyStore<Store>::removeList(DString& groupKey) {
  return zon::removeMatches(*this, zon::operation<Store>("removeList"), zon::MATCH_GROUP_KEY, {&groupKey});
}
