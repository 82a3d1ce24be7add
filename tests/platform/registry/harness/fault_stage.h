// The stage that the scenes of fault_scenes.h are set on: writers on a disk, and what a power cut could leave of their
// work.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "platform/registry/harness/fault_scenes.h"
#include "platform/registry/harness/simulated_disk.h"

namespace zon::test {

enum class Lost { POWER, MOUNT };

// Runs writers on the disk and follows what a power cut could leave.
class Stage {
 public:
  explicit Stage(SimulatedDisk& disk) : disk_(disk) {
    disk_.fault = nullptr;
    disk_.mostBytes = 0;
    disk_.badSectors.clear();
    disk_.boot(DiskImage{});
    disk_.setBootNumber(1);
    disk_.setMountNumber(1);
    disk_.reseed();
  }

  void make(const Base& base) {
    static std::map<std::string, Stage> made;
    const auto found = made.find(base.name);
    if (found != made.end()) {
      disk_.boot(found->second.image_);
      disk_.setBootNumber(1);
      cut_ = found->second.cut_;
      truth_ = found->second.truth_;
      return;
    }
    act([&](TestStore& store) {
      base.make(store);
      return MD_RC_OK;
    });
    truth_ = list();
    image_ = disk_.image();
    made.try_emplace(base.name, *this);
  }

  std::uint32_t act(const std::function<std::uint32_t(TestStore&)>& work) {
    disk_.log.clear();
    disk_.isRecording = true;
    std::uint32_t rc = MD_RC_OK;
    {
      TestStore store(DISK_FOLDER);
      rc = work(store);
    }
    follow();
    return rc;
  }

  void add(const Value& value) {
    EXPECT_EQ(act([&](TestStore& store) { return store.add(value); }), MD_RC_OK);
    truth_.push_back(value);
  }

  // The process dies before its call of that number. Whether it lived so long.
  bool dieBefore(std::size_t number, const std::function<std::uint32_t(TestStore&)>& work) {
    std::size_t count = 0;
    disk_.fault = [&count, number, this](Call) {
      if (count++ < number) return 0;
      disk_.isRecording = false;
      return EIO;
    };
    act(work);
    disk_.fault = nullptr;
    disk_.killProcesses();
    return count > number;
  }

  // What was not durable is lost, by a power cut or with the device.
  void lose(Lost lost, const DiskImage& image) {
    if (lost == Lost::POWER) {
      disk_.boot(image);
    } else {
      disk_.remount(image);
    }
    cut_ = PowerCut(image);
  }

  // The disk gives back something else than was written, and no crash changes that.
  void replace(const std::string& name, const Bytes& bytes) {
    DiskImage image = disk_.image();
    const std::uint64_t inode = image.has(name) ? image.names.at(name) : 5000 + image.names.size();
    image.names[name] = inode;
    image.files[inode] = std::make_shared<Bytes>(bytes);
    place(image);
  }
  void remove(const std::string& name) {
    DiskImage image = disk_.image();
    image.names.erase(name);
    place(image);
  }

  void giveAway() {
    DiskImage image = disk_.image();
    for (auto& [inode, rights] : image.rights)
      rights = Rights{.mode = 0100640, .owner = 7, .group = 8, .accessList = Bytes(44, std::byte{1})};
    place(image);
  }

  Values list() {
    TestStore store(DISK_FOLDER);
    return listAll(store).delivered;
  }

  Scene scene(std::string name) {
    Scene scene;
    scene.name = std::move(name);
    scene.image = disk_.image();
    scene.boot = disk_.bootNumber();
    scene.mount = disk_.mountNumber();
    scene.cut = cut_;
    scene.truths = {truth_};
    return scene;
  }

  PowerCut& cut() { return cut_; }
  const Values& truth() const { return truth_; }
  SimulatedDisk& disk() { return disk_; }
  bool has(const std::string& name) const { return disk_.image().has(name); }
  Bytes bytesOf(const std::string& name) const {
    const DiskImage image = disk_.image();
    return *image.files.at(image.names.at(name));
  }

 private:
  void follow() {
    disk_.isRecording = false;
    for (const DiskOp& op : disk_.log) cut_.follow(op);
    disk_.log.clear();
  }

  void place(const DiskImage& image) {
    const unsigned boot = disk_.bootNumber();
    disk_.boot(image);
    disk_.setBootNumber(boot);
    cut_ = PowerCut(image);
  }

  SimulatedDisk& disk_;
  DiskImage image_;  // of the base
  PowerCut cut_{DiskImage{}};
  Values truth_;
};

}  // namespace zon::test
