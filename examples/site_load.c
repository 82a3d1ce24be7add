/*
 * The main job: a program of its own keeps the metadata of a whole site through the exported functions. It inserts,
 * lists, retrieves, updates and removes, and prints each step with its SQLCODE and message token.
 *
 * Usage: site_load METADATA-DIRECTORY DATA-FOLDER      (site_check, another process, then finds everything again)
 *
 * The rule: nothing is used but the installed library and zonmdfile/zonmdfile.h with the platform headers beside it.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "report.h"
#include "site_data.h"
#include "zon_calls.h"
#include "zonmdfile/platform/admin.h"
#include "zonmdfile/platform/oss.h"

#define OK 0
#define DUPLICATE (-22272)
#define MISSING (-22273)
#define DUPLICATE_CONTACT (-22270)
#define MISSING_CONTACT (-22271)

#define CONTACT "0"
#define NESTED_GROUP "1"

#define MAX_KEY_BYTES 128
#define MAX_DATA_BYTES 1024000

static void insertRecord(ZonCall *call, const SiteStore *store, const SiteRecord *record) {
  if (store->keys == 1) {
    zonCall(call, store->insert.function, "iiir", record->keys[0], record->data, record->version);
  } else {
    zonCall(call, store->insert.function, "iiiir", record->keys[0], record->keys[1], record->data, record->version);
  }
}

static void retrieveRecord(ZonCall *call, const SiteStore *store, char *const *keys) {
  if (store->keys == 1) {
    zonCall(call, store->retrieve.function, "iroo", keys[0]);
  } else {
    zonCall(call, store->retrieve.function, "iiroo", keys[0], keys[1]);
  }
}

static void updateRecord(ZonCall *call, const SiteStore *store, const SiteRecord *record) {
  if (store->keys == 1) {
    zonCall(call, store->update.function, "iiir", record->keys[0], record->data, record->version);
  } else {
    zonCall(call, store->update.function, "iiiir", record->keys[0], record->keys[1], record->data, record->version);
  }
}

static void removeRecord(ZonCall *call, const SiteStore *store, char *const *keys) {
  if (store->keys == 1) {
    zonCall(call, store->remove.function, "ir", keys[0]);
  } else {
    zonCall(call, store->remove.function, "iir", keys[0], keys[1]);
  }
}

/* Inserts all records and prints one line for them, or one for the first that fails. */
static void insertAll(const SiteStore *store, const SiteRecords *records) {
  size_t bytes = 0;
  ZonCall call;
  memset(&call, 0, sizeof call);
  for (size_t i = 0; i < records->count; ++i) {
    insertRecord(&call, store, &records->records[i]);
    if (call.sqlcode != OK) {
      reportCall(store->insert.name, &call, OK, "%s", records->records[i].keys[0]);
      return;
    }
    bytes += strlen(records->records[i].data);
  }
  reportCall(store->insert.name, &call, OK, "%zu records, %zu bytes of data", records->count, bytes);
}

static void showKeys(const SiteStore *store, size_t expected) {
  ZonCall call;
  zonCall(&call, store->retrieveKeys.function, store->keys == 1 ? "ro" : "roo");
  const size_t count = call.out[0].text != NULL ? zonCountEntries(call.out[0].text) : 0;
  reportCall(store->retrieveKeys.name, &call, OK, "%zu keys", count);
  if (count != expected) reportFailure("%zu keys expected", expected);
  zonCallEnd(&call);
}

static void showRecord(const SiteStore *store, const SiteRecord *record) {
  ZonCall call;
  retrieveRecord(&call, store, record->keys);
  if (call.sqlcode == OK) {
    reportCall(store->retrieve.name, &call, OK, "%s: version %s, %u bytes", record->keys[store->keys - 1],
               call.out[1].text, call.out[0].length - 1);
    reportText(call.out[0].text, 4);
  } else {
    reportCall(store->retrieve.name, &call, OK, "%s", record->keys[0]);
  }
  zonCallEnd(&call);
}

