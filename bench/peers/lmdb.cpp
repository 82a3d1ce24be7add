// LMDB with its own settings, which sync every commit.
#include <lmdb.h>

#include "peers/peer.h"

namespace peers {

namespace {

constexpr const char* NAME = "LMDB";
constexpr std::size_t MAP_SIZE = std::size_t{16} << 30;

MDB_val valueOf(const std::string& text) { return {text.size(), const_cast<char*>(text.data())}; }

class LmdbPeer final : public Peer {
 public:
  LmdbPeer(const std::filesystem::path& directory, bool mayWrite) {
    require(mdb_env_create(&environment_) == 0, NAME, "making");
    mdb_env_set_mapsize(environment_, MAP_SIZE);
    const unsigned flags = mayWrite ? 0U : unsigned{MDB_RDONLY};
    require(mdb_env_open(environment_, directory.c_str(), flags, 0600) == 0, NAME, "open");
    Transaction transaction(environment_, mayWrite ? 0U : unsigned{MDB_RDONLY});
    require(mdb_dbi_open(transaction.get(), nullptr, 0, &table_) == 0, NAME, "open");
    transaction.commit();
  }
  ~LmdbPeer() override { mdb_env_close(environment_); }
  LmdbPeer(const LmdbPeer&) = delete;
  LmdbPeer& operator=(const LmdbPeer&) = delete;

  bool get(const std::string& key, std::string& data) override {
    Transaction transaction(environment_, MDB_RDONLY);
    MDB_val name = valueOf(key);
    MDB_val value = {};
    const int rc = mdb_get(transaction.get(), table_, &name, &value);
    require(rc == 0 || rc == MDB_NOTFOUND, NAME, "get");
    if (rc == 0) data.assign(static_cast<const char*>(value.mv_data), value.mv_size);
    return rc == 0;
  }

  bool insert(const std::string& key, const std::string& data) override {
    Transaction transaction(environment_, 0);
    return put(transaction, key, data, MDB_NOOVERWRITE) && transaction.commit();
  }

  bool update(const std::string& key, const std::string& data) override {
    Transaction transaction(environment_, 0);
    MDB_val name = valueOf(key);
    MDB_val value = {};
    const int rc = mdb_get(transaction.get(), table_, &name, &value);
    require(rc == 0 || rc == MDB_NOTFOUND, NAME, "update");
    return rc == 0 && put(transaction, key, data, 0) && transaction.commit();
  }

  bool remove(const std::string& key) override {
    Transaction transaction(environment_, 0);
    MDB_val name = valueOf(key);
    const int rc = mdb_del(transaction.get(), table_, &name, nullptr);
    require(rc == 0 || rc == MDB_NOTFOUND, NAME, "remove");
    return rc == 0 && transaction.commit();
  }

  void list(Listing& listing) override {
    Transaction transaction(environment_, MDB_RDONLY);
    MDB_cursor* cursor = nullptr;
    require(mdb_cursor_open(transaction.get(), table_, &cursor) == 0, NAME, "listing");
    MDB_val key = {};
    MDB_val value = {};
    while (mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == 0) {
      listing.add(static_cast<const char*>(key.mv_data), key.mv_size, static_cast<const char*>(value.mv_data),
                  value.mv_size);
    }
    mdb_cursor_close(cursor);
  }

  void load(std::uint64_t count, const std::function<void(std::uint64_t, std::string&, std::string&)>& make) override {
    Transaction transaction(environment_, 0);
    std::string key;
    std::string data;
    for (std::uint64_t number = 0; number < count; ++number) {
      make(number, key, data);
      require(put(transaction, key, data, MDB_NOOVERWRITE), NAME, "loading");
    }
    transaction.commit();
  }

 private:
  class Transaction {
   public:
    Transaction(MDB_env* environment, unsigned flags) {
      require(mdb_txn_begin(environment, nullptr, flags, &transaction_) == 0, NAME, "begin");
    }
    ~Transaction() {
      if (transaction_ != nullptr) mdb_txn_abort(transaction_);
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    MDB_txn* get() const { return transaction_; }
    bool commit() {
      require(mdb_txn_commit(transaction_) == 0, NAME, "commit");
      transaction_ = nullptr;
      return true;
    }

   private:
    MDB_txn* transaction_ = nullptr;
  };

  bool put(const Transaction& transaction, const std::string& key, const std::string& data, unsigned flags) const {
    MDB_val name = valueOf(key);
    MDB_val value = valueOf(data);
    const int rc = mdb_put(transaction.get(), table_, &name, &value, flags);
    require(rc == 0 || rc == MDB_KEYEXIST, NAME, "put");
    return rc == 0;
  }

  MDB_env* environment_ = nullptr;
  MDB_dbi table_ = 0;
};

}  // namespace

Kind lmdb() {
  return {NAME, "", true, [](const std::filesystem::path& directory, bool mayWrite) {
            return std::make_unique<LmdbPeer>(directory, mayWrite);
          }};
}

}  // namespace peers
