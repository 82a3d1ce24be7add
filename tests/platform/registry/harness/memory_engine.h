// An engine for tests that keeps its records in the memory of the process. It is as small as the promises allow, and
// shows that they do not rest on the file engine.
//
// The rule: it is reached as any other engine is, by a stub at the record file's name.
#pragma once

#include <filesystem>

namespace zon::test {

// Has the records under this name kept in memory from now on; there are none yet. They last as long as the process and
// no other one sees them.
void keepInMemory(const std::filesystem::path& recordFile);

}  // namespace zon::test
