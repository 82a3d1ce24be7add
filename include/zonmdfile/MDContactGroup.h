/*
 * MDContactGroup: the store of contact groups, in the file "zoncontactgroup". A group has no record of its own: it is
 * the set of its membership records, one for each group, member kind and member, and ends with the last of them.
 */
#ifndef ZONMDFILE_MDCONTACTGROUP_H
#define ZONMDFILE_MDCONTACTGROUP_H

#include <cstdint>

#include "zonmdfile/MDThreeKeyReg.h"
#include "zonmdfile/platform/DSet.h"

/*
 * Member kinds are the texts "0" for a contact and "1" for a nested group. All operations return 0 or a code of
 * return_codes.h, and none throws; keys are checked in the order of the parameters unless stated, then the
 * description as data, then the version (at most 8 bytes), and a failed check leaves file and outputs untouched.
 * Listings are as those of OneKeyStore. An object keeps nothing between operations and serves one thread at a time.
 */
class ZON_EXPORT MDContactGroup : public MDThreeKeyReg {
 public:
  static const char* const FILENAME;
  static constexpr char CONTACT_KIND = '0';
  static constexpr char GROUP_KIND = '1';

  MDContactGroup();
  ~MDContactGroup();

  [[nodiscard]] std::uint32_t insert(DString& group, DString kind, DString& member, DString& description,
                                     DString version);
  [[nodiscard]] std::uint32_t remove(DString& group, DString kind, DString& member);

  /* Remove all members of one kind, or the whole group; all or nothing. Parents of the group are not touched. */
  [[nodiscard]] std::uint32_t removeGroup(DString& group, DString kind);
  [[nodiscard]] std::uint32_t removeGroup(DString& group);

  /*
   * Sets description and version in every record of the group, in the order of the listing, under one sync. The first
   * failure ends it; what was changed before stays changed.
   */
  [[nodiscard]] std::uint32_t update(DString& group, DString& description, DString version);

  [[nodiscard]] std::uint32_t retrieveKeys(DString& groups, DString& kinds, DString& members);
  [[nodiscard]] std::uint32_t retrieveAll(DString& groups, DString& kinds, DString& members, DString& descriptions,
                                          DString& versions);
  [[nodiscard]] std::uint32_t retrieveList(DString& group, DString& kinds, DString& members, DString& descriptions,
                                           DString& versions);
  [[nodiscard]] std::uint32_t retrieveGroupOrContactList(DString& group, DString kind, DString& members,
                                                         DString& descriptions, DString& versions);
  /* Every group that holds the member with this kind. Checks the member, then the kind. */
  [[nodiscard]] std::uint32_t retrieveParentGroupList(DString& groups, DString kind, DString& member,
                                                      DString& descriptions, DString& versions);

  /*
   * The expansion of a group: adds every contact that can be reached from it to `contacts`, depth first and each once,
   * and every nested group on the way to `groups`; groups already in that set are not entered. Goes on after the
   * failure of a branch. 0, the code of a failure, or GENREG_RC_NOT_FOUND when neither contact nor branch was found.
   * Depth is bounded by memory alone.
   */
  [[nodiscard]] std::uint32_t retrieveAllNames(DString& group, DSet<DString>& contacts, DSet<DString>& groups);
  /* The same from a fresh set of groups that holds the group itself. */
  [[nodiscard]] std::uint32_t retrieveAllContact(DString& group, DSet<DString>& contacts);
  /* The same as a list; empty with any code but 0. */
  [[nodiscard]] std::uint32_t retrieveAllContactNames(DString& group, DString& names);
};

/* Prints the names of a set to standard output, each after two tabs in a line of its own, then an empty line. */
ZON_EXPORT void printSet(DSet<DString>& names);

/*
 * Withdraws the member with this kind from every group that holds it, in the order of the parent listing; a group that
 * is empty then is withdrawn from its own parents at once, before the next parent. No group is withdrawn twice in one
 * call, so it ends for any records. Runs under one sync or few; what a crash leaves is a prefix of its removals. 0,
 * also for a member of no group, or the code of the last removal from a group of `member`. Any failure, of memory, the
 * device, the lock or the right to write, ends the call at once with its code, and what was removed before stays
 * removed: a group is withdrawn only when the file answers that it has no record left.
 */
extern "C" ZON_EXPORT std::uint32_t removeMemberFromGroups(DString& member, DString kind);

#endif
