// See temporary_file.h.
#include "platform/registry/care/temporary_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/registry/files/file_rights.h"
#include "platform/registry/files/system_calls.h"

namespace zon {

namespace {

constexpr std::uint32_t RETRY_PAUSE_US = 500;
constexpr std::uint32_t UNFINISHED_PAUSE_US = 20000;

}  // namespace

TemporaryFile::~TemporaryFile() {
  if (hasName_) systemCalls.unlinkAt(files_.directory.get(), files_.settings.paths.temporary.c_str(), 0);
}

// Left by a writer that died, or being made by one that is at work: whoever has its lock may remove it.
std::uint32_t TemporaryFile::removeStale(const FileState& found) const {
  const char* name = files_.settings.paths.temporary.c_str();
  LockedFile stale;
  const std::uint32_t rc = lockByName(files_.directory.get(), name, O_RDONLY, 0, files_.deadline, stale);
  if (rc == GENREG_RC_NOT_FOUND) return MD_RC_OK;
  if (rc != MD_RC_OK && !(rc == GENREG_RC_NO_PERMISSION && isLeftUnfinished(found))) return rc;
  if (systemCalls.unlinkAt(files_.directory.get(), name, 0) == 0 || errno == ENOENT) return MD_RC_OK;
  return codeOfErrno(errno);
}

// Another user who died before he gave the temporary file its rights left an empty one that he alone can open. Nobody
// is at work on it: he would have the lock file and the record file, which are held here, and in the time of a pause
// the file would have got its rights and its first bytes.
bool TemporaryFile::isLeftUnfinished(const FileState& found) const {
  if (found.size != 0 || !S_ISREG(found.mode)) return false;
  sleepMicroseconds(UNFINISHED_PAUSE_US);
  FileState state;
  const std::uint32_t rc = stateAt(files_.directory.get(), files_.settings.paths.temporary.c_str(), state);
  return rc == MD_RC_OK && state.inode == found.inode && state.device == found.device && state.size == 0;
}

// A file that takes the place of another one is its maker's alone until it gets that one's rights; a new one has those
// that the settings and the user's mask say from the start.
std::uint32_t TemporaryFile::make() {
  const char* name = files_.settings.paths.temporary.c_str();
  const std::uint32_t mode = files_.data.isHeld() ? MAKER_ONLY : files_.settings.fileMode;
  for (;;) {
    FileState state;
    std::uint32_t rc = stateAt(files_.directory.get(), name, state);
    if (rc == MD_RC_OK) rc = removeStale(state);
    if (rc != MD_RC_OK && rc != GENREG_RC_NOT_FOUND) return rc;
    rc = lockByName(files_.directory.get(), name, O_RDWR | O_CREAT | O_EXCL, mode, files_.deadline, file_);
    hasName_ = rc == MD_RC_OK;
    if (rc == MD_RC_OK || stateAt(files_.directory.get(), name, state) != MD_RC_OK) return rc;
    if (rc != GENREG_RC_SYSTEM_ERROR) {
      // It was made, but could not be locked.
      systemCalls.unlinkAt(files_.directory.get(), name, 0);
      return rc;
    }
    // Somebody, who can only have taken the lock file away, made one in between.
    if (nowMs() >= files_.deadline) return GENREG_RC_LOCK_TIMEOUT;
    sleepMicroseconds(RETRY_PAUSE_US);
  }
}

// The new file is to be what the old one was to its readers, and to nobody else. Who may not give it these rights
// leaves things as they are.
std::uint32_t TemporaryFile::takeOverRights() const {
  if (!files_.data.isHeld()) return MD_RC_OK;
  FileRights rights;
  if (const std::uint32_t rc = rightsOf(files_.data.get(), rights)) return rc;
  return giveRights(file_.get(), rights);
}

// The file was synced before: a rename that became durable first would leave the name with an empty file. The directory
// is synced after: without it the name could lead back to the old file, and what is committed to the new one would be
// lost.
std::uint32_t TemporaryFile::putInPlace(const std::string& name) {
  FileState named;
  const char* from = files_.settings.paths.temporary.c_str();
  bool isNamed = false;
  if (const std::uint32_t rc = file_.isNamed(files_.directory.get(), from, isNamed)) return rc;
  if (!isNamed) return GENREG_RC_NOT_REGULAR;  // somebody put another file there
  if (!files_.data.isHeld()) {
    const std::uint32_t rc = stateAt(files_.directory.get(), name.c_str(), named);
    if (rc != GENREG_RC_NOT_FOUND) return rc == MD_RC_OK ? GENREG_RC_DUPLICATE_KEY : rc;
  }
  if (systemCalls.renameAt(files_.directory.get(), from, files_.directory.get(), name.c_str()) != 0)
    return codeOfErrno(errno);
  hasName_ = false;
  return syncDirectory(files_.directory.get());
}

}  // namespace zon
