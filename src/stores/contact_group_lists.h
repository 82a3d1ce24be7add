// The listings of contact groups that the library itself walks: names only, without the descriptions and versions that
// repeat in every record.
//
// The rule: same checks, same scan, same codes as the store's own listings; only fewer lists are gathered.
#pragma once

#include <array>
#include <cstdint>

#include "stores/store_operations.h"
#include "zonmdfile/MDThreeKeyReg.h"

namespace zon {

// The store's name, which labels what is allocated for it.
inline constexpr const char* CONTACT_GROUP = "MDContactGroup";

// The members of one kind of a group.
[[nodiscard]] inline std::uint32_t listMembers(MDThreeKeyReg& file, DString& group, DString& kind, DString& members) {
  const Keys<ThreeKeyLayout> recordKeys{&group, &kind};
  if (const std::uint32_t rc = checkKeys(file, recordKeys)) return rc;
  return listRecords<ThreeKeyLayout>(file, CONTACT_GROUP, MATCH_GROUP_KEY | MATCH_SUB_GROUP_KEY, recordKeys,
                                     std::array{ListOutput{Field::KEY, &members}});
}

// Kinds and members of a group.
[[nodiscard]] inline std::uint32_t listRecordsOfGroup(MDThreeKeyReg& file, DString& group, DString& kinds,
                                                      DString& members) {
  const Keys<ThreeKeyLayout> recordKeys{&group};
  if (const std::uint32_t rc = checkKeys(file, recordKeys)) return rc;
  return listRecords<ThreeKeyLayout>(
      file, CONTACT_GROUP, MATCH_GROUP_KEY, recordKeys,
      std::array{ListOutput{Field::SUB_GROUP_KEY, &kinds}, ListOutput{Field::KEY, &members}});
}

// Parents are looked up by the member first: its name decides the code before the kind's does.
[[nodiscard]] inline std::uint32_t checkMember(MDThreeKeyReg& file, DString& kind, DString& member) {
  if (const std::uint32_t rc = file.checkKeyLength(member)) return rc;
  return file.checkSubGroupKeyLength(kind);
}

// The groups that hold a member with this kind.
[[nodiscard]] inline std::uint32_t listParents(MDThreeKeyReg& file, DString& kind, DString& member, DString& groups) {
  if (const std::uint32_t rc = checkMember(file, kind, member)) return rc;
  return listRecords<ThreeKeyLayout>(file, CONTACT_GROUP, MATCH_SUB_GROUP_KEY | MATCH_KEY, {nullptr, &kind, &member},
                                     std::array{ListOutput{Field::GROUP_KEY, &groups}});
}

// 0 when the group has a record; else the code that its listing would give.
[[nodiscard]] inline std::uint32_t findGroup(MDThreeKeyReg& file, DString& group) {
  const Keys<ThreeKeyLayout> recordKeys{&group};
  if (const std::uint32_t rc = checkKeys(file, recordKeys)) return rc;
  return findRecord<ThreeKeyLayout>(file, CONTACT_GROUP, MATCH_GROUP_KEY, recordKeys);
}

// The number of the group's records.
[[nodiscard]] inline std::uint32_t countGroup(MDThreeKeyReg& file, DString& group, std::size_t& count) {
  const Keys<ThreeKeyLayout> recordKeys{&group};
  if (const std::uint32_t rc = checkKeys(file, recordKeys)) return rc;
  return countRecords<ThreeKeyLayout>(file, CONTACT_GROUP, MATCH_GROUP_KEY, recordKeys, count);
}

}  // namespace zon
