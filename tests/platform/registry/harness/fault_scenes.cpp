// See fault_scenes.h. Dead writers are played by a disk that does nothing any more from some call on.
#include "platform/registry/harness/fault_scenes.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "platform/registry/format/format.h"
#include "platform/registry/harness/fault_stage.h"

namespace zon::test {
namespace {

constexpr const char* FILE_NAME = "store";
constexpr const char* BACKUP_NAME = ".store.bkp";
constexpr int CUT_SAMPLES = 6;

const Value ACKNOWLEDGED{"g1", "acknowledged", "a"};
const Value UNFINISHED{"g1", "unfinished", "never acknowledged"};

format::Slot slotAt(const Bytes& bytes, std::size_t number) {
  format::Slot slot;
  std::memcpy(&slot, &bytes[format::SLOT_OFFSET[number]], sizeof slot);
  return slot;
}

std::size_t newestSlot(const Bytes& bytes) { return slotAt(bytes, 1).sequence > slotAt(bytes, 0).sequence ? 1 : 0; }

// Where the text begins in the log; the size of the bytes when it is not there.
std::size_t positionOf(const Bytes& bytes, const std::string& text) {
  const auto* first = reinterpret_cast<const char*>(bytes.data());
  const auto found = std::search(first + format::LOG_START, first + bytes.size(), text.begin(), text.end());
  return static_cast<std::size_t>(found - first);
}

std::function<std::uint32_t(TestStore&)> asWork(const Operation& operation) {
  return [&operation](TestStore& store) { return operation.run(store).rc; };
}

}  // namespace

Scene quietScene(SimulatedDisk& disk, const Base& base) {
  Stage stage(disk);
  stage.make(base);
  return stage.scene(base.name);
}

Scene foreignScene(SimulatedDisk& disk, const Base& base) {
  Stage stage(disk);
  stage.make(base);
  stage.giveAway();
  return stage.scene(std::string(base.name) + ", of another owner");
}

namespace {

std::vector<Scene> lossScenes(SimulatedDisk& disk, const Base& base, Lost lost) {
  std::vector<Scene> scenes;
  const std::string name = std::string(base.name) + (lost == Lost::POWER ? ", power cut: " : ", mounted anew: ");
  {
    Stage stage(disk);
    stage.make(base);
    stage.add(ACKNOWLEDGED);
    stage.lose(lost, stage.cut().oldest());
    scenes.push_back(stage.scene(name + "the newest commit behind the slot"));
  }
  {
    Stage stage(disk);
    stage.make(base);
    stage.add(ACKNOWLEDGED);
    DiskImage image = stage.cut().oldest();
    const Bytes newest = stage.bytesOf(FILE_NAME);
    auto torn = std::make_shared<Bytes>(*image.files.at(image.names.at(FILE_NAME)));
    const auto slot = static_cast<std::ptrdiff_t>(format::SLOT_OFFSET[newestSlot(newest)]);
    std::fill_n(torn->begin() + slot, UNIT, std::byte{0xA5});
    image.files[image.names.at(FILE_NAME)] = torn;
    stage.lose(lost, image);
    scenes.push_back(stage.scene(name + "the newest slot torn"));
  }
  std::mt19937_64 random(7);
  for (int sample = 0; sample < CUT_SAMPLES; ++sample) {
    Stage stage(disk);
    stage.make(base);
    stage.add(ACKNOWLEDGED);
    // Dies after its first writes; with them the slot of the commit before may be old, new or torn.
    bool hasWritten = false;
    disk.fault = [&hasWritten, &disk](Call call) {
      hasWritten = hasWritten || call == Call::WRITE;
      if (call != Call::SYNC_DATA || !hasWritten) return 0;
      disk.isRecording = false;
      return EIO;
    };
    stage.act([](TestStore& store) { return store.add(UNFINISHED); });
    disk.fault = nullptr;
    stage.lose(lost, stage.cut().randomState(random));
    Scene scene = stage.scene(name + "in the middle of a change, " + std::to_string(sample));
    scene.truths.push_back(scene.truths.front());
    scene.truths.back().push_back(UNFINISHED);
    scenes.push_back(std::move(scene));
  }
  return scenes;
}

}  // namespace

std::vector<Scene> powerCutScenes(SimulatedDisk& disk, const Base& base) { return lossScenes(disk, base, Lost::POWER); }

std::vector<Scene> remountScenes(SimulatedDisk& disk, const Base& base) { return lossScenes(disk, base, Lost::MOUNT); }

namespace {

// A file of this base with one byte of it changed.
void spoilOne(Stage& stage, const std::string& name, std::size_t offset) {
  Bytes bytes = stage.bytesOf(name);
  spoilByte(bytes, offset);
  stage.replace(name, bytes);
}

// What damage may cost: the bystander where there is no backup, the last record also where the backup trails.
enum class Hits { NOTHING, BYSTANDER, LAST };

}  // namespace

std::vector<Scene> damageScenes(SimulatedDisk& disk, const Base& base) {
  std::vector<Scene> scenes;
  const std::string name = std::string(base.name) + ", damage: ";
  const auto damaged = [&](const std::string& what, const std::function<bool(Stage&)>& spoil, Hits hits,
                           bool mayRefuse) {
    Stage stage(disk);
    stage.make(base);
    if (!stage.has(FILE_NAME)) return;
    if (!spoil(stage)) return;
    const bool hasBackup = stage.has(BACKUP_NAME);
    Scene scene = stage.scene(name + what);
    scene.isDamaged = true;
    if (hits == Hits::BYSTANDER && !hasBackup) scene.atRisk = {bystander(stage.truth())};
    if (hits == Hits::LAST) scene.atRisk = {stage.truth().back()};
    scene.mayRefuse = mayRefuse || !scene.atRisk.empty();
    scenes.push_back(std::move(scene));
  };
  const auto at = [](std::size_t offset) {
    return [offset](Stage& stage) {
      spoilOne(stage, FILE_NAME, offset);
      return true;
    };
  };
  damaged("header", at(20), Hits::NOTHING, false);
  damaged("header's copy", at(format::HEADER_COPY_OFFSET + 20), Hits::NOTHING, false);
  damaged(
      "older slot",
      [](Stage& stage) {
        const std::size_t older = 1 - newestSlot(stage.bytesOf(FILE_NAME));
        spoilOne(stage, FILE_NAME, format::SLOT_OFFSET[older] + 20);
        return true;
      },
      Hits::NOTHING, true);
  damaged(
      "newest slot",
      [](Stage& stage) {
        spoilOne(stage, FILE_NAME, format::SLOT_OFFSET[newestSlot(stage.bytesOf(FILE_NAME))] + 20);
        return true;
      },
      Hits::NOTHING, true);
  damaged(
      "every block",
      [](Stage& stage) {
        Bytes bytes = stage.bytesOf(FILE_NAME);
        const std::size_t first = (format::LOG_START + format::BLOCK_SIZE) / format::BLOCK_SIZE * format::BLOCK_SIZE;
        for (std::size_t block = 0; block < 8; ++block) spoilByte(bytes, first + block * format::BLOCK_SIZE + 1);
        stage.replace(FILE_NAME, bytes);
        return true;
      },
      Hits::NOTHING, false);
  damaged(
      "a live record",
      [](Stage& stage) {
        const Bytes bytes = stage.bytesOf(FILE_NAME);
        const std::size_t offset = positionOf(bytes, bystander(stage.truth()).data);
        if (offset == bytes.size()) return false;
        // In the newest commit it would be taken for torn by a power cut that tears the slot.
        if (offset >= slotAt(bytes, 1 - newestSlot(bytes)).end) stage.add(ACKNOWLEDGED);
        spoilOne(stage, FILE_NAME, offset);
        return true;
      },
      Hits::BYSTANDER, false);
  damaged(
      "cut short",
      [](Stage& stage) {
        stage.add(ACKNOWLEDGED);
        Bytes bytes = stage.bytesOf(FILE_NAME);
        bytes.resize(positionOf(bytes, ACKNOWLEDGED.key));
        stage.replace(FILE_NAME, bytes);
        return true;
      },
      Hits::LAST, true);
  damaged(
      "an old form",
      [](Stage& stage) {
        const Bytes bytes = stage.bytesOf(FILE_NAME);
        const std::size_t offset = positionOf(bytes, noise(7000, 3).substr(0, 1000));
        if (offset < bytes.size()) spoilOne(stage, FILE_NAME, offset);
        return offset < bytes.size();
      },
      Hits::NOTHING, true);
  return scenes;
}

std::vector<Scene> deadWriterScenes(SimulatedDisk& disk, const Base& base, const Operation& dying) {
  std::vector<Scene> scenes;
  std::set<std::uint64_t> seen;
  for (std::size_t number = 0;; ++number) {
    Stage stage(disk);
    stage.make(base);
    const bool died = stage.dieBefore(number, asWork(dying));
    Scene scene = stage.scene(std::string(base.name) + ", dead writer: " + dying.name + " before its call " +
                              std::to_string(number));
    scene.truths = dying.expect(stage.truth()).states;
    if (!died) return scenes;
    if (seen.insert(scene.image.hash()).second) scenes.push_back(std::move(scene));
  }
}

std::vector<Scene> deadWriterCutScenes(SimulatedDisk& disk, const Base& base, const Operation& dying) {
  std::vector<Scene> scenes;
  std::set<std::uint64_t> seen;
  std::mt19937_64 random(11);
  for (Scene& scene : deadWriterScenes(disk, base, dying)) {
    const std::string name = scene.name;
    for (const DiskImage& image : {scene.cut.oldest(), scene.cut.newest(), scene.cut.randomState(random)}) {
      if (!seen.insert(image.hash()).second) continue;
      Scene cut = scene;
      cut.name = name + ", power cut " + std::to_string(scenes.size());
      cut.image = image;
      ++cut.boot;
      cut.cut = PowerCut(image);
      scenes.push_back(std::move(cut));
    }
  }
  return scenes;
}

std::vector<Scene> meanwhileScenes(SimulatedDisk& disk, const Base& base) {
  std::vector<Scene> scenes;
  for (const Meanwhile meanwhile : {Meanwhile::ADDS, Meanwhile::COMPACTS}) {
    Scene scene = quietScene(disk, base);
    scene.name += meanwhile == Meanwhile::ADDS ? ", another writer adds" : ", another writer compacts";
    scene.meanwhile = meanwhile;
    scenes.push_back(std::move(scene));
  }
  return scenes;
}

Scene temporaryFileScene(SimulatedDisk& disk, const Base& base) {
  Stage stage(disk);
  stage.make(base);
  stage.replace("store.tmp", Bytes(5000, std::byte{7}));
  return stage.scene(std::string(base.name) + ", beside a temporary file");
}

std::vector<Scene> backupScenes(SimulatedDisk& disk) {
  std::vector<Scene> scenes;
  const Base& base = baseNamed("backup behind");
  // `spoil`, and then the file itself is damaged as well.
  const auto with = [&](const std::string& what, const std::function<void(Stage&)>& spoil, bool backupHelps) {
    for (const bool fileIsDamaged : {false, true}) {
      Stage stage(disk);
      stage.make(base);
      spoil(stage);
      if (fileIsDamaged) {
        const Bytes bytes = stage.bytesOf(FILE_NAME);
        spoilOne(stage, FILE_NAME, positionOf(bytes, bystander(stage.truth()).data));
      }
      Scene scene = stage.scene("backup " + what + (fileIsDamaged ? ", file damaged" : ""));
      scene.isDamaged = fileIsDamaged;
      if (fileIsDamaged && !backupHelps) scene.atRisk = {bystander(stage.truth())};
      scene.mayRefuse = !scene.atRisk.empty();
      scenes.push_back(std::move(scene));
    }
  };
  with(
      "in order", [](Stage&) {}, true);
  with(
      "gone", [](Stage& stage) { stage.remove(BACKUP_NAME); }, false);
  with(
      "empty", [](Stage& stage) { stage.replace(BACKUP_NAME, {}); }, false);
  with(
      "cut",
      [](Stage& stage) {
        Bytes bytes = stage.bytesOf(BACKUP_NAME);
        bytes.resize(format::LOG_START + 200);
        stage.replace(BACKUP_NAME, bytes);
      },
      false);
  with(
      "without a header", [](Stage& stage) { spoilOne(stage, BACKUP_NAME, 20); }, true);
  with(
      "damaged in the same record",
      [](Stage& stage) {
        spoilOne(stage, BACKUP_NAME, positionOf(stage.bytesOf(BACKUP_NAME), bystander(stage.truth()).data) + 3);
      },
      false);
  with(
      "damaged in another record",
      [](Stage& stage) { spoilOne(stage, BACKUP_NAME, positionOf(stage.bytesOf(BACKUP_NAME), noise(600, 4)) + 3); },
      true);
  return scenes;
}

}  // namespace zon::test
