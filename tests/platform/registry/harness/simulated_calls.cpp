// The system calls of the simulated disk. They answer as the system's do, errno included, as far as the engine uses
// them.
#include "platform/registry/harness/simulated_calls.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "platform/registry/files/system_calls.h"

namespace zon::test {
namespace {

SimulatedDisk* theDisk = nullptr;

constexpr const char* BOOT_ID_PATH = "/proc/sys/kernel/random/boot_id";
constexpr std::uint64_t FOLDER_INODE = 2;
constexpr unsigned UNIQUE_MOUNT_ID = 0x4000;  // STATX_MNT_ID_UNIQUE

int fail(int error) {
  errno = error;
  return -1;
}

std::string bootIdText(unsigned number) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%08x-1111-4222-8333-444444444444\n", number);
  return text.data();
}

std::string lastName(const char* path) {
  const std::string text = path;
  const std::size_t slash = text.rfind('/');
  return slash == std::string::npos ? text : text.substr(slash + 1);
}

}  // namespace

// The functions that the table leads to.
struct SimulatedCalls {
  static int openAt(int, const char* path, int flags, mode_t mode) {
    const bool isBootId = std::strcmp(path, BOOT_ID_PATH) == 0;
    const int error = theDisk->failing(Call::OPEN);
    // Who may not read the boot id never may: to him each opening is as after a restart (bootIdError).
    if (error != 0 && !(isBootId && error == EACCES)) return fail(error);
    SimulatedDisk::Open open;
    if (isBootId) {
      if (!theDisk->tellsBoots) return fail(ENOENT);
      if (theDisk->bootIdError != 0) return fail(theDisk->bootIdError);
      open.isBootId = true;
    } else if ((flags & O_DIRECTORY) == 0) {
      const std::string name = lastName(path);
      const auto found = theDisk->names_.find(name);
      if (found != theDisk->names_.end()) {
        if ((flags & O_EXCL) != 0) return fail(EEXIST);
        open.inode = found->second;
      } else {
        if ((flags & O_CREAT) == 0) return fail(ENOENT);
        open.inode = std::make_shared<SimulatedDisk::Inode>();
        open.inode->number = theDisk->nextInode_++;
        open.inode->rights.mode = S_IFREG | (mode & 07777);
        theDisk->names_[name] = open.inode;
        theDisk->record(
            DiskOp{.kind = DiskOp::Kind::BIND, .inode = open.inode->number, .bytes = {}, .name = name, .from = {}});
      }
    }
    theDisk->descriptors_[theDisk->nextDescriptor_] = open;
    return theDisk->nextDescriptor_++;
  }

  static int close(int descriptor) {
    if (theDisk->descriptors_.erase(descriptor) == 0) return fail(EBADF);
    std::erase_if(theDisk->locks_, [&](const auto& lock) { return lock.second == descriptor; });
    return 0;
  }

  static int duplicateFrom(int, int) { return fail(theDisk->failing(Call::DUPLICATE) == 0 ? EBADF : errno); }

  static ssize_t pread(int descriptor, void* data, std::size_t size, off_t offset) {
    if (const int error = theDisk->failing(Call::READ)) return fail(error);
    const SimulatedDisk::Open* open = theDisk->find(descriptor);
    if (open == nullptr) return fail(EBADF);
    const std::string text = open->isBootId ? bootIdText(theDisk->bootNumber_) : std::string();
    const char* bytes = open->isBootId ? text.data() : reinterpret_cast<const char*>(open->inode->bytes->data());
    const std::size_t length = open->isBootId ? text.size() : open->inode->bytes->size();
    const auto from = static_cast<std::size_t>(offset);
    if (from >= length) return 0;
    std::size_t count = std::min(size, length - from);
    if (theDisk->mostBytes != 0) count = std::min(count, theDisk->mostBytes);
    if (!open->isBootId) count = theDisk->readableBytes(*open->inode, from, count);
    if (count == 0) return fail(EIO);
    std::memcpy(data, bytes + from, count);
    return static_cast<ssize_t>(count);
  }

  static void resize(SimulatedDisk::Inode& inode, std::size_t size) {
    if (inode.bytes->size() == size) return;
    theDisk->writable(inode).resize(size);
    theDisk->record(DiskOp{
        .kind = DiskOp::Kind::RESIZE, .inode = inode.number, .offset = size, .bytes = {}, .name = {}, .from = {}});
  }

