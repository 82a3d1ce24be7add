// Corrupt copies: what was damaged, or left without its file, is kept under a name of its own.
//
// The rule: nothing that has a name loses its last one here, whatever fails.
#pragma once

#include <cstdint>
#include <string>

#include "platform/registry/care/writer_files.h"

namespace zon {

// Durably gives the file of that name a second one, under which it is kept.
[[nodiscard]] std::uint32_t keepAsCorruptCopy(const WriterFiles& files, const std::string& name);

}  // namespace zon
