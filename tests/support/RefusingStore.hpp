#pragma once

// Makes a running daemon's state database refuse every change, the way a full disk would, while
// an instance of this class lives: triggers abort each insert, update and delete with `message`.
// SQLite itself refuses, so the daemon is tested as it runs, with nothing built in for tests; its
// own connection sees the triggers on its next statement. Tests that use it link SQLite.

#include <filesystem>
#include <sqlite3.h>
#include <stdexcept>
#include <string>
#include <string_view>

namespace corvane::testing {

class RefusingStore {
 public:
  /// What SQLite answers each change with.
  static constexpr std::string_view message = "the disk is full";

  /// Opens `database` (a daemon's --state file, created by it) and adds the triggers. Throws
  /// std::runtime_error when that fails.
  explicit RefusingStore(const std::filesystem::path& database) {
    if (sqlite3_open_v2(database.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
      const std::string error = sqlite3_errmsg(db_);
      sqlite3_close(db_);
      throw std::runtime_error("cannot open " + database.native() + ": " + error);
    }
    // The daemon may be in the middle of a write; wait for it rather than fail.
    sqlite3_busy_timeout(db_, 30'000);
    std::string sql = "BEGIN;";
    for (const char* table : {"declarations", "apps", "history"}) {
      for (const char* event : {"INSERT", "UPDATE", "DELETE"}) {
        sql += std::string("CREATE TRIGGER refuse_") + table + "_" + event + " BEFORE " + event
               + " ON " + table + " BEGIN SELECT RAISE(ABORT, '" + std::string(message)
               + "'); END;";
      }
    }
    sql += "COMMIT;";
    execute(sql);
  }
  RefusingStore(const RefusingStore&) = delete;
  RefusingStore& operator=(const RefusingStore&) = delete;

  /// Takes the triggers away: the database accepts changes again.
  ~RefusingStore() {
    std::string sql = "BEGIN;";
    for (const char* table : {"declarations", "apps", "history"})
      for (const char* event : {"INSERT", "UPDATE", "DELETE"})
        sql += std::string("DROP TRIGGER IF EXISTS refuse_") + table + "_" + event + ";";
    sql += "COMMIT;";
    sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr);
    sqlite3_close(db_);
  }

 private:
  void execute(const std::string& sql) {
    char* error = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
      const std::string text = error != nullptr ? error : "unknown error";
      sqlite3_free(error);
      sqlite3_close(db_);
      throw std::runtime_error("cannot add the triggers: " + text);
    }
  }

  sqlite3* db_ = nullptr;
};

}  // namespace corvane::testing