  static ssize_t pwrite(int descriptor, const void* data, std::size_t size, off_t offset) {
    const int error = theDisk->failing(Call::WRITE);
    if (error == 0) return put(descriptor, data, size, offset);
    const auto from = static_cast<std::uint64_t>(offset);
    const std::uint64_t half = (from + size / 2 + PAGE / 2) / PAGE * PAGE;
    if (theDisk->failsHalfDone && half > from && half < from + size) {
      put(descriptor, data, half - from, offset);
      theDisk->wasHalfDone = true;
    }
    return fail(error);
  }

  static ssize_t put(int descriptor, const void* data, std::size_t size, off_t offset) {
    SimulatedDisk::Open* open = theDisk->find(descriptor);
    if (open == nullptr || open->inode == nullptr) return fail(EBADF);
    const std::size_t count = theDisk->mostBytes != 0 ? std::min(size, theDisk->mostBytes) : size;
    const auto from = static_cast<std::size_t>(offset);
    if (theDisk->passesLimit(from + count)) return fail(EFBIG);
    const std::size_t had = open->inode->bytes->size();
    if (from + count > had && !theDisk->hasRoom(from + count - had)) return fail(ENOSPC);
    // A part of a sector cannot be written when the rest of it cannot be read.
    if (theDisk->readableBytes(*open->inode, from, count) < count) return fail(EIO);
    resize(*open->inode, std::max(open->inode->bytes->size(), from + count));
    const auto* bytes = static_cast<const std::byte*>(data);
    std::copy(bytes, bytes + count, theDisk->writable(*open->inode).begin() + static_cast<std::ptrdiff_t>(from));
    if (theDisk->isRecording) {
      theDisk->record(DiskOp{.kind = DiskOp::Kind::WRITE,
                             .inode = open->inode->number,
                             .offset = from,
                             .bytes = Bytes(bytes, bytes + count),
                             .name = {},
                             .from = {}});
    }
    return static_cast<ssize_t>(count);
  }

  static int sync(int descriptor, Call call) {
    const SimulatedDisk::Open* open = theDisk->find(descriptor);
    if (open == nullptr) return fail(EBADF);
    const int error = theDisk->failing(call);
    const DiskOp::Kind kind = open->inode == nullptr ? DiskOp::Kind::SYNC_NAMES
                              : error != 0           ? DiskOp::Kind::SYNC_FAILED
                                                     : DiskOp::Kind::SYNC_FILE;
    // An interrupted sync has not failed.
    if (error == 0 || (open->inode != nullptr && error != EINTR)) {
      const std::uint64_t inode = open->inode == nullptr ? FOLDER_INODE : open->inode->number;
      theDisk->record(DiskOp{.kind = kind, .inode = inode, .bytes = {}, .name = {}, .from = {}});
    }
    return error == 0 ? 0 : fail(error);
  }
  static int fdatasync(int descriptor) { return sync(descriptor, Call::SYNC_DATA); }
  static int fsync(int descriptor) { return sync(descriptor, Call::SYNC); }

  static int fallocate(int descriptor, int, off_t offset, off_t size) {
    if (const int error = theDisk->failing(Call::ALLOCATE)) return fail(error);
    SimulatedDisk::Open* open = theDisk->find(descriptor);
    if (open == nullptr || open->inode == nullptr) return fail(EBADF);
    const std::size_t end = std::max(open->inode->bytes->size(), static_cast<std::size_t>(offset + size));
    const std::size_t had = open->inode->bytes->size();
    if (end > had && theDisk->passesLimit(end)) return fail(EFBIG);
    if (end > had && !theDisk->hasRoom(end - had)) return fail(ENOSPC);
    resize(*open->inode, end);
    return 0;
  }

  static int ftruncate(int descriptor, off_t size) {
    if (const int error = theDisk->failing(Call::TRUNCATE)) return fail(error);
    SimulatedDisk::Open* open = theDisk->find(descriptor);
    if (open == nullptr || open->inode == nullptr) return fail(EBADF);
    const bool grows = static_cast<std::size_t>(size) > open->inode->bytes->size();
    if (grows && theDisk->passesLimit(static_cast<std::uint64_t>(size))) return fail(EFBIG);
    resize(*open->inode, static_cast<std::size_t>(size));
    return 0;
  }

  // Files on this disk have no holes.
  static off_t seek(int descriptor, off_t offset, int origin) {
    const SimulatedDisk::Open* open = theDisk->find(descriptor);
    if (open == nullptr || open->inode == nullptr) return fail(EBADF);
    const std::size_t size = open->inode->bytes->size();
    if (static_cast<std::size_t>(offset) >= size) return fail(ENXIO);
    return origin == SEEK_HOLE ? static_cast<off_t>(size) : offset;
  }

