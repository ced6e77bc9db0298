#include "Store.hpp"

#include <corvane/coding/RawValue.hpp>

#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <fmt/format.h>

#include <string>

namespace corvane::sim {

namespace {

constexpr const char* schema = R"sql(
CREATE TABLE IF NOT EXISTS declarations (
  identifier TEXT PRIMARY KEY,
  key        TEXT NOT NULL,
  document   TEXT NOT NULL
);
CREATE TABLE IF NOT EXISTS apps (
  bundle_id              TEXT PRIMARY KEY,
  declaration_identifier TEXT NOT NULL,
  declaration_key        TEXT NOT NULL,
  name                   TEXT NOT NULL,
  phase                  TEXT NOT NULL,
  reasons                TEXT NOT NULL,
  version_id             INTEGER,
  version                TEXT NOT NULL,
  uuid                   TEXT NOT NULL
);
CREATE TABLE IF NOT EXISTS resumable_clients (
  token TEXT NOT NULL,
  uid   INTEGER NOT NULL,
  seen  INTEGER NOT NULL,
  PRIMARY KEY (token, uid)
);
CREATE TABLE IF NOT EXISTS resumable_registrations (
  id           INTEGER PRIMARY KEY AUTOINCREMENT,
  token        TEXT NOT NULL,
  uid          INTEGER NOT NULL,
  registration TEXT NOT NULL,
  UNIQUE (token, uid, registration)
);
CREATE TABLE IF NOT EXISTS manifests (
  bundle_id TEXT PRIMARY KEY,
  url       TEXT NOT NULL,
  contents  TEXT NOT NULL
);
CREATE TABLE IF NOT EXISTS history (
  id        INTEGER PRIMARY KEY AUTOINCREMENT,
  bundle_id TEXT NOT NULL,
  event     TEXT NOT NULL,
  at        TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%fZ', 'now'))
);
)sql";

std::string columnText(sqlite3_stmt* statement, int column) {
  const auto* text = sqlite3_column_text(statement, column);
  return text == nullptr
             ? std::string()
             : std::string(reinterpret_cast<const char*>(text),  // NOLINT: SQLite API
                           static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
}

void bindText(sqlite3_stmt* statement, int index, std::string_view text) {
  sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()),
                    SQLITE_TRANSIENT);  // NOLINT: SQLite's own macro
}

std::string joinReasons(const std::vector<ManagedAppStatus::Reason>& reasons) {
  std::string joined;
  for (const auto reason : reasons) {
    if (!joined.empty()) joined += ',';
    joined += coding::caseNameOf(reason);
  }
  return joined;
}

std::vector<ManagedAppStatus::Reason> splitReasons(std::string_view text) {
  std::vector<ManagedAppStatus::Reason> reasons;
  while (!text.empty()) {
    const auto comma = text.find(',');
    const auto name = text.substr(0, comma);
    if (auto reason = coding::fromCaseName<ManagedAppStatus::Reason>(name))
      reasons.push_back(*reason);
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
  }
  return reasons;
}

}  // namespace

Store::Store(const std::filesystem::path& file) {
  const std::string name = file.empty() ? std::string(":memory:") : file.native();
  sqlite3* raw = nullptr;
  const int opened =
      sqlite3_open_v2(name.c_str(), &raw,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  db_.reset(raw);
  if (opened != SQLITE_OK) fail(fmt::format("cannot open {}", name));
  sqlite3_busy_timeout(db_.get(), 5000);
  // The write-ahead log keeps the database whole across a crash at any moment; a full sync on
  // each commit makes an acknowledged change durable before its reply leaves.
  if (!file.empty()) execute("PRAGMA journal_mode=WAL");
  execute("PRAGMA synchronous=FULL");
  migrate();
}

void Store::fail(std::string_view doing) const {
  throw StoreError(fmt::format("{}: {}", doing, db_ ? sqlite3_errmsg(db_.get()) : "out of memory"));
}

void Store::execute(const char* sql, bool mayFail) const {
  char* message = nullptr;
  const int result = sqlite3_exec(db_.get(), sql, nullptr, nullptr, &message);
  const std::string text = message == nullptr ? std::string() : std::string(message);
  sqlite3_free(message);
  if (result != SQLITE_OK && !mayFail)
    throw StoreError(fmt::format("{}: {}", std::string_view(sql).substr(0, 40), text));
}

Store::Statement Store::prepare(std::string_view sql) const {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db_.get(), sql.data(), static_cast<int>(sql.size()), &raw, nullptr)
      != SQLITE_OK)
    fail(fmt::format("prepare {}", sql.substr(0, 40)));
  return Statement(raw);
}

