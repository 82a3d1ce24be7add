// The frame of every store operation: trace its entry and arguments, check the keys and the record, do the work on the
// file, trace its exit. The same for records of one, two and three keys, and for the groups.
//
// The rule: an operation of a store is one statement, which says what the operation is called, which keys it is given,
// and what it writes, fills or gathers. Keys that an operation does not name are null: neither traced nor checked.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <type_traits>
#include <utility>

#include "platform/guarded.h"
#include "platform/trace_scope.h"
#include "record/record_layout.h"
#include "record/trace_points.h"
#include "stores/store_operations.h"
#include "stores/store_scopes.h"

namespace zon {

// The name of a store's class, which labels its allocations and finds its trace points; set beside each store's source.
template <class Store>
inline constexpr const char* NAME = nullptr;

struct StoreOperation {
  const char* label;
  std::uint32_t point;
};

// An operation of a store by its name in the table of trace points.
template <class Store>
consteval StoreOperation operation(std::string_view name) {
  return {NAME<Store>, trace::point(NAME<Store>, name)};
}

template <class Type>
using LayoutOf =
    std::conditional_t<std::is_base_of_v<MDOneKeyReg, Type>, OneKeyLayout,
                       std::conditional_t<std::is_base_of_v<MDTwoKeyReg, Type>, TwoKeyLayout, ThreeKeyLayout>>;

template <class Type>
using KeysOf = Keys<LayoutOf<Type>>;

// Entry with the keys and texts as variables, exit with the code; exceptions become codes.
template <std::size_t COUNT, class Work>
[[nodiscard]] std::uint32_t traced(StoreOperation operation, const std::array<DString*, COUNT>& keys,
                                   std::initializer_list<const DString*> texts, Work&& work) noexcept {
  TraceScope trace(operation.point);
  for (const DString* key : keys) {
    if (key != nullptr) trace.variable(key->c_str(), key->length());
  }
  for (const DString* text : texts) trace.variable(text->c_str(), text->length());
  return trace.exit(guarded(std::forward<Work>(work)));
}

template <class Work>
[[nodiscard]] std::uint32_t traced(StoreOperation operation, std::initializer_list<const DString*> texts,
                                   Work&& work) noexcept {
  return traced(operation, std::array<DString*, 0>{}, texts, std::forward<Work>(work));
}

template <class Type>
[[nodiscard]] std::uint32_t insertRecord(Type& store, StoreOperation operation, const KeysOf<Type>& keys, DString& data,
                                         const DString& version) {
  return traced(operation, keys, {&data, &version}, [&] {
    if (const std::uint32_t rc = checkRecord<LayoutOf<Type>>(store, keys, data, version)) return rc;
    return addRecord<LayoutOf<Type>>(store, operation.label, keys, data, version);
  });
}

template <class Type>
[[nodiscard]] std::uint32_t updateRecord(Type& store, StoreOperation operation, const KeysOf<Type>& keys, DString& data,
                                         const DString& version, ChangeOptions options = {}) {
  return traced(operation, keys, {&data, &version}, [&] {
    if (const std::uint32_t rc = checkRecord<LayoutOf<Type>>(store, keys, data, version)) return rc;
    return changeRecord<LayoutOf<Type>>(store, operation.label, keys, data, version, options);
  });
}

template <class Type>
[[nodiscard]] std::uint32_t retrieveRecord(Type& store, StoreOperation operation, const KeysOf<Type>& keys,
                                           DString& data, DString& version) {
  return traced(operation, keys, {}, [&] {
    if (const std::uint32_t rc = checkKeys(store, keys)) return rc;
    return getRecord<LayoutOf<Type>>(store, operation.label, keys, data, version);
  });
}

template <class Type>
[[nodiscard]] std::uint32_t removeRecord(Type& store, StoreOperation operation, const KeysOf<Type>& keys) {
  return traced(operation, keys, {}, [&] {
    if (const std::uint32_t rc = checkKeys(store, keys)) return rc;
    return deleteRecords<LayoutOf<Type>>(store, operation.label, LayoutOf<Type>::WHOLE_KEY, keys);
  });
}

// Every record that has the keys which the flags select, all or nothing.
template <class Type>
[[nodiscard]] std::uint32_t removeMatches(Type& store, StoreOperation operation, unsigned long flags,
                                          const KeysOf<Type>& keys) {
  return traced(operation, keys, {}, [&] {
    if (const std::uint32_t rc = checkKeys(store, keys)) return rc;
    const DeleteAllScope all(store);
    return deleteRecords<LayoutOf<Type>>(store, operation.label, flags, keys);
  });
}

// Lists of the records that have the keys which the flags select.
template <class Type, std::size_t COUNT>
[[nodiscard]] std::uint32_t listMatches(Type& store, StoreOperation operation, unsigned long flags,
                                        const KeysOf<Type>& keys, const std::array<ListOutput, COUNT>& lists,
                                        OnFailedOpen onFailedOpen = OnFailedOpen::RELEASE_BUFFERS) {
  return traced(operation, keys, {}, [&] {
    if (const std::uint32_t rc = checkKeys(store, keys)) return rc;
    return listRecords<LayoutOf<Type>>(store, operation.label, flags, keys, lists, onFailedOpen);
  });
}

}  // namespace zon
