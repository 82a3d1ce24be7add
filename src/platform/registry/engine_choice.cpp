// See engine_choice.h. That a stub takes a file's place, or a file a stub's, while somebody looks is part of moving
// records from one engine to the other.
#include "platform/registry/engine_choice.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/registry/file_engine.h"
#include "platform/registry/files/file_io.h"
#include "platform/registry/files/stub.h"

namespace zon {

namespace {

// What changes its nature so often while it is looked at has something wrong with it.
constexpr int MOST_LOOKS = 20;

class EngineNames {
 public:
  void add(std::string_view name, EngineMaker maker) {
    const std::lock_guard lock(mutex_);
    const auto found = std::ranges::find(makers_, name, &Named::first);
    if (found != makers_.end()) {
      found->second = maker;
    } else {
      makers_.emplace_back(name, maker);
    }
  }
  EngineMaker find(std::string_view name) {
    const std::lock_guard lock(mutex_);
    const auto found = std::ranges::find(makers_, name, &Named::first);
    return found != makers_.end() ? found->second : nullptr;
  }

 private:
  using Named = std::pair<std::string, EngineMaker>;
  std::mutex mutex_;
  std::vector<Named> makers_;
};

EngineNames& engineNames() {
  static EngineNames names;
  return names;
}

// GENREG_RC_NOT_RECORD_FILE when it is no stub that stands there now.
std::uint32_t readStub(const char* path, Stub& stub) {
  Descriptor file;
  if (const std::uint32_t rc = openRegular(AT_FDCWD, path, O_RDONLY, 0, file)) return rc;
  FileState state;
  if (const std::uint32_t rc = stateOf(file.get(), state)) return rc;
  std::array<std::byte, format::STUB_FILE_SIZE> bytes{};
  std::size_t got = 0;
  if (const std::uint32_t rc = readAt(file.get(), 0, bytes, got)) return rc == RC_UNREADABLE ? GENREG_RC_IO_ERROR : rc;
  return stub.take(std::span(bytes).first(got), state.size);
}

std::uint32_t callOnNamedEngine(const EngineSettings& settings, const Stub& stub, EngineWork call, void* work) {
  const EngineMaker maker = engineNames().find(stub.engine());
  if (maker == nullptr) return GENREG_RC_NO_ENGINE;
  std::unique_ptr<RecordEngine> engine;
  if (const std::uint32_t rc = maker(settings, stub.settings(), engine)) return rc;
  return call(work, *engine);
}

}  // namespace

void registerEngine(std::string_view name, EngineMaker maker) { engineNames().add(name, maker); }

std::uint32_t callOnEngine(const EngineSettings& settings, EngineWork call, void* work) {
  if (settings.hasLostNames) return GENREG_RC_NO_MEMORY;
  for (int look = 0; look < MOST_LOOKS; ++look) {
    FileEngine files(settings);
    if (const std::uint32_t rc = call(work, files); rc != RC_STUB) return rc;
    Stub stub;
    const std::uint32_t rc = readStub(settings.names.file.data(), stub);
    if (rc == MD_RC_OK) return callOnNamedEngine(settings, stub, call, work);
    // A file has taken the stub's place, or none has.
    if (rc != GENREG_RC_NOT_RECORD_FILE && rc != GENREG_RC_NOT_FOUND) return rc;
  }
  return GENREG_RC_SYSTEM_ERROR;
}

}  // namespace zon
