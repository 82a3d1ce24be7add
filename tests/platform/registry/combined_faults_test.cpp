// Operations whose system calls and allocations fail, in files to which something else has just happened
// (fault_scenes.h): what they deliver is true, and complete unless they answer a code that names the cause
// (fault_harness.h).
//
// ZON_FAULT_SCALE multiplies the share of failures that is tried; the seed is fixed unless ZON_FAULT_SEED tells
// another.
#include "platform/registry/harness/fault_harness.h"

namespace zon::test {
namespace {

class Faults : public ::testing::Test {
 protected:
  Faults() { prepareOperations(); }

  void sweep(const std::vector<Scene>& scenes, double share) {
    sweep_.setShare(share);
    for (const Scene& scene : scenes) {
      for (const Operation& operation : operations()) sweep_.failEverything(scene, operation);
    }
  }

  void readBeside(const std::vector<Scene>& scenes, double share) {
    sweep_.setShare(share);
    for (const Scene& scene : scenes) {
      for (const char* writer : {"add", "change", "remove group", "batch of many", "compact"}) {
        sweep_.readBeside(scene, operationNamed(writer));
      }
    }
  }

  const SettingScope<std::size_t> small_{largestData, SMALL_RECORDS};
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
  void sweepOn(const std::vector<Scene>& scenes, double share) { sweep(scenes, share * base().share); }
  void readBesideOn(const std::vector<Scene>& scenes, double share) { readBeside(scenes, share * base().share); }
};

TEST_P(FaultsOn, AFileThatNothingHappenedTo) { sweepOn({quietScene(disk_, base())}, 1); }

TEST_P(FaultsOn, AFileAfterAPowerCut) { sweepOn(powerCutScenes(disk_, base()), 0.03); }

TEST_P(FaultsOn, AFileThatWasMountedAnewWithoutItsCache) { sweepOn(remountScenes(disk_, base()), 0.015); }

TEST_P(FaultsOn, ADamagedFile) { sweepOn(damageScenes(disk_, base()), 0.02); }

TEST_P(FaultsOn, AFileOfWhichTheRecordAskedForIsHit) { sweepOn(hitRecordScenes(disk_, base()), 0.03); }

TEST_P(FaultsOn, AFileWhoseLastWriterDiedAdding) {
  sweepOn(deadWriterScenes(disk_, base(), operationNamed("add")), 0.01);
}

TEST_P(FaultsOn, AFileWhoseLastWriterDiedInALargeBatch) {
  sweepOn(deadWriterScenes(disk_, base(), operationNamed("batch of many")), 0.005);
}

TEST_P(FaultsOn, AFileAfterADeadWriterAndAPowerCut) {
  sweepOn(deadWriterCutScenes(disk_, base(), operationNamed("add")), 0.003);
  sweepOn(deadWriterCutScenes(disk_, base(), operationNamed("batch of many")), 0.003);
}

TEST_P(FaultsOn, AFileThatAnotherWriterChangesMeanwhile) { sweepOn(meanwhileScenes(disk_, base()), 0.06); }

TEST_P(FaultsOn, AFileThatIsReadBesideItsWriter) {
  readBesideOn({quietScene(disk_, base())}, 0.06);
  readBesideOn(powerCutScenes(disk_, base()), 0.01);
  readBesideOn(remountScenes(disk_, base()), 0.003);
  readBesideOn(deadWriterScenes(disk_, base(), operationNamed("batch of many")), 0.002);
}

INSTANTIATE_TEST_SUITE_P(Bases, FaultsOn, ::testing::Range<std::size_t>(0, bases().size()),
                         [](const auto& base) { return asTestName(bases()[base.param].name); });

TEST_F(Faults, OnAFileWhoseLastWriterDiedCompacting) {
  sweep(deadWriterScenes(disk_, baseNamed("compaction due"), operationNamed("compact")), 0.02);
  sweep(deadWriterCutScenes(disk_, baseNamed("compaction due"), operationNamed("compact")), 0.01);
}

TEST_F(Faults, OnAFileWhoseLastWriterDiedRemovingAGroup) {
  sweep(deadWriterScenes(disk_, baseNamed("group with a history"), operationNamed("remove group")), 0.02);
}

TEST_F(Faults, OnAFileOfAnotherOwner) {
  sweep({foreignScene(disk_, baseNamed("backup due")), foreignScene(disk_, baseNamed("compaction due"))}, 0.3);
}

TEST_F(Faults, OnAFileBesideATemporaryFileThatSomebodyLeft) {
  sweep({temporaryFileScene(disk_, baseNamed("backup due")), temporaryFileScene(disk_, baseNamed("compaction due"))},
        0.3);
}

TEST_F(Faults, OnAFileWhoseBackupIsNotInOrder) { sweep(backupScenes(disk_), 0.05); }

}  // namespace
}  // namespace zon::test
