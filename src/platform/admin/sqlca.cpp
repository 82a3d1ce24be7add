// Filling the SQL communication area. The rule: every one of its bytes is written, nothing of the caller's shines
// through.
#include "zonmdfile/platform/sqlca.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "platform/admin/return_code_table.h"
#include "platform/admin/trace_points.h"
#include "platform/trace_scope.h"
#include "zonmdfile/platform/admin.h"

static_assert(sizeof(sqlca) == 136);
static_assert(offsetof(sqlca, sqlerrml) == 16);
static_assert(offsetof(sqlca, sqlerrmc) == 18);
static_assert(offsetof(sqlca, sqlerrp) == 88);
static_assert(offsetof(sqlca, sqlerrd) == 96);
static_assert(offsetof(sqlca, sqlwarn) == 120);
static_assert(offsetof(sqlca, sqlstate) == 131);

namespace {

constexpr std::size_t LOSS_WARNING = 7;  // which of the warnings tells of a loss

// A message that is cut at the size of its field.
class Message {
 public:
  explicit Message(sqlca& area) : area_(area) {}

  bool isFull() const { return static_cast<std::size_t>(area_.sqlerrml) == sizeof(area_.sqlerrmc); }

  void add(std::string_view text) {
    const std::size_t used = static_cast<std::size_t>(area_.sqlerrml);
    const std::size_t added = std::min(text.size(), sizeof(area_.sqlerrmc) - used);
    std::copy_n(text.begin(), added, area_.sqlerrmc + used);
    area_.sqlerrml = static_cast<std::int16_t>(used + added);
  }

 private:
  sqlca& area_;
};

// No more of a token is looked at than can be used, so that a very long one costs nothing.
std::string_view usefulPart(const char* token) {
  return token != nullptr ? std::string_view(token, ::strnlen(token, sizeof(sqlca::sqlerrmc))) : std::string_view();
}

void joinTokens(Message message, std::int32_t tokenCount, const char* const* tokens) {
  for (std::int32_t i = 0; i < tokenCount && !message.isFull(); ++i) {
    if (i != 0) message.add(" ");
    message.add(usefulPart(tokens[i]));
  }
}

}  // namespace

extern "C" void vekFillSqlca(struct sqlca* sqlca, int32_t sqlcode, const char* function, int32_t tokenCount,
                             const char* const* tokens) {
  zon::TraceScope trace(zon::trace::adminPoint("vekFillSqlca"));
  if (sqlca == nullptr) return;
  std::memset(sqlca, 0, sizeof(*sqlca));
  std::memcpy(sqlca->sqlcaid, "SQLCA   ", sizeof(sqlca->sqlcaid));
  sqlca->sqlcabc = sizeof(*sqlca);
  sqlca->sqlcode = sqlcode;
  if (tokens != nullptr) joinTokens(Message(*sqlca), tokenCount, tokens);
  std::memset(sqlca->sqlerrp, ' ', sizeof(sqlca->sqlerrp));
  if (function != nullptr) std::memcpy(sqlca->sqlerrp, function, ::strnlen(function, sizeof(sqlca->sqlerrp)));
  std::memset(sqlca->sqlwarn, ' ', sizeof(sqlca->sqlwarn));
  std::memcpy(sqlca->sqlstate, zon::findSqlState(sqlcode), sizeof(sqlca->sqlstate));
}

extern "C" void vekWarnOfLoss(struct sqlca* sqlca) {
  if (sqlca == nullptr) return;
  sqlca->sqlwarn[0] = 'W';
  sqlca->sqlwarn[LOSS_WARNING] = 'W';
}
