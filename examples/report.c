/* See report.h. The rule: a line fits into 120 columns; what is longer is cut in the middle, where keys differ least.
 */
#include "report.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#define NAME_WIDTH 41
#define WHAT_WIDTH 52
#define REMARK_WIDTH 110

static unsigned failures = 0;

/* Copies `text` to `shortened`, which has room for width + 1 bytes. */
static void shorten(const char *text, size_t width, char *shortened) {
  const size_t length = strlen(text);
  if (length <= width) {
    memcpy(shortened, text, length + 1);
    return;
  }
  const size_t tail = width / 3;
  const size_t head = width - tail - 3;
  memcpy(shortened, text, head);
  memcpy(shortened + head, "...", 3);
  memcpy(shortened + head + 3, text + length - tail, tail + 1);
}

void reportSection(const char *heading, const char *sentence) {
  printf("\n%s\n", heading);
  if (sentence != NULL) printf("%s\n", sentence);
  printf("  %-*s %-*s %7s  %s\n", NAME_WIDTH, "call", WHAT_WIDTH, "what it did", "SQLCODE", "message token");
}

void reportCall(const char *name, const ZonCall *call, int32_t expected, const char *what, ...) {
  char text[1024];
  char shortened[WHAT_WIDTH + 1];
  char token[31];
  va_list arguments;
  va_start(arguments, what);
  vsnprintf(text, sizeof text, what, arguments);
  va_end(arguments);
  shorten(text, WHAT_WIDTH, shortened);
  shorten(call->token, sizeof token - 1, token);
  const int asExpected = call->sqlcode == expected && call->rc == expected;
  if (!asExpected) ++failures;
  printf("  %-*s %-*s %7d%s%s", NAME_WIDTH, name, WHAT_WIDTH, shortened, call->sqlcode, token[0] != '\0' ? "  " : "",
         token);
  if (!asExpected) printf("  <- expected %d", expected);
  printf("\n");
}

void reportRemark(const char *what, ...) {
  char text[4096];
  char shortened[REMARK_WIDTH + 1];
  va_list arguments;
  va_start(arguments, what);
  vsnprintf(text, sizeof text, what, arguments);
  va_end(arguments);
  shorten(text, REMARK_WIDTH, shortened);
  printf("      %s\n", shortened);
}

void reportText(const char *text, int lines) {
  while (lines-- > 0 && *text != '\0') {
    const char *end = strchr(text, '\n');
    const size_t length = end != NULL ? (size_t)(end - text) : strlen(text);
    reportRemark("| %.*s", (int)(length < 200 ? length : 200), text);
    if (end == NULL) return;
    text = end + 1;
  }
  if (*text != '\0') reportRemark("| ...");
}

void reportFailure(const char *what, ...) {
  va_list arguments;
  va_start(arguments, what);
  printf("      DIFFERENT: ");
  vprintf(what, arguments);
  printf("\n");
  va_end(arguments);
  ++failures;
}

int reportEnd(void) {
  if (failures == 0) return 0;
  printf("\n%u lines are not as expected.\n", failures);
  return 1;
}
