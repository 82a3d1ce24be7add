// What every store does with its file, written once for records of one, two and three keys: build a record, match,
// change, and gather lists. The families name the layout and the fields; nothing else differs.
//
// The rule: these functions allocate, so every check of an argument comes before them. Outputs change last, and only
// when nothing can fail any more.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "platform/guarded.h"
#include "record/record_callbacks.h"
#include "record/record_layout.h"
#include "record/tokenized_text.h"
#include "stores/list_limit.h"
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

// The first failing check of the keys that are there, in the layout's order.
[[nodiscard]] inline std::uint32_t checkKeys(MDOneKeyReg& type, const Keys<OneKeyLayout>& keys) {
  return keys[0] != nullptr ? type.checkKeyLength(*keys[0]) : MD_RC_OK;
}

[[nodiscard]] inline std::uint32_t checkKeys(MDTwoKeyReg& type, const Keys<TwoKeyLayout>& keys) {
  std::uint32_t rc = keys[0] != nullptr ? type.checkGroupKeyLength(*keys[0]) : MD_RC_OK;
  if (rc == MD_RC_OK && keys[1] != nullptr) rc = type.checkKeyLength(*keys[1]);
  return rc;
}

[[nodiscard]] inline std::uint32_t checkKeys(MDThreeKeyReg& type, const Keys<ThreeKeyLayout>& keys) {
  std::uint32_t rc = keys[0] != nullptr ? type.checkGroupKeyLength(*keys[0]) : MD_RC_OK;
  if (rc == MD_RC_OK && keys[1] != nullptr) rc = type.checkSubGroupKeyLength(*keys[1]);
  if (rc == MD_RC_OK && keys[2] != nullptr) rc = type.checkKeyLength(*keys[2]);
  return rc;
}

// A version must leave room for its NUL; without this check it would run over the data size behind it.
template <class Layout>
[[nodiscard]] std::uint32_t checkVersionText(const DString& version) {
  return version.length() < VERSION_FIELD_SIZE<Layout> ? MD_RC_OK : MD_RC_DATA_TOO_LONG;
}

