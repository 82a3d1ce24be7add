// TDB: each change in a transaction of its own, which syncs.
// sys/types.h and signal.h come before tdb.h, which uses what they declare.
#include <fcntl.h>
#include <signal.h>
#include <sys/types.h>

#include <cstdlib>

extern "C" {
#include <tdb.h>
}

#include "peers/peer.h"

namespace peers {

namespace {

constexpr const char* NAME = "TDB";
constexpr int HASH_SIZE = 10007;

TDB_DATA dataOf(const std::string& text) {
  return {reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())), text.size()};
}

class TdbPeer final : public Peer {
 public:
  TdbPeer(const std::filesystem::path& directory, bool mayWrite)
      : file_(tdb_open((directory / "tdb.db").c_str(), HASH_SIZE, TDB_DEFAULT, mayWrite ? O_RDWR | O_CREAT : O_RDONLY,
                       0600)) {
    require(file_ != nullptr, NAME, "open");
  }
  ~TdbPeer() override { tdb_close(file_); }
  TdbPeer(const TdbPeer&) = delete;
  TdbPeer& operator=(const TdbPeer&) = delete;

  bool get(const std::string& key, std::string& data) override {
    const TDB_DATA value = tdb_fetch(file_, dataOf(key));
    if (value.dptr == nullptr) return false;
    data.assign(reinterpret_cast<const char*>(value.dptr), value.dsize);
    std::free(value.dptr);
    return true;
  }

  bool insert(const std::string& key, const std::string& data) override {
    return inTransaction([&] { return tdb_store(file_, dataOf(key), dataOf(data), TDB_INSERT) == 0; });
  }

  bool update(const std::string& key, const std::string& data) override {
    return inTransaction([&] { return tdb_store(file_, dataOf(key), dataOf(data), TDB_MODIFY) == 0; });
  }

  bool remove(const std::string& key) override {
    return inTransaction([&] { return tdb_delete(file_, dataOf(key)) == 0; });
  }

  void list(Listing& listing) override {
    const auto add = [](TDB_CONTEXT*, TDB_DATA key, TDB_DATA value, void* into) {
      static_cast<Listing*>(into)->add(reinterpret_cast<const char*>(key.dptr), key.dsize,
                                       reinterpret_cast<const char*>(value.dptr), value.dsize);
      return 0;
    };
    require(tdb_traverse_read(file_, add, &listing) >= 0, NAME, "listing");
  }

  void load(std::uint64_t count, const std::function<void(std::uint64_t, std::string&, std::string&)>& make) override {
    require(tdb_transaction_start(file_) == 0, NAME, "loading");
    std::string key;
    std::string data;
    for (std::uint64_t number = 0; number < count; ++number) {
      make(number, key, data);
      require(tdb_store(file_, dataOf(key), dataOf(data), TDB_INSERT) == 0, NAME, "loading");
    }
    require(tdb_transaction_commit(file_) == 0, NAME, "loading");
  }

 private:
  template <class Work>
  bool inTransaction(Work&& work) {
    require(tdb_transaction_start(file_) == 0, NAME, "begin");
    if (!work()) {
      tdb_transaction_cancel(file_);
      return false;
    }
    require(tdb_transaction_commit(file_) == 0, NAME, "commit");
    return true;
  }

  TDB_CONTEXT* file_;
};

}  // namespace

Kind tdb() {
  return {NAME, "a transaction for each change", true, [](const std::filesystem::path& directory, bool mayWrite) {
            return std::make_unique<TdbPeer>(directory, mayWrite);
          }};
}

}  // namespace peers
