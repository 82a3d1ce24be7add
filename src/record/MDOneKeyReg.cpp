// MDOneKeyReg: the one-key record type: its checks, its callbacks, and its binding to a record file.
//
// The rule: nothing here touches the file; the engine does, inside each of its operations.
#include "zonmdfile/MDOneKeyReg.h"

#include "record/record_file_names.h"
#include "record/record_type.h"

namespace {

using Layout = zon::OneKeyLayout;

consteval std::uint32_t point(std::string_view operation) { return zon::trace::point("MDOneKeyReg", operation); }

}  // namespace

MDOneKeyReg::MDOneKeyReg(const char* fileName) {
  zon::TraceScope trace(point(zon::trace::CONSTRUCTOR));
  setRecordType({MatchRecord, ValidateRecord, PrintRecord, GetRecordSize, GetMaxRecordSize, zon::digestRecord<Layout>},
                Layout::INDEX_FLAGS);
  setFileNames(zon::RecordFileNames(fileName).all());
  keepDurably(zon::RECORD_FILE_MODE);
}

MDOneKeyReg::~MDOneKeyReg() { zon::TraceScope trace(point(zon::trace::DESTRUCTOR)); }

std::uint32_t MDOneKeyReg::checkKeyLength(DString& key) { return zon::checkKey(point("checkKeyLength"), key); }

std::uint32_t MDOneKeyReg::checkDataLength(DString& data) { return zon::checkData(point("checkDataLength"), data); }

void MDOneKeyReg::checkRC(long rc) { zon::tellReturnCode(point("checkRC"), rc); }

int MDOneKeyReg::MatchRecord(unsigned long flags, void* record, void* other) {
  return zon::matches<Layout>(point("MatchRecord"), flags, record, other);
}

int MDOneKeyReg::ValidateRecord(unsigned long /*flags*/, void* /*record*/) {
  return zon::accept(point("ValidateRecord"));
}

int MDOneKeyReg::PrintRecord(void* record) { return zon::print<Layout>(point("PrintRecord"), record); }

int MDOneKeyReg::GetRecordSize(void* record, unsigned long* size) {
  return zon::tell(point("GetRecordSize"), zon::recordSize<Layout>(record), size);
}

int MDOneKeyReg::GetMaxRecordSize(unsigned long* size) {
  return zon::tell(point("GetMaxRecordSize"), zon::MAX_RECORD_SIZE<Layout>, size);
}
