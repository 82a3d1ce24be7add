// Berkeley DB: a B-tree in a transactional environment, each change committed by a synced log.
#include <db.h>

#include <algorithm>
#include <cstring>

#include "peers/peer.h"

namespace peers {

namespace {

constexpr const char* NAME = "Berkeley DB";
constexpr std::uint32_t CACHE = 64 << 20;

DBT dbtOf(const std::string& text) {
  DBT dbt;
  std::memset(&dbt, 0, sizeof dbt);
  dbt.data = const_cast<char*>(text.data());
  dbt.size = static_cast<std::uint32_t>(text.size());
  return dbt;
}

class BerkeleyPeer final : public Peer {
 public:
  BerkeleyPeer(const std::filesystem::path& directory, bool) {
    require(db_env_create(&environment_, 0) == 0, NAME, "making");
    environment_->set_cachesize(environment_, 0, CACHE, 1);
    constexpr std::uint32_t FLAGS = DB_CREATE | DB_INIT_MPOOL | DB_INIT_LOCK | DB_INIT_LOG | DB_INIT_TXN;
    require(environment_->open(environment_, directory.c_str(), FLAGS, 0600) == 0, NAME, "open");
    require(db_create(&db_, environment_, 0) == 0, NAME, "making");
    require(db_->open(db_, nullptr, "berkeley.db", nullptr, DB_BTREE, DB_CREATE | DB_AUTO_COMMIT, 0600) == 0, NAME,
            "open");
  }
  ~BerkeleyPeer() override {
    db_->close(db_, 0);
    environment_->close(environment_, 0);
  }
  BerkeleyPeer(const BerkeleyPeer&) = delete;
  BerkeleyPeer& operator=(const BerkeleyPeer&) = delete;

  bool get(const std::string& key, std::string& data) override {
    DBT name = dbtOf(key);
    DBT value;
    std::memset(&value, 0, sizeof value);
    const int rc = db_->get(db_, nullptr, &name, &value, 0);
    require(rc == 0 || rc == DB_NOTFOUND, NAME, "get");
    if (rc == 0) data.assign(static_cast<const char*>(value.data), value.size);
    return rc == 0;
  }

  bool insert(const std::string& key, const std::string& data) override {
    return inTransaction([&](DB_TXN* transaction) {
      DBT name = dbtOf(key);
      DBT value = dbtOf(data);
      return db_->put(db_, transaction, &name, &value, DB_NOOVERWRITE) == 0;
    });
  }

  bool update(const std::string& key, const std::string& data) override {
    return inTransaction([&](DB_TXN* transaction) {
      DBT name = dbtOf(key);
      if (db_->exists(db_, transaction, &name, 0) != 0) return false;
      DBT value = dbtOf(data);
      return db_->put(db_, transaction, &name, &value, 0) == 0;
    });
  }

  bool remove(const std::string& key) override {
    return inTransaction([&](DB_TXN* transaction) {
      DBT name = dbtOf(key);
      return db_->del(db_, transaction, &name, 0) == 0;
    });
  }

  void list(Listing& listing) override {
    DBC* cursor = nullptr;
    require(db_->cursor(db_, nullptr, &cursor, 0) == 0, NAME, "listing");
    DBT key;
    DBT value;
    std::memset(&key, 0, sizeof key);
    std::memset(&value, 0, sizeof value);
    while (cursor->get(cursor, &key, &value, DB_NEXT) == 0) {
      listing.add(static_cast<const char*>(key.data), key.size, static_cast<const char*>(value.data), value.size);
    }
    cursor->close(cursor);
  }

  void load(std::uint64_t count, const std::function<void(std::uint64_t, std::string&, std::string&)>& make) override {
    std::string key;
    std::string data;
    constexpr std::uint64_t AT_ONCE = 500;  // a transaction holds a lock for each page
    for (std::uint64_t number = 0; number < count;) {
      const bool isDone = inTransaction([&](DB_TXN* transaction) {
        for (const std::uint64_t end = std::min(count, number + AT_ONCE); number < end; ++number) {
          make(number, key, data);
          DBT name = dbtOf(key);
          DBT value = dbtOf(data);
          if (db_->put(db_, transaction, &name, &value, DB_NOOVERWRITE) != 0) return false;
        }
        return true;
      });
      require(isDone, NAME, "loading");
    }
    require(environment_->txn_checkpoint(environment_, 0, 0, DB_FORCE) == 0, NAME, "loading");
  }

 private:
  template <class Work>
  bool inTransaction(Work&& work) {
    DB_TXN* transaction = nullptr;
    require(environment_->txn_begin(environment_, nullptr, &transaction, DB_TXN_SYNC) == 0, NAME, "begin");
    if (!work(transaction)) {
      transaction->abort(transaction);
      return false;
    }
    require(transaction->commit(transaction, 0) == 0, NAME, "commit");
    return true;
  }

  DB_ENV* environment_ = nullptr;
  DB* db_ = nullptr;
};

}  // namespace

Kind berkeleyDb() {
  return {NAME, "transactional environment, synced log", false,
          [](const std::filesystem::path& directory, bool mayWrite) {
            return std::make_unique<BerkeleyPeer>(directory, mayWrite);
          }};
}

}  // namespace peers
