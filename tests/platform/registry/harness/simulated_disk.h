// A disk in memory behind the table of system calls: what was written is not durable before it is synced, so that a
// test can ask for every content that a power cut could leave. One disk at a time, one thread.
//
// The rule of the model: names are durable after a sync of the directory, bytes and sizes after a sync of the file. Of
// what is not, any part may be lost, unit by unit of 512 bytes; a unit that was durable before keeps its old content or
// takes a newer one, one that never was may also hold zeros or garbage. The two sectors of 4096 bytes of a header page
// are units as well, which may hold anything at any time while they are written. After a failed sync the pages
// concerned count as clean: no later sync makes them durable unless they are written again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace zon::test {

using Bytes = std::vector<std::byte>;
using Content = std::shared_ptr<const Bytes>;

constexpr std::size_t UNIT = 512;
constexpr const char* DISK_FOLDER = "/disk";  // the one folder; names in it have no further '/'

// Who may do what with a file. They are durable at once.
struct Rights {
  unsigned mode = 0100600;
  unsigned owner = 0;
  unsigned group = 0;
  Bytes accessList;
};

// Names and file contents, as they are at one moment.
struct DiskImage {
  std::map<std::string, std::uint64_t> names;
  std::map<std::uint64_t, Content> files;
  std::map<std::uint64_t, Rights> rights;  // of the files that have others than a new one

  // Of names and of the contents that they lead to.
  std::uint64_t hash() const;
  bool has(const std::string& name) const { return names.contains(name); }
};

// What was asked of the disk, in order.
struct DiskOp {
  enum class Kind { WRITE, RESIZE, SYNC_FILE, SYNC_FAILED, BIND, UNBIND, RENAME, SYNC_NAMES };
  Kind kind;
  std::uint64_t inode = 0;
  std::uint64_t offset = 0;  // of WRITE; the new size of RESIZE
  Bytes bytes;
  std::string name;
  std::string from;  // of RENAME
};

// The calls that a fault can be put into.
enum class Call {
  OPEN,
  DUPLICATE,
  READ,
  WRITE,
  SYNC_DATA,
  SYNC,
  ALLOCATE,
  TRUNCATE,
  LOCK,
  STAT,
  RENAME,
  LINK,
  UNLINK,
  CHANGE_MODE,
  CHANGE_OWNER,
  RANDOM,
  GET_ATTRIBUTE,
  SET_ATTRIBUTE,
  REMOVE_ATTRIBUTE,
};
constexpr std::size_t CALL_COUNT = 19;
const char* nameOf(Call call);

// While it lives, the engine works on this disk and on nothing else.
class SimulatedDisk {
 public:
  SimulatedDisk();
  ~SimulatedDisk();
  SimulatedDisk(const SimulatedDisk&) = delete;
  SimulatedDisk& operator=(const SimulatedDisk&) = delete;

  DiskImage image() const;
  // The machine starts anew with this content: another boot id, no open files, no locks.
  void boot(const DiskImage& content);
  // All processes are gone, the machine is not: open files and locks vanish, written bytes stay.
  void killProcesses();
  // What this disk holds in another run of the machine of that number; for going back to an earlier run.
  void setBootNumber(unsigned number) { bootNumber_ = number; }
  // What is random begins anew, so that the same work asks for the same calls.
  void reseed(std::uint64_t seed = 20240607) { random_.seed(seed); }
  unsigned bootNumber() const { return bootNumber_; }
  // The file system is mounted anew with this content while the machine goes on: what was not durable may be gone.
  void remount(const DiskImage& content);
  void setMountNumber(unsigned number) { mountNumber_ = number; }
  unsigned mountNumber() const { return mountNumber_; }

  std::vector<DiskOp> log;
  bool isRecording = false;

