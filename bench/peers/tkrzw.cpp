// Tkrzw: a hash database that appends, synced by hand after every change.
#include <tkrzw_dbm_hash.h>

#include "peers/peer.h"

namespace peers {

namespace {

constexpr const char* NAME = "Tkrzw";

class TkrzwPeer final : public Peer {
 public:
  TkrzwPeer(const std::filesystem::path& directory, bool mayWrite) : path_((directory / "tkrzw.tkh").string()) {
    open(mayWrite, tkrzw::File::OPEN_DEFAULT, 1);
  }
  ~TkrzwPeer() override { db_.Close(); }
  TkrzwPeer(const TkrzwPeer&) = delete;
  TkrzwPeer& operator=(const TkrzwPeer&) = delete;

  bool get(const std::string& key, std::string& data) override { return found(db_.Get(key, &data), "get"); }

  bool insert(const std::string& key, const std::string& data) override {
    const tkrzw::Status status = db_.Set(key, data, false);
    if (status == tkrzw::Status::DUPLICATION_ERROR) return false;
    require(status == tkrzw::Status::SUCCESS, NAME, "insert");
    return sync();
  }

  bool update(const std::string& key, const std::string& data) override {
    std::string before;
    if (!found(db_.Get(key, &before), "update")) return false;
    require(db_.Set(key, data) == tkrzw::Status::SUCCESS, NAME, "update");
    return sync();
  }

  bool remove(const std::string& key) override { return found(db_.Remove(key), "remove") && sync(); }

  void list(Listing& listing) override {
    const auto iterator = db_.MakeIterator();
    std::string key;
    std::string data;
    for (iterator->First(); iterator->Get(&key, &data) == tkrzw::Status::SUCCESS; iterator->Next()) {
      listing.add(key.data(), key.size(), data.data(), data.size());
    }
  }

  void load(std::uint64_t count, const std::function<void(std::uint64_t, std::string&, std::string&)>& make) override {
    // A listing goes through all buckets, so that their number has to fit.
    db_.Close();
    open(true, tkrzw::File::OPEN_TRUNCATE, static_cast<std::int64_t>(count * 2 + 1));
    std::string key;
    std::string data;
    for (std::uint64_t number = 0; number < count; ++number) {
      make(number, key, data);
      require(db_.Set(key, data, false) == tkrzw::Status::SUCCESS, NAME, "loading");
    }
    sync();
  }

 private:
  void open(bool mayWrite, std::int32_t options, std::int64_t buckets) {
    tkrzw::HashDBM::TuningParameters parameters;
    parameters.update_mode = tkrzw::HashDBM::UPDATE_APPENDING;
    parameters.num_buckets = buckets;
    require(db_.OpenAdvanced(path_, mayWrite, options, parameters) == tkrzw::Status::SUCCESS, NAME, "open");
  }

  static bool found(const tkrzw::Status& status, const char* what) {
    require(status == tkrzw::Status::SUCCESS || status == tkrzw::Status::NOT_FOUND_ERROR, NAME, what);
    return status == tkrzw::Status::SUCCESS;
  }

  bool sync() {
    require(db_.Synchronize(true) == tkrzw::Status::SUCCESS, NAME, "sync");
    return true;
  }

  std::string path_;
  tkrzw::HashDBM db_;
};

}  // namespace

Kind tkrzw() {
  return {NAME, "hash, appending, synchronised after each change", false,
          [](const std::filesystem::path& directory, bool mayWrite) {
            return std::make_unique<TkrzwPeer>(directory, mayWrite);
          }};
}

}  // namespace peers
