/* See zon_calls.h. The rule: every slot has storage of its own, alive until the entry point has returned. */
#include "zon_calls.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zonmdfile/platform/oss.h"

#define LIST_END '\x0E'

static void keepOutcome(ZonCall *call, const struct sqlca *sqlca) {
  size_t length = sqlca->sqlerrml > 0 ? (size_t)sqlca->sqlerrml : 0;
  if (length >= sizeof call->token) length = sizeof call->token - 1;
  memcpy(call->token, sqlca->sqlerrmc, length);
  memcpy(call->sqlstate, sqlca->sqlstate, sizeof sqlca->sqlstate);
  call->sqlcode = sqlca->sqlcode;
}

static void callWith(ZonCall *call, ZonEntryPoint *function, void *reserved, const char *slots, va_list arguments) {
  void *block[ZON_CALL_SLOTS] = {0};
  zonInputCell inputs[ZON_CALL_SLOTS];
  uint32_t numbers[ZON_CALL_SLOTS];
  size_t outputs = 0;
  size_t numbersOut = 0;
  int hasRc = 0;
  struct sqlca sqlca;

  memset(call, 0, sizeof *call);
  for (size_t slot = 0; slots[slot] != '\0'; ++slot) {
    if (slot == ZON_CALL_SLOTS) {
      fprintf(stderr, "zonCall: \"%s\" has more than %d slots\n", slots, ZON_CALL_SLOTS);
      abort();
    }
    switch (slots[slot]) {
      case 'i':
        inputs[slot].text = va_arg(arguments, const char *);
        inputs[slot].length = inputs[slot].text != NULL ? (uint32_t)strlen(inputs[slot].text) : 0;
        block[slot] = &inputs[slot];
        break;
      case 'n':
        numbers[slot] = va_arg(arguments, uint32_t);
        block[slot] = &numbers[slot];
        break;
      case 'r':
        hasRc = 1;
        block[slot] = &call->rc;
        break;
      case 'o':
        block[slot] = &call->out[outputs++];
        break;
      case 'N':
        block[slot] = &call->number[numbersOut++];
        break;
      default:
        fprintf(stderr, "zonCall: '%c' in \"%s\" is no kind of slot\n", slots[slot], slots);
        abort();
    }
  }
  function(reserved, block, &sqlca);
  keepOutcome(call, &sqlca);
  if (!hasRc) call->rc = call->sqlcode;
}

void zonCall(ZonCall *call, ZonEntryPoint *function, const char *slots, ...) {
  va_list arguments;
  va_start(arguments, slots);
  callWith(call, function, NULL, slots, arguments);
  va_end(arguments);
}

void zonCallWithVersion(ZonCall *call, ZonEntryPoint *function, uint32_t version, const char *slots, ...) {
  va_list arguments;
  va_start(arguments, slots);
  callWith(call, function, &version, slots, arguments);
  va_end(arguments);
}

void zonCallBlock(ZonCall *call, ZonEntryPoint *function, void **parameterBlock) {
  struct sqlca sqlca;
  memset(call, 0, sizeof *call);
  function(NULL, parameterBlock, &sqlca);
  keepOutcome(call, &sqlca);
  call->rc = call->sqlcode;
}

void zonFreeCell(zonOutputCell *cell) {
  void *text = cell->text;
  _ossMemFree(&text, 0, 0, "zon_calls", __LINE__);
  cell->text = NULL;
}

void zonCallEnd(ZonCall *call) {
  for (size_t i = 0; i < ZON_CALL_SLOTS; ++i) zonFreeCell(&call->out[i]);
}

const char *zonNextEntry(const char **cursor, size_t *length) {
  const char *entry = *cursor;
  if (entry == NULL) return NULL;
  const char *end = strchr(entry, LIST_END);
  if (end == NULL) return NULL;
  *length = (size_t)(end - entry);
  *cursor = end + 1;
  return entry;
}

size_t zonCountEntries(const char *list) {
  size_t count = 0;
  size_t length = 0;
  while (zonNextEntry(&list, &length) != NULL) ++count;
  return count;
}
