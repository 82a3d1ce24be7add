// The frame of every entry point: make a store, call one operation on it, hand its results out, destroy the store,
// report.
//
// The rule: a slot table says all that one entry point has of its own. Inputs and outputs of the table are the
// parameters of the store operation, in order; a table that does not fit does not compile.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <utility>

#include "api/cells.h"
#include "api/loss_warning.h"
#include "platform/guarded.h"
#include "platform/trace_scope.h"
#include "record/trace_points.h"
#include "stores/store_scopes.h"
#include "zonmdfile/MDContact.h"
#include "zonmdfile/MDContactGroup.h"
#include "zonmdfile/zonmdfile.h"

#define MD_ENTRY extern "C" ZON_EXPORT void

namespace zon {

// What a slot holds. A KEY is an input that also names the record in the SQLCA.
namespace slot {
enum Kind : std::uint8_t { KEY, IN, OUT, RC };
}  // namespace slot

template <std::size_t SIZE>
struct SlotTable {
  slot::Kind slots[SIZE];

  static constexpr bool isInput(slot::Kind kind) { return kind == slot::KEY || kind == slot::IN; }
  static constexpr bool isOutput(slot::Kind kind) { return kind == slot::OUT; }
  static constexpr bool isKey(slot::Kind kind) { return kind == slot::KEY; }
  static constexpr bool isRc(slot::Kind kind) { return kind == slot::RC; }

  template <auto IS_WANTED>
  constexpr std::size_t count() const {
    std::size_t count = 0;
    for (const slot::Kind kind : slots) count += IS_WANTED(kind) ? 1 : 0;
    return count;
  }

