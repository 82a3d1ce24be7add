// The disk of simulated_disk.h. Its calls answer as the system's do, errno included, as far as the engine uses them.
#include "platform/registry/harness/simulated_disk.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/registry/files/system_calls.h"
#include "platform/registry/format/crc32c.h"

namespace zon::test {

namespace {

SimulatedDisk* theDisk = nullptr;

constexpr const char* BOOT_ID_PATH = "/proc/sys/kernel/random/boot_id";
constexpr std::uint64_t FOLDER_INODE = 2;
constexpr std::uint64_t PAGE = 4096;
constexpr unsigned UNIQUE_MOUNT_ID = 0x4000;  // STATX_MNT_ID_UNIQUE
constexpr std::uint64_t HEADER_PAGE_SIZE = 2 * PAGE;
constexpr std::uint64_t MOST_STATES = std::uint64_t{1} << 40;

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

// Units by their offset: see simulated_disk.h.
std::size_t sizeOfUnit(std::uint64_t offset) { return offset < HEADER_PAGE_SIZE ? PAGE : UNIT; }
std::uint64_t unitAround(std::uint64_t offset) { return offset / sizeOfUnit(offset) * sizeOfUnit(offset); }

Bytes garbage(std::uint64_t seed, std::size_t size) {
  Bytes bytes(size);
  std::mt19937 random(static_cast<std::uint32_t>(seed * 2654435761u + 17));
  for (auto& byte : bytes) byte = static_cast<std::byte>(random());
  return bytes;
}

bool isAllZero(const Bytes& bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](std::byte byte) { return byte == std::byte{0}; });
}

}  // namespace

const char* nameOf(Call call) {
  constexpr std::array<const char*, CALL_COUNT> NAMES{"open",      "duplicate", "read",      "write",       "fdatasync",
                                                      "fsync",     "fallocate", "ftruncate", "flock",       "statx",
                                                      "rename",    "link",      "unlink",    "fchmod",      "fchown",
                                                      "getrandom", "fgetxattr", "fsetxattr", "fremovexattr"};
  return NAMES[static_cast<std::size_t>(call)];
}

std::uint64_t DiskImage::hash() const {
  std::uint64_t hash = 0x9E3779B97F4A7C15u;
  const auto mix = [&hash](std::uint64_t value) {
    hash = (hash ^ value) * 0xD6E8FEB86659FD93u;
    hash ^= hash >> 29;
  };
  std::map<std::uint64_t, std::uint64_t> order;  // inode numbers differ between runs, what shares one does not
  for (const auto& [name, inode] : names) {
    mix(crc32c(0, name.data(), name.size()));
    mix(order.try_emplace(inode, order.size()).first->second);
    const Bytes& bytes = *files.at(inode);
    mix(bytes.size());
    for (std::size_t at = 0; at + 8 <= bytes.size(); at += 8) {
      std::uint64_t word = 0;
      std::memcpy(&word, bytes.data() + at, sizeof word);
      hash = (hash ^ word) * 0xD6E8FEB86659FD93u;
      hash ^= hash >> 29;
    }
    mix(crc32c(7, bytes.data() + bytes.size() / 8 * 8, bytes.size() % 8));
  }
  return hash;
}

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
  // No file has holes.
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

