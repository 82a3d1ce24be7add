// SQLite: a table without row numbers, write-ahead log, synchronous = FULL.
#include <sqlite3.h>

#include "peers/peer.h"

namespace peers {

namespace {

constexpr const char* NAME = "SQLite";

class SqlitePeer final : public Peer {
 public:
  SqlitePeer(const std::filesystem::path& directory, bool mayWrite) {
    const int flags = mayWrite ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE : SQLITE_OPEN_READONLY;
    require(sqlite3_open_v2((directory / "sqlite.db").c_str(), &db_, flags, nullptr) == SQLITE_OK, NAME, "open");
    sqlite3_busy_timeout(db_, 30000);
    if (!mayWrite) return;
    run("PRAGMA synchronous = FULL");
    run("PRAGMA journal_mode = WAL");
    run("CREATE TABLE IF NOT EXISTS records(key TEXT PRIMARY KEY, data TEXT NOT NULL) WITHOUT ROWID");
  }
  ~SqlitePeer() override {
    for (sqlite3_stmt* statement : {get_, insert_, update_, remove_, list_}) sqlite3_finalize(statement);
    sqlite3_close(db_);
  }
  SqlitePeer(const SqlitePeer&) = delete;
  SqlitePeer& operator=(const SqlitePeer&) = delete;

  bool get(const std::string& key, std::string& data) override {
    sqlite3_stmt* statement = prepared(get_, "SELECT data FROM records WHERE key = ?1");
    bind(statement, 1, key);
    const int rc = sqlite3_step(statement);
    require(rc == SQLITE_ROW || rc == SQLITE_DONE, NAME, "get");
    if (rc == SQLITE_ROW) {
      data.assign(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)),
                  static_cast<std::size_t>(sqlite3_column_bytes(statement, 0)));
    }
    sqlite3_reset(statement);
    return rc == SQLITE_ROW;
  }

  bool insert(const std::string& key, const std::string& data) override {
    sqlite3_stmt* statement = prepared(insert_, "INSERT OR IGNORE INTO records VALUES(?1, ?2)");
    bind(statement, 1, key);
    bind(statement, 2, data);
    return change(statement);
  }

  bool update(const std::string& key, const std::string& data) override {
    sqlite3_stmt* statement = prepared(update_, "UPDATE records SET data = ?2 WHERE key = ?1");
    bind(statement, 1, key);
    bind(statement, 2, data);
    return change(statement);
  }

  bool remove(const std::string& key) override {
    sqlite3_stmt* statement = prepared(remove_, "DELETE FROM records WHERE key = ?1");
    bind(statement, 1, key);
    return change(statement);
  }

  void list(Listing& listing) override {
    sqlite3_stmt* statement = prepared(list_, "SELECT key, data FROM records");
    int rc = SQLITE_OK;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
      listing.add(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)),
                  static_cast<std::size_t>(sqlite3_column_bytes(statement, 0)),
                  reinterpret_cast<const char*>(sqlite3_column_text(statement, 1)),
                  static_cast<std::size_t>(sqlite3_column_bytes(statement, 1)));
    }
    require(rc == SQLITE_DONE, NAME, "listing");
    sqlite3_reset(statement);
  }

  void load(std::uint64_t count, const std::function<void(std::uint64_t, std::string&, std::string&)>& make) override {
    run("BEGIN");
    std::string key;
    std::string data;
    for (std::uint64_t number = 0; number < count; ++number) {
      make(number, key, data);
      require(insert(key, data), NAME, "loading");
    }
    run("COMMIT");
    run("PRAGMA wal_checkpoint(TRUNCATE)");
  }

 private:
  void run(const char* text) { require(sqlite3_exec(db_, text, nullptr, nullptr, nullptr) == SQLITE_OK, NAME, text); }

  sqlite3_stmt* prepared(sqlite3_stmt*& statement, const char* text) {
    if (statement == nullptr) {
      require(sqlite3_prepare_v2(db_, text, -1, &statement, nullptr) == SQLITE_OK, NAME, text);
    }
    return statement;
  }

  static void bind(sqlite3_stmt* statement, int number, const std::string& text) {
    sqlite3_bind_text(statement, number, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
  }

  bool change(sqlite3_stmt* statement) {
    require(sqlite3_step(statement) == SQLITE_DONE, NAME, "change");
    sqlite3_reset(statement);
    return sqlite3_changes(db_) == 1;
  }

  sqlite3* db_ = nullptr;
  sqlite3_stmt* get_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* update_ = nullptr;
  sqlite3_stmt* remove_ = nullptr;
  sqlite3_stmt* list_ = nullptr;
};

}  // namespace

Kind sqlite() {
  return {NAME, "WAL, synchronous = FULL", true, [](const std::filesystem::path& directory, bool mayWrite) {
            return std::make_unique<SqlitePeer>(directory, mayWrite);
          }};
}

}  // namespace peers