/* Both everyday refusals, on purpose. */
static void showRefusals(const SiteStore *store, const SiteRecord *record, int32_t duplicate, int32_t missing) {
  char absent[] = "no.such.record";
  char *absentKeys[SITE_MAX_KEYS] = {absent, absent, absent};
  ZonCall call;
  insertRecord(&call, store, record);
  reportCall(store->insert.name, &call, duplicate, "on purpose: a record with this key exists");
  zonCallEnd(&call);
  retrieveRecord(&call, store, absentKeys);
  reportCall(store->retrieve.name, &call, missing, "on purpose: there is no such record");
  zonCallEnd(&call);
}

static void showUpdate(const SiteStore *store, const SiteRecord *record) {
  ZonCall before, call;
  retrieveRecord(&before, store, record->keys);
  updateRecord(&call, store, record);
  const char *key = record->keys[store->keys - 1];
  if (before.sqlcode == OK && strcmp(before.out[0].text, record->data) == 0) {
    reportCall(store->update.name, &call, OK, "%s: the same again, also a success", key);
  } else if (before.sqlcode == OK) {
    reportCall(store->update.name, &call, OK, "%s", key);
    reportRemark("version %s -> %s, %u -> %zu bytes", before.out[1].text, record->version, before.out[0].length - 1,
                 strlen(record->data));
  } else {
    reportCall(store->update.name, &call, OK, "%s", key);
  }
  zonCallEnd(&before);
  zonCallEnd(&call);
}

static void showRemoval(const SiteStore *store, const SiteRecord *record, int32_t missing) {
  ZonCall call;
  removeRecord(&call, store, record->keys);
  reportCall(store->remove.name, &call, OK, "%s", record->keys[store->keys - 1]);
  zonCallEnd(&call);
  retrieveRecord(&call, store, record->keys);
  reportCall(store->retrieve.name, &call, missing, "the same: it is gone");
  zonCallEnd(&call);
}

static void showGroup(const SiteStore *store, const char *group, int32_t expected) {
  ZonCall call;
  zonCall(&call, store->retrieveList.function, "irooo", group);
  const size_t count = call.out[0].text != NULL ? zonCountEntries(call.out[0].text) : 0;
  reportCall(store->retrieveList.name, &call, expected, "group %s: %zu records", group, count);
  zonCallEnd(&call);
}

static void showGroupRemoval(const SiteStore *store, const char *group) {
  ZonCall call;
  showGroup(store, group, OK);
  zonCall(&call, store->removeList.function, "ir", group);
  reportCall(store->removeList.name, &call, OK, "group %s: all its records in one call", group);
  zonCallEnd(&call);
  showGroup(store, group, MISSING);
}

static void applyChanges(const SiteStore *store, const SiteChanges *changes, int32_t missing) {
  for (size_t i = 0; i < changes->count; ++i) {
    const SiteChange *change = &changes->changes[i];
    if (strcmp(change->store, store->name) != 0) continue;
    if (strcmp(change->action, "update") == 0) showUpdate(store, &change->record);
    if (strcmp(change->action, "remove") == 0) showRemoval(store, &change->record, missing);
    if (strcmp(change->action, "removelist") == 0) showGroupRemoval(store, change->record.keys[0]);
  }
}

static void keepStore(const char *folder, const SiteStore *store, const SiteChanges *changes) {
  char heading[128];
  SiteRecords records = siteRead(folder, store->name, store->keys);
  snprintf(heading, sizeof heading, "%s (%s.tsv)", store->title, store->name);
  reportSection(heading, NULL);
  insertAll(store, &records);
  showKeys(store, records.count);
  showRecord(store, &records.records[0]);
  if (store->keys == 2) showGroup(store, records.records[0].keys[0], OK);
  showRefusals(store, &records.records[0], DUPLICATE, MISSING);
  applyChanges(store, changes, MISSING);
  siteFree(&records);
}

/* Contacts through both interfaces: whole texts, and field by field. */

static uint32_t numberField(const char *data, int number) {
  char field[16];
  siteContactField(data, number, field, sizeof field);
  return (uint32_t)strtoul(field, NULL, 10);
}

