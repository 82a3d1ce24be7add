// The temporary file, in which a record file or its backup is made before it gets its name.
//
// The rule: at no moment may anybody read it who may not read the record file. Unless it was put in place it is gone
// when the object goes.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "platform/registry/care/writer_files.h"

namespace zon {

class TemporaryFile {
 public:
  // The files must outlive this object.
  explicit TemporaryFile(const WriterFiles& files) : files_(files) {}
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile();

  // Makes and locks an empty one; what a dead writer left is removed.
  [[nodiscard]] std::uint32_t make();

  int get() const { return file_.get(); }
  const LockedFile& file() const { return file_; }

  // Gives it the rights of the record file, when there is one.
  [[nodiscard]] std::uint32_t takeOverRights() const;

  // Gives it a name in place of what had that. GENREG_RC_DURABILITY_UNKNOWN: it has the name, but a power cut may give
  // that back. REQUIRES: the content was synced.
  [[nodiscard]] std::uint32_t putInPlace(const std::string& name);

  // With its lock, once it was put in place.
  LockedFile release() { return std::move(file_); }

 private:
  [[nodiscard]] std::uint32_t removeStale(const FileState& found) const;
  bool isLeftUnfinished(const FileState& found) const;

  const WriterFiles& files_;
  LockedFile file_;
  bool hasName_ = false;
};

}  // namespace zon
