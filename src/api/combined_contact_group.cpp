// The combined contact-group interface: lists of contact groups split into one output cell for each entry.
//
// The rule: the outcome is in the SQLCA alone. Callers see a count that is written before the detail switch is read,
// and no entry written before all texts are made; whatever was written before a failure is taken back.
#include <string_view>
#include <vector>

#include "api/MDRegFactory.h"
#include "record/tokenized_text.h"
#include "zonmdfile/MDContactGroup.h"

using namespace zon;

namespace {

// Fills row after row, from row 0, for as long as the count cell says, which an output may have overwritten if the
// caller let their slots overlap. put(k) gives false when there is no memory.
template <class Put>
[[nodiscard]] std::uint32_t putRows(const ParameterBlock& block, std::size_t countSlot, std::size_t count, Put put) {
  for (std::size_t k = 0; k < block.presentCount(countSlot, count); ++k) {
    if (!put(k)) return GENREG_RC_NO_MEMORY;
  }
  return MD_RC_OK;
}

// The entries of one list on their way into cells.
class Entries {
 public:
  Entries(TraceScope& trace, std::string_view list) : trace_(trace), reader_(list) {}

  // Copies the first `count` entries; false when there is no memory.
  bool make(std::size_t count) {
    texts_.resize(count);
    for (OutputText& text : texts_) {
      if (!copyNext(text)) return false;
    }
    return true;
  }

  // Puts entry k, from 0 and one after the other, into the cell; behind the last entry, lists go on giving that entry.
  bool put(std::size_t k, zonOutputCell* cell) {
    OutputText beyond;
    if (k >= texts_.size() && !copyNext(beyond)) return false;
    (k < texts_.size() ? texts_[k] : beyond).putInto(cell);
    return true;
  }

 private:
  bool copyNext(OutputText& text) {
    std::string_view entry;
    traceFailure(trace_, reader_.next(entry));
    return text.copy(entry);
  }

