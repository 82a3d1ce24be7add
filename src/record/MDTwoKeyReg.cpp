// MDTwoKeyReg: the two-key record type: its checks, its callbacks, and its binding to a record file.
//
// The rule: nothing here touches the file; the engine does, inside each of its operations.
#include "zonmdfile/MDTwoKeyReg.h"

#include "record/record_file_names.h"
#include "record/record_type.h"

namespace {

using Layout = zon::TwoKeyLayout;

consteval std::uint32_t point(std::string_view operation) { return zon::trace::point("MDTwoKeyReg", operation); }

}  // namespace

MDTwoKeyReg::MDTwoKeyReg(const char* fileName) {
  zon::TraceScope trace(point(zon::trace::CONSTRUCTOR));
  setRecordType({MatchRecord, ValidateRecord, PrintRecord, GetRecordSize, GetMaxRecordSize, zon::digestRecord<Layout>},
                Layout::INDEX_FLAGS);
  setFileNames(zon::RecordFileNames(fileName).all());
  keepDurably(zon::RECORD_FILE_MODE);
}

MDTwoKeyReg::~MDTwoKeyReg() { zon::TraceScope trace(point(zon::trace::DESTRUCTOR)); }

std::uint32_t MDTwoKeyReg::checkGroupKeyLength(DString& groupKey) {
  return zon::checkKey(point("checkGroupKeyLength"), groupKey);
}

std::uint32_t MDTwoKeyReg::checkKeyLength(DString& key) { return zon::checkKey(point("checkKeyLength"), key); }

std::uint32_t MDTwoKeyReg::checkDataLength(DString& data) { return zon::checkData(point("checkDataLength"), data); }

void MDTwoKeyReg::checkRC(long rc) { zon::tellReturnCode(point("checkRC"), rc); }

int MDTwoKeyReg::MatchRecord(unsigned long flags, void* record, void* other) {
  return zon::matches<Layout>(point("MatchRecord"), flags, record, other);
}

int MDTwoKeyReg::ValidateRecord(unsigned long /*flags*/, void* /*record*/) {
  return zon::accept(point("ValidateRecord"));
}

int MDTwoKeyReg::PrintRecord(void* record) { return zon::print<Layout>(point("PrintRecord"), record); }

int MDTwoKeyReg::GetRecordSize(void* record, unsigned long* size) {
  return zon::tell(point("GetRecordSize"), zon::recordSize<Layout>(record), size);
}

int MDTwoKeyReg::GetMaxRecordSize(unsigned long* size) {
  return zon::tell(point("GetMaxRecordSize"), zon::MAX_RECORD_SIZE<Layout>, size);
}
