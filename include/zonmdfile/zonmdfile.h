/*
 * The whole plain interface of libzonmdfile: cells, return codes, the SQLCA, every entry point, and the two functions
 * that turn a return code into an SQLCODE. C11 and C++.
 *
 * Every entry point takes the same three arguments and returns nothing:
 *
 *   reserved        not read, except by ContactAPI_update and ContactAPI_insert
 *   parameterBlock  an array of pointers; the comment before each declaration tells what each slot, counted from 0,
 *                   points to
 *   sqlca           receives the outcome of every call, success included
 *
 * What a slot points to:
 *
 *   in      zonInputCell; only the text is read, up to its NUL. A null text is the empty text. The caller keeps it.
 *   out     zonOutputCell; on success receives a new text and its length with the NUL. The text is the caller's from
 *           then on, who releases it with _ossMemFree (zonmdfile/platform/oss.h). What the cell held before is
 *           neither read nor freed. On failure no output cell of the call is touched, neither length nor pointer.
 *   rc      int32_t; receives the SQLCODE on every call
 *   number  32-bit integer
 *   detail  uint32_t switch: 0 asks for the count alone, anything else for all entries; never a limit
 *   count   uint32_t; receives the number of entries
 *
 * A null parameter block, slot or sqlca is allowed: a null input reads as the empty text or 0, a null output is not
 * written.
 *
 * A list is one text in which every entry, the last one too, is followed by the byte 0x0E; nothing is escaped. The
 * lists of one call run parallel, in the order in which the records were inserted. A listing that finds nothing
 * reports "no such record"; one with a list of more than 4,294,967,294 bytes MD_RC_LIST_TOO_LONG. A listing that
 * reported 0 is complete.
 *
 * Keys have 1 to 128 bytes, data 1 to 1,024,000 bytes, versions at most 10 bytes in one-key stores, 9 in two-key
 * stores and 8 in contact groups. A retrieval whose record holds an empty version reports MD_RC_NO_DATA and writes
 * nothing.
 *
 * "Token" tells which inputs the SQLCA names as its message when the record is missing (-22273, contacts -22271) or
 * there already (-22272, contacts -22270); other failures carry no message.
 *
 * A call that repaired a file and could not bring back all of its records, or made one where there was a backup
 * without its file, sets the warning sqlwarn[0] and sqlwarn[7] to 'W', whatever its SQLCODE. GenRegFile::status tells
 * of it until GenRegFile::acknowledgeLoss.
 *
 * Calls on different threads share nothing; several processes may use one metadata directory. A change that reported
 * 0 is on stable storage.
 */
#ifndef ZONMDFILE_ZONMDFILE_H
#define ZONMDFILE_ZONMDFILE_H

#include <stddef.h>
#include <stdint.h>

#include "zonmdfile/platform/export.h"
#include "zonmdfile/platform/return_codes.h"
#include "zonmdfile/platform/sqlca.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A text that the caller hands in. The length is ignored. */
typedef struct {
  uint32_t length;
  const char *text;
} zonInputCell;

/* A text that the library hands out: length counts the closing NUL. */
typedef struct {
  uint32_t length;
  char *text;
} zonOutputCell;

/* Subject kinds of the mapping functions; every other value counts as 0. */
#define ZON_SUBJECT_OTHER UINT32_C(0)
#define ZON_SUBJECT_CONTACT UINT32_C(1) /* contacts and contact groups have SQLCODEs of their own */

/* The SQLCODE of a return code. Safe to call from any thread. */
ZON_EXPORT int32_t mapMDFileRcToSqlcode(uint32_t rc, uint32_t subjectKind);

/*
 * The same, and fills *sqlca (which may be null). Only the low 32 bits of rc count. The tokenCount tokens, each cut at
 * 128 bytes and joined by blanks, cut at 386 bytes as a whole, become the message when the SQLCODE says that a record
 * is missing or there already. tokens, and each token, may be null. Safe to call from any thread.
 */
ZON_EXPORT int32_t mapMDFileRcToSqlca(uint64_t rc, int32_t tokenCount, const char *const *tokens, uint32_t subjectKind,
                                      struct sqlca *sqlca);

/* One-key stores: an entity has a key, data and a version. */