SimulatedDisk::SimulatedDisk() {
  theDisk = this;
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

SimulatedDisk::~SimulatedDisk() {
  systemCalls = realSystemCalls();
  theDisk = nullptr;
}

int SimulatedDisk::failing(Call call) {
  ++calls_;
  return fault ? fault(call) : 0;
}

bool SimulatedDisk::passesLimit(std::uint64_t size) {
  const bool passes = mostFileSize != 0 && size > mostFileSize - 1;
  isLimitPassed = isLimitPassed || passes;
  return passes;
}

bool SimulatedDisk::hasRoom(std::uint64_t more) const {
  if (capacity == 0) return true;
  std::map<std::uint64_t, std::uint64_t> sizes;
  for (const auto& [name, inode] : names_) sizes[inode->number] = inode->bytes->size();
  for (const auto& [descriptor, open] : descriptors_) {
    if (open.inode != nullptr) sizes[open.inode->number] = open.inode->bytes->size();
  }
  std::uint64_t used = 0;
  for (const auto& [inode, size] : sizes) used += size;
  return used + more <= capacity;
}

void SimulatedDisk::record(DiskOp op) {
  if (isRecording) log.push_back(std::move(op));
}

SimulatedDisk::Open* SimulatedDisk::find(int descriptor) {
  const auto found = descriptors_.find(descriptor);
  return found == descriptors_.end() ? nullptr : &found->second;
}

// Contents are shared with images until they are written to.
Bytes& SimulatedDisk::writable(Inode& inode) {
  if (inode.bytes.use_count() > 1) inode.bytes = std::make_shared<Bytes>(*inode.bytes);
  return *inode.bytes;
}

std::size_t SimulatedDisk::readableBytes(const Inode& inode, std::size_t from, std::size_t count) const {
  if (badSectors.empty()) return count;
  for (std::size_t at = from; at < from + count; at = (at / PAGE + 1) * PAGE) {
    if (badSectors.contains({inode.number, at / PAGE})) return at - from;
  }
  return count;
}

unsigned SimulatedDisk::linkCount(const Inode& inode) const {
  unsigned count = 0;
  for (const auto& [name, named] : names_) count += named->number == inode.number ? 1 : 0;
  return count;
}

DiskImage SimulatedDisk::image() const {
  DiskImage image;
  for (const auto& [name, inode] : names_) {
    image.names[name] = inode->number;
    image.files[inode->number] = inode->bytes;
    image.rights[inode->number] = inode->rights;
  }
  return image;
}

void SimulatedDisk::boot(const DiskImage& content) {
  killProcesses();
  ++bootNumber_;
  names_.clear();
  std::map<std::uint64_t, std::shared_ptr<Inode>> inodes;
  for (const auto& [name, number] : content.names) {
    auto& inode = inodes[number];
    if (inode == nullptr) {
      inode = std::make_shared<Inode>();
      inode->number = number;
      inode->bytes = std::const_pointer_cast<Bytes>(content.files.at(number));
      if (content.rights.contains(number)) inode->rights = content.rights.at(number);
    }
    names_[name] = inode;
    nextInode_ = std::max(nextInode_, number + 1);
  }
}

void SimulatedDisk::remount(const DiskImage& content) {
  const unsigned number = bootNumber_;
  boot(content);
  bootNumber_ = number;
  ++mountNumber_;
}

void SimulatedDisk::killProcesses() {
  descriptors_.clear();
  locks_.clear();
}

const Bytes* PowerCut::durableBytes(std::uint64_t inode) const {
  const auto found = durable_.files.find(inode);
  return found == durable_.files.end() ? nullptr : found->second.get();
}

Bytes PowerCut::unitOf(std::uint64_t inode, std::uint64_t from) const {
  Bytes bytes(sizeOfUnit(from));
  const Bytes* durable = durableBytes(inode);
  if (durable == nullptr || from >= durable->size()) return bytes;
  const std::size_t count = std::min<std::size_t>(bytes.size(), durable->size() - from);
  std::memcpy(bytes.data(), durable->data() + from, count);
  return bytes;
}

void PowerCut::followWrite(const DiskOp& op) {
  PendingFile& file = files_[op.inode];
  const std::uint64_t end = op.offset + op.bytes.size();
  // Who writes a byte of a page has all of it written again.
  for (auto& [unit, pending] : file.units) {
    if (unit >= op.offset / PAGE * PAGE && unit < (end + PAGE - 1) / PAGE * PAGE) pending.isTakenForClean = false;
  }
  for (std::uint64_t unit = unitAround(op.offset); unit < end; unit += sizeOfUnit(unit)) {
    PendingUnit& pending = file.units[unit];
    if (pending.versions.empty()) {
      pending.mayBeAnything = isAllZero(unitOf(op.inode, unit)) || unit < HEADER_PAGE_SIZE;
    }
    Bytes bytes = pending.versions.empty() ? unitOf(op.inode, unit) : pending.versions.back();
    const std::uint64_t from = std::max(op.offset, unit);
    const std::uint64_t to = std::min(end, unit + bytes.size());
    std::memcpy(bytes.data() + (from - unit), op.bytes.data() + (from - op.offset), to - from);
    pending.versions.push_back(std::move(bytes));
  }
}

void PowerCut::followSync(std::uint64_t inode) {
  const Bytes* old = durableBytes(inode);
  auto bytes = std::make_shared<Bytes>(old == nullptr ? Bytes() : *old);
  if (const auto pending = files_.find(inode); pending != files_.end()) {
    PendingFile& file = pending->second;
    if (!file.sizes.empty()) bytes->resize(file.sizes.back());
    file.sizes.clear();
    for (const auto& [from, content] : file.units) {
      if (content.isTakenForClean || from >= bytes->size()) continue;
      const Bytes& newest = content.versions.back();
      std::memcpy(bytes->data() + from, newest.data(), std::min<std::size_t>(newest.size(), bytes->size() - from));
    }
    std::erase_if(file.units, [](const auto& unit) { return !unit.second.isTakenForClean; });
    if (file.units.empty()) files_.erase(pending);
  }
  durable_.files[inode] = bytes;
}

void PowerCut::follow(const DiskOp& op) {
  switch (op.kind) {
    case DiskOp::Kind::WRITE:
      followWrite(op);
      return;
    case DiskOp::Kind::RESIZE:
      files_[op.inode].sizes.push_back(op.offset);
      return;
    case DiskOp::Kind::SYNC_FILE:
      followSync(op.inode);
      return;
    case DiskOp::Kind::SYNC_FAILED:
      for (auto& [unit, pending] : files_[op.inode].units) pending.isTakenForClean = true;
      return;
    case DiskOp::Kind::SYNC_NAMES:
      for (const DiskOp& name : names_) {
        if (name.kind == DiskOp::Kind::RENAME) durable_.names.erase(name.from);
        if (name.kind == DiskOp::Kind::UNBIND) {
          durable_.names.erase(name.name);
        } else {
          durable_.names[name.name] = name.inode;
        }
      }
      names_.clear();
      return;
    default:
      names_.push_back(op);
  }
}

std::vector<PowerCut::Choice> PowerCut::choices() const {
  std::vector<Choice> list;
  for (std::size_t at = 0; at < names_.size(); ++at) {
    list.push_back(Choice{.kind = Choice::Kind::NAME, .inode = 0, .at = at, .forms = 2, .newest = 1});
  }
  for (const auto& [inode, file] : files_) {
    if (!file.sizes.empty()) {
      list.push_back(Choice{.kind = Choice::Kind::FILE_SIZE,
                            .inode = inode,
                            .at = 0,
                            .forms = file.sizes.size() + 1,
                            .newest = file.sizes.size()});
    }
    for (const auto& [unit, pending] : file.units) {
      const std::uint64_t newest = pending.versions.size();
      list.push_back(Choice{.kind = Choice::Kind::FILE_UNIT,
                            .inode = inode,
                            .at = unit,
                            .forms = newest + 1 + (pending.mayBeAnything ? 2 : 0),
                            .newest = newest});
    }
  }
  return list;
}

std::uint64_t PowerCut::stateCount() const {
  std::uint64_t count = 1;
  for (const Choice& choice : choices()) {
    count *= choice.forms;
    if (count > MOST_STATES) return MOST_STATES;
  }
  return count;
}

DiskImage PowerCut::build(const std::vector<Choice>& list, const std::vector<std::uint64_t>& forms) const {
  DiskImage image = durable_;
  std::map<std::uint64_t, std::shared_ptr<Bytes>> changed;
  const auto contentOf = [&](std::uint64_t inode) -> Bytes& {
    auto& bytes = changed[inode];
    if (bytes == nullptr) {
      const Bytes* old = durableBytes(inode);
      bytes = std::make_shared<Bytes>(old == nullptr ? Bytes() : *old);
    }
    return *bytes;
  };
  for (std::size_t at = 0; at < list.size(); ++at) {
    const Choice& choice = list[at];
    const std::uint64_t form = forms[at];
    if (choice.kind == Choice::Kind::NAME) {
      if (form == 0) continue;
      const DiskOp& op = names_[choice.at];
      if (op.kind == DiskOp::Kind::RENAME) image.names.erase(op.from);
      if (op.kind == DiskOp::Kind::UNBIND) {
        image.names.erase(op.name);
      } else {
        image.names[op.name] = op.inode;
      }
      continue;
    }
    const PendingFile& file = files_.at(choice.inode);
    Bytes& bytes = contentOf(choice.inode);
    if (choice.kind == Choice::Kind::FILE_SIZE) {
      if (form > 0) bytes.resize(file.sizes[form - 1]);
      continue;
    }
    const std::uint64_t from = choice.at;
    if (form == 0 || from >= bytes.size()) continue;
    const std::size_t size = sizeOfUnit(from);
    const PendingUnit& pending = file.units.at(choice.at);
    const Bytes content = form <= choice.newest       ? pending.versions[form - 1]
                          : form == choice.newest + 1 ? Bytes(size)
                                                      : garbage(choice.at / UNIT + choice.inode, size);
    std::memcpy(bytes.data() + from, content.data(), std::min<std::size_t>(size, bytes.size() - from));
  }
  for (auto& [inode, bytes] : changed) image.files[inode] = std::move(bytes);
  std::set<std::uint64_t> named;
  for (const auto& [name, inode] : image.names) {
    named.insert(inode);
    if (!image.files.contains(inode)) image.files[inode] = std::make_shared<Bytes>();
  }
  std::erase_if(image.files, [&](const auto& file) { return !named.contains(file.first); });
  return image;
}

DiskImage PowerCut::state(std::uint64_t number) const {
  const std::vector<Choice> list = choices();
  std::vector<std::uint64_t> forms(list.size());
  for (std::size_t at = 0; at < list.size(); ++at) {
    forms[at] = number % list[at].forms;
    number /= list[at].forms;
  }
  return build(list, forms);
}

DiskImage PowerCut::randomState(std::mt19937_64& random) const {
  const std::vector<Choice> list = choices();
  std::vector<std::uint64_t> forms(list.size());
  // Mixes that are mostly old or mostly new reach states which fair coins do not.
  const std::uint64_t bias = random() % 4;
  for (std::size_t at = 0; at < list.size(); ++at) {
    const std::uint64_t toss = random();
    forms[at] = bias == 0 && toss % 8 != 0   ? list[at].newest
                : bias == 1 && toss % 8 != 0 ? 0
                                             : (toss >> 8) % list[at].forms;
  }
  return build(list, forms);
}

DiskImage PowerCut::oldest() const {
  const std::vector<Choice> list = choices();
  return build(list, std::vector<std::uint64_t>(list.size(), 0));
}

DiskImage PowerCut::newest() const {
  const std::vector<Choice> list = choices();
  std::vector<std::uint64_t> forms;
  for (const Choice& choice : list) forms.push_back(choice.newest);
  return build(list, forms);
}

DiskImage PowerCut::newestBut(std::size_t number) const {
  const std::vector<Choice> list = choices();
  std::vector<std::uint64_t> forms;
  for (const Choice& choice : list) forms.push_back(choice.newest);
  forms[number] = 0;
  return build(list, forms);
}

DiskImage PowerCut::oldestBut(std::size_t number) const {
  const std::vector<Choice> list = choices();
  std::vector<std::uint64_t> forms(list.size(), 0);
  forms[number] = list[number].newest;
  return build(list, forms);
}

}  // namespace zon::test
