/*
 * The sample site in examples/data: one text file for each store, and one with what happens to the site afterwards.
 *
 * The rule: the loading program and the checking program share nothing but these files, so that what the second one
 * expects does not come from the library. data/README.md tells the format.
 */
#ifndef SITE_DATA_H
#define SITE_DATA_H

#include <stddef.h>
#include <stdint.h>

#include "zon_calls.h"

#define SITE_MAX_KEYS 3
#define CONTACT_FIELD_END '\x0F'

/* An entry point and its name; null where a store has none. */
typedef struct {
  const char *name;
  ZonEntryPoint *function;
} SiteEntry;

typedef struct {
  const char *name;  /* of the data file, without ".tsv" */
  const char *title; /* for people */
  int keys;          /* 1 to 3 */
  SiteEntry insert, update, remove, removeList, retrieve, retrieveList, retrieveKeys, retrieveAll;
} SiteStore;

/* All stores that have entry points; an entry without a name ends them. */
extern const SiteStore SITE_STORES[];

/* The store of that name; ends the program when there is none. */
const SiteStore *siteStore(const char *name);

typedef struct {
  char *keys[SITE_MAX_KEYS];
  char *version;
  char *data;
} SiteRecord;

typedef struct {
  SiteRecord *records;
  size_t count;
} SiteRecords;

/* Reads <folder>/<name>.tsv for a store with that many keys. Ends the program with a message when it cannot. */
SiteRecords siteRead(const char *folder, const char *name, int keys);
void siteFree(SiteRecords *records);

/* One line of changes.tsv. Keys that the action has no need of are null. */
typedef struct {
  char *action; /* update, remove, removelist or withdrawn */
  char *store;
  SiteRecord record;
} SiteChange;

typedef struct {
  SiteChange *changes;
  size_t count;
} SiteChanges;

SiteChanges siteReadChanges(const char *folder);
void siteFreeChanges(SiteChanges *changes);

/* Turns the records as loaded into the records as they must be after all changes that concern the store. */
void siteApplyChanges(SiteRecords *records, const SiteChanges *changes, const char *store);

/* Copies field `number`, from 1, of a contact's data text to `field`, cut at size - 1 bytes. */
void siteContactField(const char *data, int number, char *field, size_t size);

#endif