void Store::migrate() {
  auto version = prepare("PRAGMA user_version");
  int current = 0;
  if (sqlite3_step(version.get()) == SQLITE_ROW) current = sqlite3_column_int(version.get(), 0);
  if (current > schemaVersion) {
    throw StoreError(fmt::format("the database has schema version {}, newer than this daemon's {}",
                                 current, schemaVersion));
  }
  if (current == schemaVersion) return;
  transaction([&] {
    execute(schema);
    execute(fmt::format("PRAGMA user_version={}", schemaVersion).c_str());
  });
}

std::vector<Store::Declaration> Store::declarations() const {
  auto query = prepare("SELECT identifier, key, document FROM declarations ORDER BY identifier");
  std::vector<Declaration> all;
  while (sqlite3_step(query.get()) == SQLITE_ROW)
    all.push_back(
        {columnText(query.get(), 0), columnText(query.get(), 1), columnText(query.get(), 2)});
  return all;
}

std::vector<AppRecord> Store::apps() const {
  auto query = prepare(
      "SELECT bundle_id, declaration_identifier, declaration_key, name, phase, reasons, "
      "version_id, version, uuid FROM apps ORDER BY bundle_id");
  std::vector<AppRecord> all;
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    AppRecord record;
    record.bundleID = columnText(query.get(), 0);
    record.declarationIdentifier = columnText(query.get(), 1);
    record.declarationKey = columnText(query.get(), 2);
    record.name = columnText(query.get(), 3);
    record.phase = phaseFromString(columnText(query.get(), 4)).value_or(Phase::optional);
    record.reasons = splitReasons(columnText(query.get(), 5));
    if (sqlite3_column_type(query.get(), 6) != SQLITE_NULL)
      record.versionID = sqlite3_column_int64(query.get(), 6);
    record.version = columnText(query.get(), 7);
    try {
      record.uuid = boost::uuids::string_generator()(columnText(query.get(), 8));
    } catch (const std::runtime_error&) {
      record.uuid = {};
    }
    all.push_back(std::move(record));
  }
  return all;
}

std::int64_t Store::historySize() const {
  auto query = prepare("SELECT count(*) FROM history");
  return sqlite3_step(query.get()) == SQLITE_ROW ? sqlite3_column_int64(query.get(), 0) : 0;
}

void Store::putDeclaration(const Declaration& declaration) {
  auto statement = prepare(
      "INSERT INTO declarations (identifier, key, document) VALUES (?1, ?2, ?3) "
      "ON CONFLICT(identifier) DO UPDATE SET key = excluded.key, document = excluded.document");
  bindText(statement.get(), 1, declaration.identifier);
  bindText(statement.get(), 2, declaration.key);
  bindText(statement.get(), 3, declaration.document);
  if (sqlite3_step(statement.get()) != SQLITE_DONE) fail("store a declaration");
}

void Store::executeWith(std::string_view sql, std::string_view text, std::string_view doing) {
  auto statement = prepare(sql);
  bindText(statement.get(), 1, text);
  if (sqlite3_step(statement.get()) != SQLITE_DONE) fail(doing);
}

void Store::removeDeclaration(std::string_view identifier) {
  executeWith("DELETE FROM declarations WHERE identifier = ?1", identifier, "remove a declaration");
}

