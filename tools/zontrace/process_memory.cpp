// See process_memory.h. The kernel's own calls for this are tried first; /proc/<pid>/mem serves where they are not
// allowed.
#include "process_memory.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>

namespace zontrace {

namespace {

constexpr std::size_t MAX_PROGRAM_HEADERS = 64;
constexpr std::size_t MAX_DYNAMIC_ENTRIES = 512;
constexpr std::size_t MAX_CHAIN = 4096;
constexpr std::uint64_t PAGE_BYTES = 4096;

enum class Direction { READ, WRITE };

int transferByCall(pid_t pid, std::uint64_t address, std::byte* bytes, std::size_t size, Direction direction) {
  iovec local{bytes, size};
  // The kernel alone follows this address, in the other process.
  iovec remote{reinterpret_cast<void*>(address), size};  // NOLINT(performance-no-int-to-ptr)
  const ssize_t done = direction == Direction::READ ? ::process_vm_readv(pid, &local, 1, &remote, 1, 0)
                                                    : ::process_vm_writev(pid, &local, 1, &remote, 1, 0);
  if (done < 0) return errno;
  return static_cast<std::size_t>(done) == size ? 0 : EFAULT;
}

int transferByFile(pid_t pid, std::uint64_t address, std::byte* bytes, std::size_t size, Direction direction) {
  const std::string name = "/proc/" + std::to_string(pid) + "/mem";
  const int descriptor = ::open(name.c_str(), (direction == Direction::READ ? O_RDONLY : O_WRONLY) | O_CLOEXEC);
  if (descriptor < 0) return errno;
  const auto offset = static_cast<off_t>(address);
  const ssize_t done = direction == Direction::READ ? ::pread(descriptor, bytes, size, offset)
                                                    : ::pwrite(descriptor, bytes, size, offset);
  const int error = done < 0 ? errno : static_cast<std::size_t>(done) == size ? 0 : EFAULT;
  ::close(descriptor);
  return error == EIO ? EFAULT : error;
}

int transfer(pid_t pid, std::uint64_t address, std::byte* bytes, std::size_t size, Direction direction) {
  const int error = transferByCall(pid, address, bytes, size, direction);
  if (error != EPERM && error != ENOSYS) return error;
  return transferByFile(pid, address, bytes, size, direction) == 0 ? 0 : error;
}

struct DynamicTables {
  std::uint64_t symbols = 0;
  std::uint64_t strings = 0;
  std::uint64_t stringBytes = 0;
  std::uint64_t gnuHash = 0;
  std::uint64_t sysvHash = 0;
};

class ElfImage {
 public:
  ElfImage(const ProcessMemory& memory, std::uint64_t base) : memory_(memory), base_(base) {}

  int error() const { return error_; }

  std::optional<Symbol> find(const char* name) {
    DynamicTables tables;
    if (!findTables(tables)) return std::nullopt;
    return tables.gnuHash != 0 ? findByGnuHash(tables, name) : findByCount(tables, name);
  }

 private:
  template <class T>
  bool get(std::uint64_t address, T& object) {
    error_ = memory_.readObject(address, object);
    return error_ == 0;
  }

  bool findTables(DynamicTables& tables) {
    Elf64_Ehdr file{};
    if (!get(base_, file)) return false;
    if (std::memcmp(file.e_ident, ELFMAG, SELFMAG) != 0 || file.e_ident[EI_CLASS] != ELFCLASS64) return false;
    if (file.e_ident[EI_DATA] != ELFDATA2LSB || file.e_phentsize != sizeof(Elf64_Phdr)) return false;
    bool hasLoad = false;
    std::uint64_t dynamic = 0;
    for (std::size_t i = 0; i < std::min<std::size_t>(file.e_phnum, MAX_PROGRAM_HEADERS); ++i) {
      Elf64_Phdr segment{};
      if (!get(base_ + file.e_phoff + i * sizeof segment, segment)) return false;
      if (segment.p_type == PT_LOAD && !hasLoad) {
        bias_ = base_ - segment.p_vaddr / PAGE_BYTES * PAGE_BYTES;
        hasLoad = true;
      }
      if (segment.p_type == PT_DYNAMIC) dynamic = segment.p_vaddr;
    }
    return hasLoad && dynamic != 0 && readDynamic(bias_ + dynamic, tables);
  }

  bool readDynamic(std::uint64_t address, DynamicTables& tables) {
    for (std::size_t i = 0; i < MAX_DYNAMIC_ENTRIES; ++i) {
      Elf64_Dyn entry{};
      if (!get(address + i * sizeof entry, entry)) return false;
      if (entry.d_tag == DT_NULL) break;
      if (entry.d_tag == DT_SYMTAB) tables.symbols = located(entry.d_un.d_ptr);
      if (entry.d_tag == DT_STRTAB) tables.strings = located(entry.d_un.d_ptr);
      if (entry.d_tag == DT_STRSZ) tables.stringBytes = entry.d_un.d_val;
      if (entry.d_tag == DT_GNU_HASH) tables.gnuHash = located(entry.d_un.d_ptr);
      if (entry.d_tag == DT_HASH) tables.sysvHash = located(entry.d_un.d_ptr);
    }
    return tables.symbols != 0 && tables.strings != 0 && (tables.gnuHash != 0 || tables.sysvHash != 0);
  }

