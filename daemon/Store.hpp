#pragma once

#include "AppRecord.hpp"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <sqlite3.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::sim {

/// How long the registrations of a client that went away are remembered for its return.
inline constexpr std::chrono::hours resumableClientRetention{24};

/// Seconds since the epoch: when a returning client was last seen.
[[nodiscard]] inline std::int64_t secondsNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

/// A database failure: what was being done and SQLite's own message.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The daemon's durable state in SQLite: declarations (in their coded form), the apps it looks
/// after, the install history and the registrations of clients that may come back. Each change is
/// one transaction committed with a full sync before the call returns, so a change the daemon has
/// acknowledged survives a SIGKILL or a power cut. The schema carries its version (PRAGMA
/// user_version); a database of a newer version is refused rather than misread.
///
/// Not thread-safe: one owner uses it.
class Store {
 public:
  /// 1: declarations, apps, history; 2: returning clients' registrations; 3: manifests. A
  /// database of an older version gains the tables it lacks and keeps what it holds.
  static constexpr int schemaVersion = 3;

  /// How many returning clients one uid may have remembered; its least recently seen one is
  /// forgotten to make room for another.
  static constexpr std::int64_t maxResumableClientsPerUser = 32;
  /// How many registrations one returning client may have remembered; further ones are served
  /// but not remembered.
  static constexpr std::int64_t maxRegistrationsPerClient = 256;

  /// A stored declaration: its identifier, key and coded document.
  struct Declaration {
    std::string identifier;
    std::string key;
    std::string document;
  };

  /// An enterprise manifest an app is installed from: its address and its text, as fetched.
  struct Manifest {
    std::string bundleID;
    std::string url;
    std::string contents;
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
  [[nodiscard]] std::vector<Manifest> manifests() const;
  /// Keeps the manifest of `manifest.bundleID`, replacing the one it had.
  void putManifest(const Manifest& manifest);
  void removeManifest(std::string_view bundleID);
  void clearHistory();

  // Registrations of returning clients, by resume token and uid: a client gets back only what
  // it registered under its own uid. `registration` is its coded form. "Seen" is seconds since
  // the epoch.

  /// The registrations remembered for `token` of `uid`, in the order they were made.
  [[nodiscard]] std::vector<std::string> registrationsOf(std::string_view token,
                                                         std::uint32_t uid) const;
  /// Remembers a registration (no-op when remembered already) and marks the client seen at
  /// `seen`. Returns false, remembering nothing, when the client has `maxRegistrationsPerClient`
  /// already. A client new to its uid forgets the uid's least recently seen one beyond
  /// `maxResumableClientsPerUser`.
  bool rememberRegistration(std::string_view token, std::uint32_t uid,
                            std::string_view registration, std::int64_t seen);
  void forgetRegistration(std::string_view token, std::uint32_t uid, std::string_view registration);
  /// Marks a client with remembered registrations as seen at `seen`.
  void touchClient(std::string_view token, std::uint32_t uid, std::int64_t seen);
  /// Forgets every client last seen before `cutoff`; returns how many registrations went.
  std::int64_t forgetClientsSeenBefore(std::int64_t cutoff);
  /// How many registrations are remembered, over all clients.
  [[nodiscard]] std::int64_t rememberedRegistrations() const;

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
