/*
 * The tables that the sample programs print: one line for a call, or for many calls of one kind.
 *
 * The rule: whoever prints a line says which SQLCODE it expects; another one is marked, counted, and makes the
 * program fail in the end.
 */
#ifndef REPORT_H
#define REPORT_H

#include <stdint.h>

#include "zon_calls.h"

/* Begins a section: its heading, a sentence about it (may be null) and the head of the table. */
void reportSection(const char *heading, const char *sentence);

/* A line about one call. `what` is a printf format and its arguments. */
void reportCall(const char *name, const ZonCall *call, int32_t expected, const char *what, ...)
    __attribute__((format(printf, 4, 5)));

/* A line without a call, indented below the last one. */
void reportRemark(const char *what, ...) __attribute__((format(printf, 1, 2)));

/* The first lines of a text, as a remark of several lines. */
void reportText(const char *text, int lines);

/* Counts a difference that is no SQLCODE. */
void reportFailure(const char *what, ...) __attribute__((format(printf, 1, 2)));

/* 0 when all was as expected, else 1 with a closing line that says how much was not. */
int reportEnd(void);

#endif
