#pragma once

#include "AppRecord.hpp"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <sqlite3.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::sim {

/// A database failure: what was being done and SQLite's own message.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The daemon's durable state in SQLite: declarations (in their coded form), the apps it looks
/// after, and the install history. Each change is one transaction committed with a full sync
/// before the call returns, so a change the daemon has acknowledged survives a SIGKILL or a power
/// cut. The schema carries its version (PRAGMA user_version); a database of a newer version is
/// refused rather than misread.
///
/// Not thread-safe: one owner uses it.
class Store {
 public:
  static constexpr int schemaVersion = 1;

  /// A stored declaration: its identifier, key and coded document.
  struct Declaration {
    std::string identifier;
    std::string key;
    std::string document;
  };

  /// Opens (creating if needed) the database at `file`; an empty path keeps everything in
  /// memory. Throws StoreError when the file cannot be opened or has a newer schema.
  explicit Store(const std::filesystem::path& file);

  [[nodiscard]] std::vector<Declaration> declarations() const;
  [[nodiscard]] std::vector<AppRecord> apps() const;
  [[nodiscard]] std::int64_t historySize() const;

  void putDeclaration(const Declaration& declaration);
  void removeDeclaration(std::string_view identifier);
  void putApp(const AppRecord& record);
  void removeApp(std::string_view bundleID);
  void addHistory(std::string_view bundleID, std::string_view event);
  void clearHistory();

  /// Runs `body` as one transaction: every change in it is committed together, or none.
  template <class Body>
  void transaction(Body&& body) {
    execute("BEGIN IMMEDIATE");
    try {
      std::forward<Body>(body)();
      execute("COMMIT");
    } catch (...) {
      execute("ROLLBACK", /*mayFail=*/true);
      throw;
    }
  }

 private:
  struct Close {
    void operator()(sqlite3* db) const noexcept { sqlite3_close_v2(db); }
  };
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
  };
  using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

  void execute(const char* sql, bool mayFail = false) const;
  [[nodiscard]] Statement prepare(std::string_view sql) const;
  /// Runs a statement with one text parameter (?1) that returns no rows.
  void executeWith(std::string_view sql, std::string_view text, std::string_view doing);
  void migrate();
  [[noreturn]] void fail(std::string_view doing) const;

  std::unique_ptr<sqlite3, Close> db_;
};

}  // namespace corvane::sim
