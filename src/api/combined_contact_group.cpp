// The combined contact-group interface: lists of contact groups split into one output cell for each entry.
//
// The rule: the outcome is in the SQLCA alone; all texts are made before the first cell is touched.
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
std::uint32_t putRows(const ParameterBlock& block, std::size_t countSlot, std::size_t count, Put put) {
  for (std::size_t k = 0; k < block.presentCount(countSlot, count); ++k) {
    if (!put(k)) return GENREG_RC_NO_MEMORY;
  }
  return MD_RC_OK;
}

// The entries of one list on their way into cells.
class Entries {
 public:
  // Copies the first `count` entries; false when there is no memory.
  bool make(TraceScope& trace, std::string_view list, std::size_t count) {
    ListReader reader(list);
    texts_.resize(count);
    for (OutputText& text : texts_) {
      traceFailure(trace, reader.next(last_));
      if (!text.copy(last_)) return false;
    }
    return true;
  }

  // Puts entry k, from 0, into the cell; behind the last entry, lists go on giving that entry.
  bool put(std::size_t k, zonOutputCell* cell) {
    if (k < texts_.size()) {
      texts_[k].putInto(cell);
      return true;
    }
    OutputText beyond;
    if (!beyond.copy(last_)) return false;
    beyond.putInto(cell);
    return true;
  }

 private:
  std::vector<OutputText> texts_;
  std::string_view last_;
};

// ContactGroupAPI_retrieveAllContactNames: 0 group, 1 detail, 2 count, then the names.
namespace names {

constexpr std::size_t GROUP_SLOT = 0;
constexpr std::size_t DETAIL_SLOT = 1;
constexpr std::size_t COUNT_SLOT = 2;
constexpr std::size_t FIRST_NAME_SLOT = 3;

std::uint32_t put(MDContactGroup& store, const ParameterBlock& block, TraceScope& trace) {
  DString group = block.input(GROUP_SLOT);
  DString list;
  // Whatever the expansion failed with, callers see one code; an unknown group is no special case for them.
  if (store.retrieveAllContactNames(group, list) != MD_RC_OK || list.isEmpty()) return MD_RC_NO_DATA;
  const std::size_t count = countEntries(list);
  const bool wantsDetail = block.number(DETAIL_SLOT) != 0;
  Entries names;
  if (wantsDetail && !names.make(trace, list, count)) return GENREG_RC_NO_MEMORY;
  block.putCount(COUNT_SLOT, count);
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

std::uint32_t put(MDContactGroup& store, const ParameterBlock& block, TraceScope& trace) {
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
  Entries descriptions;
  if (!descriptions.make(trace, descriptionList, 1)) return GENREG_RC_NO_MEMORY;
  const std::size_t count = countEntries(memberList);
  const bool wantsDetail = block.number(DETAIL_SLOT) != 0;
  Entries members;
  Entries kinds;
  if (wantsDetail && !(members.make(trace, memberList, count) && kinds.make(trace, kindList, count)))
    return GENREG_RC_NO_MEMORY;
  descriptions.put(0, block.output(DESCRIPTION_SLOT));
  block.putCount(COUNT_SLOT, count);
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
void gatherNames(const DString& list, DSet<DString>& names) {
  ListReader reader(list);
  for (std::size_t left = countEntries(list); left > 0; --left) {
    std::string_view name;
    reader.next(name);
    names.add(DString(name));
  }
}

// The description is empty when the group's listing fails. Returns the code of that listing.
std::uint32_t makeRow(MDContactGroup& store, const DString& name, Row& row) {
  DString group(name);
  DString kinds;
  DString members;
  DString descriptions;
  DString versions;
  const std::uint32_t rc = store.retrieveList(group, kinds, members, descriptions, versions);
  std::string_view description;
  if (rc == MD_RC_OK) ListReader(descriptions).next(description);
  return row.group.copy(name) && row.description.copy(description) ? rc : GENREG_RC_NO_MEMORY;
}

std::uint32_t put(MDContactGroup& store, const ParameterBlock& block, TraceScope& trace) {
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
  gatherNames(groupList, names);
  const bool wantsDetail = block.number(DETAIL_SLOT) != 0;
  std::vector<Row> rows(wantsDetail ? names.count() : 0);
  for (std::size_t k = 0; k < rows.size(); ++k) {
    // The code of the last group stands; only a lack of memory, which no later success makes good, ends the call.
    rc = makeRow(store, names.elementAt(k + 1), rows[k]);
    traceFailure(trace, rc);
    if (rc == GENREG_RC_NO_MEMORY) return rc;
  }
  // The capacity, which callers have always been told; it is the number of names as long as there is one.
  block.putCount(COUNT_SLOT, names.capacity());
  for (std::size_t k = 0; k < rows.size(); ++k) {
    rows[k].group.putInto(block.output(FIRST_GROUP_SLOT + 2 * k));
    rows[k].description.putInto(block.output(FIRST_DESCRIPTION_SLOT + 2 * k));
  }
  return rc;
}

}  // namespace groups

}  // namespace

MD_ENTRY ContactGroupAPI_retrieveAllContactNames(void*, void** slots, struct sqlca* sqlca) {
  TraceScope trace(trace::ContactGroupAPI_retrieveAllContactNames);
  const ParameterBlock block(slots);
  const std::uint32_t rc =
      withStore<MDContactGroup>([&](MDContactGroup& store) { return names::put(store, block, trace); });
  reportToSqlca<MDContactGroup>(trace, rc, block.text(names::GROUP_SLOT), sqlca);
}

MD_ENTRY ContactGroupAPI_retrieveList(void*, void** slots, struct sqlca* sqlca) {
  TraceScope trace(trace::ContactGroupAPI_retrieveList);
  const ParameterBlock block(slots);
  const std::uint32_t rc =
      withStore<MDContactGroup>([&](MDContactGroup& store) { return members::put(store, block, trace); });
  reportToSqlca<MDContactGroup>(trace, rc, block.text(members::GROUP_SLOT), sqlca);
}

MD_ENTRY ContactGroupAPI_retrieveAll(void*, void** slots, struct sqlca* sqlca) {
  TraceScope trace(trace::ContactGroupAPI_retrieveAll);
  const ParameterBlock block(slots);
  const std::uint32_t rc =
      withStore<MDContactGroup>([&](MDContactGroup& store) { return groups::put(store, block, trace); });
  reportToSqlca<MDContactGroup>(trace, rc, sqlca);
}
