// Forms the names of record files.
//
// The rule: a field is written from its start to its NUL, and no byte of it is cleared beforehand: stores are made for
// one call, and clearing five fields would cost more than forming the names.
#include "record/record_file_names.h"

#include <cstring>
#include <initializer_list>
#include <string_view>

#include "zonmdfile/platform/admin.h"
#include "zonmdfile/platform/oss.h"

namespace zon {

namespace {

// Joins the pieces in `field`, cut so that the NUL fits.
std::string_view join(char* field, std::initializer_list<std::string_view> pieces) {
  std::size_t length = 0;
  for (const std::string_view piece : pieces) {
    const std::size_t room = GenRegBase::PATH_SIZE - 1 - length;
    const std::size_t count = piece.size() < room ? piece.size() : room;
    std::memcpy(field + length, piece.data(), count);
    length += count;
  }
  field[length] = '\0';
  return {field, length};
}

}  // namespace

RecordFileNames::RecordFileNames(const char* fileName) {
  char directory[GenRegBase::PATH_SIZE];
  char baseName[GenRegBase::PATH_SIZE];

  const bool hasDirectory = getMetadataPath(directory, sizeof directory) == 0;
  names_.file = hasDirectory ? join(fields_[0], {directory, "/", fileName}) : join(fields_[0], {fileName});
  ossBaseName(fields_[0], baseName, sizeof baseName);
  ossDirectoryName(fields_[0], directory, sizeof directory);

  names_.temporary = join(fields_[1], {names_.file, ".tmp"});
  names_.corruptCopy = join(fields_[2], {names_.file, ".cor"});

  // A file in the current directory has companions without a directory part.
  const std::string_view parent = directory;
  const bool isCurrentDirectory = parent == ".";
  const std::string_view prefix = isCurrentDirectory ? "" : parent;
  const std::string_view dot = isCurrentDirectory ? "." : "/.";
  const std::string_view base = baseName;
  names_.lock = join(fields_[3], {prefix, dot, base, ".lock"});
  names_.backup = join(fields_[4], {prefix, dot, base, ".bkp"});
}

}  // namespace zon
