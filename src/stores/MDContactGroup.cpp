// MDContactGroup: the three-key operations on the file of membership records, the queries by member and by parent, and
// what concerns a group as a whole.
//
// The rule: a group is its records; nothing here touches the records of other groups.
#include "zonmdfile/MDContactGroup.h"

#include <cstdio>
#include <string_view>

#include "stores/contact_group_lists.h"
#include "stores/group_expansion.h"
#include "stores/store_frame.h"

const char* const MDContactGroup::FILENAME = "zoncontactgroup";

template <>
inline constexpr const char* zon::NAME<MDContactGroup> = zon::CONTACT_GROUP;

using zon::Field;
using zon::ListOutput;
using zon::ThreeKeyLayout;

namespace {

consteval zon::StoreOperation operation(std::string_view name) { return zon::operation<MDContactGroup>(name); }

constexpr unsigned long MATCH_GROUP_AND_KIND = zon::MATCH_GROUP_KEY | zon::MATCH_SUB_GROUP_KEY;
constexpr unsigned long MATCH_MEMBER = zon::MATCH_SUB_GROUP_KEY | zon::MATCH_KEY;

// Rewrites the listed records one after the other, all of them under one sync.
[[nodiscard]] std::uint32_t changeListed(MDContactGroup& store, DString& group, const DString& kinds,
                                         const DString& members, const DString& description, const DString& version) {
  zon::BatchScope batch(store);
  if (const std::uint32_t rc = batch.begin(); zon::endsCall(rc)) return rc;
  zon::ListReader kindReader(kinds);
  zon::ListReader memberReader(members);
  std::uint32_t rc = MD_RC_OK;
  for (std::size_t left = zon::countEntries(kinds); left > 0 && rc == MD_RC_OK; --left) {
    std::string_view kindText;
    std::string_view memberText;
    rc = kindReader.next(kindText);
    if (rc == MD_RC_OK) rc = memberReader.next(memberText);
    if (rc != MD_RC_OK) break;
    DString kind(kindText);
    DString member(memberText);
    rc = zon::changeRecord<ThreeKeyLayout>(store, zon::CONTACT_GROUP, {&group, &kind, &member}, description, version);
  }
  // What is not durable outweighs whatever a change had to tell.
  const std::uint32_t commitRc = batch.commit();
  return commitRc != MD_RC_OK ? commitRc : rc;
}

}  // namespace

MDContactGroup::MDContactGroup() : MDThreeKeyReg(FILENAME) {
  zon::TraceScope trace(operation(zon::trace::CONSTRUCTOR).point);
}

MDContactGroup::~MDContactGroup() { zon::TraceScope trace(operation(zon::trace::DESTRUCTOR).point); }

std::uint32_t MDContactGroup::insert(DString& group, DString kind, DString& member, DString& description,
                                     DString version) {
  return zon::insertRecord(*this, operation("insert"), {&group, &kind, &member}, description, version);
}

std::uint32_t MDContactGroup::remove(DString& group, DString kind, DString& member) {
  return zon::removeRecord(*this, operation("remove"), {&group, &kind, &member});
}

std::uint32_t MDContactGroup::removeGroup(DString& group, DString kind) {
  return zon::removeMatches(*this, operation("removeGroup(group, kind)"), MATCH_GROUP_AND_KIND, {&group, &kind});
}

std::uint32_t MDContactGroup::removeGroup(DString& group) {
  return zon::removeMatches(*this, operation("removeGroup(group)"), zon::MATCH_GROUP_KEY, {&group});
}

std::uint32_t MDContactGroup::update(DString& group, DString& description, DString version) {
  return zon::traced(operation("update"), {&group, &description, &version}, [&] {
    if (const std::uint32_t rc = zon::checkRecord<ThreeKeyLayout>(*this, {&group}, description, version)) return rc;
    DString kinds;
    DString members;
    if (const std::uint32_t rc = zon::listRecordsOfGroup(*this, group, kinds, members)) return rc;
    return changeListed(*this, group, kinds, members, description, version);
  });
}

std::uint32_t MDContactGroup::retrieveKeys(DString& groups, DString& kinds, DString& members) {
  return zon::listMatches(*this, operation("retrieveKeys"), zon::MATCH_ALL, {},
                          std::array{ListOutput{Field::GROUP_KEY, &groups}, ListOutput{Field::SUB_GROUP_KEY, &kinds},
                                     ListOutput{Field::KEY, &members}});
}