  static int flock(int descriptor, int operation) {
    const SimulatedDisk::Open* open = theDisk->find(descriptor);
    if (open == nullptr || open->inode == nullptr) return fail(EBADF);
    if ((operation & LOCK_UN) != 0) {
      std::erase_if(theDisk->locks_, [&](const auto& lock) { return lock.second == descriptor; });
      return 0;
    }
    if (const int error = theDisk->failing(Call::LOCK)) return fail(error);
    const auto [lock, isNew] = theDisk->locks_.try_emplace(open->inode->number, descriptor);
    return isNew || lock->second == descriptor ? 0 : fail(EWOULDBLOCK);
  }

  static void fill(const SimulatedDisk::Inode* inode, struct statx* status) {
    *status = {};
    status->stx_mask = STATX_BASIC_STATS;
    status->stx_dev_major = 1;
    if (inode == nullptr) {
      status->stx_mode = S_IFDIR | 0700;
      status->stx_ino = FOLDER_INODE;
      return;
    }
    status->stx_mode = static_cast<std::uint16_t>(inode->rights.mode);
    status->stx_ino = inode->number;
    status->stx_uid = inode->rights.owner;
    status->stx_gid = inode->rights.group;
    status->stx_nlink = theDisk->linkCount(*inode);
    status->stx_size = inode->bytes->size();
    status->stx_blocks = (inode->bytes->size() + UNIT - 1) / UNIT;
    if (!theDisk->tellsMounts) return;
    status->stx_mask |= UNIQUE_MOUNT_ID;
    status->stx_mnt_id = std::uint64_t{1} << 31 | theDisk->mountNumber_;
  }

  static int statx(int directory, const char* path, int, unsigned, struct statx* status) {
    if (const int error = theDisk->failing(Call::STAT)) return fail(error);
    if (path == nullptr || *path == '\0') {
      const SimulatedDisk::Open* open = theDisk->find(directory);
      if (open == nullptr) return fail(EBADF);
      fill(open->inode.get(), status);
      if (open->isBootId) status->stx_mode = S_IFREG | 0444;
      return 0;
    }
    const auto found = theDisk->names_.find(lastName(path));
    if (found == theDisk->names_.end()) return fail(ENOENT);
    fill(found->second.get(), status);
    return 0;
  }

  static int renameAt(int, const char* from, int, const char* to) {
    if (const int error = theDisk->failing(Call::RENAME)) return fail(error);
    const auto found = theDisk->names_.find(lastName(from));
    if (found == theDisk->names_.end()) return fail(ENOENT);
    const auto inode = found->second;
    theDisk->names_.erase(found);
    theDisk->names_[lastName(to)] = inode;
    theDisk->record(DiskOp{.kind = DiskOp::Kind::RENAME,
                           .inode = inode->number,
                           .bytes = {},
                           .name = lastName(to),
                           .from = lastName(from)});
    return 0;
  }

  static int linkAt(int, const char* from, int, const char* to, int) {
    if (const int error = theDisk->failing(Call::LINK)) return fail(error);
    const auto found = theDisk->names_.find(lastName(from));
    if (found == theDisk->names_.end()) return fail(ENOENT);
    if (theDisk->names_.contains(lastName(to))) return fail(EEXIST);
    theDisk->names_[lastName(to)] = found->second;
    theDisk->record(DiskOp{
        .kind = DiskOp::Kind::BIND, .inode = found->second->number, .bytes = {}, .name = lastName(to), .from = {}});
    return 0;
  }

  static int unlinkAt(int, const char* path, int) {
    if (const int error = theDisk->failing(Call::UNLINK)) return fail(error);
    if (theDisk->names_.erase(lastName(path)) == 0) return fail(ENOENT);
    theDisk->record(DiskOp{.kind = DiskOp::Kind::UNBIND, .bytes = {}, .name = lastName(path), .from = {}});
    return 0;
  }

  static int fchmod(int descriptor, mode_t mode) {
    if (const int error = theDisk->failing(Call::CHANGE_MODE)) return fail(error);
    SimulatedDisk::Open* open = theDisk->find(descriptor);
    if (open == nullptr || open->inode == nullptr) return fail(EBADF);
    open->inode->rights.mode = S_IFREG | (mode & 07777);
    return 0;
  }

  static int fchown(int descriptor, uid_t owner, gid_t group) {
    if (const int error = theDisk->failing(Call::CHANGE_OWNER)) return fail(error);
    SimulatedDisk::Open* open = theDisk->find(descriptor);
    if (open == nullptr || open->inode == nullptr) return fail(EBADF);
    open->inode->rights.owner = owner;
    open->inode->rights.group = group;
    return 0;
  }

