// Spoils record files and looks at what is left of them, as a reader and as a writer. What must hold: no crash, no
// hang, no wrong answer given as a right one; a record that was there is found, or its loss is told; with a current
// backup nothing is lost; the first writer keeps the damaged file as the corrupt copy and goes on.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "platform/registry/format/format.h"
#include "platform/registry/format/frame.h"
#include "platform/registry/harness/simulated_disk.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {

constexpr std::size_t SMALL_RECORDS = 4096;
const Value PROBE{"probe", "probe", "p"};

template <class T>
T loadAt(const Bytes& bytes, std::size_t at) {
  T value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

template <class T>
void storeAt(Bytes& bytes, std::size_t at, const T& value) {
  std::memcpy(bytes.data() + at, &value, sizeof value);
}

class DamagedFiles : public ::testing::Test {
 protected:
  ~DamagedFiles() override;

  // A file with records that were changed, renamed and removed.
  void makeSmall();

  // A file whose backup holds all of it.
  void makeWithBackup();

  void note(std::uint32_t rc) { EXPECT_EQ(rc, MD_RC_OK); }

  void take();

  const Bytes& bytesOf(const std::string& name) const { return *golden_.files.at(golden_.names.at(name)); }

  // The last frame of a kind in the file that was taken.
  Frame lastFrame(format::FrameKind kind) const;

  // What was taken, with these bytes in the place of the file.
  void bootWith(const Content& bytes);
  void bootWithFlipped(std::uint64_t offset);
  // The file that was taken, with 16 bytes overwritten.
  std::shared_ptr<Bytes> spoiltAt(std::size_t offset) const;
  void fail(const std::string& what);

  // Puts these bytes in the place of the file and looks at them as a reader and as a writer.
  void check(const std::string& where, const std::shared_ptr<Bytes>& bytes, const std::string& name = "store");
  bool wasOnceThere(const Value& value) const;
  void checkReader();
  void checkWriter(const std::shared_ptr<Bytes>& damaged);
  void checkUntouched(const std::shared_ptr<Bytes>& bytes);

  // Damages a record of whose data this is the beginning.
  static void spoilText(Bytes& bytes, const std::string& text);
  void spoilEveryByte();
  void cutEveryLength(std::size_t from);

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
  SimulatedDisk disk_;
  DiskImage golden_;
  unsigned boot_ = 1;
  Values truth_;
  Values history_;
  Values gone_;
  std::uint64_t used_ = 0;
  bool hasBackup_ = false;
  bool isEndKnown_ = true;  // of a file that is checked
  std::string where_;
  int failures_ = 0;
  std::uint64_t cases_ = 0;
  std::uint64_t repaired_ = 0;
};

}  // namespace zon::test
