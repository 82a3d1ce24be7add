// What has just happened to a record file when an operation begins: a base (a file as some history left it), and on top
// of it a power cut, damage, a writer that died at some call, another writer who is at work, or a backup that is not
// what it should be.
//
// The rule: a scene holds the disk as processes see it and, apart from that, what a power cut would leave of it; and it
// tells which records must be there.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/registry/harness/fault_operations.h"
#include "platform/registry/harness/simulated_disk.h"

namespace zon::test {

// What another writer does between an operation's first call and its lock.
enum class Meanwhile { NOTHING, ADDS, COMPACTS };

struct Scene {
  std::string name;
  DiskImage image;
  unsigned boot = 1;
  unsigned mount = 1;
  PowerCut cut{DiskImage{}};
  // What may be there; a reader decides. More than one when a change was never acknowledged.
  std::vector<Values> truths;
  bool isDamaged = false;
  std::set<std::pair<std::uint64_t, std::uint64_t>> badSectors;
  // Records that damage may have cost, as no intact copy of them is left.
  Values atRisk;
  // Where the log ended is not known, or a frame of no record is gone: a reader may refuse to answer for all of it.
  bool mayRefuse = false;
  Meanwhile meanwhile = Meanwhile::NOTHING;
};

struct Base {
  const char* name;
  std::function<void(TestStore&)> make;
  double share = 1;  // of the failures that other bases get: less where each run of an operation is dear
};
const std::vector<Base>& bases();
const Base& baseNamed(const std::string& name);

// The scenes that begin with this base. All leave the disk in no particular state.
Scene quietScene(SimulatedDisk& disk, const Base& base);
std::vector<Scene> powerCutScenes(SimulatedDisk& disk, const Base& base);
// The cache is lost as by a power cut, but the machine goes on: the file system is mounted anew.
std::vector<Scene> remountScenes(SimulatedDisk& disk, const Base& base);
std::vector<Scene> damageScenes(SimulatedDisk& disk, const Base& base);
// The record (g0, k0) is hit, which most operations are about: a byte of it, or its sector; and the sector in which the
// log ends. For bases whose records were never changed.
std::vector<Scene> hitRecordScenes(SimulatedDisk& disk, const Base& base);
// The writer of `dying` is killed before each of its calls in turn.
std::vector<Scene> deadWriterScenes(SimulatedDisk& disk, const Base& base, const Operation& dying);
// A dead writer, and then a power cut.
std::vector<Scene> deadWriterCutScenes(SimulatedDisk& disk, const Base& base, const Operation& dying);
std::vector<Scene> meanwhileScenes(SimulatedDisk& disk, const Base& base);
// All files belong to another user, and have an access list.
Scene foreignScene(SimulatedDisk& disk, const Base& base);
// Somebody left something under the temporary name.
Scene temporaryFileScene(SimulatedDisk& disk, const Base& base);
std::vector<Scene> backupScenes(SimulatedDisk& disk);

}  // namespace zon::test
