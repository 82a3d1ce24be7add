// The names of a record file and of its four companions.
//
// The rule: names are formed here and nowhere else, always complete with a NUL and cut at 4095 bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zonmdfile/platform/GenRegBase.h"

namespace zon {

inline constexpr std::size_t PATH_FIELD_SIZE = GenRegBase::PATH_SIZE;

// Creation mode of the record file and its companions; the process's umask has the last word.
inline constexpr std::uint32_t RECORD_FILE_MODE = 0666;

// Writes "<metadata directory>/<fileName>", or the bare file name when there is no metadata directory, and the
// companions of that path.
void formRecordFileNames(const char* fileName, const GenRegBase::FileNames& names);

}  // namespace zon
