// Frames and slots with passing checksums that promise what cannot be.
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>
#include <span>
#include <string>
#include <vector>

#include "platform/registry/format/crc32c.h"
#include "platform/registry/format/format.h"
#include "platform/registry/format/frame.h"
#include "platform/registry/harness/damage_harness.h"
#include "platform/registry/harness/simulated_disk.h"
#include "platform/registry/harness/test_records.h"
#include "platform/registry/log/file_header.h"

namespace zon::test {
namespace {

// Frames with passing checksums that promise what cannot be.
class HostileFiles : public ::testing::Test {
 protected:
  // Every operation must end soon and answer something; no more is asked of such a file.
  void exercise(const std::string& what) {
    const auto start = std::chrono::steady_clock::now();
    TestStore store(folder_.path());
    Value value;
    std::uint32_t rc = MD_RC_OK;
    store.get("g", "k1", value);
    store.list(0, {}, &rc);
    store.list(GROUP, {"g", "", ""}, &rc);
    store.list(DATA, {"", "", "x"}, &rc);
    GenRegStatus status;
    static_cast<void>(store.status(status));
    store.add({"g", "added", "x"});
    store.change({"g", "k1", "changed"});
    store.remove("g", "k2");
    store.removeAll("g", "", GROUP);
    static_cast<void>(store.compact());
    static_cast<void>(store.repair());
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(took).count(), 5000) << what;
  }

  Bytes golden() {
    TestStore store(folder_.path());
    for (int at = 0; at < 8; ++at) {
      EXPECT_EQ(store.add({"g", "k" + std::to_string(at), noise(30, static_cast<unsigned>(at))}), MD_RC_OK);
    }
    EXPECT_EQ(store.change({"g", "k3", "other"}), MD_RC_OK);
    EXPECT_EQ(store.remove("g", "k4"), MD_RC_OK);
    std::ifstream file(folder_.file(), std::ios::binary);
    const std::string content((std::istreambuf_iterator<char>(file)), {});
    Bytes bytes(content.size());
    std::memcpy(bytes.data(), content.data(), content.size());
    return bytes;
  }

  void put(const Bytes& bytes) {
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) std::filesystem::remove(entry.path());
    std::ofstream file(folder_.file(), std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }

  static std::vector<std::uint64_t> frameOffsets(const Bytes& bytes, const FrameKey& key) {
    std::vector<std::uint64_t> offsets;
    Frame frame;
    for (std::uint64_t at = format::LOG_START; at + format::MAX_PREFIX_SIZE < bytes.size(); at = frame.end()) {
      if (parseFrame(std::span(bytes).subspan(at), at, key, frame) != ParseResult::OK) break;
      offsets.push_back(at);
    }
    return offsets;
  }

