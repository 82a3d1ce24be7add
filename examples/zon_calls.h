/*
 * Calls entry points without building cells and parameter blocks by hand.
 *
 * The rule: whatever a call hands out belongs to its ZonCall, and zonCallEnd gives it back to the library.
 *
 *   ZonCall call;
 *   zonCall(&call, MDCustomTree_retrieve, "iroo", "tree.one");
 *   if (call.sqlcode == 0) printf("%s, version %s\n", call.out[0].text, call.out[1].text);
 *   zonCallEnd(&call);
 */
#ifndef ZON_CALLS_H
#define ZON_CALLS_H

#include <stddef.h>
#include <stdint.h>

#include "zonmdfile/zonmdfile.h"

/* More slots than any entry point of fixed shape has. */
#define ZON_CALL_SLOTS 8

typedef void ZonEntryPoint(void *reserved, void **parameterBlock, struct sqlca *sqlca);

typedef struct {
  int32_t sqlcode;                   /* from the SQLCA */
  int32_t rc;                        /* from the rc cell; the SQLCODE where there is no such cell */
  char sqlstate[6];                  /* NUL-terminated */
  char token[71];                    /* the SQLCA's message, NUL-terminated; "" without one */
  zonOutputCell out[ZON_CALL_SLOTS]; /* in slot order; text is null where nothing was written */
  int32_t number[ZON_CALL_SLOTS];    /* numbers handed out, in slot order */
} ZonCall;

/*
 * Calls `function`. One letter of `slots` describes each slot, from slot 0:
 *
 *   i  input cell; takes the next argument, a const char * (may be null)
 *   n  number handed in; takes the next argument, a uint32_t
 *   r  rc cell
 *   o  output cell, to be found in call->out
 *   N  number handed out, to be found in call->number
 */
void zonCall(ZonCall *call, ZonEntryPoint *function, const char *slots, ...);

/* The same with a version number for ContactAPI_insert and ContactAPI_update, which read it from the reserved argument.
 */
void zonCallWithVersion(ZonCall *call, ZonEntryPoint *function, uint32_t version, const char *slots, ...);

/* The same with a parameter block of the caller's own, for the entry points whose shape depends on what they find. */
void zonCallBlock(ZonCall *call, ZonEntryPoint *function, void **parameterBlock);

/* Releases what the call handed out. */
void zonCallEnd(ZonCall *call);

/* Releases the text of one output cell. */
void zonFreeCell(zonOutputCell *cell);

/* Walks a list: gives the entry at *cursor and its length and moves on; null at the end. Begin with *cursor = list. */
const char *zonNextEntry(const char **cursor, size_t *length);

/* How many entries a list has. */
size_t zonCountEntries(const char *list);

#endif
