// MDThreeKeyReg: the three-key record type: its checks, its callbacks, and its binding to a record file.
//
// The rule: nothing here touches the file; the engine does, inside each of its operations.
#include "zonmdfile/MDThreeKeyReg.h"

#include "record/record_file_names.h"
#include "record/record_type.h"

namespace {

using Layout = zon::ThreeKeyLayout;

consteval std::uint32_t point(std::string_view operation) { return zon::trace::point("MDThreeKeyReg", operation); }

}  // namespace

MDThreeKeyReg::MDThreeKeyReg(const char* fileName) {
  zon::TraceScope trace(point(zon::trace::CONSTRUCTOR));
  setRecordType({MatchRecord, ValidateRecord, PrintRecord, GetRecordSize, GetMaxRecordSize, zon::digestRecord<Layout>},
                Layout::INDEX_FLAGS);
  setFileNames(zon::RecordFileNames(fileName).all());
  keepDurably(zon::RECORD_FILE_MODE);
}

MDThreeKeyReg::~MDThreeKeyReg() { zon::TraceScope trace(point(zon::trace::DESTRUCTOR)); }

std::uint32_t MDThreeKeyReg::checkGroupKeyLength(DString& groupKey) {
  return zon::checkKey(point("checkGroupKeyLength"), groupKey);
}

std::uint32_t MDThreeKeyReg::checkSubGroupKeyLength(DString& subGroupKey) {
  return zon::checkKey(point("checkSubGroupKeyLength"), subGroupKey);
}

std::uint32_t MDThreeKeyReg::checkKeyLength(DString& key) { return zon::checkKey(point("checkKeyLength"), key); }

std::uint32_t MDThreeKeyReg::checkDataLength(DString& data) { return zon::checkData(point("checkDataLength"), data); }

void MDThreeKeyReg::checkRC(long rc) { zon::tellReturnCode(point("checkRC"), rc); }

int MDThreeKeyReg::MatchRecord(unsigned long flags, void* record, void* other) {
  return zon::matches<Layout>(point("MatchRecord"), flags, record, other);
}

int MDThreeKeyReg::ValidateRecord(unsigned long /*flags*/, void* /*record*/) {
  return zon::accept(point("ValidateRecord"));
}

int MDThreeKeyReg::PrintRecord(void* record) { return zon::print<Layout>(point("PrintRecord"), record); }

int MDThreeKeyReg::GetRecordSize(void* record, unsigned long* size) {
  return zon::tell(point("GetRecordSize"), zon::recordSize<Layout>(record), size);
}

int MDThreeKeyReg::GetMaxRecordSize(unsigned long* size) {
  return zon::tell(point("GetMaxRecordSize"), zon::MAX_RECORD_SIZE<Layout>, size);
}
