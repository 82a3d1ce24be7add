// MDStringParser: tokenized strings for callers that hold them as DString.
//
// The rule: no rule of its own; every decision is that of tokenized_text.h.
#include "zonmdfile/MDStringParser.h"

#include <utility>

#include "platform/guarded.h"
#include "platform/trace_scope.h"
#include "record/tokenized_text.h"
#include "record/trace_points.h"

namespace {

consteval std::uint32_t point(std::string_view operation) { return zon::trace::point("MDStringParser", operation); }

}  // namespace

MDStringParser::MDStringParser() { zon::TraceScope trace(point(zon::trace::CONSTRUCTOR)); }

MDStringParser::~MDStringParser() { zon::TraceScope trace(point(zon::trace::DESTRUCTOR)); }

std::uint32_t MDStringParser::occurrencesOfToken(DString& source, DString token) {
  zon::TraceScope trace(point("occurrencesOfToken"));
  return trace.exit(static_cast<std::uint32_t>(source.occurrencesOf(token.c_str())));
}

std::uint32_t MDStringParser::splitTokenizedString(DString& source, DString token, DString& head, DString& rest) {
  zon::TraceScope trace(point("splitTokenizedString"));
  return trace.exit(zon::guarded([&]() -> std::uint32_t {
    std::string_view headText;
    std::string_view restText;
    if (const std::uint32_t rc = zon::splitText(source, token, headText, restText)) return rc;
    // Copied before either output changes: an output may be the source itself.
    DString newHead(headText);
    DString newRest(restText);
    head = std::move(newHead);
    rest = std::move(newRest);
    return MD_RC_OK;
  }));
}

std::uint32_t MDStringParser::parseTokenizedString(DString& source, DString token, unsigned long index,
                                                   DString& field) {
  zon::TraceScope trace(point("parseTokenizedString"));
  return trace.exit(zon::guarded([&] {
    std::string_view text;
    const std::uint32_t rc = zon::parseText(source, token, index, text);
    field.assign(text);
    return rc;
  }));
}
