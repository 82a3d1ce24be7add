// What every store does with its file, written once for records of one, two and three keys: build a record, match,
// change, and gather lists. The families name the layout and the fields; nothing else differs.
//
// The rule: these functions allocate, so every check of an argument comes before them. Outputs change last, and only
// when nothing can fail any more.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "platform/guarded.h"
#include "record/record_callbacks.h"
#include "record/record_layout.h"
#include "record/tokenized_text.h"
#include "stores/record_buffer.h"
#include "stores/store_scopes.h"
#include "zonmdfile/MDOneKeyReg.h"
#include "zonmdfile/MDThreeKeyReg.h"
#include "zonmdfile/MDTwoKeyReg.h"
#include "zonmdfile/platform/DString.h"
#include "zonmdfile/platform/GenRegBin.h"

namespace zon {

// The keys of one record in the layout's order; null where a match does not look.
template <class Layout>
using Keys = std::array<DString*, Layout::KEYS.size()>;

// Match and result records: a result may be larger than the maximum record size tells.
template <class Layout>
inline constexpr std::size_t RECORD_BUFFER_SIZE = MAX_RECORD_SIZE<Layout> + RESULT_BUFFER_ROOM;

// The first failing check of the keys that are there, in the layout's order.
inline std::uint32_t checkKeys(MDOneKeyReg& type, const Keys<OneKeyLayout>& keys) {
  return keys[0] != nullptr ? type.checkKeyLength(*keys[0]) : MD_RC_OK;
}

inline std::uint32_t checkKeys(MDTwoKeyReg& type, const Keys<TwoKeyLayout>& keys) {
  std::uint32_t rc = keys[0] != nullptr ? type.checkGroupKeyLength(*keys[0]) : MD_RC_OK;
  if (rc == MD_RC_OK && keys[1] != nullptr) rc = type.checkKeyLength(*keys[1]);
  return rc;
}

inline std::uint32_t checkKeys(MDThreeKeyReg& type, const Keys<ThreeKeyLayout>& keys) {
  std::uint32_t rc = keys[0] != nullptr ? type.checkGroupKeyLength(*keys[0]) : MD_RC_OK;
  if (rc == MD_RC_OK && keys[1] != nullptr) rc = type.checkSubGroupKeyLength(*keys[1]);
  if (rc == MD_RC_OK && keys[2] != nullptr) rc = type.checkKeyLength(*keys[2]);
  return rc;
}

// A version must leave room for its NUL; without this check it would run over the data size behind it.
template <class Layout>
std::uint32_t checkVersionText(const DString& version) {
  return version.length() < VERSION_FIELD_SIZE<Layout> ? MD_RC_OK : MD_RC_DATA_TOO_LONG;
}

// The first failing check of a record that is to be written: keys, data, version.
template <class Layout, class RecordType>
std::uint32_t checkRecord(RecordType& type, const Keys<Layout>& keys, DString& data, const DString& version) {
  if (const std::uint32_t rc = checkKeys(type, keys)) return rc;
  if (const std::uint32_t rc = type.checkDataLength(data)) return rc;
  return checkVersionText<Layout>(version);
}

// REQUIRES: the keys have passed their checks, and the record is zero-filled, which supplies the NULs.
template <class Layout>
void putKeys(void* record, const Keys<Layout>& keys) {
  auto* bytes = static_cast<char*>(record);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (keys[i] != nullptr) std::memcpy(bytes + Layout::KEYS[i].offset, keys[i]->c_str(), keys[i]->length());
  }
}

template <class Layout>
std::size_t recordSizeFor(const DString& data) {
  return data.length() + 1 + FIXED_SIZE<Layout>;
}

