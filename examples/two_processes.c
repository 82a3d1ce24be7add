/*
 * Two processes write into one store at the same time; then their parent counts. Nothing has to be arranged between
 * them: the record file's own lock lets one writer in after the other.
 *
 * Usage: two_processes DIRECTORY
 *
 * The rule: an insertion that reported 0 is on stable storage, whatever happens to the process afterwards.
 */
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "zon_calls.h"
#include "zonmdfile/platform/admin.h"

#define PROCESSES 2
#define RECORDS 100

static int writeRecords(int process) {
  for (int i = 0; i < RECORDS; ++i) {
    char key[64];
    ZonCall call;
    snprintf(key, sizeof key, "process.%d.record.%d", (int)getpid(), i);
    zonCall(&call, MDLocationMapping_insert, "iiir", key, "host=example.com", "1");
    if (call.sqlcode != 0) {
      fprintf(stderr, "two_processes: process %d met SQLCODE %d\n", process, call.sqlcode);
      return 1;
    }
  }
  return 0;
}

static size_t countRecords(void) {
  ZonCall call;
  zonCall(&call, MDLocationMapping_retrieveKeys, "ro");
  const size_t count = call.out[0].text != NULL ? zonCountEntries(call.out[0].text) : 0;
  zonCallEnd(&call);
  return count;
}

int main(int argc, char **argv) {
  if (argc != 2 || setMetadataPath(argv[1]) != 0) {
    fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
    return 2;
  }
  const size_t before = countRecords();
  for (int process = 0; process < PROCESSES; ++process) {
    const pid_t child = fork();
    if (child == 0) _exit(writeRecords(process));
    if (child < 0) perror("fork");
  }
  int status = 0;
  int failed = 0;
  while (wait(&status) > 0) failed |= status;
  const size_t added = countRecords() - before;
  printf("two_processes: %d processes inserted %d records each, %zu records came in\n", PROCESSES, RECORDS, added);
  return failed != 0 || added != (size_t)PROCESSES * RECORDS;
}
