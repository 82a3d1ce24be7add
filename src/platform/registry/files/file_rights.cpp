// The order in which rights are given; see file_rights.h.
#include "platform/registry/files/file_rights.h"

#include <cerrno>

#include "platform/registry/files/file_io.h"
#include "platform/registry/files/system_calls.h"

namespace zon {

namespace {

constexpr const char* ACCESS_LIST = "system.posix_acl_access";
constexpr std::size_t COMMON_LIST = 1024;
constexpr std::size_t LARGEST_LIST = 65536;  // of any attribute
constexpr std::uint32_t MODE_BITS = 07777;

bool tellsOfNone(int error) { return error == ENODATA || error == EOPNOTSUPP || error == ENOSYS; }

std::uint32_t accessListOf(int file, std::vector<std::byte>& list) {
  list.resize(COMMON_LIST);
  ssize_t size = systemCalls.getAttribute(file, ACCESS_LIST, list.data(), list.size());
  if (size < 0 && errno == ERANGE) {
    list.resize(LARGEST_LIST);
    size = systemCalls.getAttribute(file, ACCESS_LIST, list.data(), list.size());
  }
  if (size < 0 && !tellsOfNone(errno)) return codeOfErrno(errno);
  list.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
  return MD_RC_OK;
}

// Without a list of its own the file may have one that its directory hands down: with the mode given to it, whoever is
// named there would come in.
std::uint32_t setAccessList(int file, const std::vector<std::byte>& list) {
  const int result = list.empty() ? systemCalls.removeAttribute(file, ACCESS_LIST)
                                  : systemCalls.setAttribute(file, ACCESS_LIST, list.data(), list.size(), 0);
  return result == 0 ? MD_RC_OK : codeOfErrno(errno);
}

}  // namespace

std::uint32_t rightsOf(int file, FileRights& rights) {
  FileState state;
  if (const std::uint32_t rc = stateOf(file, state)) return rc;
  rights.owner = state.owner;
  rights.group = state.group;
  rights.mode = state.mode & MODE_BITS;
  return accessListOf(file, rights.accessList);
}

// The owner first: afterwards the new owner and group alone can gain anything by list and mode. The list before the
// mode: on a file with an inherited list the mode's middle bits open that list, not the group.
std::uint32_t giveRights(int file, const FileRights& rights) {
  FileRights present;
  if (const std::uint32_t rc = rightsOf(file, present)) return rc;
  if (present == rights) return MD_RC_OK;
  if (present.owner != rights.owner || present.group != rights.group) {
    if (systemCalls.fchown(file, rights.owner, rights.group) != 0) return codeOfErrno(errno);
  }
  if (present.accessList != rights.accessList) {
    if (const std::uint32_t rc = setAccessList(file, rights.accessList)) return rc;
  }
  return systemCalls.fchmod(file, rights.mode) == 0 ? MD_RC_OK : codeOfErrno(errno);
}

}  // namespace zon
