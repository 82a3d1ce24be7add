/* The SQL communication area: 136 bytes, the layout that embedded SQL has long had. C11 and C++. */
#ifndef ZONMDFILE_PLATFORM_SQLCA_H
#define ZONMDFILE_PLATFORM_SQLCA_H

#include <stdint.h>

struct sqlca {
  char sqlcaid[8];    /* "SQLCA   " */
  int32_t sqlcabc;    /* 136 */
  int32_t sqlcode;    /* 0 or negative */
  int16_t sqlerrml;   /* bytes used in sqlerrmc; 0 without a message token */
  char sqlerrmc[70];  /* the message token, not NUL-terminated */
  char sqlerrp[8];    /* name of the reporting function, cut at 8 bytes, blank-padded */
  int32_t sqlerrd[6]; /* zero */
  char sqlwarn[11];   /* blanks; after a loss 'W' in the first and the eighth */
  char sqlstate[5];   /* "00000" for SQLCODE 0 */
};

#endif
