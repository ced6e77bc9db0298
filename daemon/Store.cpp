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

}  // namespace corvane::sim