  // Asked before every call; what it answers, if not 0, is the errno of a call that fails without effect.
  std::function<int(Call)> fault;
  // A write that fails has written what lies in the first half of its pages, and then says so: within one page writing
  // is all or nothing.
  bool failsHalfDone = false;
  bool wasHalfDone = false;
  // Places that cannot be read: files by their inodes, and numbers of 4 KiB sectors.
  std::set<std::pair<std::uint64_t, std::uint64_t>> badSectors;
  // Whether the system tells its runs apart; without it there is no boot id to read.
  bool tellsBoots = true;
  // With what the opening of the boot id fails, where it is there; 0 for nothing.
  int bootIdError = 0;
  // Whether the system tells one mount from the next.
  bool tellsMounts = true;
  // At most so many bytes by one read or write; 0 for no limit.
  std::size_t mostBytes = 0;

  // One more than the process's limit of a file's size; 0 for no limit. Whoever passes it would be killed.
  std::uint64_t mostFileSize = 0;
  bool isLimitPassed = false;

  // How much all files together may have; 0 for no limit. What a file has it keeps, a write into it never fails for it.
  std::uint64_t capacity = 0;

  std::size_t openDescriptors() const { return descriptors_.size(); }
  std::size_t callCount() const { return calls_; }

 private:
  friend struct SimulatedCalls;
  struct Inode {
    std::shared_ptr<Bytes> bytes = std::make_shared<Bytes>();
    std::uint64_t number = 0;
    Rights rights;
  };
  struct Open {
    std::shared_ptr<Inode> inode;  // null: the folder
    bool isBootId = false;
  };

  int failing(Call call);
  bool passesLimit(std::uint64_t size);
  bool hasRoom(std::uint64_t more) const;
  void record(DiskOp op);
  Open* find(int descriptor);
  Bytes& writable(Inode& inode);
  // How many of `count` bytes from `from` can be read before a bad sector is met.
  std::size_t readableBytes(const Inode& inode, std::size_t from, std::size_t count) const;
  unsigned linkCount(const Inode& inode) const;

  std::map<std::string, std::shared_ptr<Inode>> names_;
  std::map<int, Open> descriptors_;
  std::map<std::uint64_t, int> locks_;  // inode -> descriptor
  std::uint64_t nextInode_ = 10;
  int nextDescriptor_ = 1000;
  unsigned bootNumber_ = 1;
  unsigned mountNumber_ = 1;
  std::size_t calls_ = 0;
  std::uint64_t clockNs_ = 1000000000;
  std::mt19937_64 random_{20240607};
};

// Follows a log and tells what a power cut could leave at its present point.
class PowerCut {
 public:
  explicit PowerCut(DiskImage durable) : durable_(std::move(durable)) {}

  void follow(const DiskOp& op);

  // How many choices there are; capped at 2^40.
  std::uint64_t stateCount() const;
  // The state of a number below stateCount().
  DiskImage state(std::uint64_t number) const;
  DiskImage randomState(std::mt19937_64& random) const;
  // Nothing that was not synced, or all of it.
  DiskImage oldest() const;
  DiskImage newest() const;
  // All of it but one choice, or one choice alone; number below choiceCount().
  std::size_t choiceCount() const { return choices().size(); }
  DiskImage newestBut(std::size_t number) const;
  DiskImage oldestBut(std::size_t number) const;

 private:
  struct PendingUnit {
    std::vector<Bytes> versions;  // oldest first, the durable one not among them
    bool mayBeAnything = false;
    bool isTakenForClean = false;
  };
  struct PendingFile {
    std::vector<std::uint64_t> sizes;
    std::map<std::uint64_t, PendingUnit> units;  // by offset
  };
  // One part of a state: a name operation, a file's size or a unit, with the number of forms that it can take. The
  // first form is the durable one, the last the newest.
  struct Choice {
    enum class Kind { NAME, FILE_SIZE, FILE_UNIT } kind;
    std::uint64_t inode;
    std::uint64_t at;
    std::uint64_t forms;
    std::uint64_t newest;
  };

  std::vector<Choice> choices() const;
  DiskImage build(const std::vector<Choice>& list, const std::vector<std::uint64_t>& forms) const;
  Bytes unitOf(std::uint64_t inode, std::uint64_t from) const;
  const Bytes* durableBytes(std::uint64_t inode) const;
  void followWrite(const DiskOp& op);
  void followSync(std::uint64_t inode);

  DiskImage durable_;
  std::map<std::uint64_t, PendingFile> files_;
  std::vector<DiskOp> names_;
};

}  // namespace zon::test
