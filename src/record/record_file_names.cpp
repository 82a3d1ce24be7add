// Forms the names of record files.
//
// The rule: a field is written from its start to its NUL, and no byte of it is cleared beforehand: stores are made for
// one call, and clearing five path fields would cost more than forming the names.
#include "record/record_file_names.h"

#include <cstring>
#include <initializer_list>
#include <string_view>

#include "zonmdfile/platform/admin.h"
#include "zonmdfile/platform/oss.h"

namespace zon {

namespace {

// Joins the pieces in `field`, cut so that the NUL fits.
void join(char* field, std::initializer_list<std::string_view> pieces) {
  std::size_t length = 0;
  for (const std::string_view piece : pieces) {
    const std::size_t room = PATH_FIELD_SIZE - 1 - length;
    const std::size_t count = piece.size() < room ? piece.size() : room;
    std::memcpy(field + length, piece.data(), count);
    length += count;
  }
  field[length] = '\0';
}

}  // namespace

void formRecordFileNames(const char* fileName, const GenRegBase::FileNames& names) {
  // REQUIRES nothing of their content: each is read only after a call has ended it with a NUL.
  char directory[PATH_FIELD_SIZE];
  char baseName[PATH_FIELD_SIZE];

  if (getMetadataPath(directory, sizeof directory) == 0) {
    join(names.file, {directory, "/", fileName});
  } else {
    join(names.file, {fileName});
  }
  ossBaseName(names.file, baseName, sizeof baseName);
  ossDirectoryName(names.file, directory, sizeof directory);

  join(names.temporary, {names.file, ".tmp"});
  join(names.corruptCopy, {names.file, ".cor"});

  // A file in the current directory has companions without a directory part.
  const bool isCurrentDirectory = std::string_view(directory) == ".";
  const std::string_view prefix = isCurrentDirectory ? "" : directory;
  const std::string_view dot = isCurrentDirectory ? "." : "/.";
  join(names.lock, {prefix, dot, baseName, ".lock"});
  join(names.backup, {prefix, dot, baseName, ".bkp"});
}

}  // namespace zon