void Store::putApp(const AppRecord& record) {
  auto statement = prepare(
      "INSERT OR REPLACE INTO apps (bundle_id, declaration_identifier, declaration_key, name, "
      "phase, reasons, version_id, version, uuid) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)");
  bindText(statement.get(), 1, record.bundleID);
  bindText(statement.get(), 2, record.declarationIdentifier);
  bindText(statement.get(), 3, record.declarationKey);
  bindText(statement.get(), 4, record.name);
  bindText(statement.get(), 5, toString(record.phase));
  bindText(statement.get(), 6, joinReasons(record.reasons));
  if (record.versionID)
    sqlite3_bind_int64(statement.get(), 7, *record.versionID);
  else
    sqlite3_bind_null(statement.get(), 7);
  bindText(statement.get(), 8, record.version);
  bindText(statement.get(), 9, boost::uuids::to_string(record.uuid));
  if (sqlite3_step(statement.get()) != SQLITE_DONE) fail("store an app");
}

void Store::removeApp(std::string_view bundleID) {
  executeWith("DELETE FROM apps WHERE bundle_id = ?1", bundleID, "remove an app");
}

void Store::addHistory(std::string_view bundleID, std::string_view event) {
  auto statement = prepare("INSERT INTO history (bundle_id, event) VALUES (?1, ?2)");
  bindText(statement.get(), 1, bundleID);
  bindText(statement.get(), 2, event);
  if (sqlite3_step(statement.get()) != SQLITE_DONE) fail("record history");
}

void Store::clearHistory() {
  execute("DELETE FROM history");
}

std::vector<Store::Manifest> Store::manifests() const {
  auto query = prepare("SELECT bundle_id, url, contents FROM manifests ORDER BY bundle_id");
  std::vector<Manifest> all;
  while (sqlite3_step(query.get()) == SQLITE_ROW)
    all.push_back(
        {columnText(query.get(), 0), columnText(query.get(), 1), columnText(query.get(), 2)});
  return all;
}

void Store::putManifest(const Manifest& manifest) {
  auto statement =
      prepare("INSERT OR REPLACE INTO manifests (bundle_id, url, contents) VALUES (?1, ?2, ?3)");
  bindText(statement.get(), 1, manifest.bundleID);
  bindText(statement.get(), 2, manifest.url);
  bindText(statement.get(), 3, manifest.contents);
  if (sqlite3_step(statement.get()) != SQLITE_DONE) fail("store a manifest");
}

void Store::removeManifest(std::string_view bundleID) {
  executeWith("DELETE FROM manifests WHERE bundle_id = ?1", bundleID, "remove a manifest");
}

namespace {

void bindClient(sqlite3_stmt* statement, std::string_view token, std::uint32_t uid) {
  bindText(statement, 1, token);
  sqlite3_bind_int64(statement, 2, uid);
}

}  // namespace

std::vector<std::string> Store::registrationsOf(std::string_view token, std::uint32_t uid) const {
  auto query = prepare(
      "SELECT registration FROM resumable_registrations WHERE token = ?1 AND uid = ?2 ORDER BY id");
  bindClient(query.get(), token, uid);
  std::vector<std::string> all;
  while (sqlite3_step(query.get()) == SQLITE_ROW) all.push_back(columnText(query.get(), 0));
  return all;
}

