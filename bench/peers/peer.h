// The stores that compare_peers times, ours among them, behind one face: a store of texts under texts in one directory,
// opened for each call or held open.
//
// The rule: every peer does the same work. A change returns when a power cut cannot take it back; an insertion fails
// when the key is there, an update and a removal when it is not; a listing copies all keys and all data into two texts.
// Each is set as its documents say for that; what its files promise less is told in its note.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace peers {

struct Listing {
  std::string keys;
  std::string data;
  std::uint64_t count = 0;

  void add(const char* key, std::size_t keySize, const char* value, std::size_t valueSize) {
    keys.append(key, keySize).push_back('\x0e');
    data.append(value, valueSize).push_back('\x0e');
    ++count;
  }
  void clear() {
    keys = std::string();
    data = std::string();
    count = 0;
  }
};

// A store that is open. Every function throws when the store itself fails; false means that the key decided.
class Peer {
 public:
  virtual ~Peer() = default;
  Peer() = default;
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  virtual bool get(const std::string& key, std::string& data) = 0;
  virtual bool insert(const std::string& key, const std::string& data) = 0;
  virtual bool update(const std::string& key, const std::string& data) = 0;
  virtual bool remove(const std::string& key) = 0;
  virtual void list(Listing& listing) = 0;
  // Many insertions at once, durable at the end.
  virtual void load(std::uint64_t count,
                    const std::function<void(std::uint64_t, std::string&, std::string&)>& make) = 0;
};

struct Kind {
  const char* name;
  const char* note;  // what a reader of the figures should know; may be empty
  bool canBeShared;  // several processes may have it open at once
  std::function<std::unique_ptr<Peer>(const std::filesystem::path& directory, bool mayWrite)> open;
};

// All that this build knows, ours first.
std::vector<Kind> all();

Kind zonmdfile();
Kind sqlite();
Kind lmdb();
Kind gdbm();
Kind tdb();
Kind berkeleyDb();
Kind tkrzw();
Kind levelDb();
Kind rocksDb();

// Throws, with both texts, unless it holds.
void require(bool holds, const char* store, const char* what);

}  // namespace peers
