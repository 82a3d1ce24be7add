/*
 * The public header as a C11 program sees it: nothing else is included but the way to release an output. Layouts are
 * held against the ABI at compile time; then one record goes in and comes out again.
 */
#include <zonmdfile/zonmdfile.h>

#include <zonmdfile/platform/admin.h>
#include <zonmdfile/platform/oss.h>

#include <stdio.h>
#include <string.h>

_Static_assert(sizeof(zonInputCell) == 16 && offsetof(zonInputCell, text) == 8, "input cell");
_Static_assert(sizeof(zonOutputCell) == 16 && offsetof(zonOutputCell, text) == 8, "output cell");
_Static_assert(offsetof(zonInputCell, length) == 0 && offsetof(zonOutputCell, length) == 0, "lengths first");
_Static_assert(sizeof(struct sqlca) == 136, "SQLCA");
_Static_assert(offsetof(struct sqlca, sqlcabc) == 8, "SQLCA");
_Static_assert(offsetof(struct sqlca, sqlcode) == 12, "SQLCA");
_Static_assert(offsetof(struct sqlca, sqlerrml) == 16, "SQLCA");
_Static_assert(offsetof(struct sqlca, sqlerrmc) == 18, "SQLCA");
_Static_assert(offsetof(struct sqlca, sqlerrp) == 88, "SQLCA");
_Static_assert(offsetof(struct sqlca, sqlerrd) == 96, "SQLCA");
_Static_assert(offsetof(struct sqlca, sqlwarn) == 120, "SQLCA");
_Static_assert(offsetof(struct sqlca, sqlstate) == 131, "SQLCA");
_Static_assert(MD_RC_NO_DATA == 0x7919 && MD_RC_DATA_EMPTY == 0x791E, "return codes");

/* Each of these must have the type that callers declare. */
static void (*const ENTRY_POINT)(void *, void **, struct sqlca *) = MDCustomTree_retrieve;
static int32_t (*const TO_SQLCODE)(uint32_t, uint32_t) = mapMDFileRcToSqlcode;
static int32_t (*const TO_SQLCA)(uint64_t, int32_t, const char *const *, uint32_t, struct sqlca *) = mapMDFileRcToSqlca;

static int check(int isTrue, const char *what) {
  if (!isTrue) fprintf(stderr, "failed: %s\n", what);
  return isTrue ? 0 : 1;
}

int main(int argc, char **argv) {
  struct sqlca sqlca;
  int32_t rc = 1;
  zonInputCell key = {0, "tree"};
  zonInputCell data = {0, "root(a,b)"};
  zonInputCell version = {0, "1.0"};
  zonOutputCell dataOut = {0, NULL};
  zonOutputCell versionOut = {0, NULL};
  void *insert[] = {&key, &data, &version, &rc};
  void *retrieve[] = {&key, &rc, &dataOut, &versionOut};
  int failures = 0;

  if (argc != 2 || setMetadataPath(argv[1]) != 0) return 2;
  MDCustomTree_remove(NULL, retrieve, &sqlca);
  MDCustomTree_insert(NULL, insert, &sqlca);
  failures += check(rc == 0 && sqlca.sqlcode == 0, "insert");
  MDCustomTree_insert(NULL, insert, &sqlca);
  failures += check(rc == -22272 && sqlca.sqlcode == -22272, "second insert");
  failures += check(sqlca.sqlerrml == 4 && memcmp(sqlca.sqlerrmc, "tree", 4) == 0, "message");
  ENTRY_POINT(NULL, retrieve, &sqlca);
  failures += check(rc == 0 && dataOut.length == 10 && strcmp(dataOut.text, "root(a,b)") == 0, "data");
  failures += check(versionOut.length == 4 && strcmp(versionOut.text, "1.0") == 0, "version");
  failures += check(TO_SQLCODE(GENREG_RC_NOT_FOUND, ZON_SUBJECT_CONTACT) == -22271, "mapping");
  failures += check(TO_SQLCA(MD_RC_OK, 0, NULL, ZON_SUBJECT_OTHER, NULL) == 0, "mapping");
  _ossMemFree((void **)&dataOut.text, 0, 0, __FILE__, __LINE__);
  _ossMemFree((void **)&versionOut.text, 0, 0, __FILE__, __LINE__);
  failures += check(ossMemOutstanding(NULL) == 0, "all released");
  MDCustomTree_remove(NULL, retrieve, &sqlca);
  failures += check(rc == 0, "remove");
  return failures;
}
