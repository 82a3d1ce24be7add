// MDOneKeyReg: the one-key record type: its checks, its callbacks, and its binding to a record file.
//
// The rule: nothing here touches the file; the engine does, inside each of its operations.
#include "zonmdfile/MDOneKeyReg.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <iterator>

#include "platform/trace_scope.h"
#include "record/record_callbacks.h"
#include "record/record_file_names.h"

namespace {

using Layout = zon::OneKeyLayout;
constexpr std::uint32_t TRACE_BASE = zon::trace::MD_ONE_KEY_REG;

}  // namespace

MDOneKeyReg::MDOneKeyReg(const char* fileName) {
  zon::TraceScope trace(TRACE_BASE + zon::trace::CONSTRUCT_OP);
  callbacks_ = {.match = MatchRecord,
                .validate = ValidateRecord,
                .print = PrintRecord,
                .recordSize = GetRecordSize,
                .maxRecordSize = GetMaxRecordSize,
                .digest = zon::digestRecord<Layout>};
  std::copy(Layout::INDEX_FLAGS.begin(), Layout::INDEX_FLAGS.end(), std::begin(indexFlags_));
  zon::formRecordFileNames(fileName, {.file = filePath_,
                                      .temporary = temporaryPath_,
                                      .corruptCopy = corruptPath_,
                                      .lock = lockPath_,
                                      .backup = backupPath_});
  options_ |= OPTION_DURABLE;
  fileMode_ = zon::RECORD_FILE_MODE;
  companionMode_ = zon::RECORD_FILE_MODE;
  setFeature(FEATURE_REPAIR);
  setFeature(FEATURE_BACKUP);
}

MDOneKeyReg::~MDOneKeyReg() { zon::TraceScope trace(TRACE_BASE + zon::trace::DESTROY_OP); }

std::uint32_t MDOneKeyReg::checkKeyLength(DString& key) {
  zon::TraceScope trace(TRACE_BASE + zon::trace::CHECK_KEY_LENGTH_OP);
  return trace.exit(zon::checkKeyText(key));
}

std::uint32_t MDOneKeyReg::checkDataLength(DString& data) {
  zon::TraceScope trace(TRACE_BASE + zon::trace::CHECK_DATA_LENGTH_OP);
  return trace.exit(zon::checkDataText(data));
}

void MDOneKeyReg::checkRC(long rc) {
  zon::TraceScope trace(TRACE_BASE + zon::trace::CHECK_RC_OP);
  zon::printReturnCode(rc);
}

int MDOneKeyReg::MatchRecord(unsigned long flags, void* record, void* other) {
  zon::TraceScope trace(TRACE_BASE + zon::trace::MATCH_RECORD_OP);
  return trace.exit(zon::matchRecord<Layout>(flags, record, other));
}

int MDOneKeyReg::ValidateRecord(unsigned long /*flags*/, void* /*record*/) {
  zon::TraceScope trace(TRACE_BASE + zon::trace::VALIDATE_RECORD_OP);
  return trace.exit(0);
}

int MDOneKeyReg::PrintRecord(void* record) {
  zon::TraceScope trace(TRACE_BASE + zon::trace::PRINT_RECORD_OP);
  const auto* bytes = static_cast<const char*>(record);
  const zon::RecordView<Layout> view(record);
  std::printf("Key = |%s| Version = |%s| DataSize = |%d| Data = |%s| \n", bytes + offsetof(Layout::Header, key),
              bytes + offsetof(Layout::Header, version), static_cast<int>(view.dataSize()),
              bytes + zon::DATA_OFFSET<Layout>);
  return trace.exit(0);
}

int MDOneKeyReg::GetRecordSize(void* record, unsigned long* size) {
  zon::TraceScope trace(TRACE_BASE + zon::trace::GET_RECORD_SIZE_OP);
  *size = zon::recordSize<Layout>(record);
  return trace.exit(0);
}

int MDOneKeyReg::GetMaxRecordSize(unsigned long* size) {
  zon::TraceScope trace(TRACE_BASE + zon::trace::GET_MAX_RECORD_SIZE_OP);
  *size = zon::MAX_RECORD_SIZE<Layout>;
  return trace.exit(0);
}
