// What a writer works on: what its caller chose, and the files that it holds.
//
// The rule: the locks are taken in one order. The lock file first, then the record file itself (so that somebody who
// deletes the lock file cannot let two writers in), then the temporary file where one is made. Each is held by name:
// after locking, the name must still lead to the locked file.
#pragma once

#include <cstdint>
#include <utility>

#include "platform/registry/files/file_io.h"
#include "platform/registry/files/file_lock.h"
#include "platform/registry/files/file_paths.h"
#include "platform/registry/format/record_type.h"
#include "platform/registry/log/file_header.h"

namespace zon {

struct WriterSettings {
  FilePaths paths;
  std::uint32_t fileMode = 0666;
  std::uint32_t companionMode = 0666;
  std::uint32_t lockWaitMs = 0;
  bool repairs = true;
  bool keepsBackup = true;
  bool durable = true;
};

struct WriterFiles {
  WriterFiles(const RecordType& recordType, WriterSettings chosen)
      : type(recordType), settings(std::move(chosen)), deadline(nowMs() + settings.lockWaitMs) {}

  // In which run of the machine, and through which mount, a file is written.
  RunId runOf(const LockedFile& file) const { return {.boot = boot, .mount = file.state().mount}; }

  const RecordType type;
  const WriterSettings settings;
  const std::uint64_t deadline;
  BootId boot{};
  Descriptor directory;
  LockedFile lock;
  LockedFile data;
};

}  // namespace zon