  TraceScope& trace_;
  ListReader reader_;
  std::vector<OutputText> texts_;
};

// ContactGroupAPI_retrieveAllContactNames: 0 group, 1 detail, 2 count, then the names.
namespace names {

constexpr std::size_t GROUP_SLOT = 0;
constexpr std::size_t DETAIL_SLOT = 1;
constexpr std::size_t COUNT_SLOT = 2;
constexpr std::size_t FIRST_NAME_SLOT = 3;

[[nodiscard]] std::uint32_t put(MDContactGroup& store, const ParameterBlock& block, TraceScope& trace) {
  DString group = block.input(GROUP_SLOT);
  DString list;
  // Whatever the expansion failed with, callers see one code; an unknown group is no special case for them.
  if (store.retrieveAllContactNames(group, list) != MD_RC_OK || list.isEmpty()) return MD_RC_NO_DATA;
  const std::size_t count = countEntries(list);
  Provisional written(block.count(COUNT_SLOT));
  block.putCount(COUNT_SLOT, count);
  const bool wantsDetail = block.number(DETAIL_SLOT) != 0;
  Entries names(trace, list);
  if (wantsDetail && !names.make(count)) return GENREG_RC_NO_MEMORY;
  written.keep();
  if (!wantsDetail) return MD_RC_OK;
  return putRows(block, COUNT_SLOT, count,
                 [&](std::size_t k) { return names.put(k, block.output(FIRST_NAME_SLOT + k)); });
}

}  // namespace names

// ContactGroupAPI_retrieveList: 0 detail, 1 group, 2 count, 3 description, then pairs of kind and member.
namespace members {

constexpr std::size_t DETAIL_SLOT = 0;
constexpr std::size_t GROUP_SLOT = 1;
constexpr std::size_t COUNT_SLOT = 2;
constexpr std::size_t DESCRIPTION_SLOT = 3;
constexpr std::size_t FIRST_KIND_SLOT = 4;
constexpr std::size_t FIRST_MEMBER_SLOT = 5;

[[nodiscard]] std::uint32_t put(MDContactGroup& store, const ParameterBlock& block, TraceScope& trace) {
  DString group = block.input(GROUP_SLOT);
  DString kindList;
  DString memberList;
  DString descriptionList;
  DString versionList;
  if (const std::uint32_t rc = store.retrieveList(group, kindList, memberList, descriptionList, versionList)) return rc;
  if (kindList.isEmpty() || memberList.isEmpty() || descriptionList.isEmpty() || versionList.isEmpty()) {
    return MD_RC_NO_DATA;
  }
  // Every record of a group carries its description: the first stands for the group.
  OutputText description;
  std::string_view text;
  traceFailure(trace, ListReader(descriptionList).next(text));
  if (!description.copy(text)) return GENREG_RC_NO_MEMORY;
  const std::size_t count = countEntries(memberList);
  Provisional shown(block.output(DESCRIPTION_SLOT));
  if (zonOutputCell* cell = block.output(DESCRIPTION_SLOT)) description.showIn(cell);
  Provisional written(block.count(COUNT_SLOT));
  block.putCount(COUNT_SLOT, count);
  const bool wantsDetail = block.number(DETAIL_SLOT) != 0;
  Entries members(trace, memberList);
  Entries kinds(trace, kindList);
  if (wantsDetail && !(members.make(count) && kinds.make(count))) return GENREG_RC_NO_MEMORY;
  written.keep();
  shown.keep();
  if (block.output(DESCRIPTION_SLOT) != nullptr) description.giveAway();
  if (!wantsDetail) return MD_RC_OK;
  return putRows(block, COUNT_SLOT, count, [&](std::size_t k) {
    return members.put(k, block.output(FIRST_MEMBER_SLOT + 2 * k)) &&
           kinds.put(k, block.output(FIRST_KIND_SLOT + 2 * k));
  });
}

}  // namespace members

// ContactGroupAPI_retrieveAll: 0 detail, 1 count, then pairs of group and description.
namespace groups {

constexpr std::size_t DETAIL_SLOT = 0;
constexpr std::size_t COUNT_SLOT = 1;
constexpr std::size_t FIRST_GROUP_SLOT = 2;
constexpr std::size_t FIRST_DESCRIPTION_SLOT = 3;

struct Row {
  OutputText group;
  OutputText description;
};

// The distinct entries of a list in the order of their first appearance.
void gatherNames(TraceScope& trace, const DString& list, DSet<DString>& names) {
  ListReader reader(list);
  for (std::size_t left = countEntries(list); left > 0; --left) {
    std::string_view name;
    traceFailure(trace, reader.next(name));
    names.add(DString(name));
  }
}

// The description is empty when the group's listing fails. Returns the code of that listing.
[[nodiscard]] std::uint32_t makeRow(MDContactGroup& store, TraceScope& trace, const DString& name, Row& row) {
  DString group(name);
  DString kinds;
  DString members;
  DString descriptions;
  DString versions;
  const std::uint32_t rc = store.retrieveList(group, kinds, members, descriptions, versions);
  std::string_view description;
  if (rc == MD_RC_OK) traceFailure(trace, ListReader(descriptions).next(description));
  return row.group.copy(name) && row.description.copy(description) ? rc : GENREG_RC_NO_MEMORY;
}

[[nodiscard]] std::uint32_t put(MDContactGroup& store, const ParameterBlock& block, TraceScope& trace) {
  DString groupList;
  DString kindList;
  DString memberList;
  DString descriptionList;
  DString versionList;
  std::uint32_t rc = store.retrieveAll(groupList, kindList, memberList, descriptionList, versionList);
  if (rc == GENREG_RC_NOT_FOUND) {
    block.putCount(COUNT_SLOT, 0);
    return MD_RC_OK;
  }
  if (rc != MD_RC_OK) return rc;
  if (groupList.isEmpty()) return MD_RC_NO_DATA;

  DSet<DString> names(1, 1);
  gatherNames(trace, groupList, names);
  // The capacity, which callers have always been told; it is the number of names as long as there is one.
  Provisional written(block.count(COUNT_SLOT));
  block.putCount(COUNT_SLOT, names.capacity());
  std::vector<Row> rows(block.number(DETAIL_SLOT) != 0 ? names.count() : 0);
  for (std::size_t k = 0; k < rows.size(); ++k) {
    // The code of the last group stands. Only what is no answer about the group, but a failure to get one, ends the
    // call: no later success would make good for a description that is missing.
    rc = makeRow(store, trace, names.elementAt(k + 1), rows[k]);
    traceFailure(trace, rc);
    if (!isAnswer(rc)) return rc;
  }
  written.keep();
  for (std::size_t k = 0; k < rows.size(); ++k) {
    rows[k].group.putInto(block.output(FIRST_GROUP_SLOT + 2 * k));
    rows[k].description.putInto(block.output(FIRST_DESCRIPTION_SLOT + 2 * k));
  }
  return rc;
}

}  // namespace groups

}  // namespace

MD_ENTRY ContactGroupAPI_retrieveAllContactNames(void*, void** slots, struct sqlca* sqlca) {
  TraceScope trace(trace::point("ContactGroupAPI_retrieveAllContactNames"));
  const ParameterBlock block(slots);
  const std::uint32_t rc =
      withStore<MDContactGroup>([&](MDContactGroup& store) { return names::put(store, block, trace); });
  reportToSqlca<MDContactGroup>(trace, rc, block.text(names::GROUP_SLOT), sqlca);
}

MD_ENTRY ContactGroupAPI_retrieveList(void*, void** slots, struct sqlca* sqlca) {
  TraceScope trace(trace::point("ContactGroupAPI_retrieveList"));
  const ParameterBlock block(slots);
  const std::uint32_t rc =
      withStore<MDContactGroup>([&](MDContactGroup& store) { return members::put(store, block, trace); });
  reportToSqlca<MDContactGroup>(trace, rc, block.text(members::GROUP_SLOT), sqlca);
}

MD_ENTRY ContactGroupAPI_retrieveAll(void*, void** slots, struct sqlca* sqlca) {
  TraceScope trace(trace::point("ContactGroupAPI_retrieveAll"));
  const ParameterBlock block(slots);
  const std::uint32_t rc =
      withStore<MDContactGroup>([&](MDContactGroup& store) { return groups::put(store, block, trace); });
  reportToSqlca<MDContactGroup>(trace, rc, sqlca);
}