static void insertContactByFields(ZonCall *call, const SiteRecord *record) {
  char address[256];
  char description[256];
  siteContactField(record->data, 1, address, sizeof address);
  siteContactField(record->data, 3, description, sizeof description);
  zonCallWithVersion(call, ContactAPI_insert, (uint32_t)strtoul(record->version, NULL, 10), "inini", record->keys[0],
                     numberField(record->data, 2), address, numberField(record->data, 4), description);
}

static void insertContacts(const SiteStore *store, const SiteRecords *contacts) {
  ZonCall byText, byFields;
  memset(&byText, 0, sizeof byText);
  memset(&byFields, 0, sizeof byFields);
  size_t half = contacts->count / 2;
  for (size_t i = 0; i < half && byText.sqlcode == OK; ++i) insertRecord(&byText, store, &contacts->records[i]);
  for (size_t i = half; i < contacts->count && byFields.sqlcode == OK; ++i) {
    insertContactByFields(&byFields, &contacts->records[i]);
  }
  reportCall("MDContact_insert", &byText, OK, "%zu contacts, each as one data text", half);
  reportCall("ContactAPI_insert", &byFields, OK, "%zu contacts, each field by field", contacts->count - half);
}

static void showContact(const char *name, int32_t expected) {
  ZonCall call;
  zonCall(&call, ContactAPI_retrieve, "iNoNo", name);
  reportCall("ContactAPI_retrieve", &call, expected, "%s", name);
  if (call.sqlcode == OK) {
    reportRemark("e-mail %s, notification type %d, page length %d, description \"%s\"", call.out[0].text,
                 call.number[0], call.number[1], call.out[1].text);
  }
  zonCallEnd(&call);
}

/* Asks for the count alone, then for all contacts, in a parameter block that is as long as the count demands. */
static void showAllContacts(size_t expected) {
  uint32_t detail = 0;
  uint32_t count = 0;
  void *counting[] = {&detail, &count};
  ZonCall call;
  zonCallBlock(&call, ContactAPI_retrieveAll, counting);
  reportCall("ContactAPI_retrieveAll", &call, OK, "count only: %u contacts", count);
  if (count != expected) reportFailure("%zu contacts expected", expected);

  struct {
    zonOutputCell name, address, description;
    int32_t type, pageLength;
  } *contacts = calloc(count != 0 ? count : 1, sizeof *contacts);
  void **block = calloc(2 + 5 * (size_t)count, sizeof *block);
  if (contacts == NULL || block == NULL) {
    fprintf(stderr, "out of memory\n");
    exit(1);
  }
  detail = 1;
  block[0] = &detail;
  block[1] = &count;
  for (size_t i = 0; i < count; ++i) {
    void **slots = block + 2 + 5 * i;
    slots[0] = &contacts[i].name;
    slots[1] = &contacts[i].type;
    slots[2] = &contacts[i].address;
    slots[3] = &contacts[i].pageLength;
    slots[4] = &contacts[i].description;
  }
  zonCallBlock(&call, ContactAPI_retrieveAll, block);
  reportCall("ContactAPI_retrieveAll", &call, OK, "all %u contacts, five outputs each", count);
  for (size_t i = 0; i < count; ++i) {
    if (i < 3) reportRemark("%s <%s>, type %d", contacts[i].name.text, contacts[i].address.text, contacts[i].type);
    zonFreeCell(&contacts[i].name);
    zonFreeCell(&contacts[i].address);
    zonFreeCell(&contacts[i].description);
  }
  if (count > 3) reportRemark("and %u more", count - 3);
  free(contacts);
  free(block);
}

