// RocksDB: every write synced.
#include <rocksdb/db.h>
#include <rocksdb/write_batch.h>

#include "peers/log_trees.h"

namespace peers {

namespace {

struct Library {
  static constexpr const char* NAME = "RocksDB";
  using DB = rocksdb::DB;
  using Options = rocksdb::Options;
  using ReadOptions = rocksdb::ReadOptions;
  using WriteOptions = rocksdb::WriteOptions;
  using WriteBatch = rocksdb::WriteBatch;
  using Iterator = rocksdb::Iterator;
};

}  // namespace

Kind rocksDb() {
  return {Library::NAME, "sync = true", false, [](const std::filesystem::path& directory, bool) {
            return std::make_unique<LogTreePeer<Library>>(directory / "rocksdb");
          }};
}

}  // namespace peers
