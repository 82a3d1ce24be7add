/*
 * MDStringParser: counts, splits and picks the fields of a tokenized string, a text of fields separated by a token.
 * Fields are numbered from 1. Nothing is escaped: a field cannot hold the token.
 */
#ifndef ZONMDFILE_MDSTRINGPARSER_H
#define ZONMDFILE_MDSTRINGPARSER_H

#include <cstdint>

#include "zonmdfile/platform/DString.h"

/*
 * Has no state; any number of threads may use one object. Nothing here throws: without memory for what an output is to
 * hold the operations answer GENREG_RC_NO_MEMORY and leave every output as it was.
 */
class ZON_EXPORT MDStringParser {
 public:
  MDStringParser();
  ~MDStringParser();

  /* How often the token, up to its first NUL, occurs in the source. */
  std::uint32_t occurrencesOfToken(DString& source, DString token);

  /*
   * head receives what stands before the first token, rest what follows one byte after the token's start; both the
   * whole source when the token does not occur. 0, or MD_RC_TOKEN_MISSING with both untouched when source or token is
   * empty.
   */
  [[nodiscard]] std::uint32_t splitTokenizedString(DString& source, DString token, DString& head, DString& rest);

  /*
   * field receives field `index`: the empty text for 0, and the last field for an index beyond it. Returns what the
   * last of the `index` splits returned: MD_RC_TOKEN_MISSING when the text was used up before, as by a token at its
   * end.
   */
  [[nodiscard]] std::uint32_t parseTokenizedString(DString& source, DString token, unsigned long index, DString& field);
};

#endif
