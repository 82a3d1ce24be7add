/* See site_data.h. The rule: a file that cannot be read as described ends the program; nothing is skipped. */
#include "site_data.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Action, store, three keys, version, data; a contact has six columns. */
#define MAX_COLUMNS 7
#define PATTERN_MARK "\\p"

/* A designated entry, its name beside it. */
#define ENTRY(function) \
  { #function, function }

const SiteStore SITE_STORES[] = {
    {.name = "custom_trees",
     .title = "custom trees",
     .keys = 1,
     .insert = ENTRY(MDCustomTree_insert),
     .update = ENTRY(MDCustomTree_update),
     .remove = ENTRY(MDCustomTree_remove),
     .retrieve = ENTRY(MDCustomTree_retrieve),
     .retrieveKeys = ENTRY(MDCustomTree_retrieveKeys),
     .retrieveAll = ENTRY(MDCustomTree_retrieveAll)},
    {.name = "subsystem_settings",
     .title = "subsystem settings",
     .keys = 1,
     .insert = ENTRY(MDSubSystemSetting_insert),
     .update = ENTRY(MDSubSystemSetting_update),
     .remove = ENTRY(MDSubSystemSetting_remove),
     .retrieve = ENTRY(MDSubSystemSetting_retrieve),
     .retrieveKeys = ENTRY(MDSubSystemSetting_retrieveKeys),
     .retrieveAll = ENTRY(MDSubSystemSetting_retrieveAll)},
    {.name = "utility_names",
     .title = "utility name mappings",
     .keys = 1,
     .insert = ENTRY(MDUtilNameMapping_insert),
     .update = ENTRY(MDUtilNameMapping_update),
     .remove = ENTRY(MDUtilNameMapping_remove),
     .retrieve = ENTRY(MDUtilNameMapping_retrieve),
     .retrieveKeys = ENTRY(MDUtilNameMapping_retrieveKeys),
     .retrieveAll = ENTRY(MDUtilNameMapping_retrieveAll)},
    {.name = "location_mappings",
     .title = "location mappings",
     .keys = 1,
     .insert = ENTRY(MDLocationMapping_insert),
     .update = ENTRY(MDLocationMapping_update),
     .remove = ENTRY(MDLocationMapping_remove),
     .retrieve = ENTRY(MDLocationMapping_retrieve),
     .retrieveKeys = ENTRY(MDLocationMapping_retrieveKeys),
     .retrieveAll = ENTRY(MDLocationMapping_retrieveAll)},
    {.name = "cloning_settings",
     .title = "cloning subsystem settings",
     .keys = 1,
     .insert = ENTRY(MDCloningSubSystemSetting_insert),
     .update = ENTRY(MDCloningSubSystemSetting_update),
     .remove = ENTRY(MDCloningSubSystemSetting_remove),
     .retrieve = ENTRY(MDCloningSubSystemSetting_retrieve),
     .retrieveKeys = ENTRY(MDCloningSubSystemSetting_retrieveKeys),
     .retrieveAll = ENTRY(MDCloningSubSystemSetting_retrieveAll)},
    {.name = "contacts",
     .title = "contacts",
     .keys = 1,
     .insert = ENTRY(MDContact_insert),
     .update = ENTRY(MDContact_update),
     .remove = ENTRY(MDContact_remove),
     .retrieve = ENTRY(MDContact_retrieve),
     .retrieveKeys = ENTRY(MDContact_retrieveKeys),
     .retrieveAll = ENTRY(MDContact_retrieveAll)},
    {.name = "jcl_skeletons",
     .title = "JCL skeletons",
     .keys = 2,
     .insert = ENTRY(MDJCLSkeleton_insert),
     .update = ENTRY(MDJCLSkeleton_update),
     .remove = ENTRY(MDJCLSkeleton_remove),
     .removeList = ENTRY(MDJCLSkeleton_removeList),
     .retrieve = ENTRY(MDJCLSkeleton_retrieve),
     .retrieveList = ENTRY(MDJCLSkeleton_retrieveList),
     .retrieveKeys = ENTRY(MDJCLSkeleton_retrieveKeys),
     .retrieveAll = ENTRY(MDJCLSkeleton_retrieveAll)},
    {.name = "cloning_history",
     .title = "cloning history",
     .keys = 2,
     .insert = ENTRY(MDCloningHistory_insert),
     .update = ENTRY(MDCloningHistory_update),
     .remove = ENTRY(MDCloningHistory_remove),
     .removeList = ENTRY(MDCloningHistory_removeList),
     .retrieve = ENTRY(MDCloningHistory_retrieve),
     .retrieveList = ENTRY(MDCloningHistory_retrieveList),
     .retrieveKeys = ENTRY(MDCloningHistory_retrieveKeys),
     .retrieveAll = ENTRY(MDCloningHistory_retrieveAll)},
    {.name = "utility_history",
     .title = "utility history",
     .keys = 2,
     .insert = ENTRY(MDUtilityHistory_insert),
     .update = ENTRY(MDUtilityHistory_update),
     .remove = ENTRY(MDUtilityHistory_remove),
     .removeList = ENTRY(MDUtilityHistory_removeList),
     .retrieve = ENTRY(MDUtilityHistory_retrieve),
     .retrieveList = ENTRY(MDUtilityHistory_retrieveList),
     .retrieveKeys = ENTRY(MDUtilityHistory_retrieveKeys),
     .retrieveAll = ENTRY(MDUtilityHistory_retrieveAll)},
    {.name = "contact_groups",
     .title = "contact groups",
     .keys = 3,
     .insert = ENTRY(MDContactGroup_insert),
     .remove = ENTRY(MDContactGroup_remove),
     .retrieveList = ENTRY(MDContactGroup_retrieveList),
     .retrieveKeys = ENTRY(MDContactGroup_retrieveKeys),
     .retrieveAll = ENTRY(MDContactGroup_retrieveAll)},
    {.name = NULL},
};

static void *allocate(size_t size) {
  void *memory = calloc(1, size != 0 ? size : 1);
  if (memory == NULL) {
    fprintf(stderr, "out of memory\n");
    exit(1);
  }
  return memory;
}

static char *copyText(const char *text) {
  const size_t size = strlen(text) + 1;
  return memcpy(allocate(size), text, size);
}

const SiteStore *siteStore(const char *name) {
  for (const SiteStore *store = SITE_STORES; store->name != NULL; ++store) {
    if (strcmp(store->name, name) == 0) return store;
  }
  fprintf(stderr, "there is no store \"%s\"\n", name);
  exit(1);
}

/* A text of that many bytes in which every stretch differs from the one before. */
static char *patternText(const char *size) {
  const size_t bytes = (size_t)strtoul(size, NULL, 10);
  char *text = allocate(bytes + 1);
  for (size_t i = 0; i < bytes; ++i) text[i] = i % 64 == 63 ? '\n' : (char)('a' + (i + i / 64) % 26);
  return text;
}

/* A field of a data file: \n, \t, \f (between the fields of a contact) and \\ stand for one byte each. */
static char *unescape(const char *field) {
  if (strncmp(field, PATTERN_MARK, strlen(PATTERN_MARK)) == 0) return patternText(field + strlen(PATTERN_MARK));
  char *text = allocate(strlen(field) + 1);
  char *end = text;
  for (; *field != '\0'; ++field) {
    if (*field != '\\' || field[1] == '\0') {
      *end++ = *field;
      continue;
    }
    ++field;
    *end++ = (char)(*field == 'n' ? '\n' : *field == 't' ? '\t' : *field == 'f' ? CONTACT_FIELD_END : *field);
  }
  return text;
}

static char *readFile(const char *folder, const char *name) {
  char path[4096];
  if (snprintf(path, sizeof path, "%s/%s.tsv", folder, name) >= (int)sizeof path) path[0] = '\0';
  FILE *file = fopen(path, "rb");
  if (file == NULL) {
    fprintf(stderr, "cannot read %s: the data folder holds the sample site\n", path);
    exit(1);
  }
  size_t used = 0;
  size_t room = 65536;
  char *text = allocate(room + 1);
  size_t got = 0;
  while ((got = fread(text + used, 1, room - used, file)) > 0) {
    used += got;
    if (used < room) continue;
    char *larger = allocate(2 * room + 1);
    memcpy(larger, text, used);
    free(text);
    text = larger;
    room *= 2;
  }
  fclose(file);
  text[used] = '\0';
  return text;
}

static size_t splitLine(char *line, char *columns[MAX_COLUMNS]) {
  size_t count = 0;
  while (count < MAX_COLUMNS) {
    columns[count++] = line;
    line = strchr(line, '\t');
    if (line == NULL) break;
    *line++ = '\0';
  }
  return count;
}

/* Calls `take` with the columns of each line that is not empty and not a remark. */
static size_t forEachLine(const char *folder, const char *name, void (*take)(void *, size_t, char **, size_t),
                          void *receiver) {
  char *text = readFile(folder, name);
  size_t count = 0;
  for (char *line = text; line != NULL && *line != '\0';) {
    char *next = strchr(line, '\n');
    if (next != NULL) *next++ = '\0';
    if (*line != '#' && *line != '\0') {
      char *columns[MAX_COLUMNS];
      const size_t found = splitLine(line, columns);
      if (take != NULL) take(receiver, count, columns, found);
      ++count;
    }
    line = next;
  }
  free(text);
  return count;
}

static void expectColumns(size_t found, size_t expected, const char *first) {
  if (found == expected) return;
  fprintf(stderr, "the line that begins with \"%s\" has %zu columns instead of %zu\n", first, found, expected);
  exit(1);
}

typedef struct {
  SiteRecord *records;
  int keys;
} Receiver;

static void takeRecord(void *receiver, size_t index, char **columns, size_t found) {
  const Receiver *to = receiver;
  SiteRecord *record = &to->records[index];
  expectColumns(found, (size_t)to->keys + 2, columns[0]);
  for (int key = 0; key < to->keys; ++key) record->keys[key] = unescape(columns[key]);
  record->version = unescape(columns[to->keys]);
  record->data = unescape(columns[to->keys + 1]);
}

/* Name, type, address, page length, description, version: four of them make the data text. */
static void takeContact(void *receiver, size_t index, char **columns, size_t found) {
  const Receiver *to = receiver;
  SiteRecord *record = &to->records[index];
  char data[1024];
  expectColumns(found, 6, columns[0]);
  snprintf(data, sizeof data, "%s%c%s%c%s%c%s", columns[2], CONTACT_FIELD_END, columns[1], CONTACT_FIELD_END,
           columns[4], CONTACT_FIELD_END, columns[3]);
  record->keys[0] = unescape(columns[0]);
  record->version = unescape(columns[5]);
  record->data = unescape(data);
}

SiteRecords siteRead(const char *folder, const char *name, int keys) {
  SiteRecords result;
  result.count = forEachLine(folder, name, NULL, NULL);
  result.records = allocate(result.count * sizeof *result.records);
  Receiver receiver = {result.records, keys};
  forEachLine(folder, name, strcmp(name, "contacts") == 0 ? takeContact : takeRecord, &receiver);
  return result;
}

static void freeRecord(SiteRecord *record) {
  for (int key = 0; key < SITE_MAX_KEYS; ++key) free(record->keys[key]);
  free(record->version);
  free(record->data);
}

void siteFree(SiteRecords *records) {
  for (size_t i = 0; i < records->count; ++i) freeRecord(&records->records[i]);
  free(records->records);
  records->records = NULL;
  records->count = 0;
}

static int isAction(const SiteChange *change, const char *action) { return strcmp(change->action, action) == 0; }

/* Cloning mappings have no entry points and therefore no row in SITE_STORES. */
static size_t keysOf(const char *store) {
  return strcmp(store, "cloning_mappings") == 0 ? 3 : (size_t)siteStore(store)->keys;
}

static void takeChange(void *receiver, size_t index, char **columns, size_t found) {
  SiteChange *change = &((SiteChange *)receiver)[index];
  change->action = copyText(columns[0]);
  change->store = copyText(found > 1 ? columns[1] : "");
  size_t keys = keysOf(change->store);
  if (isAction(change, "removelist")) keys = 1;
  expectColumns(found, 2 + keys + (isAction(change, "update") ? 2 : 0), columns[0]);
  for (size_t key = 0; key < keys; ++key) change->record.keys[key] = unescape(columns[2 + key]);
  if (!isAction(change, "update")) return;
  change->record.version = unescape(columns[2 + keys]);
  change->record.data = unescape(columns[3 + keys]);
}

SiteChanges siteReadChanges(const char *folder) {
  SiteChanges result;
  result.count = forEachLine(folder, "changes", NULL, NULL);
  result.changes = allocate(result.count * sizeof *result.changes);
  forEachLine(folder, "changes", takeChange, result.changes);
  return result;
}

void siteFreeChanges(SiteChanges *changes) {
  for (size_t i = 0; i < changes->count; ++i) {
    free(changes->changes[i].action);
    free(changes->changes[i].store);
    freeRecord(&changes->changes[i].record);
  }
  free(changes->changes);
  changes->changes = NULL;
  changes->count = 0;
}

/* Whether the record has all keys that the change names. */
static int concerns(const SiteChange *change, const SiteRecord *record) {
  for (int key = 0; key < SITE_MAX_KEYS && change->record.keys[key] != NULL; ++key) {
    if (strcmp(change->record.keys[key], record->keys[key]) != 0) return 0;
  }
  return 1;
}

static void applyChange(SiteRecords *records, const SiteChange *change) {
  size_t kept = 0;
  for (size_t i = 0; i < records->count; ++i) {
    SiteRecord *record = &records->records[i];
    if (concerns(change, record)) {
      if (!isAction(change, "update")) {
        freeRecord(record);
        continue;
      }
      free(record->version);
      free(record->data);
      record->version = copyText(change->record.version);
      record->data = copyText(change->record.data);
    }
    records->records[kept++] = *record;
  }
  records->count = kept;
}

void siteApplyChanges(SiteRecords *records, const SiteChanges *changes, const char *store) {
  for (size_t i = 0; i < changes->count; ++i) {
    if (strcmp(changes->changes[i].store, store) == 0) applyChange(records, &changes->changes[i]);
  }
}

void siteContactField(const char *data, int number, char *field, size_t size) {
  for (int i = 1; i < number; ++i) {
    const char *end = strchr(data, CONTACT_FIELD_END);
    if (end == NULL) break;
    data = end + 1;
  }
  const char *end = strchr(data, CONTACT_FIELD_END);
  const size_t length = end != NULL ? (size_t)(end - data) : strlen(data);
  snprintf(field, size, "%.*s", (int)length, data);
}
