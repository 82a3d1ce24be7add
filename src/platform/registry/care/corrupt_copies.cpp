// See corrupt_copies.h.
#include "platform/registry/care/corrupt_copies.h"

#include <cerrno>

#include "platform/registry/files/system_calls.h"

namespace zon {

namespace {

std::uint32_t numberOlderCopy(const WriterFiles& files) {
  const std::string& corrupt = files.settings.paths.corrupt;
  const auto isTaken = [&](std::uint64_t number, bool& taken) {
    FileState state;
    const std::uint32_t rc = stateAt(files.directory.get(), (corrupt + "." + std::to_string(number)).c_str(), state);
    taken = rc == MD_RC_OK;
    return rc == GENREG_RC_NOT_FOUND ? MD_RC_OK : rc;
  };
  // Numbers are given out without gaps, so that the first free one is found in few steps however many there are; where
  // somebody took copies away, some free one is.
  std::uint64_t takenNumber = 0;
  std::uint64_t freeNumber = 1;
  for (bool taken = false;; freeNumber *= 2) {
    if (const std::uint32_t rc = isTaken(freeNumber, taken)) return rc;
    if (!taken) break;
    takenNumber = freeNumber;
  }
  while (freeNumber - takenNumber > 1) {
    const std::uint64_t middle = takenNumber + (freeNumber - takenNumber) / 2;
    bool taken = false;
    if (const std::uint32_t rc = isTaken(middle, taken)) return rc;
    (taken ? takenNumber : freeNumber) = middle;
  }
  const std::string numbered = corrupt + "." + std::to_string(freeNumber);
  if (systemCalls.renameAt(files.directory.get(), corrupt.c_str(), files.directory.get(), numbered.c_str()) != 0)
    return codeOfErrno(errno);
  // The older copy must have its new name before another one takes the old name.
  return syncDirectory(files.directory.get());
}

}  // namespace

// A file gets a second name under which it is kept, which must be durable before its first one is given away. Of
// corrupt copies the newest has the plain name, and the older ones are numbered as they came.
std::uint32_t keepAsCorruptCopy(const WriterFiles& files, const std::string& name) {
  const int directory = files.directory.get();
  const std::string& corrupt = files.settings.paths.corrupt;
  FileState kept;
  FileState older;
  if (const std::uint32_t rc = stateAt(directory, name.c_str(), kept)) return rc;
  const std::uint32_t rc = stateAt(directory, corrupt.c_str(), older);
  if (rc != MD_RC_OK && rc != GENREG_RC_NOT_FOUND) return rc;
  if (rc == MD_RC_OK) {
    if (older.inode == kept.inode && older.device == kept.device) return syncDirectory(directory);
    if (const std::uint32_t failed = numberOlderCopy(files)) return failed;
  }
  if (systemCalls.linkAt(directory, name.c_str(), directory, corrupt.c_str(), 0) != 0) return codeOfErrno(errno);
  return syncDirectory(directory);
}

}  // namespace zon
