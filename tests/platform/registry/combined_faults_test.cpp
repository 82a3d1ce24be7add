// Readers whose system calls and allocations fail, in files to which something else has just happened (fault_scenes.h):
// what they deliver is true, and complete unless they answer a code that names the cause (fault_harness.h).
//
// ZON_FAULT_SCALE multiplies the share of failures that is tried; the seed is fixed unless ZON_FAULT_SEED tells
// another.
#include "fault_harness.h"

namespace zon::test {
namespace {

class Faults : public ::testing::Test {
 protected:
  Faults() {
    largestData = SMALL_RECORDS;
    prepareOperations();
  }
  ~Faults() override { largestData = MAX_DATA; }

  void sweep(const std::vector<Scene>& scenes, double share) {
    sweep_.setShare(share);
    for (const Scene& scene : scenes) {
      for (const char* reader : {"get", "get what is absent", "list", "list group", "status"}) {
        sweep_.failEverything(scene, operationNamed(reader));
      }
    }
  }

  SimulatedDisk disk_;
  FaultSweep sweep_{disk_};
};

std::string asTestName(const std::string& text) {
  std::string name = text;
  for (char& letter : name) letter = std::isalnum(static_cast<unsigned char>(letter)) != 0 ? letter : '_';
  return name;
}

class FaultsOn : public Faults, public ::testing::WithParamInterface<std::size_t> {
 protected:
  static const Base& base() { return bases()[GetParam()]; }
};

TEST_P(FaultsOn, AFileThatNothingHappenedTo) { sweep({quietScene(disk_, base())}, 1); }

TEST_P(FaultsOn, AFileAfterAPowerCut) { sweep(powerCutScenes(disk_, base()), 0.3); }

TEST_P(FaultsOn, ADamagedFile) { sweep(damageScenes(disk_, base()), 0.2); }

TEST_P(FaultsOn, AFileThatAnotherWriterChangesMeanwhile) { sweep(meanwhileScenes(disk_, base()), 0.5); }

TEST_P(FaultsOn, AFileThatIsReadBesideItsWriter) {
  sweep_.setShare(0.01);
  for (const char* writer : {"add", "change", "remove group", "batch of many", "compact"}) {
    sweep_.readBeside(quietScene(disk_, base()), operationNamed(writer));
  }
}

INSTANTIATE_TEST_SUITE_P(Bases, FaultsOn, ::testing::Range<std::size_t>(0, bases().size()),
                         [](const auto& base) { return asTestName(bases()[base.param].name); });

TEST_F(Faults, OnAFileOfAnotherOwner) {
  sweep({foreignScene(disk_, baseNamed("backup due")), foreignScene(disk_, baseNamed("compaction due"))}, 1);
}

TEST_F(Faults, OnAFileWhoseBackupIsNotInOrder) { sweep(backupScenes(disk_), 0.2); }

}  // namespace
}  // namespace zon::test
