// The ring reader against rings of the real writer, whole and damaged in every way.
#include "ring_reader.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "platform/oss/trace_writer.h"
#include "print_recording.h"
#include "support/spoil.h"
#include "traced_process.h"

namespace {

using namespace zon::trace_ring;
using Condition = zontrace::Recording::Condition;
using zontrace::Recording;
using Bytes = std::vector<std::byte>;

constexpr std::uint32_t POINT = 451415003;

zon::TraceEvent entryEvent() { return {1, POINT, 1000000, ENTRY, 0, 0, nullptr, 0}; }
zon::TraceEvent exitEvent(std::uint32_t rc) { return {1, POINT, 0, EXIT, EVENT_HAS_RESULT, rc, nullptr, 0}; }
zon::TraceEvent valueEvent(const std::string& value) {
  return {1, POINT, 10, VARIABLE, 0, value.size(), value.data(), value.size()};
}

class RingReader : public testing::Test {
 protected:
  void SetUp() override {
    std::memset(&writer_, 0, sizeof writer_);
    ASSERT_EQ(writer_.open(file().c_str(), MIN_EVENT_BYTES, true, identity_), 0);
  }
  void TearDown() override { writer_.close(); }

  std::string file() const { return folder_.file("ring"); }

  Bytes bytes() const {
    std::ifstream stream(file(), std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(stream)), {});
    Bytes all(text.size());
    std::memcpy(all.data(), text.data(), text.size());
    return all;
  }

  // Calls with a short value, a long one and none.
  void writeSample(int rounds) {
    for (int i = 0; i < rounds; ++i) {
      writer_.write(entryEvent());
      writer_.write(valueEvent("key"));
      writer_.write(valueEvent(std::string(200, 'v')));
      writer_.write(exitEvent(0));
    }
  }

  static std::string printed(const Recording& recording) {
    std::ostringstream out;
    zontrace::printRecording(recording, zontrace::Output::TEXT, out);
    zontrace::printRecording(recording, zontrace::Output::JSON, out);
    return out.str();
  }

  RingFolder folder_;
  zon::RingWriter writer_;
  zon::RingIdentity identity_{};
};

TEST_F(RingReader, AFreshRingIsIntactAndEmpty) {
  const Recording recording = zontrace::readRing(file());
  EXPECT_EQ(recording.condition, Condition::INTACT);
  EXPECT_TRUE(recording.events.empty());
}

TEST_F(RingReader, ValuesOfEveryLengthComeBackUpToTheLimit) {
  for (std::size_t length = 0; length < MAX_VALUE_BYTES + 10; ++length) {
    std::string value(length, '\0');
    for (std::size_t i = 0; i < length; ++i) value[i] = static_cast<char>('a' + i % 26);
    writer_.write(valueEvent(value));
    const Recording recording = zontrace::readRing(file());
    ASSERT_EQ(recording.condition, Condition::INTACT) << length;
    ASSERT_EQ(recording.events.back().value, value.substr(0, MAX_VALUE_BYTES)) << length;
    ASSERT_EQ(recording.events.back().sizeOrResult, length);
  }
}

TEST_F(RingReader, AFileCutAnywhereIsReportedAndItsWholeSlotsAreRead) {
  writeSample(10);
  const Bytes whole = bytes();
  const std::size_t dense = HEADER_BYTES + 14 * SLOT_BYTES;
  std::size_t before = 0;
  for (std::size_t size = 0; size<whole.size(); size += size> HEADER_BYTES && size < dense ? 1 : 61) {
    const std::span<const std::byte> part = std::span(whole).first(size);
    const Recording recording = zontrace::parseRing(part, part);
    ASSERT_EQ(recording.condition, size < HEADER_BYTES ? Condition::NOT_A_RING : Condition::DAMAGED) << size;
    ASSERT_GE(recording.events.size(), before) << size;
    before = recording.events.size();
    ASSERT_FALSE(printed(recording).empty());
  }
  EXPECT_EQ(before, 40U);
}

TEST_F(RingReader, AnyFlippedByteIsSurvived) {
  writeSample(10);
  const Bytes whole = bytes();
  Bytes damaged = whole;
  std::size_t reported = 0;
  for (std::size_t at = 0; at < HEADER_BYTES + 14 * SLOT_BYTES; ++at) {
    if (at == 160) at = HEADER_BYTES;  // the header's rest is reserved
    for (const unsigned mask : {0x01U, 0xFFU}) {
      damaged[at] ^= std::byte(mask);
      const Recording recording = zontrace::parseRing(damaged, damaged);
      if (recording.condition != Condition::INTACT) ++reported;
      ASSERT_LE(recording.events.size(), 41U);
      ASSERT_FALSE(printed(recording).empty());
      damaged[at] = whole[at];
    }
  }
  EXPECT_GT(reported, 300U);
}

TEST_F(RingReader, RandomBytesBehindAGoodHeaderAreSurvived) {
  writeSample(1);
  Bytes damaged = bytes();
  std::uint64_t state = 88172645463325252;
  for (std::size_t at = HEADER_BYTES; at < damaged.size(); ++at) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    damaged[at] = std::byte(state & 0xFF);
  }
  const Recording recording = zontrace::parseRing(damaged, damaged);
  EXPECT_EQ(recording.condition, Condition::DAMAGED);
  EXPECT_FALSE(printed(recording).empty());
}

