// Builds a log in a file that nobody sees yet: nothing of it is synced before the last step.
//
// The rule: the file counts for nothing until finish() has answered 0.
#pragma once

#include <cstdint>

#include "platform/registry/log/bloom_filter.h"
#include "platform/registry/log/log_appender.h"
#include "platform/registry/log/log_room.h"
#include "platform/registry/log/log_view.h"
#include "platform/registry/log/slot_writer.h"

namespace zon {

// What a new log is going to hold; too little does no harm.
struct ExpectedRecords {
  std::uint64_t records = 0;
  std::uint64_t bytes = 0;  // of their frames
};

class LogBuilder {
 public:
  LogBuilder(LogParts& log, LogRoom& room, SlotWriter& slots, LogAppender& appender, std::uint64_t records);
  LogBuilder(const LogBuilder&) = delete;
  LogBuilder& operator=(const LogBuilder&) = delete;
  ~LogBuilder() { appender_.skipSearchesBy(nullptr); }

  // In an empty file, with room for so much.
  [[nodiscard]] std::uint32_t begin(int file, const format::FileHeader& header, const ExpectedRecords& expected);
  // Writes out what waits.
  [[nodiscard]] std::uint32_t spill();
  // Everything is on the disk when it answers 0.
  [[nodiscard]] std::uint32_t finish();

 private:
  [[nodiscard]] std::uint32_t writeTail();
  [[nodiscard]] std::uint32_t placeHeads();

  LogParts& log_;
  LogRoom& room_;
  SlotWriter& slots_;
  LogAppender& appender_;
  BloomFilter known_;
};

}  // namespace zon
