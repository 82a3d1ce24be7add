// What a power cut could leave of the simulated disk: see simulated_disk.h.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "platform/registry/harness/simulated_calls.h"
#include "platform/registry/harness/simulated_disk.h"

namespace zon::test {
namespace {

constexpr std::uint64_t HEADER_PAGE_SIZE = 2 * PAGE;
constexpr std::uint64_t MOST_STATES = std::uint64_t{1} << 40;

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