// REQUIRES: as putKeys; the record has recordSizeFor(data) bytes; data and version have passed their checks.
template <class Layout>
void putRecord(void* record, const Keys<Layout>& keys, const DString& data, const DString& version) {
  using Header = typename Layout::Header;
  auto* bytes = static_cast<char*>(record);
  const auto dataSize = static_cast<std::uint32_t>(data.length() + 1);
  putKeys<Layout>(record, keys);
  std::memcpy(bytes + offsetof(Header, dataSize), &dataSize, sizeof dataSize);
  std::memcpy(bytes + DATA_OFFSET<Layout>, data.c_str(), data.length());
  std::memcpy(bytes + offsetof(Header, version), version.c_str(), version.length());
}

template <class Layout>
std::uint32_t addRecord(GenRegBin& file, const char* source, const Keys<Layout>& keys, const DString& data,
                        const DString& version) {
  const RecordBuffer record(recordSizeFor<Layout>(data), source);
  if (!record.isAllocated()) return GENREG_RC_NO_MEMORY;
  putRecord<Layout>(record.get(), keys, data, version);
  return file.Add(Layout::WHOLE_KEY, record.get());
}

struct ChangeOptions {
  bool matchesInExactSize = false;  // the match record is as large as the new one instead of the maximum
  bool keepsNewRecord = false;      // the new record stays allocated
};

template <class Layout>
std::uint32_t changeRecord(GenRegBin& file, const char* source, const Keys<Layout>& keys, const DString& data,
                           const DString& version, ChangeOptions options = {}) {
  const std::size_t size = recordSizeFor<Layout>(data);
  const RecordBuffer match(options.matchesInExactSize ? size : RECORD_BUFFER_SIZE<Layout>, source, DATA_OFFSET<Layout>);
  if (!match.isAllocated()) return GENREG_RC_NO_MEMORY;
  RecordBuffer record(size, source);
  if (!record.isAllocated()) return GENREG_RC_NO_MEMORY;
  putKeys<Layout>(match.get(), keys);
  putRecord<Layout>(record.get(), keys, data, version);
  const std::uint32_t rc = file.Change(Layout::WHOLE_KEY, match.get(), record.get());
  if (options.keepsNewRecord) record.keepAllocated();
  // A record that holds these bytes already is as good as changed.
  return rc == GENREG_RC_NO_CHANGE ? MD_RC_OK : rc;
}

template <class Layout>
std::uint32_t deleteRecords(GenRegBin& file, const char* source, unsigned long flags, const Keys<Layout>& keys) {
  const RecordBuffer match(RECORD_BUFFER_SIZE<Layout>, source, DATA_OFFSET<Layout>);
  if (!match.isAllocated()) return GENREG_RC_NO_MEMORY;
  putKeys<Layout>(match.get(), keys);
  return file.Delete(flags, match.get());
}

// Any failure empties both outputs.
template <class Layout>
std::uint32_t getRecord(GenRegBin& file, const char* source, const Keys<Layout>& keys, DString& data,
                        DString& version) {
  const auto get = [&]() -> std::uint32_t {
    const RecordBuffer match(RECORD_BUFFER_SIZE<Layout>, source, DATA_OFFSET<Layout>);
    RecordBuffer result(RECORD_BUFFER_SIZE<Layout>, source);
    if (!match.isAllocated() || !result.isAllocated()) return GENREG_RC_NO_MEMORY;
    putKeys<Layout>(match.get(), keys);
    const std::uint32_t rc = file.Get(Layout::WHOLE_KEY, match.get(), result.get());
    if (rc != MD_RC_OK) return rc;
    result.setTouched(recordSize<Layout>(result.get()));  // Get writes nothing behind the record
    const RecordView<Layout> record(result.get());
    data.assign(record.data());
    version.assign(record.version());
    return MD_RC_OK;
  };
  const std::uint32_t rc = guarded(get);
  if (rc != MD_RC_OK) {
    data.clear();
    version.clear();
  }
  return rc;
}