  // The numbers of the slots of one kind.
  template <auto IS_WANTED, std::size_t COUNT>
  constexpr std::array<std::size_t, COUNT> find() const {
    std::array<std::size_t, COUNT> found{};
    std::size_t next = 0;
    for (std::size_t i = 0; i < SIZE; ++i) {
      if (IS_WANTED(slots[i])) found[next++] = i;
    }
    return found;
  }
};
template <class... Slots>
SlotTable(Slots...) -> SlotTable<sizeof...(Slots)>;

template <const auto& TABLE>
struct SlotNumbers {
  using Table = std::remove_cvref_t<decltype(TABLE)>;
  static constexpr auto INPUTS = TABLE.template find<Table::isInput, TABLE.template count<Table::isInput>()>();
  static constexpr auto OUTPUTS = TABLE.template find<Table::isOutput, TABLE.template count<Table::isOutput>()>();
  static constexpr auto KEYS = TABLE.template find<Table::isKey, TABLE.template count<Table::isKey>()>();
  static_assert(TABLE.template count<Table::isRc>() == 1);
  static constexpr std::size_t RC_SLOT = TABLE.template find<Table::isRc, 1>()[0];
};

template <class Store>
inline constexpr std::uint32_t SUBJECT_KIND = ZON_SUBJECT_OTHER;
template <>
inline constexpr std::uint32_t SUBJECT_KIND<MDContact> = ZON_SUBJECT_CONTACT;
template <>
inline constexpr std::uint32_t SUBJECT_KIND<MDContactGroup> = ZON_SUBJECT_CONTACT;

// Makes a store for one call, hands it to body, and destroys it before it returns body's code. Exceptions of body
// become codes; one that the store's constructor throws goes outward.
template <class Store, class Body>
[[nodiscard]] std::uint32_t withStore(Body&& body) {
  const std::unique_ptr<Store> store(new (std::nothrow) Store);
  if (store == nullptr) return MD_RC_NO_DATA;
  const std::uint32_t rc = guarded([&] { return std::forward<Body>(body)(*store); });
  LossWarning::note(store->hasMetLoss());
  return rc;
}

// Hands all results out, or none: the first empty one, or a lack of memory, keeps every cell as it was.
template <std::size_t COUNT>
[[nodiscard]] std::uint32_t putResults(const ParameterBlock& block, const std::array<std::size_t, COUNT>& slots,
                                       std::array<DString, COUNT>& results) {
  for (const DString& result : results) {
    if (result.isEmpty()) return MD_RC_NO_DATA;
  }
  std::array<OutputText, COUNT> texts;
  for (std::size_t i = 0; i < COUNT; ++i) {
    if (!texts[i].take(results[i])) return GENREG_RC_NO_MEMORY;
  }
  for (std::size_t i = 0; i < COUNT; ++i) texts[i].putInto(block.output(slots[i]));
  return MD_RC_OK;
}

// Calls the one operation of an entry point on a store of its own: a member of the store, or a function that takes it
// first.
template <class Store, auto OPERATION, const auto& TABLE>
[[nodiscard]] std::uint32_t callOperation(const ParameterBlock& block) {
  using Slots = SlotNumbers<TABLE>;
  return withStore<Store>([&block](Store& store) {
    std::array<DString, Slots::INPUTS.size()> inputs;
    for (std::size_t i = 0; i < inputs.size(); ++i) inputs[i] = block.input(Slots::INPUTS[i]);
    std::array<DString, Slots::OUTPUTS.size()> results;
    const auto call = [&]<std::size_t... I, std::size_t... O>(std::index_sequence<I...>, std::index_sequence<O...>) {
      return std::invoke(OPERATION, store, inputs[I]..., results[O]...);
    };
    const std::uint32_t rc =
        call(std::make_index_sequence<inputs.size()>(), std::make_index_sequence<results.size()>());
    return rc == MD_RC_OK ? putResults(block, Slots::OUTPUTS, results) : rc;
  });
}

// Fills the SQLCA, with the key inputs as tokens, and the rc cell. The store is gone by now.
template <class Store, const auto& TABLE>
void report(TraceScope& trace, std::uint32_t rc, const ParameterBlock& block, struct sqlca* sqlca) {
  using Slots = SlotNumbers<TABLE>;
  constexpr std::size_t COUNT = Slots::KEYS.size();
  trace.variable(&rc, sizeof rc);
  std::array<const char*, COUNT == 0 ? 1 : COUNT> tokens{};
  for (std::size_t i = 0; i < COUNT; ++i) tokens[i] = block.text(Slots::KEYS[i]);
  const std::int32_t sqlcode = mapMDFileRcToSqlca(rc, static_cast<std::int32_t>(COUNT),
                                                  COUNT == 0 ? nullptr : tokens.data(), SUBJECT_KIND<Store>, sqlca);
  LossWarning::putInto(sqlca);
  block.putNumber(Slots::RC_SLOT, sqlcode);
  trace.exit(sqlcode);
}

// Some failures show in the trace alone: callers get the results that there are.
inline void traceFailure(TraceScope& trace, std::uint32_t rc) {
  if (rc != MD_RC_OK) trace.variable(&rc, sizeof rc);
}

// A whole entry point.
template <class Store, auto OPERATION, const auto& TABLE>
void callStore(std::uint32_t tracePoint, void** slots, struct sqlca* sqlca) {
  TraceScope trace(tracePoint);
  const ParameterBlock block(slots);
  report<Store, TABLE>(trace, callOperation<Store, OPERATION, TABLE>(block), block, sqlca);
}

// The report of an entry point without an rc cell; `token` (may be null) names the record in the SQLCA.
template <class Store>
void reportToSqlca(TraceScope& trace, std::uint32_t rc, const char* token, struct sqlca* sqlca) {
  trace.variable(&rc, sizeof rc);
  const std::int32_t sqlcode = mapMDFileRcToSqlca(rc, 1, &token, SUBJECT_KIND<Store>, sqlca);
  LossWarning::putInto(sqlca);
  trace.exit(sqlcode);
}

template <class Store>
void reportToSqlca(TraceScope& trace, std::uint32_t rc, struct sqlca* sqlca) {
  trace.variable(&rc, sizeof rc);
  const std::int32_t sqlcode = mapMDFileRcToSqlca(rc, 0, nullptr, SUBJECT_KIND<Store>, sqlca);
  LossWarning::putInto(sqlca);
  trace.exit(sqlcode);
}

}  // namespace zon
