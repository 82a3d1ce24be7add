/*
 * One process, several metadata directories: the directory is asked for at every call, so a process may change it
 * between calls.
 *
 * Usage: own_directory DIRECTORY      makes two directories in it
 *
 * The rule: what setMetadataPath says comes before the environment variable ZON_METADATA_PATH.
 */
#include <stdio.h>
#include <sys/stat.h>

#include "zon_calls.h"
#include "zonmdfile/platform/admin.h"

static int keepNote(const char *parent, const char *name) {
  char directory[4096];
  if (snprintf(directory, sizeof directory, "%s/%s", parent, name) >= (int)sizeof directory) return 1;
  mkdir(directory, 0755);
  if (setMetadataPath(directory) != 0) return 1;

  ZonCall call;
  zonCall(&call, MDSubSystemSetting_insert, "iiir", "note", name, "1");
  zonCall(&call, MDSubSystemSetting_retrieve, "iroo", "note");
  const int failed = call.sqlcode != 0;
  if (failed) {
    printf("own_directory: SQLCODE %d in %s\n", call.sqlcode, directory);
  } else {
    printf("own_directory: the record \"note\" in %s says \"%s\"\n", directory, call.out[0].text);
  }
  zonCallEnd(&call);
  return failed;
}

int main(int argc, char **argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
    return 2;
  }
  return keepNote(argv[1], "east") + keepNote(argv[1], "west");
}
