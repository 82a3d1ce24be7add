// What a return code means, for callers. The rule: the table has the answers; here is only what holds for unknown
// codes.
#include "platform/admin/return_code_table.h"
#include "platform/admin/trace_points.h"
#include "platform/trace_scope.h"
#include "zonmdfile/platform/admin.h"

extern "C" int32_t ecfToSqlError(uint32_t rc) {
  zon::TraceScope trace(zon::trace::adminPoint("ecfToSqlError"));
  const zon::ReturnCode* code = zon::findReturnCode(rc);
  return trace.exit(code != nullptr ? code->sqlcode : zon::UNKNOWN_CODE_SQLCODE);
}

extern "C" const char* ecfErrorGetDescription(uint32_t rc) {
  zon::TraceScope trace(zon::trace::adminPoint("ecfErrorGetDescription"));
  const zon::ReturnCode* code = zon::findReturnCode(rc);
  if (code != nullptr) return code->description;
  return "This return code is not known to this release. Check that all installed libraries are of the same release, "
         "and report the code with a trace of the call.";
}

extern "C" const char* ecfErrorGetName(uint32_t rc) {
  const zon::ReturnCode* code = zon::findReturnCode(rc);
  return code != nullptr ? code->name : nullptr;
}
