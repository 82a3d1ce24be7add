// LevelDB: every write synced.
#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include "peers/log_trees.h"

namespace peers {

namespace {

struct Library {
  static constexpr const char* NAME = "LevelDB";
  using DB = leveldb::DB;
  using Options = leveldb::Options;
  using ReadOptions = leveldb::ReadOptions;
  using WriteOptions = leveldb::WriteOptions;
  using WriteBatch = leveldb::WriteBatch;
  using Iterator = leveldb::Iterator;
};

}  // namespace

Kind levelDb() {
  return {Library::NAME, "sync = true", false, [](const std::filesystem::path& directory, bool) {
            return std::make_unique<LogTreePeer<Library>>(directory / "leveldb");
          }};
}

}  // namespace peers
