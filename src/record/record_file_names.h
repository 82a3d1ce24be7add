// The names of a record file and of its four companions.
//
// The rule: names are formed here and nowhere else, always complete with a NUL and cut at 4095 bytes.
#pragma once

#include <cstdint>

#include "zonmdfile/platform/GenRegBase.h"

namespace zon {

// Creation mode of the record file and its companions; the process's umask has the last word.
inline constexpr std::uint32_t RECORD_FILE_MODE = 0666;

// The path "<metadata directory>/<fileName>", or the bare file name when there is no metadata directory, and the
// companions of that path.
class RecordFileNames {
 public:
  explicit RecordFileNames(const char* fileName);
  RecordFileNames(const RecordFileNames&) = delete;
  RecordFileNames& operator=(const RecordFileNames&) = delete;

  // Valid as long as this object.
  const GenRegBase::FileNames& all() const { return names_; }

 private:
  using Field = char[GenRegBase::PATH_SIZE];

  // REQUIRES nothing of their content: each is read only after a name was joined in it.
  Field fields_[5];
  GenRegBase::FileNames names_;
};

}  // namespace zon
