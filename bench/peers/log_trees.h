// LevelDB and RocksDB have the same interface under two names; what they do here is written once.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "peers/peer.h"

namespace peers {

// Library: the types DB, Options, ReadOptions, WriteOptions, WriteBatch and Status, and NAME.
template <class Library>
class LogTreePeer final : public Peer {
 public:
  explicit LogTreePeer(const std::filesystem::path& path) {
    typename Library::Options options;
    options.create_if_missing = true;
    typename Library::DB* db = nullptr;
    check(Library::DB::Open(options, path.string(), &db), "open");
    db_.reset(db);
    durable_.sync = true;
  }

  bool get(const std::string& key, std::string& data) override {
    const auto status = db_->Get(typename Library::ReadOptions(), key, &data);
    require(status.ok() || status.IsNotFound(), Library::NAME, "get");
    return status.ok();
  }

  bool insert(const std::string& key, const std::string& data) override {
    std::string before;
    if (get(key, before)) return false;
    check(db_->Put(durable_, key, data), "insert");
    return true;
  }

  bool update(const std::string& key, const std::string& data) override {
    std::string before;
    if (!get(key, before)) return false;
    check(db_->Put(durable_, key, data), "update");
    return true;
  }

  bool remove(const std::string& key) override {
    std::string before;
    if (!get(key, before)) return false;
    check(db_->Delete(durable_, key), "remove");
    return true;
  }

  void list(Listing& listing) override {
    const auto at = std::unique_ptr<typename Library::Iterator>(db_->NewIterator(typename Library::ReadOptions()));
    for (at->SeekToFirst(); at->Valid(); at->Next()) {
      listing.add(at->key().data(), at->key().size(), at->value().data(), at->value().size());
    }
    check(at->status(), "listing");
  }

  void load(std::uint64_t count, const std::function<void(std::uint64_t, std::string&, std::string&)>& make) override {
    constexpr std::uint64_t AT_ONCE = 1000;
    std::string key;
    std::string data;
    for (std::uint64_t number = 0; number < count;) {
      typename Library::WriteBatch batch;
      for (std::uint64_t left = AT_ONCE; left > 0 && number < count; --left, ++number) {
        make(number, key, data);
        batch.Put(key, data);
      }
      check(db_->Write(durable_, &batch), "loading");
    }
  }

 private:
  template <class Status>
  static void check(const Status& status, const char* what) {
    require(status.ok(), Library::NAME, what);
  }

  std::unique_ptr<typename Library::DB> db_;
  typename Library::WriteOptions durable_;
};

}  // namespace peers