  // Makes the checksum of a frame's head right again.
  static void sealHead(Bytes& bytes, std::uint64_t offset, std::uint32_t prefixSize, const FrameKey& key) {
    const std::uint32_t crc = crc32c(checksumStart(key.salt, offset), bytes.data() + offset + 4, prefixSize - 4);
    storeAt(bytes, offset, crc);
  }

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
  TestFolder folder_{inMemory()};
};

TEST_F(HostileFiles, HeadsWithAnyNumberInAnyField) {
  const Bytes good = golden();
  const auto header = loadAt<format::FileHeader>(good, 0);
  const FrameKey key{.salt = saltOf(header.fileId), .indexCount = 2};
  const auto offsets = frameOffsets(good, key);
  ASSERT_GT(offsets.size(), 9u);
  std::vector<std::uint64_t> numbers{
      0, 1, 8, 4096, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF8, 0xFFFFFFFF, ~0ull << 3, 0x0000FFFFFFFFFFF8, 0};
  std::uint64_t cases = 0;
  for (const std::uint64_t offset : offsets) {
    Frame frame;
    ASSERT_EQ(parseFrame(std::span(good).subspan(offset), offset, key, frame), ParseResult::OK);
    numbers.back() = offset;  // a frame that leads to itself
    for (std::size_t field = 8; field + 4 <= frame.prefixSize; field += 4) {
      for (const std::uint64_t number : numbers) {
        Bytes bytes = good;
        storeAt(bytes, offset + field, static_cast<std::uint32_t>(number >> (field % 8 == 4 ? 32 : 0)));
        sealHead(bytes, offset, frame.prefixSize, key);
        put(bytes);
        ++cases;
        ASSERT_NO_FATAL_FAILURE(exercise("frame at " + std::to_string(offset) + " field " + std::to_string(field)));
        if (HasFailure()) return;
      }
    }
  }
  std::cout << "hostile heads " << cases << '\n';
}

TEST_F(HostileFiles, SlotsWithAnyNumberInAnyField) {
  const Bytes good = golden();
  const auto header = loadAt<format::FileHeader>(good, 0);
  const std::uint64_t numbers[] = {0, 1, 4096, 4097, 1 << 20, 0x7FFFFFFFFFF8, (1ull << 43) - 8, ~0ull};
  std::uint64_t cases = 0;
  for (std::size_t field = 8; field < offsetof(format::Slot, overlay); field += 8) {
    for (const std::uint64_t number : numbers) {
      Bytes bytes = good;
      for (const std::uint64_t at : format::SLOT_OFFSET) {
        auto slot = loadAt<format::Slot>(bytes, at);
        std::memcpy(reinterpret_cast<char*>(&slot) + field, &number, sizeof number);
        sealSlot(slot, saltOf(header.fileId));
        storeAt(bytes, at, slot);
      }
      put(bytes);
      ++cases;
      ASSERT_NO_FATAL_FAILURE(exercise("slot field " + std::to_string(field) + " = " + std::to_string(number)));
      if (HasFailure()) return;
    }
  }
  std::cout << "hostile slots " << cases << '\n';
}

// A long chain whose changes all concern different places: following it must not take time in the square of its length.
TEST_F(HostileFiles, ALongChainOfStrangers) {
  const SettingScope strangers(digestsCollide, true);
  {
    TestStore store(folder_.path());
    ASSERT_EQ(store.beginBatch(), MD_RC_OK);
    for (int at = 0; at < 300; ++at) ASSERT_EQ(store.add({"g", "k" + std::to_string(at), "x"}), MD_RC_OK);
    ASSERT_EQ(store.commitBatch(), MD_RC_OK);
  }
  exercise("300 strangers");
}

TEST_F(HostileFiles, HugeSparseFiles) {
  constexpr off_t TERABYTE = off_t{1} << 40;
  const Bytes good = golden();
  const auto growTo = [&](const std::filesystem::path& path) { return ::truncate(path.c_str(), TERABYTE); };
  put(good);
  if (growTo(folder_.file()) != 0) GTEST_SKIP() << "no sparse files of a terabyte here";
  exercise("a terabyte behind the log");
  put(good);
  Bytes spoilt = good;
  for (const std::uint64_t slot : format::SLOT_OFFSET) spoilByte(spoilt, slot + 20);
  put(spoilt);
  ASSERT_EQ(growTo(folder_.file()), 0);
  exercise("a terabyte without slots");
  put({});
  ASSERT_EQ(growTo(folder_.file()), 0);
  exercise("a terabyte of nothing");
  put(good);
  for (const char* name : {".store.bkp", "store.tmp", "store.cor"}) {
    std::ofstream(folder_.path() / name).put('x');
    ASSERT_EQ(growTo(folder_.path() / name), 0);
  }
  exercise("companions of a terabyte");
  put(spoilt);
  std::ofstream(folder_.path() / ".store.bkp").put('x');
  ASSERT_EQ(growTo(folder_.path() / ".store.bkp"), 0);
  exercise("no slots and a backup of a terabyte");
}

}  // namespace
}  // namespace zon::test
