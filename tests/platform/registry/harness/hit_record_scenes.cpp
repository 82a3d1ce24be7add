// Scenes of fault_scenes.h in which damage hits the very record that most operations are about, by a changed byte or by
// a sector of 4 KiB that cannot be read, which takes its neighbours along.
#include <algorithm>
#include <memory>
#include <span>

#include "platform/registry/format/format.h"
#include "platform/registry/format/frame.h"
#include "platform/registry/harness/fault_scenes.h"
#include "platform/registry/log/file_header.h"

namespace zon::test {
namespace {

constexpr std::size_t SECTOR = 4096;
constexpr std::size_t INDEXES = 2;
const Value BEHIND{"g1", "behind", "b"};

const Bytes& contentOf(const DiskImage& image, const std::string& name) {
  return *image.files.at(image.names.at(name));
}

template <class T>
T loadAt(const Bytes& bytes, std::size_t offset) {
  T value;
  std::memcpy(&value, &bytes[offset], sizeof value);
  return value;
}

// The frames that hold live records, in a file without history: truth in scan order.
std::vector<Frame> insertionsOf(const Bytes& bytes) {
  std::vector<Frame> insertions;
  const FrameKey key{.salt = saltOf(loadAt<format::FileHeader>(bytes, 0).fileId), .indexCount = INDEXES};
  Frame frame;
  for (std::uint64_t at = format::LOG_START; at < bytes.size(); at = frame.end()) {
    if (parseFrame(std::span(bytes).subspan(at), at, key, frame) != ParseResult::OK) break;
    if (frame.kind == format::FrameKind::INSERT) insertions.push_back(frame);
  }
  return insertions;
}

bool hasHistory(const Bytes& bytes) {
  return std::any_of(std::begin(format::SLOT_OFFSET), std::end(format::SLOT_OFFSET),
                     [&](std::uint64_t offset) { return loadAt<format::Slot>(bytes, offset).firstEvent != 0; });
}

bool isInBackup(const DiskImage& image, const Frame& frame) {
  if (!image.has(".store.bkp")) return false;
  const Bytes& file = contentOf(image, "store");
  const Bytes& backup = contentOf(image, ".store.bkp");
  return frame.end() <= backup.size() && std::equal(file.begin() + static_cast<std::ptrdiff_t>(frame.offset),
                                                    file.begin() + static_cast<std::ptrdiff_t>(frame.end()),
                                                    backup.begin() + static_cast<std::ptrdiff_t>(frame.offset));
}

// The base and one commit more: the newest one would be taken for torn by a power cut that tears the slot too.
Scene sceneBehind(SimulatedDisk& disk, const Base& base) {
  Scene scene = quietScene(disk, base);
  disk.boot(scene.image);
  disk.setBootNumber(scene.boot);
  TestStore store(DISK_FOLDER);
  EXPECT_EQ(store.add(BEHIND), MD_RC_OK);
  scene.truths.front().push_back(BEHIND);
  scene.image = disk.image();
  scene.cut = PowerCut(scene.image);
  scene.isDamaged = true;
  return scene;
}

Scene withByteChanged(Scene scene, const Frame& frame, const Value& record) {
  auto bytes = std::make_shared<Bytes>(contentOf(scene.image, "store"));
  spoilByte(*bytes, frame.end() - sizeof(std::uint64_t) - 1);
  scene.name += ", damage: the record asked for";
  if (!isInBackup(scene.image, frame)) scene.atRisk = {record};
  scene.mayRefuse = !scene.atRisk.empty();
  scene.image.files[scene.image.names.at("store")] = bytes;
  scene.cut = PowerCut(scene.image);
  return scene;
}

Scene withBadSector(Scene scene, const std::string& name, std::uint64_t sector, const std::vector<Frame>& insertions) {
  scene.name += ", bad sector: " + name;
  scene.badSectors = {{scene.image.names.at("store"), sector}};
  for (std::size_t at = 0; at < insertions.size(); ++at) {
    const Frame& frame = insertions[at];
    const bool isHit = frame.offset < (sector + 1) * SECTOR && frame.end() > sector * SECTOR;
    if (isHit && !isInBackup(scene.image, frame)) scene.atRisk.push_back(scene.truths.front()[at]);
  }
  scene.mayRefuse = true;
  return scene;
}

}  // namespace

std::vector<Scene> hitRecordScenes(SimulatedDisk& disk, const Base& base) {
  const Scene scene = sceneBehind(disk, base);
  const Values& truth = scene.truths.front();
  const Bytes& bytes = contentOf(scene.image, "store");
  const std::vector<Frame> insertions = insertionsOf(bytes);
  const bool isPlain = !hasHistory(bytes) && insertions.size() == truth.size();
  const auto first = std::find_if(truth.begin(), truth.end(),
                                  [](const Value& value) { return value.group == "g0" && value.key == "k0"; });
  if (!isPlain || first == truth.end()) return {};
  const Frame& asked = insertions[static_cast<std::size_t>(first - truth.begin())];
  std::vector<Scene> scenes{withByteChanged(scene, asked, *first)};
  scenes.push_back(withBadSector(scene, "the record asked for", asked.offset / SECTOR, insertions));
  scenes.push_back(withBadSector(scene, "where the log ends", insertions.back().end() / SECTOR, insertions));
  return scenes;
}

}  // namespace zon::test
