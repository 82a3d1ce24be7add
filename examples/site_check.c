/*
 * A second process: reads what site_load has left in the metadata directory, and compares it with the data files.
 *
 * Usage: site_check METADATA-DIRECTORY DATA-FOLDER
 *
 * The rule: what must be there is worked out from the data files alone; every record is compared in full, twice, once
 * as the store lists it and once as it is retrieved by its key.
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
#define MAX_LISTS (SITE_MAX_KEYS + 2)

/* The lists of a retrieveAll: keys, data, versions; each cursor stands at the same record. */
typedef struct {
  const char *cursor[MAX_LISTS];
  int count;
} Lists;

typedef struct {
  const char *text[MAX_LISTS];
  size_t length[MAX_LISTS];
} Listed;

static int nextRecord(Lists *lists, Listed *record) {
  int ended = 0;
  for (int i = 0; i < lists->count; ++i) {
    record->text[i] = zonNextEntry(&lists->cursor[i], &record->length[i]);
    if (record->text[i] == NULL) ++ended;
  }
  if (ended != 0 && ended != lists->count) reportFailure("the lists of one call have different lengths");
  return ended == 0;
}

static int sameText(const Listed *record, int list, const char *expected) {
  return record->length[list] == strlen(expected) && memcmp(record->text[list], expected, record->length[list]) == 0;
}

/* Records come back in the order in which they were inserted, which is the order of the file. */
static int sameRecord(const Listed *found, const SiteRecord *expected, int keys) {
  for (int key = 0; key < keys; ++key) {
    if (!sameText(found, key, expected->keys[key])) return 0;
  }
  return sameText(found, keys, expected->data) && sameText(found, keys + 1, expected->version);
}

static size_t compareLists(const SiteStore *store, const SiteRecords *expected, const ZonCall *call) {
  Lists lists;
  Listed record;
  size_t same = 0;
  size_t found = 0;
  lists.count = store->keys + 2;
  for (int i = 0; i < lists.count; ++i) lists.cursor[i] = call->out[i].text;
  while (nextRecord(&lists, &record)) {
    if (found >= expected->count) {
      reportFailure("a record too many: %.*s", (int)record.length[0], record.text[0]);
    } else if (sameRecord(&record, &expected->records[found], store->keys)) {
      ++same;
    } else {
      reportFailure("%.*s found where %s was expected, or with other contents", (int)record.length[0], record.text[0],
                    expected->records[found].keys[0]);
    }
    ++found;
  }
  if (found < expected->count) reportFailure("%zu records are missing", expected->count - found);
  return same;
}

static void checkListing(const SiteStore *store, const SiteRecords *expected) {
  static const char *const SLOTS[] = {"", "rooo", "roooo", "rooooo"};
  ZonCall call;
  zonCall(&call, store->retrieveAll.function, SLOTS[store->keys]);
  const size_t same = call.sqlcode == OK ? compareLists(store, expected, &call) : 0;
  reportCall(store->retrieveAll.name, &call, OK, "%s: %zu of %zu are the same", store->title, same, expected->count);
  if (call.sqlcode != OK) reportFailure("%zu records expected", expected->count);
  zonCallEnd(&call);
}

static void checkEach(const SiteStore *store, const SiteRecords *expected) {
  ZonCall call;
  ZonCall last;
  size_t same = 0;
  memset(&last, 0, sizeof last);
  for (size_t i = 0; i < expected->count; ++i) {
    const SiteRecord *record = &expected->records[i];
    if (store->keys == 1) {
      zonCall(&call, store->retrieve.function, "iroo", record->keys[0]);
    } else {
      zonCall(&call, store->retrieve.function, "iiroo", record->keys[0], record->keys[1]);
    }
    if (call.sqlcode != OK) {
      last = call;
    } else if (strcmp(call.out[0].text, record->data) == 0 && strcmp(call.out[1].text, record->version) == 0) {
      ++same;
    }
    zonCallEnd(&call);
  }
  reportCall(store->retrieve.name, &last, OK, "one by one: %zu of %zu are the same", same, expected->count);
  if (same != expected->count) reportFailure("%zu records are missing or differ", expected->count - same);
}

static void checkStore(const char *folder, const SiteStore *store, const SiteChanges *changes) {
  SiteRecords expected = siteRead(folder, store->name, store->keys);
  siteApplyChanges(&expected, changes, store->name);
  checkListing(store, &expected);
  if (store->retrieve.function != NULL) checkEach(store, &expected);
  siteFree(&expected);
}

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s METADATA-DIRECTORY DATA-FOLDER\n", argv[0]);
    return 2;
  }
  if (setMetadataPath(argv[1]) != 0) {
    fprintf(stderr, "%s: the path is too long\n", argv[1]);
    return 1;
  }
  reportSection("Another process reads the site back",
                "Expected is what the data files hold, with the changes of changes.tsv.");
  SiteChanges changes = siteReadChanges(argv[2]);
  for (const SiteStore *store = SITE_STORES; store->name != NULL; ++store) checkStore(argv[2], store, &changes);
  siteFreeChanges(&changes);
  if (ossMemOutstanding("MDRegFactory") != 0) reportFailure("output buffers were not given back");
  const int result = reportEnd();
  if (result == 0) printf("\nNothing is lost: every record is there, with the data and version that it must have.\n");
  return result;
}