static void keepContacts(const char *folder, const SiteChanges *changes) {
  const SiteStore *store = siteStore("contacts");
  SiteRecords contacts = siteRead(folder, store->name, store->keys);
  reportSection(
      "contacts (contacts.tsv)",
      "Two interfaces for one store: MDContact_ takes a contact's fields as one text, ContactAPI_ one by one.\n"
      "Contacts have SQLCODEs of their own for \"exists\" and \"missing\".");
  insertContacts(store, &contacts);
  showAllContacts(contacts.count);
  showContact(contacts.records[0].keys[0], OK);
  showRefusals(store, &contacts.records[0], DUPLICATE_CONTACT, MISSING_CONTACT);
  showContact("nobody", MISSING_CONTACT);
  for (size_t i = 0; i < changes->count; ++i) {
    const SiteChange *change = &changes->changes[i];
    if (strcmp(change->store, "contacts") != 0 || strcmp(change->action, "update") != 0) continue;
    showUpdate(store, &change->record);
    showContact(change->record.keys[0], OK);
  }
  siteFree(&contacts);
}

/* Contact groups. */

static void joinEntries(const char *list, char *joined, size_t size) {
  size_t length = 0;
  size_t used = 0;
  joined[0] = '\0';
  for (const char *entry; (entry = zonNextEntry(&list, &length)) != NULL && used < size;) {
    used += (size_t)snprintf(joined + used, size - used, "%s%.*s", used != 0 ? ", " : "", (int)length, entry);
  }
}

static void showExpansion(const char *group, int32_t expected) {
  char joined[4096];
  ZonCall call;
  zonCall(&call, MDContactGroup_retrieveAllContactNames, "iro", group);
  const size_t count = call.out[0].text != NULL ? zonCountEntries(call.out[0].text) : 0;
  reportCall("MDContactGroup_retrieveAllContactNames", &call, expected, "%s expands to %zu contacts", group, count);
  if (call.sqlcode == OK) {
    joinEntries(call.out[0].text, joined, sizeof joined);
    reportRemark("%s", joined);
  }
  zonCallEnd(&call);
}

static void showParents(const char *kind, const char *member, int32_t expected) {
  char joined[4096];
  ZonCall call;
  zonCall(&call, MDContactGroup_retrieveParentGroupList, "iirooo", kind, member);
  const size_t count = call.out[0].text != NULL ? zonCountEntries(call.out[0].text) : 0;
  reportCall("MDContactGroup_retrieveParentGroupList", &call, expected, "groups that hold %s: %zu", member, count);
  if (call.sqlcode == OK) {
    joinEntries(call.out[0].text, joined, sizeof joined);
    reportRemark("%s", joined);
  }
  zonCallEnd(&call);
}

#define MAX_MEMBERS 64

static void showMembers(const char *group) {
  zonInputCell name = {(uint32_t)strlen(group), group};
  zonOutputCell description = {0, NULL};
  zonOutputCell kinds[MAX_MEMBERS], members[MAX_MEMBERS];
  uint32_t detail = 0;
  uint32_t count = 0;
  void *block[4 + 2 * MAX_MEMBERS] = {&detail, &name, &count, &description};
  ZonCall call;
  for (size_t i = 0; i < MAX_MEMBERS; ++i) {
    block[4 + 2 * i] = &kinds[i];
    block[5 + 2 * i] = &members[i];
  }
  zonCallBlock(&call, ContactGroupAPI_retrieveList, block);
  zonFreeCell(&description);
  if (call.sqlcode != OK || count > MAX_MEMBERS) {
    reportCall("ContactGroupAPI_retrieveList", &call, OK, "%s: %u members", group, count);
    return;
  }
  detail = 1;
  zonCallBlock(&call, ContactGroupAPI_retrieveList, block);
  reportCall("ContactGroupAPI_retrieveList", &call, OK, "%s: %u members", group, count);
  reportRemark("\"%s\"", description.text);
  for (size_t i = 0; i < count; ++i) {
    reportRemark("%s %s", strcmp(kinds[i].text, CONTACT) == 0 ? "contact" : "group  ", members[i].text);
    zonFreeCell(&kinds[i]);
    zonFreeCell(&members[i]);
  }
  zonFreeCell(&description);
}

static void showGroupCount(uint32_t expected) {
  uint32_t detail = 0;
  uint32_t count = 0;
  void *block[] = {&detail, &count};
  ZonCall call;
  zonCallBlock(&call, ContactGroupAPI_retrieveAll, block);
  reportCall("ContactGroupAPI_retrieveAll", &call, OK, "count only: %u groups", count);
  if (count != expected) reportFailure("%u groups expected", expected);
}

