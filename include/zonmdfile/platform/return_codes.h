/*
 * Every return code of the system: unsigned 32-bit, 0 is success. C11 and C++.
 *
 * MD_RC_ codes come from the stores and entry points, GENREG_RC_ codes from the registry engine. What each means in
 * plain words, and its SQLCODE and SQLSTATE, stands in one table (src/platform/admin/return_code_table.cpp), which a
 * test holds against this header. Values are part of the ABI: never reuse one.
 */
#ifndef ZONMDFILE_PLATFORM_RETURN_CODES_H
#define ZONMDFILE_PLATFORM_RETURN_CODES_H

#include <stdint.h>

#define MD_RC_OK UINT32_C(0)
#define MD_RC_NO_DATA UINT32_C(31001)       /* no store object, or a retrieval gave an empty result */
#define MD_RC_TOKEN_MISSING UINT32_C(31002) /* empty text or separator where a text was to be split */
#define MD_RC_KEY_TOO_LONG UINT32_C(31003)  /* a key of more than 128 bytes */
#define MD_RC_KEY_EMPTY UINT32_C(31004)     /* a key of no bytes */
#define MD_RC_DATA_TOO_LONG UINT32_C(31005) /* data of more than 1,024,000 bytes, or a version beyond its field */
#define MD_RC_DATA_EMPTY UINT32_C(31006)    /* data of no bytes */
#define MD_RC_LIST_TOO_LONG UINT32_C(31007) /* a list of more than 4,294,967,294 bytes */

#define GENREG_RC_END_OF_SCAN UINT32_C(0x900001BE)   /* GetNext: no further record */
#define GENREG_RC_MEMBER_ABSENT UINT32_C(0x900001C5) /* a member was in no group */
#define GENREG_RC_DUPLICATE_KEY UINT32_C(0x900001F1) /* Add: a record with these keys exists */
#define GENREG_RC_NOT_FOUND UINT32_C(0x900001F6)     /* Get, Change, Delete: no record matches */
#define GENREG_RC_NO_CHANGE UINT32_C(0x900001F7)     /* Change: the record holds these very bytes already */

/* Below: the engine's own failures. The file holds the state before the call unless the code says otherwise. */
#define GENREG_RC_LOCK_TIMEOUT UINT32_C(0x90000201)    /* another writer kept the lock for longer than the lock wait */
#define GENREG_RC_DAMAGED UINT32_C(0x90000202)         /* bytes that are needed for the answer fail their checksum */
#define GENREG_RC_NEWER_FORMAT UINT32_C(0x90000203)    /* written by a later release; left untouched */
#define GENREG_RC_NOT_RECORD_FILE UINT32_C(0x90000204) /* not a record file at all; left untouched */
#define GENREG_RC_WRONG_RECORD_TYPE UINT32_C(0x90000205) /* of another record type or another store */
#define GENREG_RC_NO_SPACE UINT32_C(0x90000206)          /* disk or quota full */
#define GENREG_RC_NO_PERMISSION UINT32_C(0x90000207)     /* the process may not do this to the file or its directory */
#define GENREG_RC_READ_ONLY UINT32_C(0x90000208)         /* read-only file system */
#define GENREG_RC_IO_ERROR UINT32_C(0x90000209)          /* the device failed */
#define GENREG_RC_NO_MEMORY UINT32_C(0x9000020A)         /* out of memory */
#define GENREG_RC_TOO_MANY_FILES UINT32_C(0x9000020B)    /* out of file descriptors */
#define GENREG_RC_FILE_TOO_LARGE UINT32_C(0x9000020C)    /* the process's or the file system's size limit */
#define GENREG_RC_NOT_REGULAR UINT32_C(0x9000020D)   /* a link, FIFO, device, socket or directory stands at the name */
#define GENREG_RC_NO_DIRECTORY UINT32_C(0x9000020E)  /* the metadata directory does not exist */
#define GENREG_RC_NAME_TOO_LONG UINT32_C(0x9000020F) /* a path beyond the system's limits */
#define GENREG_RC_NO_SCAN UINT32_C(0x90000210)       /* GetNext or CloseScan without an open scan */
#define GENREG_RC_BAD_RECORD UINT32_C(0x90000211)    /* the record type's callbacks refuse the record or give no size */
#define GENREG_RC_DURABILITY_UNKNOWN UINT32_C(0x90000212) /* made, but not confirmed to outlast a power cut */
#define GENREG_RC_LOCK_UNSUPPORTED UINT32_C(0x90000213)   /* the file system has no locks */
#define GENREG_RC_SYSTEM_ERROR UINT32_C(0x90000214)       /* any other failure of a system call */
#define GENREG_RC_INTERNAL UINT32_C(0x90000215)           /* a state that must not occur; please report it */
#define GENREG_RC_SCAN_OPEN UINT32_C(0x90000216)          /* not possible while a scan of this object is open */
#define GENREG_RC_NO_BATCH UINT32_C(0x90000217)           /* commitBatch without a batch */
#define GENREG_RC_BATCH_OPEN UINT32_C(0x90000218)         /* not possible while a batch of this object is under way */
#define GENREG_RC_NO_ENGINE UINT32_C(0x90000219)          /* the stub names an engine that is not installed here */
#define GENREG_RC_DAMAGED_STUB UINT32_C(0x9000021A)       /* the stub fails its checksum; left untouched */

#endif
