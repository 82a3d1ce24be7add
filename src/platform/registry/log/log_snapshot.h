// One committed state of a record file, for readers: it stays as it is whatever writers append meanwhile.
//
// The rule: visible means durable, and nothing is written to find out.
#pragma once

#include <cstdint>

#include "platform/registry/format/answer.h"
#include "platform/registry/log/log_view.h"

namespace zon {

class LogSnapshot {
 public:
  explicit LogSnapshot(const RecordType& type) : log_(type) {}

  // Reads the header and chooses the newest published state. When the machine was started anew since then, or the file
  // system mounted anew, it is rolled forward over complete commits that lie behind it, which are made durable. The
  // descriptor stays the caller's and must outlive the snapshot.
  [[nodiscard]] std::uint32_t open(int file);

  const LogView& view() const { return log_.view; }

 private:
  // Whether the state can be believed; if not, a writer is at work, and all begins anew.
  Answer<bool> openOnce(int file);
  Answer<bool> rollForwardBeside(bool isOtherRun);

  LogParts log_;
};

}  // namespace zon