static void insertMembers(const SiteRecords *groups) {
  ZonCall call;
  memset(&call, 0, sizeof call);
  for (size_t i = 0; i < groups->count && call.sqlcode == OK; ++i) {
    const SiteRecord *record = &groups->records[i];
    zonCall(&call, MDContactGroup_insert, "iiiiir", record->keys[0], record->keys[1], record->keys[2], record->data,
            record->version);
  }
  reportCall("MDContactGroup_insert", &call, OK, "%zu memberships", groups->count);
}

static uint32_t countGroups(const SiteRecords *groups) {
  uint32_t count = 0;
  for (size_t i = 0; i < groups->count; ++i) {
    if (i == 0 || strcmp(groups->records[i].keys[0], groups->records[i - 1].keys[0]) != 0) ++count;
  }
  return count;
}

static void showGroupRefusals(const SiteRecord *record) {
  ZonCall call;
  zonCall(&call, MDContactGroup_insert, "iiiiir", record->keys[0], record->keys[1], record->keys[2], record->data,
          record->version);
  reportCall("MDContactGroup_insert", &call, DUPLICATE_CONTACT, "on purpose: this membership exists");
  zonCallEnd(&call);
  zonCall(&call, MDContactGroup_retrieveList, "iroooo", "no.such.group");
  reportCall("MDContactGroup_retrieveList", &call, MISSING_CONTACT, "on purpose: there is no such group");
  zonCallEnd(&call);
}

/* One removal, and what the library does in its wake. */
static void showWithdrawal(const SiteChanges *changes) {
  ZonCall call;
  for (size_t i = 0; i < changes->count; ++i) {
    const SiteChange *change = &changes->changes[i];
    char *const *keys = change->record.keys;
    if (strcmp(change->store, "contacts") == 0 && strcmp(change->action, "remove") == 0) {
      zonCall(&call, MDContact_remove, "ir", keys[0]);
      reportCall("MDContact_remove", &call, OK, "%s leaves all groups as well", keys[0]);
      zonCallEnd(&call);
    } else if (strcmp(change->action, "withdrawn") == 0) {
      zonCall(&call, MDContactGroup_retrieveParentGroupList, "iirooo", keys[1], keys[2]);
      reportCall("MDContactGroup_retrieveParentGroupList", &call, MISSING_CONTACT, "by itself: %s lost %s", keys[0],
                 keys[2]);
      zonCallEnd(&call);
    } else if (strcmp(change->store, "contact_groups") == 0) {
      zonCall(&call, MDContactGroup_remove, "iiir", keys[0], keys[1], keys[2]);
      reportCall("MDContactGroup_remove", &call, OK, "%s from %s", keys[2], keys[0]);
      zonCallEnd(&call);
    }
  }
}

static void keepGroups(const char *folder, const SiteChanges *changes) {
  SiteRecords groups = siteRead(folder, "contact_groups", 3);
  reportSection("contact groups (contact_groups.tsv)",
                "A group is the set of its members: contacts (kind 0) and nested groups (kind 1).");
  insertMembers(&groups);
  showGroupCount(countGroups(&groups));
  showMembers("production.alarms");
  showExpansion("production.alarms", OK);
  showGroupRefusals(&groups.records[0]);

  reportSection("a cycle",
                "escalation.one holds escalation.two, that holds escalation.three, that holds escalation.one.");
  showParents(NESTED_GROUP, "escalation.one", OK);
  showExpansion("escalation.one", OK);
  showExpansion("escalation.three", OK);

  reportSection(
      "a contact leaves",
      "nightshift.lead is the only member of nightshift.leads, and that the only one of nightshift: both groups\n"
      "empty, and so cease to exist, and leave their own parents, production.alarms in the end.");
  showParents(CONTACT, "nightshift.lead", OK);
  showParents(NESTED_GROUP, "nightshift", OK);
  showWithdrawal(changes);
  showGroupCount(countGroups(&groups) - 2);
  showMembers("production.alarms");
  siteFree(&groups);
}