std::uint32_t MDContactGroup::retrieveAll(DString& groups, DString& kinds, DString& members, DString& descriptions,
                                          DString& versions) {
  return zon::listMatches(*this, operation("retrieveAll"), zon::MATCH_ALL, {},
                          std::array{ListOutput{Field::GROUP_KEY, &groups}, ListOutput{Field::SUB_GROUP_KEY, &kinds},
                                     ListOutput{Field::KEY, &members}, ListOutput{Field::DATA, &descriptions},
                                     ListOutput{Field::VERSION, &versions}});
}

std::uint32_t MDContactGroup::retrieveList(DString& group, DString& kinds, DString& members, DString& descriptions,
                                           DString& versions) {
  return zon::listMatches(*this, operation("retrieveList"), zon::MATCH_GROUP_KEY, {&group},
                          std::array{ListOutput{Field::SUB_GROUP_KEY, &kinds}, ListOutput{Field::KEY, &members},
                                     ListOutput{Field::DATA, &descriptions}, ListOutput{Field::VERSION, &versions}});
}

std::uint32_t MDContactGroup::retrieveGroupOrContactList(DString& group, DString kind, DString& members,
                                                         DString& descriptions, DString& versions) {
  return zon::listMatches(*this, operation("retrieveGroupOrContactList"), MATCH_GROUP_AND_KIND, {&group, &kind},
                          std::array{ListOutput{Field::KEY, &members}, ListOutput{Field::DATA, &descriptions},
                                     ListOutput{Field::VERSION, &versions}});
}

// Checks the member before the kind, unlike every other listing.
std::uint32_t MDContactGroup::retrieveParentGroupList(DString& groups, DString kind, DString& member,
                                                      DString& descriptions, DString& versions) {
  return zon::traced(operation("retrieveParentGroupList"), {&kind, &member}, [&] {
    if (const std::uint32_t rc = zon::checkMember(*this, kind, member)) return rc;
    return zon::listRecords<ThreeKeyLayout>(
        *this, zon::CONTACT_GROUP, MATCH_MEMBER, {nullptr, &kind, &member},
        std::array{ListOutput{Field::GROUP_KEY, &groups}, ListOutput{Field::DATA, &descriptions},
                   ListOutput{Field::VERSION, &versions}});
  });
}

std::uint32_t MDContactGroup::retrieveAllNames(DString& group, DSet<DString>& contacts, DSet<DString>& groups) {
  return zon::traced(operation("retrieveAllNames"), {&group},
                     [&] { return zon::GroupExpansion(*this, contacts, groups).run(group); });
}

std::uint32_t MDContactGroup::retrieveAllContact(DString& group, DSet<DString>& contacts) {
  return zon::traced(operation("retrieveAllContact"), {&group}, [&] {
    DSet<DString> visited(1, 1);
    visited.add(group);
    return retrieveAllNames(group, contacts, visited);
  });
}

std::uint32_t MDContactGroup::retrieveAllContactNames(DString& group, DString& names) {
  return zon::traced(operation("retrieveAllContactNames"), {&group}, [&]() -> std::uint32_t {
    DString wanted(group);  // callers may pass one string as both
    names.clear();
    DSet<DString> contacts(1, 1);
    if (const std::uint32_t rc = retrieveAllContact(wanted, contacts)) return rc;
    if (contacts.count() == 0) return GENREG_RC_NOT_FOUND;
    std::uint64_t length = 0;
    for (std::size_t i = 1; i <= contacts.count(); ++i) {
      length += contacts.elementAt(i).length() + zon::LIST_TOKEN.size();
    }
    if (length > zon::mostListBytes) return MD_RC_LIST_TOO_LONG;
    DString list;
    list.reserve(length);
    for (std::size_t i = 1; i <= contacts.count(); ++i) {
      list.append(contacts.elementAt(i));
      list.append(zon::LIST_TOKEN);
    }
    names = std::move(list);
    return MD_RC_OK;
  });
}

void printSet(DSet<DString>& names) {
  zon::TraceScope trace(zon::trace::point("printSet"));
  for (std::size_t i = 1; i <= names.count(); ++i) std::printf("\t\t%s\n", names.elementAt(i).c_str());
  std::printf("\n");
}
