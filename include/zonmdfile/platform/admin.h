/*
 * Administration server functions (libzonvekapi): the metadata directory, the SQL communication area, and what return
 * codes mean. C11 and C++.
 */
#ifndef ZONMDFILE_PLATFORM_ADMIN_H
#define ZONMDFILE_PLATFORM_ADMIN_H

#include <stddef.h>
#include <stdint.h>

#include "zonmdfile/platform/export.h"
#include "zonmdfile/platform/return_codes.h" /* the codes that this page explains */
#include "zonmdfile/platform/sqlca.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Copies the metadata directory to path: what setMetadataPath set, else the environment variable ZON_METADATA_PATH.
 * Returns 0; non-zero with path made empty when neither is there (an empty variable counts as none) or it does not fit
 * into size bytes with its NUL. Safe to call from any thread.
 */
ZON_EXPORT int getMetadataPath(char *path, size_t size);

/*
 * Sets the directory for this process; null or "" takes it back. Returns 0; non-zero, with the directory as it was,
 * when path has 4096 bytes or more or memory is short. Safe to call from any thread. A copy of each different directory
 * is kept until the process ends.
 */
ZON_EXPORT int setMetadataPath(const char *path);

/*
 * Fills the whole of *sqlca: the code, its SQLSTATE, the reporting function's name cut at 8 bytes (blank-padded), and
 * as message the tokens joined by single blanks, cut at 70 bytes. A null sqlca, or null tokens, is allowed.
 */
ZON_EXPORT void vekFillSqlca(struct sqlca *sqlca, int32_t sqlcode, const char *function, int32_t tokenCount,
                             const char *const *tokens);

/*
 * Sets the warning that records were lost, or may have been, in a call that answered all the same: 'W' in sqlwarn[0]
 * and in sqlwarn[7]. All else stays. A null sqlca is allowed.
 */
ZON_EXPORT void vekWarnOfLoss(struct sqlca *sqlca);

/* The SQLCODE of a return code: 0 for 0, else negative and its own; one common SQLCODE for codes not in the table. */
ZON_EXPORT int32_t ecfToSqlError(uint32_t rc);

/* What a return code means and what to do, in plain words. Never null, constant, not to be freed. */
ZON_EXPORT const char *ecfErrorGetDescription(uint32_t rc);

/* The name of a return code ("GENREG_RC_NOT_FOUND"), or null for one that is not in the table. Constant. */
ZON_EXPORT const char *ecfErrorGetName(uint32_t rc);

#ifdef __cplusplus
}
#endif
#endif
