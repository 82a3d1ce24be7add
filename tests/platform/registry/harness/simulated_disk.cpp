// The disk of simulated_disk.h: what it holds. Its calls are in simulated_calls.cpp, its power cuts in power_cut.cpp.
#include "platform/registry/harness/simulated_disk.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/registry/format/crc32c.h"
#include "platform/registry/harness/simulated_calls.h"

namespace zon::test {

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

SimulatedDisk::SimulatedDisk() { letAnswer(this); }

SimulatedDisk::~SimulatedDisk() { letAnswer(nullptr); }

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

}  // namespace zon::test