/* What is refused, and that what just fits is not. */

static char *repeated(size_t bytes) {
  char *text = malloc(bytes + 1);
  if (text == NULL) {
    fprintf(stderr, "out of memory\n");
    exit(1);
  }
  memset(text, 'x', bytes);
  text[bytes] = '\0';
  return text;
}

static void tryInsert(const char *what, const char *key, const char *data, const char *version, uint32_t rc) {
  ZonCall call;
  zonCall(&call, MDCustomTree_insert, "iiir", key, data, version);
  reportCall("MDCustomTree_insert", &call, ecfToSqlError(rc), "%s", what);
  if (rc != MD_RC_OK) reportRemark("%s: %s", ecfErrorGetName(rc), ecfErrorGetDescription(rc));
  zonCallEnd(&call);
}

static void showLimits(void) {
  char *key = repeated(MAX_KEY_BYTES);
  char *longKey = repeated(MAX_KEY_BYTES + 1);
  char *data = repeated(MAX_DATA_BYTES);
  char *longData = repeated(MAX_DATA_BYTES + 1);
  ZonCall call;
  reportSection("limits",
                "A refused call leaves the file as it was; its reason is told by the return code behind the SQLCODE.");
  tryInsert("a key of 128 bytes, data of 1,024,000", key, data, "1", MD_RC_OK);
  tryInsert("a key of 129 bytes", longKey, "data", "1", MD_RC_KEY_TOO_LONG);
  tryInsert("an empty key", "", "data", "1", MD_RC_KEY_EMPTY);
  tryInsert("data of 1,024,001 bytes", "too.much", longData, "1", MD_RC_DATA_TOO_LONG);
  tryInsert("empty data", "too.little", "", "1", MD_RC_DATA_EMPTY);
  tryInsert("a version of 11 bytes", "new.version", "data", "12345678901", MD_RC_DATA_TOO_LONG);
  zonCall(&call, MDCustomTree_retrieve, "iroo", key);
  reportCall("MDCustomTree_retrieve", &call, OK, "the large record comes back whole: %u bytes", call.out[0].length - 1);
  if (call.out[0].text == NULL || strcmp(call.out[0].text, data) != 0) reportFailure("the data has changed");
  zonCallEnd(&call);
  zonCall(&call, MDCustomTree_remove, "ir", key);
  reportCall("MDCustomTree_remove", &call, OK, "the large record");
  zonCallEnd(&call);
  free(key);
  free(longKey);
  free(data);
  free(longData);
}

static void explainCodes(void) {
  static const uint32_t SHOWN[] = {GENREG_RC_DUPLICATE_KEY, GENREG_RC_NOT_FOUND};
  printf("\nSQLCODEs above: %d done; %d exists already (contacts %d); %d missing (contacts %d).\n", OK, DUPLICATE,
         DUPLICATE_CONTACT, MISSING, MISSING_CONTACT);
  for (size_t i = 0; i < sizeof SHOWN / sizeof SHOWN[0]; ++i) {
    printf("   %-24s %s\n", ecfErrorGetName(SHOWN[i]), ecfErrorGetDescription(SHOWN[i]));
  }
}

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s METADATA-DIRECTORY DATA-FOLDER\n", argv[0]);
    return 2;
  }
  const char *folder = argv[2];
  if (setMetadataPath(argv[1]) != 0) {
    fprintf(stderr, "%s: the path is too long\n", argv[1]);
    return 1;
  }
  printf("Keeping the sample site in %s\n", argv[1]);
  SiteChanges changes = siteReadChanges(folder);
  for (const SiteStore *store = SITE_STORES; store->name != NULL; ++store) {
    if (store->keys < 3 && strcmp(store->name, "contacts") != 0) keepStore(folder, store, &changes);
  }
  keepContacts(folder, &changes);
  keepGroups(folder, &changes);
  showLimits();
  explainCodes();
  siteFreeChanges(&changes);
  if (ossMemOutstanding("MDRegFactory") != 0) reportFailure("output buffers were not given back");
  return reportEnd();
}