// The first failing check of a record that is to be written: keys, data, version.
template <class Layout, class RecordType>
[[nodiscard]] std::uint32_t checkRecord(RecordType& type, const Keys<Layout>& keys, DString& data,
                                        const DString& version) {
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

// The same for a record that only selects others: nothing behind its keys is ever written.
template <class Layout>
void putMatch(RecordBuffer& match, const Keys<Layout>& keys) {
  putKeys<Layout>(match.get(), keys);
  match.setTouched(DATA_OFFSET<Layout>);
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
[[nodiscard]] std::uint32_t addRecord(GenRegBin& file, const char* source, const Keys<Layout>& keys,
                                      const DString& data, const DString& version) {
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
[[nodiscard]] std::uint32_t changeRecord(GenRegBin& file, const char* source, const Keys<Layout>& keys,
                                         const DString& data, const DString& version, ChangeOptions options = {}) {
  const std::size_t size = recordSizeFor<Layout>(data);
  RecordBuffer match(options.matchesInExactSize ? size : MAX_RECORD_SIZE<Layout>, source);
  if (!match.isAllocated()) return GENREG_RC_NO_MEMORY;
  RecordBuffer record(size, source);
  if (!record.isAllocated()) return GENREG_RC_NO_MEMORY;
  putMatch<Layout>(match, keys);
  putRecord<Layout>(record.get(), keys, data, version);
  const std::uint32_t rc = file.Change(Layout::WHOLE_KEY, match.get(), record.get());
  if (options.keepsNewRecord) record.keepAllocated();
  // A record that holds these bytes already is as good as changed.
  return rc == GENREG_RC_NO_CHANGE ? MD_RC_OK : rc;
}

template <class Layout>
[[nodiscard]] std::uint32_t deleteRecords(GenRegBin& file, const char* source, unsigned long flags,
                                          const Keys<Layout>& keys) {
  RecordBuffer match(MAX_RECORD_SIZE<Layout>, source);
  if (!match.isAllocated()) return GENREG_RC_NO_MEMORY;
  putMatch<Layout>(match, keys);
  return file.Delete(flags, match.get());
}

// Get leaves zeros behind the record, and nothing else where it finds none.
template <class Layout>
[[nodiscard]] std::uint32_t getInto(GenRegBin& file, unsigned long flags, const RecordBuffer& match,
                                    RecordBuffer& result) {
  const std::uint32_t rc = file.Get(flags, match.get(), result.get());
  if (rc == MD_RC_OK) result.setTouched(recordSize<Layout>(result.get()));
  if (rc == GENREG_RC_NOT_FOUND) result.setTouched(0);
  return rc;
}

// Any failure empties both outputs.
template <class Layout>
[[nodiscard]] std::uint32_t getRecord(GenRegBin& file, const char* source, const Keys<Layout>& keys, DString& data,
                                      DString& version) {
  const auto get = [&]() -> std::uint32_t {
    RecordBuffer match(MAX_RECORD_SIZE<Layout>, source);
    RecordBuffer result(MAX_RECORD_SIZE<Layout>, source);
    if (!match.isAllocated() || !result.isAllocated()) return GENREG_RC_NO_MEMORY;
    putMatch<Layout>(match, keys);
    if (const std::uint32_t rc = getInto<Layout>(file, Layout::WHOLE_KEY, match, result)) return rc;
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

// Shows `take` the matching records of an open scan, until it answers another code than 0. Its answer, or
// GENREG_RC_END_OF_SCAN after the last record, or the code of a failure.
template <class Layout, class Take>
[[nodiscard]] std::uint32_t visitRecords(GenRegBin& file, unsigned long flags, const RecordBuffer& match,
                                         RecordBuffer& result, Take take) {
  result.setTouched(MAX_RECORD_SIZE<Layout>);
  std::size_t longest = 0;
  for (;;) {
    const std::uint32_t rc = file.GetNext(flags, match.get(), result.get());
    if (rc == GENREG_RC_END_OF_SCAN) result.setTouched(longest);
    if (rc != MD_RC_OK) return rc;
    longest = std::max<std::size_t>(longest, recordSize<Layout>(result.get()));
    if (const std::uint32_t stop = take(RecordView<Layout>(result.get()))) return stop;
  }
}

// Whether any record matches: 0, GENREG_RC_NOT_FOUND, or the code of a failure.
template <class Layout>
[[nodiscard]] std::uint32_t findRecord(GenRegBin& file, const char* source, unsigned long flags,
                                       const Keys<Layout>& keys) {
  RecordBuffer match(MAX_RECORD_SIZE<Layout>, source);
  RecordBuffer result(MAX_RECORD_SIZE<Layout>, source);
  if (!match.isAllocated() || !result.isAllocated()) return GENREG_RC_NO_MEMORY;
  putMatch<Layout>(match, keys);
  return getInto<Layout>(file, flags, match, result);
}

// How many records match; a failure of the scan leaves `count` untouched.
template <class Layout>
[[nodiscard]] std::uint32_t countRecords(GenRegBin& file, const char* source, unsigned long flags,
                                         const Keys<Layout>& keys, std::size_t& count) {
  RecordBuffer match(MAX_RECORD_SIZE<Layout>, source);
  RecordBuffer result(MAX_RECORD_SIZE<Layout>, source);
  if (!match.isAllocated() || !result.isAllocated()) return GENREG_RC_NO_MEMORY;
  putMatch<Layout>(match, keys);
  if (const std::uint32_t rc = file.OpenScan()) return rc;
  ScanScope scan(file);
  std::size_t found = 0;
  const std::uint32_t rc = visitRecords<Layout>(file, flags, match, result, [&found](const RecordView<Layout>&) {
    ++found;
    return MD_RC_OK;
  });
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

// What a field comes to in a list of so many records, at most.
template <class Layout>
std::uint64_t mostListed(Field field, const GenRegScanExtent& extent) {
  if (field == Field::DATA) return extent.bytes;
  const std::size_t entry = field == Field::VERSION ? VERSION_FIELD_SIZE<Layout> : KEY_FIELD_SIZE;
  return std::min<std::uint64_t>(extent.bytes, extent.records * entry);
}

// The matching records of an open scan, counted into lists that are not made: MD_RC_LIST_TOO_LONG when one is too long
// to be handed out. A failure is left for the listing itself to meet.
template <class Layout, std::size_t COUNT>
[[nodiscard]] std::uint32_t measureLists(GenRegBin& file, unsigned long flags, const RecordBuffer& match,
                                         RecordBuffer& result, const std::array<ListOutput, COUNT>& lists) {
  std::array<std::uint64_t, COUNT> lengths{};
  const std::uint32_t rc = visitRecords<Layout>(file, flags, match, result, [&](const RecordView<Layout>& record) {
    for (std::size_t i = 0; i < COUNT; ++i) {
      lengths[i] += record.text(lists[i].field).size() + LIST_TOKEN.size();
      if (lengths[i] > mostListBytes) return MD_RC_LIST_TOO_LONG;
    }
    return MD_RC_OK;
  });
  return rc == MD_RC_LIST_TOO_LONG ? rc : MD_RC_OK;
}

// Appends the chosen fields of every matching record, each followed by the separator. Without a record all outputs
// become empty with GENREG_RC_NOT_FOUND. The first failure of the scan ends it and is the answer; the outputs then hold
// what was read before. A scan that cannot begin, lists that are too long, and a lack of memory for them, leave the
// outputs untouched.
template <class Layout, std::size_t COUNT>
[[nodiscard]] std::uint32_t listRecords(GenRegBin& file, const char* source, unsigned long flags,
                                        const Keys<Layout>& keys, const std::array<ListOutput, COUNT>& lists,
                                        OnFailedOpen onFailedOpen = OnFailedOpen::RELEASE_BUFFERS) {
  RecordBuffer match(MAX_RECORD_SIZE<Layout>, source);
  RecordBuffer result(MAX_RECORD_SIZE<Layout>, source);
  if (!match.isAllocated() || !result.isAllocated()) return GENREG_RC_NO_MEMORY;
  putMatch<Layout>(match, keys);

  if (const std::uint32_t rc = file.OpenScan(); rc != MD_RC_OK) {
    if (onFailedOpen == OnFailedOpen::KEEP_BUFFERS) {
      match.keepAllocated();
      result.keepAllocated();
    }
    return rc;
  }
  ScanScope scan(file);
  // Only what may come to too much is measured first, so that no memory is spent on lists that are refused.
  const GenRegScanExtent extent = file.scanExtent();
  const bool mayBeTooLong = std::any_of(lists.begin(), lists.end(), [&](const ListOutput& list) {
    return mostListed<Layout>(list.field, extent) > mostListBytes;
  });
  if (mayBeTooLong) {
    if (const std::uint32_t rc = measureLists<Layout>(file, flags, match, result, lists)) return rc;
    if (const std::uint32_t rc = scan.close()) return rc;
    if (const std::uint32_t rc = scan.begin()) return rc;
  }

  std::array<DString, COUNT> gathered;
  const std::uint32_t rc = visitRecords<Layout>(file, flags, match, result, [&](const RecordView<Layout>& record) {
    for (std::size_t i = 0; i < COUNT; ++i) {
      const std::string_view text = record.text(lists[i].field);
      if (gathered[i].length() + text.size() + LIST_TOKEN.size() > mostListBytes) return MD_RC_LIST_TOO_LONG;
      gathered[i].append(text);
      gathered[i].append(LIST_TOKEN);
    }
    return MD_RC_OK;
  });
  if (rc == MD_RC_LIST_TOO_LONG) return rc;
  const std::uint32_t closeRc = scan.close();
  const bool foundAny = gathered[0].length() > 0;
  for (std::size_t i = 0; i < COUNT; ++i) *lists[i].output = std::move(gathered[i]);
  if (rc != GENREG_RC_END_OF_SCAN) return rc;
  if (closeRc != MD_RC_OK) return closeRc;
  return foundAny ? MD_RC_OK : GENREG_RC_NOT_FOUND;
}

}  // namespace zon
