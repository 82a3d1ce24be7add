// Reads and writes the memory of another process, and finds symbols of its libraries in it.
//
// The rule: whatever is read there may be anything. Every size is bounded and every address is only ever handed to the
// kernel.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace zontrace {

class ProcessMemory {
 public:
  explicit ProcessMemory(pid_t pid) : pid_(pid) {}

  // All or nothing. Return 0 or an errno value: EPERM or EACCES without a debugger's rights, EFAULT where nothing is
  // mapped, ESRCH when the process is gone.
  int read(std::uint64_t address, std::span<std::byte> out) const;
  int write(std::uint64_t address, std::span<const std::byte> data) const;

  template <class T>
  int readObject(std::uint64_t address, T& object) const {
    return read(address, std::as_writable_bytes(std::span(&object, 1)));
  }

 private:
  pid_t pid_;
};

// Addresses at which the beginning of a file is mapped whose name begins with `prefix`. Returns 0 or an errno value.
int findLibraries(pid_t pid, std::string_view prefix, std::vector<std::uint64_t>& addresses);

struct Symbol {
  std::uint64_t address;
  std::uint64_t size;
};

// Looks a data symbol up in the dynamic symbol table of the ELF file mapped at `base`. It reads the mapped table and
// not the file, which may have been replaced since, or lie in another file system namespace. `error` is the errno value
// of a refused reading, else 0.
std::optional<Symbol> findSymbol(const ProcessMemory& memory, std::uint64_t base, const char* name, int& error);

}  // namespace zontrace