// Whether any record matches: 0, GENREG_RC_NOT_FOUND, or the code of a failure.
template <class Layout>
std::uint32_t findRecord(GenRegBin& file, const char* source, unsigned long flags, const Keys<Layout>& keys) {
  const RecordBuffer match(RECORD_BUFFER_SIZE<Layout>, source, DATA_OFFSET<Layout>);
  const RecordBuffer result(RECORD_BUFFER_SIZE<Layout>, source);
  if (!match.isAllocated() || !result.isAllocated()) return GENREG_RC_NO_MEMORY;
  putKeys<Layout>(match.get(), keys);
  return file.Get(flags, match.get(), result.get());
}

// How many records match; a failure of the scan leaves `count` untouched.
template <class Layout>
std::uint32_t countRecords(GenRegBin& file, const char* source, unsigned long flags, const Keys<Layout>& keys,
                           std::size_t& count) {
  const RecordBuffer match(RECORD_BUFFER_SIZE<Layout>, source, DATA_OFFSET<Layout>);
  const RecordBuffer result(RECORD_BUFFER_SIZE<Layout>, source);
  if (!match.isAllocated() || !result.isAllocated()) return GENREG_RC_NO_MEMORY;
  putKeys<Layout>(match.get(), keys);
  if (const std::uint32_t rc = file.OpenScan()) return rc;
  ScanScope scan(file);
  std::size_t found = 0;
  std::uint32_t rc = MD_RC_OK;
  while ((rc = file.GetNext(flags, match.get(), result.get())) == MD_RC_OK) ++found;
  const std::uint32_t closeRc = scan.close();
  if (rc != GENREG_RC_END_OF_SCAN) return rc;
  if (closeRc == MD_RC_OK) count = found;
  return closeRc;
}

// One gathered list: the field it holds and the output it becomes.
struct ListOutput {
  Field field;
  DString* output;
};

enum class OnFailedOpen : std::uint8_t { RELEASE_BUFFERS, KEEP_BUFFERS };

// Appends the chosen fields of every matching record, each followed by the separator. All lists become the outputs, or
// all outputs become empty with GENREG_RC_NOT_FOUND. A scan that cannot begin leaves them untouched.
template <class Layout, std::size_t COUNT>
std::uint32_t listRecords(GenRegBin& file, const char* source, unsigned long flags, const Keys<Layout>& keys,
                          const std::array<ListOutput, COUNT>& lists,
                          OnFailedOpen onFailedOpen = OnFailedOpen::RELEASE_BUFFERS) {
  RecordBuffer match(RECORD_BUFFER_SIZE<Layout>, source, DATA_OFFSET<Layout>);
  RecordBuffer result(RECORD_BUFFER_SIZE<Layout>, source);
  if (!match.isAllocated() || !result.isAllocated()) return GENREG_RC_NO_MEMORY;
  putKeys<Layout>(match.get(), keys);

  if (const std::uint32_t rc = file.OpenScan(); rc != MD_RC_OK) {
    if (onFailedOpen == OnFailedOpen::KEEP_BUFFERS) {
      match.keepAllocated();
      result.keepAllocated();
    }
    return rc;
  }
  ScanScope scan(file);

  std::array<DString, COUNT> gathered;
  bool foundAny = false;
  // Only the end of the scan ends the loop: whatever else GetNext answers, the result record's present content is
  // listed.
  while (file.GetNext(flags, match.get(), result.get()) != GENREG_RC_END_OF_SCAN) {
    const RecordView<Layout> record(result.get());
    for (std::size_t i = 0; i < COUNT; ++i) {
      gathered[i].append(record.text(lists[i].field));
      gathered[i].append(LIST_TOKEN);
    }
    foundAny = true;
  }
  const std::uint32_t rc = scan.close();
  for (std::size_t i = 0; i < COUNT; ++i) *lists[i].output = std::move(gathered[i]);
  return foundAny ? rc : GENREG_RC_NOT_FOUND;
}

}  // namespace zon
