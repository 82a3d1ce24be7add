// GDBM with a sync after every change. Its files are not written so that a power cut in the midst of a change is
// harmless (the mode for that needs a file system that copies by reference), which a comparison of costs should say.
#include <gdbm.h>

#include <cstdlib>

#include "peers/peer.h"

namespace peers {

namespace {

constexpr const char* NAME = "GDBM";

datum datumOf(const std::string& text) { return {const_cast<char*>(text.data()), static_cast<int>(text.size())}; }

class GdbmPeer final : public Peer {
 public:
  GdbmPeer(const std::filesystem::path& directory, bool mayWrite)
      : file_(gdbm_open((directory / "gdbm.db").c_str(), 0, mayWrite ? GDBM_WRCREAT : GDBM_READER, 0600, nullptr)) {
    require(file_ != nullptr, NAME, "open");
  }
  ~GdbmPeer() override { gdbm_close(file_); }
  GdbmPeer(const GdbmPeer&) = delete;
  GdbmPeer& operator=(const GdbmPeer&) = delete;

  bool get(const std::string& key, std::string& data) override {
    const datum value = gdbm_fetch(file_, datumOf(key));
    if (value.dptr == nullptr) return false;
    data.assign(value.dptr, static_cast<std::size_t>(value.dsize));
    std::free(value.dptr);
    return true;
  }

  bool insert(const std::string& key, const std::string& data) override {
    const int rc = gdbm_store(file_, datumOf(key), datumOf(data), GDBM_INSERT);
    require(rc >= 0, NAME, "insert");
    return rc == 0 && sync();
  }

  bool update(const std::string& key, const std::string& data) override {
    if (gdbm_exists(file_, datumOf(key)) == 0) return false;
    require(gdbm_store(file_, datumOf(key), datumOf(data), GDBM_REPLACE) == 0, NAME, "update");
    return sync();
  }

  bool remove(const std::string& key) override { return gdbm_delete(file_, datumOf(key)) == 0 && sync(); }

  void list(Listing& listing) override {
    for (datum key = gdbm_firstkey(file_); key.dptr != nullptr;) {
      const datum value = gdbm_fetch(file_, key);
      require(value.dptr != nullptr, NAME, "listing");
      listing.add(key.dptr, static_cast<std::size_t>(key.dsize), value.dptr, static_cast<std::size_t>(value.dsize));
      const datum next = gdbm_nextkey(file_, key);
      std::free(value.dptr);
      std::free(key.dptr);
      key = next;
    }
  }

  void load(std::uint64_t count, const std::function<void(std::uint64_t, std::string&, std::string&)>& make) override {
    std::string key;
    std::string data;
    for (std::uint64_t number = 0; number < count; ++number) {
      make(number, key, data);
      require(gdbm_store(file_, datumOf(key), datumOf(data), GDBM_INSERT) == 0, NAME, "loading");
    }
    sync();
  }

 private:
  // By hand, since the flag GDBM_SYNC leaves out changes within a bucket that is in memory.
  bool sync() {
    require(gdbm_sync(file_) == 0, NAME, "sync");
    return true;
  }

  GDBM_FILE file_;
};

}  // namespace

Kind gdbm() {
  return {NAME, "gdbm_sync after each change; no promise for a power cut within one", false,
          [](const std::filesystem::path& directory, bool mayWrite) {
            return std::make_unique<GdbmPeer>(directory, mayWrite);
          }};
}

}  // namespace peers