TEST_F(RingReader, ADamagedSlotLeavesTheOthersReadable) {
  writeSample(10);
  Bytes damaged = bytes();
  zontest::spoilByte(damaged, HEADER_BYTES + 3);  // the seal of the first entry
  const Recording recording = zontrace::parseRing(damaged, damaged);
  EXPECT_EQ(recording.condition, Condition::DAMAGED);
  EXPECT_EQ(recording.damaged, 1U);
  EXPECT_EQ(recording.events.size(), 39U);
}

TEST_F(RingReader, AnEventWithoutItsSealIsUnfinished) {
  writeSample(1);
  Bytes killed = bytes();
  const std::uint64_t busy = SEAL_BUSY | 1;
  std::memcpy(killed.data() + HEADER_BYTES, &busy, sizeof busy);
  const Recording recording = zontrace::parseRing(killed, killed);
  EXPECT_EQ(recording.condition, Condition::INTACT);
  EXPECT_EQ(recording.unfinished, 1U);
  EXPECT_EQ(recording.events.size(), 3U);
}

TEST_F(RingReader, ASlotThatChangesWhileItIsReadIsLeftOut) {
  writeSample(1);
  const Bytes first = bytes();
  Bytes second = first;
  zontest::spoilByte(second, HEADER_BYTES + 10);
  const Recording recording = zontrace::parseRing(first, second);
  EXPECT_EQ(recording.unfinished, 1U);
  EXPECT_EQ(recording.events.size(), 3U);
}

TEST_F(RingReader, ALaterFormatIsLeftToItsOwnTool) {
  Bytes later = bytes();
  later[8] = std::byte{2};
  const Recording recording = zontrace::parseRing(later, later);
  EXPECT_EQ(recording.condition, Condition::DAMAGED);
  EXPECT_NE(recording.problem.find("later release"), std::string::npos);
}

TEST_F(RingReader, ADirectoryOrDeviceIsNoRing) {
  EXPECT_EQ(zontrace::readRing("/dev/zero").condition, Condition::NOT_A_RING);
  EXPECT_EQ(zontrace::readRing("/tmp").condition, Condition::NOT_A_RING);
}

TEST_F(RingReader, AWriterThatLagsAWholeRingBehindDropsItsEvent) {
  writeSample(1);
  auto* const slots = static_cast<std::byte*>(writer_.mapping()) + HEADER_BYTES;
  const std::uint64_t busy = SEAL_BUSY | 1;
  std::memcpy(slots, &busy, sizeof busy);  // as if its writer had stopped in the midst of slot 0
  for (std::uint64_t i = 0; i < MIN_EVENT_BYTES / SLOT_BYTES; ++i) writer_.write(entryEvent());
  const Recording recording = zontrace::readRing(file());
  EXPECT_EQ(recording.dropped, 1U);
  EXPECT_EQ(recording.unfinished, 1U);
}

TEST_F(RingReader, ConcurrentWritersAndALiveReaderSeeOnlyWholeEvents) {
  std::vector<std::jthread> threads;
  for (std::uint64_t thread = 1; thread <= 4; ++thread) {
    threads.emplace_back([this, thread](const std::stop_token& stop) {
      const std::string value(20 * thread, static_cast<char>('0' + thread));
      while (!stop.stop_requested()) {
        writer_.write({thread, POINT, 10, VARIABLE, 0, value.size(), value.data(), value.size()});
      }
    });
  }
  std::size_t seen = 0;
  // On a busy machine the writers may start late.
  for (int i = 0; i < 100 || (seen == 0 && i < 10000); ++i) {
    if (seen == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const Recording recording = zontrace::readRing(file());
    ASSERT_EQ(recording.condition, Condition::INTACT) << recording.problem;
    for (const zontrace::Event& event : recording.events) {
      const std::string whole(20 * event.thread, static_cast<char>('0' + event.thread));
      ASSERT_EQ(event.value, whole.substr(0, event.value.size()));
      ++seen;
    }
  }
  EXPECT_GT(seen, 0U);
}

TEST_F(RingReader, OpeningRefusesRelativeNamesAndSizesOutOfBounds) {
  zon::RingWriter other;
  std::memset(&other, 0, sizeof other);
  EXPECT_EQ(other.open("relative", MIN_EVENT_BYTES, false, identity_), EINVAL);
  EXPECT_EQ(other.open(folder_.file("b").c_str(), MIN_EVENT_BYTES - 1, false, identity_), EINVAL);
  EXPECT_EQ(other.open(folder_.file("b").c_str(), MAX_EVENT_BYTES + 1, false, identity_), EINVAL);
  EXPECT_FALSE(other.isOpen());
}

TEST_F(RingReader, AnotherProcessesRingIsNotReused) {
  zon::RingWriter other;
  std::memset(&other, 0, sizeof other);
  zon::RingIdentity stranger = identity_;
  stranger.pid += 1;
  EXPECT_EQ(other.open(file().c_str(), MIN_EVENT_BYTES, false, stranger), EEXIST);
}

}  // namespace
