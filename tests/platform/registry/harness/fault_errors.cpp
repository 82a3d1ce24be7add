// See fault_errors.h.
#include "platform/registry/harness/fault_errors.h"

#include <cerrno>
#include <cstdint>
#include <vector>

#include "platform/registry/harness/fault_harness.h"
#include "platform/registry/harness/simulated_disk.h"
#include "zonmdfile/platform/return_codes.h"

namespace zon::test {

const std::vector<int>& errorsOf(Call call) {
  static const std::vector<int> OPENING{EACCES, EMFILE, ENFILE, ENOMEM, EROFS, ELOOP, ENOSPC, EDQUOT, EIO, EINTR};
  static const std::vector<int> READING{EIO, EINTR};
  static const std::vector<int> WRITING{EIO, ENOSPC, EDQUOT, EFBIG, EINTR};
  static const std::vector<int> SYNCING{EIO, ENOSPC, EDQUOT, EINTR};
  static const std::vector<int> RESERVING{ENOSPC, EDQUOT, EFBIG, EIO, EINTR, EOPNOTSUPP};
  static const std::vector<int> LOCKING{ENOLCK, EINTR, ENOMEM, EWOULDBLOCK};
  static const std::vector<int> ASKING{ENOMEM, EIO, EACCES};
  static const std::vector<int> NAMING{EACCES, EIO, ENOSPC, EROFS, EDQUOT, EPERM};
  static const std::vector<int> OWNING{EPERM, EIO, EROFS};
  static const std::vector<int> GUESSING{EINTR, ENOSYS};
  switch (call) {
    case Call::OPEN:
      return OPENING;
    case Call::READ:
      return READING;
    case Call::WRITE:
      return WRITING;
    case Call::SYNC_DATA:
    case Call::SYNC:
      return SYNCING;
    case Call::ALLOCATE:
    case Call::TRUNCATE:
      return RESERVING;
    case Call::LOCK:
      return LOCKING;
    case Call::STAT:
      return ASKING;
    case Call::RENAME:
    case Call::LINK:
    case Call::UNLINK:
      return NAMING;
    case Call::CHANGE_MODE:
    case Call::CHANGE_OWNER:
    case Call::GET_ATTRIBUTE:
    case Call::SET_ATTRIBUTE:
    case Call::REMOVE_ATTRIBUTE:
      return OWNING;
    default:
      return GUESSING;
  }
}

bool namesCause(std::uint32_t rc, int error) {
  if (rc == GENREG_RC_DURABILITY_UNKNOWN) return true;
  switch (error) {
    case EIO:
      return rc == GENREG_RC_IO_ERROR;
    case ENOSPC:
    case EDQUOT:
      return rc == GENREG_RC_NO_SPACE;
    case EACCES:
    case EPERM:
      return rc == GENREG_RC_NO_PERMISSION;
    case EROFS:
      return rc == GENREG_RC_READ_ONLY;
    case EMFILE:
    case ENFILE:
      return rc == GENREG_RC_TOO_MANY_FILES;
    case 0:
    case ENOMEM:
      return rc == GENREG_RC_NO_MEMORY;
    case EFBIG:
      return rc == GENREG_RC_FILE_TOO_LARGE;
    case ELOOP:
      return rc == GENREG_RC_NOT_REGULAR;
    case ENOLCK:
      return rc == GENREG_RC_LOCK_UNSUPPORTED;
    case EWOULDBLOCK:
      return rc == GENREG_RC_LOCK_TIMEOUT;
    case EINTR:
      return rc == GENREG_RC_SYSTEM_ERROR || rc == GENREG_RC_LOCK_TIMEOUT;
    default:
      return rc == GENREG_RC_SYSTEM_ERROR;
  }
}

}  // namespace zon::test
