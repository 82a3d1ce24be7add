// Turns return codes into SQLCODEs and fills the caller's SQLCA.
//
// The rule: an SQLCODE is decided here and in the table of return codes, nowhere else. Only the codes for a record that
// is missing or there already carry the callers' keys; all others reach the SQLCA without a message.
#include <algorithm>
#include <cstring>

#include "platform/admin/return_code_table.h"
#include "platform/trace_scope.h"
#include "record/record_layout.h"
#include "record/trace_points.h"
#include "zonmdfile/platform/admin.h"
#include "zonmdfile/zonmdfile.h"

namespace {

using zon::SQLCODE_CONTACT_EXISTS;
using zon::SQLCODE_CONTACT_MISSING;
using zon::SQLCODE_RECORD_EXISTS;
using zon::SQLCODE_RECORD_MISSING;

constexpr bool hasMessage(std::int32_t sqlcode) {
  return sqlcode <= SQLCODE_CONTACT_EXISTS && sqlcode >= SQLCODE_RECORD_MISSING;
}

// Room for the three keys that the longest name of a record has, the blanks between them, and a NUL.
constexpr std::size_t JOINED_SIZE = 3 * zon::MAX_KEY_LENGTH + 2 + 1;
static_assert(JOINED_SIZE == 387);

// Joins the tokens, each cut at the length of a key, by single blanks; a null token leaves its place empty. What does
// not fit is cut.
void joinTokens(std::int32_t tokenCount, const char* const* tokens, char (&joined)[JOINED_SIZE]) {
  char* end = joined;
  char* const last = joined + JOINED_SIZE - 1;
  for (std::int32_t i = 0; i < tokenCount && end < last; ++i) {
    if (i > 0) *end++ = ' ';
    if (tokens[i] == nullptr) continue;
    const std::size_t room = static_cast<std::size_t>(last - end);
    const std::size_t length = ::strnlen(tokens[i], std::min(room, zon::MAX_KEY_LENGTH));
    std::memcpy(end, tokens[i], length);
    end += length;
  }
  *end = '\0';
}

}  // namespace

extern "C" std::int32_t mapMDFileRcToSqlcode(std::uint32_t rc, std::uint32_t subjectKind) {
  zon::TraceScope trace(zon::trace::point("mapMDFileRcToSqlcode"));
  const bool isContact = subjectKind == ZON_SUBJECT_CONTACT;
  if (rc == MD_RC_OK) return trace.exit(0);
  if (rc == GENREG_RC_DUPLICATE_KEY) return trace.exit(isContact ? SQLCODE_CONTACT_EXISTS : SQLCODE_RECORD_EXISTS);
  if (rc == GENREG_RC_NOT_FOUND) return trace.exit(isContact ? SQLCODE_CONTACT_MISSING : SQLCODE_RECORD_MISSING);
  return trace.exit(ecfToSqlError(rc));
}

extern "C" std::int32_t mapMDFileRcToSqlca(std::uint64_t rc, std::int32_t tokenCount, const char* const* tokens,
                                           std::uint32_t subjectKind, struct sqlca* sqlca) {
  zon::TraceScope trace(zon::trace::point("mapMDFileRcToSqlca"));
  const std::int32_t sqlcode = mapMDFileRcToSqlcode(static_cast<std::uint32_t>(rc), subjectKind);
  char joined[JOINED_SIZE];
  joined[0] = '\0';
  if (tokens != nullptr && hasMessage(sqlcode)) joinTokens(tokenCount, tokens, joined);
  const char* const message[] = {joined};
  vekFillSqlca(sqlca, sqlcode, "mapMDFileRcToSqlca", joined[0] != '\0' ? 1 : 0, message);
  return trace.exit(sqlcode);
}