bool Store::rememberRegistration(std::string_view token, std::uint32_t uid,
                                 std::string_view registration, std::int64_t seen) {
  auto known = prepare("SELECT count(*) FROM resumable_clients WHERE token = ?1 AND uid = ?2");
  bindClient(known.get(), token, uid);
  if (sqlite3_step(known.get()) == SQLITE_ROW && sqlite3_column_int64(known.get(), 0) == 0) {
    // A new client of this uid: its least recently seen ones beyond the cap make room.
    auto evict = prepare(
        "SELECT token FROM resumable_clients WHERE uid = ?2 AND token <> ?1 "
        "ORDER BY seen DESC LIMIT -1 OFFSET ?3");
    bindClient(evict.get(), token, uid);
    sqlite3_bind_int64(evict.get(), 3, maxResumableClientsPerUser - 1);
    std::vector<std::string> evicted;
    while (sqlite3_step(evict.get()) == SQLITE_ROW) evicted.push_back(columnText(evict.get(), 0));
    for (const auto& old : evicted) {
      for (const char* sql : {"DELETE FROM resumable_registrations WHERE token = ?1 AND uid = ?2",
                              "DELETE FROM resumable_clients WHERE token = ?1 AND uid = ?2"}) {
        auto statement = prepare(sql);
        bindClient(statement.get(), old, uid);
        if (sqlite3_step(statement.get()) != SQLITE_DONE) fail("forget a client");
      }
    }
  }
  auto count =
      prepare("SELECT count(*) FROM resumable_registrations WHERE token = ?1 AND uid = ?2");
  bindClient(count.get(), token, uid);
  if (sqlite3_step(count.get()) == SQLITE_ROW
      && sqlite3_column_int64(count.get(), 0) >= maxRegistrationsPerClient)
    return false;
  auto insert = prepare(
      "INSERT OR IGNORE INTO resumable_registrations (token, uid, registration) "
      "VALUES (?1, ?2, ?3)");
  bindClient(insert.get(), token, uid);
  bindText(insert.get(), 3, registration);
  if (sqlite3_step(insert.get()) != SQLITE_DONE) fail("remember a registration");
  auto client = prepare(
      "INSERT INTO resumable_clients (token, uid, seen) VALUES (?1, ?2, ?3) "
      "ON CONFLICT(token, uid) DO UPDATE SET seen = excluded.seen");
  bindClient(client.get(), token, uid);
  sqlite3_bind_int64(client.get(), 3, seen);
  if (sqlite3_step(client.get()) != SQLITE_DONE) fail("remember a client");
  return true;
}

void Store::forgetRegistration(std::string_view token, std::uint32_t uid,
                               std::string_view registration) {
  auto statement = prepare(
      "DELETE FROM resumable_registrations WHERE token = ?1 AND uid = ?2 AND registration = ?3");
  bindClient(statement.get(), token, uid);
  bindText(statement.get(), 3, registration);
  if (sqlite3_step(statement.get()) != SQLITE_DONE) fail("forget a registration");
  // A client with nothing left to give back is not remembered either.
  auto client = prepare(
      "DELETE FROM resumable_clients WHERE token = ?1 AND uid = ?2 AND NOT EXISTS "
      "(SELECT 1 FROM resumable_registrations WHERE token = ?1 AND uid = ?2)");
  bindClient(client.get(), token, uid);
  if (sqlite3_step(client.get()) != SQLITE_DONE) fail("forget a client");
}

void Store::touchClient(std::string_view token, std::uint32_t uid, std::int64_t seen) {
  auto statement = prepare("UPDATE resumable_clients SET seen = ?3 WHERE token = ?1 AND uid = ?2");
  bindClient(statement.get(), token, uid);
  sqlite3_bind_int64(statement.get(), 3, seen);
  if (sqlite3_step(statement.get()) != SQLITE_DONE) fail("mark a client seen");
}

std::int64_t Store::forgetClientsSeenBefore(std::int64_t cutoff) {
  auto registrations = prepare(
      "DELETE FROM resumable_registrations WHERE (token, uid) IN "
      "(SELECT token, uid FROM resumable_clients WHERE seen < ?1)");
  sqlite3_bind_int64(registrations.get(), 1, cutoff);
  if (sqlite3_step(registrations.get()) != SQLITE_DONE) fail("forget old registrations");
  const auto forgotten = sqlite3_changes64(db_.get());
  auto clients = prepare("DELETE FROM resumable_clients WHERE seen < ?1");
  sqlite3_bind_int64(clients.get(), 1, cutoff);
  if (sqlite3_step(clients.get()) != SQLITE_DONE) fail("forget old clients");
  return forgotten;
}

std::int64_t Store::rememberedRegistrations() const {
  auto query = prepare("SELECT count(*) FROM resumable_registrations");
  return sqlite3_step(query.get()) == SQLITE_ROW ? sqlite3_column_int64(query.get(), 0) : 0;
}

}  // namespace corvane::sim
