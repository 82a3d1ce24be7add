// Turns return codes into SQLCODEs and fills the caller's SQLCA.
//
// The rule: an SQLCODE is decided here and in the table of return codes, nowhere else. Only the codes for a record that
// is missing or there already carry the callers' keys; all others reach the SQLCA without a message.
#include <algorithm>
#include <cstring>

#include "platform/admin/return_code_table.h"
#include "platform/trace_scope.h"
#include "record/record_layout.h"
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

// Tokens beyond the third are not read: no operation names more keys than that.
constexpr std::int32_t MAX_TOKENS = 3;
constexpr std::size_t JOINED_SIZE = MAX_TOKENS * zon::MAX_KEY_LENGTH + (MAX_TOKENS - 1) + 1;
static_assert(JOINED_SIZE == 387);

// Joins the tokens, each cut at the length of a key, by single blanks; a null token leaves its place empty.
void joinTokens(std::int32_t tokenCount, const char* const* tokens, char (&joined)[JOINED_SIZE]) {
  char* end = joined;
  const std::int32_t count = std::min(tokenCount, MAX_TOKENS);
  for (std::int32_t i = 0; i < count; ++i) {
    if (i > 0) *end++ = ' ';
    if (tokens[i] == nullptr) continue;
    const std::size_t length = ::strnlen(tokens[i], zon::MAX_KEY_LENGTH);
    std::memcpy(end, tokens[i], length);
    end += length;
  }
  *end = '\0';
}

}  // namespace

extern "C" std::int32_t mapMDFileRcToSqlcode(std::uint32_t rc, std::uint32_t subjectKind) {
  zon::TraceScope trace(zon::trace::mapMDFileRcToSqlcode);
  const bool isContact = subjectKind == ZON_SUBJECT_CONTACT;
  if (rc == MD_RC_OK) return trace.exit(0);
  if (rc == GENREG_RC_DUPLICATE_KEY) return trace.exit(isContact ? SQLCODE_CONTACT_EXISTS : SQLCODE_RECORD_EXISTS);
  if (rc == GENREG_RC_NOT_FOUND) return trace.exit(isContact ? SQLCODE_CONTACT_MISSING : SQLCODE_RECORD_MISSING);
  return trace.exit(ecfToSqlError(rc));
}

extern "C" std::int32_t mapMDFileRcToSqlca(std::uint64_t rc, std::int32_t tokenCount, const char* const* tokens,
                                           std::uint32_t subjectKind, struct sqlca* sqlca) {
  zon::TraceScope trace(zon::trace::mapMDFileRcToSqlca);
  const std::int32_t sqlcode = mapMDFileRcToSqlcode(static_cast<std::uint32_t>(rc), subjectKind);
  char joined[JOINED_SIZE];
  joined[0] = '\0';
  if (tokens != nullptr && hasMessage(sqlcode)) joinTokens(tokenCount, tokens, joined);
  const char* const message[] = {joined};
  vekFillSqlca(sqlca, sqlcode, "mapMDFileRcToSqlca", joined[0] != '\0' ? 1 : 0, message);
  return trace.exit(sqlcode);
}
