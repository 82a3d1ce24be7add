// What the engine asks a record type, written once for all layouts.
//
// The rule: a callback looks at nothing but its arguments, never fails, and never throws.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string_view>

#include "record/key_digest.h"
#include "record/record_layout.h"
#include "zonmdfile/platform/DString.h"
#include "zonmdfile/platform/return_codes.h"

namespace zon {

// 1 when every field that flags select is equal, else 0.
template <class Layout>
int matchRecord(unsigned long flags, const void* record, const void* other) {
  const RecordView<Layout> left(record);
  const RecordView<Layout> right(other);
  for (const KeyField& key : Layout::KEYS) {
    if ((flags & key.flag) != 0 && left.key(key) != right.key(key)) return 0;
  }
  if ((flags & MATCH_DATA) != 0 && left.data() != right.data()) return 0;
  if ((flags & MATCH_DATA_SIZE) != 0 && left.dataSize() != right.dataSize()) return 0;
  if ((flags & MATCH_VERSION) != 0 && left.version() != right.version()) return 0;
  return 1;
}

template <class Layout>
unsigned long recordSize(const void* record) {
  return static_cast<unsigned long>(RecordView<Layout>(record).dataSize()) + FIXED_SIZE<Layout>;
}

// Keyed digest of the key fields that flags select; other bits are ignored, as in matching.
template <class Layout>
std::uint64_t digestRecord(unsigned long flags, const void* record, std::uint64_t seed) {
  const RecordView<Layout> view(record);
  KeyDigest digest(seed);
  for (const KeyField& key : Layout::KEYS) {
    if ((flags & key.flag) != 0) digest.add(view.key(key));
  }
  return digest.finish();
}

[[nodiscard]] inline std::uint32_t checkKeyText(const DString& key) {
  if (key.length() == 0) return MD_RC_KEY_EMPTY;
  return key.length() > MAX_KEY_LENGTH ? MD_RC_KEY_TOO_LONG : MD_RC_OK;
}

[[nodiscard]] inline std::uint32_t checkDataText(const DString& data) {
  if (data.length() == 0) return MD_RC_DATA_EMPTY;
  return data.length() > MAX_DATA_LENGTH ? MD_RC_DATA_TOO_LONG : MD_RC_OK;
}

inline void printField(const char* name, std::string_view text) {
  std::printf("%s = |%.*s| ", name, static_cast<int>(text.size()), text.data());
}

// Prints the fields in one line, in the layout's order.
template <class Layout>
void printRecord(const RecordView<Layout>& record) {
  for (const KeyField& key : Layout::KEYS) printField(key.name, record.key(key));
  printField("Version", record.version());
  std::printf("DataSize = |%d| ", static_cast<int>(record.dataSize()));
  printField("Data", record.data());
  std::printf("\n");
}

// Prints what MDOneKeyReg::checkRC and its kin promise.
void printReturnCode(long rc);

}  // namespace zon