  // Some dynamic loaders put absolute addresses into the table, others leave it as it is in the file.
  std::uint64_t located(std::uint64_t pointer) const { return pointer >= base_ ? pointer : bias_ + pointer; }

  std::optional<Symbol> symbolIfNamed(const DynamicTables& tables, std::uint64_t index, const char* name) {
    Elf64_Sym symbol{};
    if (!get(tables.symbols + index * sizeof symbol, symbol)) return std::nullopt;
    std::vector<std::byte> text(std::strlen(name) + 1);
    if (symbol.st_name >= tables.stringBytes || text.size() > tables.stringBytes - symbol.st_name) return std::nullopt;
    error_ = memory_.read(tables.strings + symbol.st_name, text);
    if (error_ != 0 || std::memcmp(text.data(), name, text.size()) != 0) return std::nullopt;
    if (ELF64_ST_TYPE(symbol.st_info) != STT_OBJECT || symbol.st_shndx == SHN_UNDEF) return std::nullopt;
    return Symbol{bias_ + symbol.st_value, symbol.st_size};
  }

  std::optional<Symbol> findByGnuHash(const DynamicTables& tables, const char* name) {
    std::array<std::uint32_t, 4> head{};  // buckets, first symbol, words of the filter, its shift
    if (!get(tables.gnuHash, head) || head[0] == 0) return std::nullopt;
    std::uint32_t hash = 5381;
    for (const char* at = name; *at != '\0'; ++at) hash = hash * 33 + static_cast<unsigned char>(*at);
    const std::uint64_t buckets = tables.gnuHash + sizeof head + std::uint64_t{head[2]} * sizeof(std::uint64_t);
    const std::uint64_t chains = buckets + std::uint64_t{head[0]} * sizeof(std::uint32_t);
    std::uint32_t index = 0;
    if (!get(buckets + hash % head[0] * sizeof index, index) || index < head[1]) return std::nullopt;
    for (std::size_t steps = 0; steps < MAX_CHAIN; ++steps, ++index) {
      std::uint32_t link = 0;
      if (!get(chains + std::uint64_t{index - head[1]} * sizeof link, link)) return std::nullopt;
      if ((link | 1) == (hash | 1)) {
        if (const auto symbol = symbolIfNamed(tables, index, name)) return symbol;
      }
      if ((link & 1) != 0) break;
    }
    return std::nullopt;
  }

  std::optional<Symbol> findByCount(const DynamicTables& tables, const char* name) {
    std::array<std::uint32_t, 2> head{};  // buckets, symbols
    if (!get(tables.sysvHash, head)) return std::nullopt;
    for (std::uint64_t i = 0; i < std::min<std::uint64_t>(head[1], MAX_CHAIN); ++i) {
      if (const auto symbol = symbolIfNamed(tables, i, name)) return symbol;
    }
    return std::nullopt;
  }

  const ProcessMemory& memory_;
  std::uint64_t base_;
  std::uint64_t bias_ = 0;
  int error_ = 0;
};

// One line of /proc/<pid>/maps: "start-end rights offset device inode   path". Answers the start when the beginning of
// a file named as wanted is mapped there.
std::optional<std::uint64_t> startIfNamed(std::string_view line, std::string_view prefix) {
  const std::size_t slash = line.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  const std::string_view path = line.substr(slash);
  if (!path.substr(path.rfind('/') + 1).starts_with(prefix)) return std::nullopt;
  const std::size_t rights = line.find(' ');
  const std::size_t offset = line.find(' ', rights + 1);
  if (offset == std::string_view::npos) return std::nullopt;
  std::uint64_t start = 0;
  std::uint64_t position = 0;
  const char* const end = line.data() + line.size();
  if (std::from_chars(line.data(), end, start, 16).ec != std::errc{}) return std::nullopt;
  if (std::from_chars(line.data() + offset + 1, end, position, 16).ec != std::errc{}) return std::nullopt;
  return position == 0 ? std::optional(start) : std::nullopt;
}

}  // namespace

int ProcessMemory::read(std::uint64_t address, std::span<std::byte> out) const {
  return transfer(pid_, address, out.data(), out.size(), Direction::READ);
}

int ProcessMemory::write(std::uint64_t address, std::span<const std::byte> data) const {
  std::vector<std::byte> copy(data.begin(), data.end());
  return transfer(pid_, address, copy.data(), copy.size(), Direction::WRITE);
}

int findLibraries(pid_t pid, std::string_view prefix, std::vector<std::uint64_t>& addresses) {
  const std::string name = "/proc/" + std::to_string(pid) + "/maps";
  errno = 0;
  std::ifstream maps(name);
  if (!maps) return errno == 0 ? EIO : errno == ENOENT ? ESRCH : errno;
  for (std::string line; std::getline(maps, line);) {
    if (const auto start = startIfNamed(line, prefix)) addresses.push_back(*start);
  }
  return 0;
}

std::optional<Symbol> findSymbol(const ProcessMemory& memory, std::uint64_t base, const char* name, int& error) {
  ElfImage image(memory, base);
  std::optional<Symbol> symbol = image.find(name);
  error = image.error();
  return symbol;
}

}  // namespace zontrace
