// Which engine serves a record file: the file engine, unless that meets a stub, which names another one.
//
// The rule: a file of the file engine pays nothing for the choice. The file engine is asked first; what its first read
// meets anyway tells whether it is the right one.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "platform/registry/engine.h"

namespace zon {

// Makes an engine for the records of settings.file; `stubSettings` is what the stub tells beside the engine's name.
using EngineMaker = std::uint32_t (*)(const EngineSettings& settings, std::string_view stubSettings,
                                      std::unique_ptr<RecordEngine>& engine);

// Lets stubs name this engine. Names are not given twice; one that is given again gets the newer maker.
void registerEngine(std::string_view name, EngineMaker maker);

using EngineWork = std::uint32_t (*)(void* work, RecordEngine& engine);

// Runs a piece of work on the engine that has the records. GENREG_RC_NO_ENGINE when this process has no such engine.
// The work may be begun on the file engine first, which then has neither answered nor changed anything.
[[nodiscard]] std::uint32_t callOnEngine(const EngineSettings& settings, EngineWork call, void* work);

template <class Work>
[[nodiscard]] std::uint32_t onEngine(const EngineSettings& settings, Work work) {
  const EngineWork call = [](void* erased, RecordEngine& engine) -> std::uint32_t {
    return (*static_cast<Work*>(erased))(engine);
  };
  return callOnEngine(settings, call, &work);
}

}  // namespace zon