  static ssize_t getAttribute(int descriptor, const char*, void* value, std::size_t size) {
    if (const int error = theDisk->failing(Call::GET_ATTRIBUTE)) return fail(error);
    const SimulatedDisk::Open* open = theDisk->find(descriptor);
    if (open == nullptr || open->inode == nullptr) return fail(EBADF);
    const Bytes& list = open->inode->rights.accessList;
    if (list.empty()) return fail(ENODATA);
    if (list.size() > size) return fail(ERANGE);
    std::copy(list.begin(), list.end(), static_cast<std::byte*>(value));
    return static_cast<ssize_t>(list.size());
  }

  static int setAttribute(int descriptor, const char*, const void* value, std::size_t size, int) {
    if (const int error = theDisk->failing(Call::SET_ATTRIBUTE)) return fail(error);
    SimulatedDisk::Open* open = theDisk->find(descriptor);
    if (open == nullptr || open->inode == nullptr) return fail(EBADF);
    const auto* bytes = static_cast<const std::byte*>(value);
    open->inode->rights.accessList.assign(bytes, bytes + size);
    return 0;
  }

  static int removeAttribute(int descriptor, const char*) {
    if (const int error = theDisk->failing(Call::REMOVE_ATTRIBUTE)) return fail(error);
    SimulatedDisk::Open* open = theDisk->find(descriptor);
    if (open == nullptr || open->inode == nullptr) return fail(EBADF);
    if (open->inode->rights.accessList.empty()) return fail(ENODATA);
    open->inode->rights.accessList.clear();
    return 0;
  }

  static int getResourceLimit(int, struct rlimit* limit) {
    limit->rlim_cur = limit->rlim_max = theDisk->mostFileSize == 0 ? RLIM_INFINITY : theDisk->mostFileSize - 1;
    return 0;
  }

  static ssize_t getRandom(void* data, std::size_t size, unsigned) {
    if (const int error = theDisk->failing(Call::RANDOM)) return fail(error);
    for (std::size_t at = 0; at < size; ++at) {
      static_cast<unsigned char*>(data)[at] = static_cast<unsigned char>(theDisk->random_());
    }
    return static_cast<ssize_t>(size);
  }

  // Time goes on by waiting alone, so that a wait of half a minute is over at once.
  static int clockGetTime(clockid_t, struct timespec* now) {
    theDisk->clockNs_ += 1000;
    now->tv_sec = static_cast<time_t>(theDisk->clockNs_ / 1000000000);
    now->tv_nsec = static_cast<long>(theDisk->clockNs_ % 1000000000);
    return 0;
  }
  static int sleepFor(const struct timespec* time, struct timespec*) {
    theDisk->clockNs_ +=
        static_cast<std::uint64_t>(time->tv_sec) * 1000000000 + static_cast<std::uint64_t>(time->tv_nsec);
    return 0;
  }
};

void letAnswer(SimulatedDisk* disk) {
  theDisk = disk;
  if (disk == nullptr) {
    systemCalls = realSystemCalls();
    return;
  }
  systemCalls.openAt = SimulatedCalls::openAt;
  systemCalls.close = SimulatedCalls::close;
  systemCalls.duplicateFrom = SimulatedCalls::duplicateFrom;
  systemCalls.pread = SimulatedCalls::pread;
  systemCalls.pwrite = SimulatedCalls::pwrite;
  systemCalls.fdatasync = SimulatedCalls::fdatasync;
  systemCalls.fsync = SimulatedCalls::fsync;
  systemCalls.fallocate = SimulatedCalls::fallocate;
  systemCalls.ftruncate = SimulatedCalls::ftruncate;
  systemCalls.seek = SimulatedCalls::seek;
  systemCalls.flock = SimulatedCalls::flock;
  systemCalls.statx = SimulatedCalls::statx;
  systemCalls.renameAt = SimulatedCalls::renameAt;
  systemCalls.linkAt = SimulatedCalls::linkAt;
  systemCalls.unlinkAt = SimulatedCalls::unlinkAt;
  systemCalls.fchmod = SimulatedCalls::fchmod;
  systemCalls.fchown = SimulatedCalls::fchown;
  systemCalls.getAttribute = SimulatedCalls::getAttribute;
  systemCalls.setAttribute = SimulatedCalls::setAttribute;
  systemCalls.removeAttribute = SimulatedCalls::removeAttribute;
  systemCalls.getResourceLimit = SimulatedCalls::getResourceLimit;
  systemCalls.getRandom = SimulatedCalls::getRandom;
  systemCalls.clockGetTime = SimulatedCalls::clockGetTime;
  systemCalls.sleepFor = SimulatedCalls::sleepFor;
}

}  // namespace zon::test