/* 0 rc, 1 out keys. No token. */
ZON_EXPORT void MDCustomTree_retrieveKeys(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 rc, 1 out keys, 2 out data, 3 out versions. No token. */
ZON_EXPORT void MDCustomTree_retrieveAll(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 rc. Token: key. */
ZON_EXPORT void MDCustomTree_remove(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 rc, 2 out data, 3 out version. Token: key. */
ZON_EXPORT void MDCustomTree_retrieve(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 in data, 2 in version, 3 rc. Token: key. */
ZON_EXPORT void MDCustomTree_update(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 in data, 2 in version, 3 rc. Token: key. */
ZON_EXPORT void MDCustomTree_insert(void *reserved, void **parameterBlock, struct sqlca *sqlca);

/* 0 rc, 1 out keys. No token. */
ZON_EXPORT void MDSubSystemSetting_retrieveKeys(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 rc, 1 out keys, 2 out data, 3 out versions. No token. */
ZON_EXPORT void MDSubSystemSetting_retrieveAll(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 rc. Token: key. */
ZON_EXPORT void MDSubSystemSetting_remove(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 rc, 2 out data, 3 out version. Token: key. */
ZON_EXPORT void MDSubSystemSetting_retrieve(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 in data, 2 in version, 3 rc. Token: key. */
ZON_EXPORT void MDSubSystemSetting_update(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 in data, 2 in version, 3 rc. Token: key. */
ZON_EXPORT void MDSubSystemSetting_insert(void *reserved, void **parameterBlock, struct sqlca *sqlca);

/* 0 rc, 1 out keys. No token. */
ZON_EXPORT void MDUtilNameMapping_retrieveKeys(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 rc, 1 out keys, 2 out data, 3 out versions. No token. */
ZON_EXPORT void MDUtilNameMapping_retrieveAll(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 rc. Token: key. */
ZON_EXPORT void MDUtilNameMapping_remove(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 rc, 2 out data, 3 out version. Token: key. */
ZON_EXPORT void MDUtilNameMapping_retrieve(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 in data, 2 in version, 3 rc. Token: key. */
ZON_EXPORT void MDUtilNameMapping_update(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 in data, 2 in version, 3 rc. Token: key. */
ZON_EXPORT void MDUtilNameMapping_insert(void *reserved, void **parameterBlock, struct sqlca *sqlca);

/* 0 rc, 1 out keys. No token. */
ZON_EXPORT void MDLocationMapping_retrieveKeys(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 rc, 1 out keys, 2 out data, 3 out versions. No token. */
ZON_EXPORT void MDLocationMapping_retrieveAll(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 rc. Token: key. */
ZON_EXPORT void MDLocationMapping_remove(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 rc, 2 out data, 3 out version. Token: key. */
ZON_EXPORT void MDLocationMapping_retrieve(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 in data, 2 in version, 3 rc. Token: key. */
ZON_EXPORT void MDLocationMapping_update(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 in data, 2 in version, 3 rc. Token: key. */
ZON_EXPORT void MDLocationMapping_insert(void *reserved, void **parameterBlock, struct sqlca *sqlca);

/* 0 rc, 1 out keys. No token. */
ZON_EXPORT void MDCloningSubSystemSetting_retrieveKeys(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 rc, 1 out keys, 2 out data, 3 out versions. No token. */
ZON_EXPORT void MDCloningSubSystemSetting_retrieveAll(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 rc. Token: key. */
ZON_EXPORT void MDCloningSubSystemSetting_remove(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 rc, 2 out data, 3 out version. Token: key. */
ZON_EXPORT void MDCloningSubSystemSetting_retrieve(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 in data, 2 in version, 3 rc. Token: key. */
ZON_EXPORT void MDCloningSubSystemSetting_update(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 in data, 2 in version, 3 rc. Token: key. */
ZON_EXPORT void MDCloningSubSystemSetting_insert(void *reserved, void **parameterBlock, struct sqlca *sqlca);

/*
 * Contacts: as the one-key stores. Removing a contact also withdraws it from every contact group that holds it, and
 * groups that become empty by that from their own parents.
 */

/* 0 rc, 1 out keys. No token. */
ZON_EXPORT void MDContact_retrieveKeys(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 rc, 1 out keys, 2 out data, 3 out versions. No token. */
ZON_EXPORT void MDContact_retrieveAll(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 rc. Token: key. */
ZON_EXPORT void MDContact_remove(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 rc, 2 out data, 3 out version. Token: key. */
ZON_EXPORT void MDContact_retrieve(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 in data, 2 in version, 3 rc. Token: key. */
ZON_EXPORT void MDContact_update(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in key, 1 in data, 2 in version, 3 rc. Token: key. */
ZON_EXPORT void MDContact_insert(void *reserved, void **parameterBlock, struct sqlca *sqlca);

/* Two-key stores: an entity has a group key, a key within the group, data and a version. */

/* 0 rc, 1 out group keys, 2 out keys. No token. */
ZON_EXPORT void MDJCLSkeleton_retrieveKeys(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 rc, 1 out group keys, 2 out keys, 3 out data, 4 out versions. No token. */
ZON_EXPORT void MDJCLSkeleton_retrieveAll(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 rc. Token: group key. */
ZON_EXPORT void MDJCLSkeleton_removeList(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 rc, 2 out keys, 3 out data, 4 out versions. Token: group key. */
ZON_EXPORT void MDJCLSkeleton_retrieveList(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 in key, 2 rc. Tokens: group key, key. */
ZON_EXPORT void MDJCLSkeleton_remove(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 in key, 2 rc, 3 out data, 4 out version. Tokens: group key, key. */
ZON_EXPORT void MDJCLSkeleton_retrieve(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 in key, 2 in data, 3 in version, 4 rc. Tokens: group key, key. */
ZON_EXPORT void MDJCLSkeleton_update(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 in key, 2 in data, 3 in version, 4 rc. Tokens: group key, key. */
ZON_EXPORT void MDJCLSkeleton_insert(void *reserved, void **parameterBlock, struct sqlca *sqlca);

/* 0 rc, 1 out group keys, 2 out keys. No token. */
ZON_EXPORT void MDCloningHistory_retrieveKeys(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 rc, 1 out group keys, 2 out keys, 3 out data, 4 out versions. No token. */
ZON_EXPORT void MDCloningHistory_retrieveAll(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 rc. Token: group key. */
ZON_EXPORT void MDCloningHistory_removeList(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 rc, 2 out keys, 3 out data, 4 out versions. Token: group key. */
ZON_EXPORT void MDCloningHistory_retrieveList(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 in key, 2 rc. Tokens: group key, key. */
ZON_EXPORT void MDCloningHistory_remove(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 in key, 2 rc, 3 out data, 4 out version. Tokens: group key, key. */
ZON_EXPORT void MDCloningHistory_retrieve(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 in key, 2 in data, 3 in version, 4 rc. Tokens: group key, key. */
ZON_EXPORT void MDCloningHistory_update(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 in key, 2 in data, 3 in version, 4 rc. Tokens: group key, key. */
ZON_EXPORT void MDCloningHistory_insert(void *reserved, void **parameterBlock, struct sqlca *sqlca);

/* 0 rc, 1 out group keys, 2 out keys. No token. */
ZON_EXPORT void MDUtilityHistory_retrieveKeys(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 rc, 1 out group keys, 2 out keys, 3 out data, 4 out versions. No token. */
ZON_EXPORT void MDUtilityHistory_retrieveAll(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 rc. Token: group key. */
ZON_EXPORT void MDUtilityHistory_removeList(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 rc, 2 out keys, 3 out data, 4 out versions. Token: group key. */
ZON_EXPORT void MDUtilityHistory_retrieveList(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 in key, 2 rc. Tokens: group key, key. */
ZON_EXPORT void MDUtilityHistory_remove(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 in key, 2 rc, 3 out data, 4 out version. Tokens: group key, key. */
ZON_EXPORT void MDUtilityHistory_retrieve(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 in key, 2 in data, 3 in version, 4 rc. Tokens: group key, key. */
ZON_EXPORT void MDUtilityHistory_update(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group key, 1 in key, 2 in data, 3 in version, 4 rc. Tokens: group key, key. */
ZON_EXPORT void MDUtilityHistory_insert(void *reserved, void **parameterBlock, struct sqlca *sqlca);

/*
 * Contact groups: a group is the set of its membership records. A kind is the text "0" for a contact and "1" for a
 * nested group. Description and version are the same in every record of a group.
 */

/* 0 in group, 1 rc, 2 out contact names: the group expanded through all nested groups. Token: group. */
ZON_EXPORT void MDContactGroup_retrieveAllContactNames(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group, 1 in description, 2 in version, 3 rc: for every record of the group. Token: group. */
ZON_EXPORT void MDContactGroup_updateDescription(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 rc, 1 out groups, 2 out kinds, 3 out members. No token. */
ZON_EXPORT void MDContactGroup_retrieveKeys(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 rc, 1 out groups, 2 out kinds, 3 out members, 4 out descriptions, 5 out versions. No token. */
ZON_EXPORT void MDContactGroup_retrieveAll(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group, 1 in kind, 2 rc: then withdraws the group from its parents. Token: group. */
ZON_EXPORT void MDContactGroup_removeList(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group, 1 rc: then withdraws the group from its parents. Token: group. */
ZON_EXPORT void MDContactGroup_removeAll(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/*
 * 0 in group, 1 in kind, 2 in member, 3 rc: then withdraws the nested group of the member's name from all its parents,
 * whatever the kind of the removed record. Tokens: group, member.
 */
ZON_EXPORT void MDContactGroup_remove(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in kind, 1 in member, 2 rc, 3 out groups, 4 out descriptions, 5 out versions. Token: member. */
ZON_EXPORT void MDContactGroup_retrieveParentGroupList(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group, 1 in kind, 2 rc, 3 out members, 4 out descriptions, 5 out versions. Token: group. */
ZON_EXPORT void MDContactGroup_retrieveContactOrGroupList(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group, 1 rc, 2 out kinds, 3 out members, 4 out descriptions, 5 out versions. Token: group. */
ZON_EXPORT void MDContactGroup_retrieveList(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in group, 1 in kind, 2 in member, 3 in description, 4 in version, 5 rc. Tokens: group, member. */
ZON_EXPORT void MDContactGroup_insert(void *reserved, void **parameterBlock, struct sqlca *sqlca);

/*
 * Contacts field by field. None of these has an rc cell: the outcome is in the SQLCA alone. "A contact" is five
 * slots: name, notification type (number), e-mail address, maximum page length (number), description.
 */

/*
 * 0 in detail, 1 out count, then a contact of five outputs for each contact: 2 to 6, 7 to 11, ... No token. Without
 * any contact the count is 0 and the call a success.
 */
ZON_EXPORT void ContactAPI_retrieveAll(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/*
 * 0 in name, 1 out number, 2 out e-mail address, 3 out number, 4 out description. Token: name. A stored text that
 * lacks a field gives MD_RC_TOKEN_MISSING or repeats its last field; the outputs are written all the same.
 */
ZON_EXPORT void ContactAPI_retrieve(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 to 4: a contact, all inputs; reserved points to the uint32_t version number (null: 0). Token: name. */
ZON_EXPORT void ContactAPI_update(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* As ContactAPI_update. */
ZON_EXPORT void ContactAPI_insert(void *reserved, void **parameterBlock, struct sqlca *sqlca);

/* Contact groups entry by entry. Outcome in the SQLCA alone. */

/*
 * 0 in group, 1 in detail, 2 out count, 3 and on: out contact name. Token: group. Every failure of the expansion, an
 * unknown group included, is reported as MD_RC_NO_DATA.
 */
ZON_EXPORT void ContactGroupAPI_retrieveAllContactNames(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/* 0 in detail, 1 in group, 2 out count, 3 out description, then pairs: out kind, out member. Token: group. */
ZON_EXPORT void ContactGroupAPI_retrieveList(void *reserved, void **parameterBlock, struct sqlca *sqlca);
/*
 * 0 in detail, 1 out count, then pairs: out group, out description. No token. Without any group the count is 0 and
 * the call a success. The reported code is that of the last group's retrieval; a failure to read (memory, device,
 * damage) ends the call whichever group it meets.
 */
ZON_EXPORT void ContactGroupAPI_retrieveAll(void *reserved, void **parameterBlock, struct sqlca *sqlca);

#ifdef __cplusplus
}
#endif
#endif
