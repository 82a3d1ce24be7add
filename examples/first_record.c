/*
 * The smallest program that keeps and reads a record. It builds the parameter blocks by hand, to show what they are;
 * the other examples leave that to zon_calls.h.
 *
 * Usage: ZON_METADATA_PATH=DIRECTORY first_record      (without the variable: the current directory)
 *
 * The rule: an output text belongs to the caller, who gives it back with _ossMemFree.
 */
#include <stdio.h>
#include <string.h>

#include "zonmdfile/platform/oss.h"
#include "zonmdfile/zonmdfile.h"

#define EXISTS_ALREADY (-22272)

int main(void) {
  struct sqlca sqlca;
  int32_t rc = 0;

  /* Insertion: three inputs, then the cell for the SQLCODE. The lengths are not read. */
  zonInputCell key = {0, "tree.first"};
  zonInputCell data = {0, "a tree with one node"};
  zonInputCell version = {0, "1.0"};
  void *insertion[] = {&key, &data, &version, &rc};
  MDCustomTree_insert(NULL, insertion, &sqlca);
  printf("MDCustomTree_insert:   SQLCODE %d%s\n", rc, rc == EXISTS_ALREADY ? ", it was there from an earlier run" : "");
  if (rc != 0 && rc != EXISTS_ALREADY) return 1;

  /* Retrieval: one input, the cell for the SQLCODE, two outputs. */
  zonOutputCell foundData = {0, NULL};
  zonOutputCell foundVersion = {0, NULL};
  void *retrieval[] = {&key, &rc, &foundData, &foundVersion};
  MDCustomTree_retrieve(NULL, retrieval, &sqlca);
  printf("MDCustomTree_retrieve: SQLCODE %d", rc);
  if (rc != 0) {
    printf(", about \"%.*s\"\n", sqlca.sqlerrml, sqlca.sqlerrmc);
    return 1;
  }
  printf(", data \"%s\", version \"%s\"\n", foundData.text, foundVersion.text);

  void *text = foundData.text;
  _ossMemFree(&text, 0, 0, "first_record", __LINE__);
  text = foundVersion.text;
  _ossMemFree(&text, 0, 0, "first_record", __LINE__);
  return 0;
}
