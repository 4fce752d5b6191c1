#include "devcloud_store.h"

#include <sqlite3.h>

#include <cctype>

#include "platform/crypto.h"

namespace qvn::devcloud {
namespace {

constexpr int kSecretBytes = 32;

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value BLOB NOT NULL);
CREATE TABLE IF NOT EXISTS accounts(
  id INTEGER PRIMARY KEY, email TEXT NOT NULL UNIQUE, display_name TEXT NOT NULL,
  username TEXT NOT NULL, role TEXT NOT NULL DEFAULT 'user',
  status TEXT NOT NULL DEFAULT 'active', created INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS magic_requests(
  id TEXT PRIMARY KEY, account_id INTEGER NOT NULL REFERENCES accounts(id),
  code TEXT NOT NULL, challenge TEXT NOT NULL, device_id TEXT NOT NULL,
  device_name TEXT NOT NULL, platform TEXT NOT NULL, created INTEGER NOT NULL,
  expires INTEGER NOT NULL, approved INTEGER NOT NULL DEFAULT 0,
  used INTEGER NOT NULL DEFAULT 0, wrong_codes INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS oauth_flows(
  id TEXT PRIMARY KEY, provider TEXT NOT NULL, challenge TEXT NOT NULL, state TEXT NOT NULL,
  device_id TEXT NOT NULL, device_name TEXT NOT NULL, platform TEXT NOT NULL,
  expires INTEGER NOT NULL, account_id INTEGER REFERENCES accounts(id),
  code_hash TEXT UNIQUE, code_expires INTEGER NOT NULL DEFAULT 0,
  used INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS refresh_tokens(
  token_hash TEXT PRIMARY KEY, account_id INTEGER NOT NULL REFERENCES accounts(id),
  device_id TEXT NOT NULL, device_name TEXT NOT NULL, created INTEGER NOT NULL,
  expires INTEGER NOT NULL, revoked INTEGER NOT NULL DEFAULT 0);
CREATE INDEX IF NOT EXISTS refresh_by_account ON refresh_tokens(account_id, device_id);
CREATE TABLE IF NOT EXISTS events(
  id INTEGER PRIMARY KEY, account_id INTEGER NOT NULL, received INTEGER NOT NULL,
  body TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS support_messages(
  id INTEGER PRIMARY KEY, account_id INTEGER NOT NULL, received INTEGER NOT NULL,
  body TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS destinations(
  id TEXT PRIMARY KEY, account_id INTEGER NOT NULL REFERENCES accounts(id),
  platform TEXT NOT NULL, name TEXT NOT NULL, url TEXT NOT NULL, stream_key TEXT NOT NULL,
  enabled INTEGER NOT NULL DEFAULT 1, last_error TEXT NOT NULL DEFAULT '',
  added INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS stream_sessions(
  id TEXT PRIMARY KEY, account_id INTEGER NOT NULL REFERENCES accounts(id),
  device_id TEXT NOT NULL, stream_key TEXT NOT NULL UNIQUE, config TEXT NOT NULL,
  created INTEGER NOT NULL, deleted INTEGER NOT NULL DEFAULT 0,
  publishing INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS session_destinations(
  session_id TEXT NOT NULL REFERENCES stream_sessions(id), destination_id TEXT NOT NULL,
  position INTEGER NOT NULL, platform TEXT NOT NULL, name TEXT NOT NULL,
  status TEXT NOT NULL DEFAULT 'waiting', error_message TEXT NOT NULL DEFAULT '',
  PRIMARY KEY(session_id, destination_id));
CREATE TABLE IF NOT EXISTS embeds(
  account_id INTEGER PRIMARY KEY REFERENCES accounts(id), url TEXT NOT NULL,
  created INTEGER NOT NULL);
)sql";

// One prepared statement: bind, step, read columns. Every failure throws StoreError.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK) fail();
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  template <typename... Values>
  Statement& bind(const Values&... values) {
    int index = 1;
    (bindOne(index++, values), ...);
    return *this;
  }

  // True while there is a row to read.
  bool step() {
    const int result = sqlite3_step(statement_);
    if (result == SQLITE_ROW) return true;
    if (result != SQLITE_DONE) fail();
    return false;
  }
  // Runs a statement that returns no rows; the rows it changed.
  int run() {
    step();
    return sqlite3_changes(db_);
  }

  std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
  bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
  std::string text(int column) const {
    const auto* chars = sqlite3_column_text(statement_, column);
    return chars ? std::string(reinterpret_cast<const char*>(chars),
                               size_t(sqlite3_column_bytes(statement_, column)))
                 : std::string();
  }
  std::vector<std::uint8_t> blob(int column) const {
    const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_, column));
    return bytes
               ? std::vector<std::uint8_t>(bytes, bytes + sqlite3_column_bytes(statement_, column))
               : std::vector<std::uint8_t>();
  }

 private:
  void bindOne(int index, std::int64_t value) {
    check(sqlite3_bind_int64(statement_, index, value));
  }
  void bindOne(int index, int value) { bindOne(index, std::int64_t(value)); }
  void bindOne(int index, std::string_view value) {
    check(sqlite3_bind_text(statement_, index, value.data(), int(value.size()), SQLITE_TRANSIENT));
  }
  void bindOne(int index, const std::string& value) { bindOne(index, std::string_view(value)); }
  void bindOne(int index, const std::vector<std::uint8_t>& value) {
    check(sqlite3_bind_blob(statement_, index, value.data(), int(value.size()), SQLITE_TRANSIENT));
  }
  void check(int result) {
    if (result != SQLITE_OK) fail();
  }
  [[noreturn]] void fail() { throw StoreError(std::string("database: ") + sqlite3_errmsg(db_)); }

  sqlite3* db_;
  sqlite3_stmt* statement_ = nullptr;
};

void execute(sqlite3* db, const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message ? message : sqlite3_errmsg(db);
    sqlite3_free(message);
    throw StoreError("database: " + text);
  }
}

constexpr const char* kAccountColumns = "id, email, display_name, username, role, status";

Account readAccount(const Statement& row) {
  return {row.integer(0), row.text(1), row.text(2), row.text(3), row.text(4), row.text(5)};
}

constexpr const char* kMagicColumns =
    "id, account_id, (SELECT email FROM accounts WHERE accounts.id = account_id), code, "
    "challenge, device_id, device_name, platform, expires, approved, used, wrong_codes";

MagicRequest readMagic(const Statement& row) {
  return {row.text(0),    row.integer(1),      row.text(2),          row.text(3),
          row.text(4),    row.text(5),         row.text(6),          row.text(7),
          row.integer(8), row.integer(9) != 0, row.integer(10) != 0, int(row.integer(11))};
}

constexpr const char* kFlowColumns =
    "id, provider, challenge, state, device_id, device_name, platform, expires, account_id, "
    "code_expires, used";

OAuthFlow readFlow(const Statement& row) {
  OAuthFlow flow{row.text(0), row.text(1), row.text(2), row.text(3),
                 row.text(4), row.text(5), row.text(6), row.integer(7)};
  if (!row.isNull(8)) flow.accountId = row.integer(8);
  flow.codeExpires = row.integer(9);
  flow.used = row.integer(10) != 0;
  return flow;
}

constexpr const char* kDestinationColumns =
    "id, account_id, platform, name, url, stream_key, enabled, last_error";

Destination readDestination(const Statement& row) {
  return {row.text(0), row.integer(1), row.text(2),         row.text(3),
          row.text(4), row.text(5),    row.integer(6) != 0, row.text(7)};
}

constexpr const char* kSessionColumns =
    "id, account_id, device_id, stream_key, config, deleted, publishing";

StreamSession readSession(const Statement& row) {
  return {row.text(0), row.integer(1),      row.text(2),        row.text(3),
          row.text(4), row.integer(5) != 0, row.integer(6) != 0};
}

// The address up to its @, kept to letters, digits, dots, dashes and underscores.
std::string usernameFor(const std::string& email) {
  std::string name;
  for (char c : email.substr(0, email.find('@')))
    if (std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_')
      name.push_back(c);
  return name.empty() ? "user" : name;
}

}  // namespace

Store::Store(const std::string& path) {
  if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
      SQLITE_OK) {
    const std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    throw StoreError("can't open " + path + ": " + message);
  }
  try {
    // Another process (a test reading back, sqlite3 by hand) may look while it runs.
    execute(db_, "PRAGMA journal_mode=WAL; PRAGMA foreign_keys=ON; PRAGMA busy_timeout=2000;");
    execute(db_, kSchema);
    Statement read(db_, "SELECT value FROM meta WHERE key = 'token_secret'");
    if (read.step()) {
      secret_ = read.blob(0);
    } else {
      secret_ = randomBytes(kSecretBytes);
      Statement(db_, "INSERT INTO meta(key, value) VALUES('token_secret', ?)").bind(secret_).run();
    }
    if (secret_.size() < size_t(kSecretBytes)) throw StoreError("database: a damaged secret");
  } catch (...) {
    sqlite3_close(db_);
    throw;
  }
}

Store::~Store() {
  sqlite3_close(db_);
}

std::optional<Account> Store::account(std::string_view email) {
  Statement s(
      db_, (std::string("SELECT ") + kAccountColumns + " FROM accounts WHERE email = ?").c_str());
  if (!s.bind(email).step()) return std::nullopt;
  return readAccount(s);
}

std::optional<Account> Store::account(std::int64_t id) {
  Statement s(db_,
              (std::string("SELECT ") + kAccountColumns + " FROM accounts WHERE id = ?").c_str());
  if (!s.bind(id).step()) return std::nullopt;
  return readAccount(s);
}

Account Store::createAccount(const std::string& email, const std::string& displayName,
                             std::int64_t now) {
  const std::string username = usernameFor(email);
  Statement(db_, "INSERT INTO accounts(email, display_name, username, created) VALUES(?, ?, ?, ?)")
      .bind(email, displayName.empty() ? username : displayName, username, now)
      .run();
  return *account(sqlite3_last_insert_rowid(db_));
}

void Store::addMagicRequest(const MagicRequest& r, std::int64_t now) {
  Statement(db_,
            "INSERT INTO magic_requests(id, account_id, code, challenge, device_id, device_name, "
            "platform, created, expires) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)")
      .bind(r.id, r.accountId, r.code, r.challenge, r.deviceId, r.deviceName, r.platform, now,
            r.expires)
      .run();
}

std::optional<MagicRequest> Store::magicRequest(std::string_view id) {
  Statement s(
      db_, (std::string("SELECT ") + kMagicColumns + " FROM magic_requests WHERE id = ?").c_str());
  if (!s.bind(id).step()) return std::nullopt;
  return readMagic(s);
}

std::optional<MagicRequest> Store::latestMagicRequest(std::string_view email) {
  Statement s(db_, (std::string("SELECT ") + kMagicColumns +
                    " FROM magic_requests WHERE account_id = (SELECT id FROM accounts WHERE "
                    "email = ?) ORDER BY created DESC, rowid DESC LIMIT 1")
                       .c_str());
  if (!s.bind(email).step()) return std::nullopt;
  return readMagic(s);
}

void Store::approveMagicRequest(std::string_view id) {
  Statement(db_, "UPDATE magic_requests SET approved = 1 WHERE id = ?").bind(id).run();
}

bool Store::useMagicRequest(std::string_view id) {
  return Statement(db_, "UPDATE magic_requests SET used = 1 WHERE id = ? AND used = 0")
             .bind(id)
             .run() == 1;
}

int Store::noteWrongCode(std::string_view id) {
  Statement(db_, "UPDATE magic_requests SET wrong_codes = wrong_codes + 1 WHERE id = ?")
      .bind(id)
      .run();
  Statement s(db_, "SELECT wrong_codes FROM magic_requests WHERE id = ?");
  return s.bind(id).step() ? int(s.integer(0)) : 0;
}

void Store::addOAuthFlow(const OAuthFlow& f) {
  Statement(db_,
            "INSERT INTO oauth_flows(id, provider, challenge, state, device_id, device_name, "
            "platform, expires) VALUES(?, ?, ?, ?, ?, ?, ?, ?)")
      .bind(f.id, f.provider, f.challenge, f.state, f.deviceId, f.deviceName, f.platform, f.expires)
      .run();
}

std::optional<OAuthFlow> Store::oauthFlow(std::string_view id) {
  Statement s(db_,
              (std::string("SELECT ") + kFlowColumns + " FROM oauth_flows WHERE id = ?").c_str());
  if (!s.bind(id).step()) return std::nullopt;
  return readFlow(s);
}

std::optional<OAuthFlow> Store::oauthFlowByCode(std::string_view codeHash) {
  Statement s(
      db_,
      (std::string("SELECT ") + kFlowColumns + " FROM oauth_flows WHERE code_hash = ?").c_str());
  if (!s.bind(codeHash).step()) return std::nullopt;
  return readFlow(s);
}

void Store::approveOAuthFlow(std::string_view id, std::int64_t accountId, std::string_view codeHash,
                             std::int64_t codeExpires) {
  Statement(db_,
            "UPDATE oauth_flows SET account_id = ?, code_hash = ?, code_expires = ? WHERE id = ?")
      .bind(accountId, codeHash, codeExpires, id)
      .run();
}

bool Store::useOAuthFlow(std::string_view id) {
  return Statement(db_, "UPDATE oauth_flows SET used = 1 WHERE id = ? AND used = 0")
             .bind(id)
             .run() == 1;
}

void Store::addRefreshToken(std::string_view tokenHash, std::int64_t accountId,
                            std::string_view deviceId, std::string_view deviceName,
                            std::int64_t now, std::int64_t expires) {
  Statement(db_,
            "INSERT INTO refresh_tokens(token_hash, account_id, device_id, device_name, created, "
            "expires) VALUES(?, ?, ?, ?, ?, ?)")
      .bind(tokenHash, accountId, deviceId, deviceName, now, expires)
      .run();
}

std::optional<RefreshToken> Store::refreshToken(std::string_view tokenHash) {
  Statement s(db_,
              "SELECT account_id, device_id, device_name, expires, revoked FROM refresh_tokens "
              "WHERE token_hash = ?");
  if (!s.bind(tokenHash).step()) return std::nullopt;
  return RefreshToken{s.integer(0), s.text(1), s.text(2), s.integer(3), s.integer(4) != 0};
}

bool Store::revokeRefreshToken(std::string_view tokenHash) {
  return Statement(db_,
                   "UPDATE refresh_tokens SET revoked = 1 WHERE token_hash = ? AND revoked = 0")
             .bind(tokenHash)
             .run() == 1;
}

int Store::revokeRefreshTokens(std::int64_t accountId, std::optional<std::string_view> deviceId) {
  if (deviceId)
    return Statement(db_,
                     "UPDATE refresh_tokens SET revoked = 1 WHERE account_id = ? AND "
                     "device_id = ? AND revoked = 0")
        .bind(accountId, *deviceId)
        .run();
  return Statement(db_,
                   "UPDATE refresh_tokens SET revoked = 1 WHERE account_id = ? AND revoked = 0")
      .bind(accountId)
      .run();
}

bool Store::hasLiveSession(std::int64_t accountId, std::string_view deviceId, std::int64_t now) {
  Statement s(db_,
              "SELECT 1 FROM refresh_tokens WHERE account_id = ? AND device_id = ? AND "
              "revoked = 0 AND expires > ? LIMIT 1");
  return s.bind(accountId, deviceId, now).step();
}

void Store::addEvent(std::int64_t accountId, std::string_view json, std::int64_t now) {
  Statement(db_, "INSERT INTO events(account_id, received, body) VALUES(?, ?, ?)")
      .bind(accountId, now, json)
      .run();
}

void Store::addSupportMessage(std::int64_t accountId, std::string_view json, std::int64_t now) {
  Statement(db_, "INSERT INTO support_messages(account_id, received, body) VALUES(?, ?, ?)")
      .bind(accountId, now, json)
      .run();
}

int Store::eventCount() {
  Statement s(db_, "SELECT count(*) FROM events");
  return s.step() ? int(s.integer(0)) : 0;
}

int Store::supportMessageCount() {
  Statement s(db_, "SELECT count(*) FROM support_messages");
  return s.step() ? int(s.integer(0)) : 0;
}

Destination Store::addDestination(Destination d) {
  // Short enough to type into the admin command, random so a removed one's id never returns.
  d.id = "dst_" + hexText(randomBytes(5));
  Statement(db_,
            "INSERT INTO destinations(id, account_id, platform, name, url, stream_key, enabled, "
            "added) VALUES(?, ?, ?, ?, ?, ?, ?, strftime('%s', 'now'))")
      .bind(d.id, d.accountId, d.platform, d.name, d.url, d.key, int(d.enabled))
      .run();
  return d;
}

std::optional<Destination> Store::destination(std::string_view id) {
  Statement s(
      db_,
      (std::string("SELECT ") + kDestinationColumns + " FROM destinations WHERE id = ?").c_str());
  if (!s.bind(id).step()) return std::nullopt;
  return readDestination(s);
}

std::vector<Destination> Store::destinations(std::optional<std::int64_t> accountId) {
  const std::string select = std::string("SELECT ") + kDestinationColumns + " FROM destinations";
  Statement s(db_,
              (select + (accountId ? " WHERE account_id = ?" : "") + " ORDER BY rowid").c_str());
  if (accountId) s.bind(*accountId);
  std::vector<Destination> list;
  while (s.step()) list.push_back(readDestination(s));
  return list;
}

void Store::setDestinationEnabled(std::string_view id, bool enabled) {
  Statement(db_, "UPDATE destinations SET enabled = ? WHERE id = ?").bind(int(enabled), id).run();
}

void Store::setDestinationError(std::string_view id, std::string_view lastError) {
  Statement(db_, "UPDATE destinations SET last_error = ? WHERE id = ?").bind(lastError, id).run();
}

bool Store::removeDestination(std::string_view id) {
  return Statement(db_, "DELETE FROM destinations WHERE id = ?").bind(id).run() == 1;
}

void Store::addStreamSession(const StreamSession& session,
                             const std::vector<SessionDestination>& destinations,
                             std::int64_t now) {
  execute(db_, "BEGIN");
  try {
    Statement(db_,
              "INSERT INTO stream_sessions(id, account_id, device_id, stream_key, config, "
              "created) VALUES(?, ?, ?, ?, ?, ?)")
        .bind(session.id, session.accountId, session.deviceId, session.streamKey,
              session.configJson, now)
        .run();
    int position = 0;
    for (const auto& d : destinations)
      Statement(db_,
                "INSERT INTO session_destinations(session_id, destination_id, position, "
                "platform, name, status) VALUES(?, ?, ?, ?, ?, ?)")
          .bind(session.id, d.destinationId, position++, d.platform, d.name, d.status)
          .run();
    execute(db_, "COMMIT");
  } catch (...) {
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
}

std::optional<StreamSession> Store::streamSession(std::string_view id) {
  Statement s(
      db_,
      (std::string("SELECT ") + kSessionColumns + " FROM stream_sessions WHERE id = ?").c_str());
  if (!s.bind(id).step()) return std::nullopt;
  return readSession(s);
}

std::optional<StreamSession> Store::streamSessionByKey(std::string_view streamKey) {
  Statement s(
      db_, (std::string("SELECT ") + kSessionColumns + " FROM stream_sessions WHERE stream_key = ?")
               .c_str());
  if (!s.bind(streamKey).step()) return std::nullopt;
  return readSession(s);
}

std::vector<SessionDestination> Store::sessionDestinations(std::string_view sessionId) {
  Statement s(db_,
              "SELECT destination_id, platform, name, status, error_message FROM "
              "session_destinations WHERE session_id = ? ORDER BY position");
  s.bind(sessionId);
  std::vector<SessionDestination> list;
  while (s.step()) list.push_back({s.text(0), s.text(1), s.text(2), s.text(3), s.text(4)});
  return list;
}

bool Store::setSessionDestination(std::string_view sessionId, std::string_view destinationId,
                                  std::string_view status, std::string_view errorMessage) {
  return Statement(db_,
                   "UPDATE session_destinations SET status = ?, error_message = ? WHERE "
                   "session_id = ? AND destination_id = ?")
             .bind(status, errorMessage, sessionId, destinationId)
             .run() == 1;
}

void Store::setSessionDestinations(std::string_view sessionId, std::string_view status) {
  if (status == "ended") {
    Statement(db_,
              "UPDATE session_destinations SET status = 'ended' WHERE session_id = ? AND "
              "status <> 'error'")
        .bind(sessionId)
        .run();
    return;
  }
  Statement(db_,
            "UPDATE session_destinations SET status = ?, error_message = '' WHERE session_id = ?")
      .bind(status, sessionId)
      .run();
}

void Store::setPublishing(std::string_view sessionId, bool publishing) {
  Statement(db_, "UPDATE stream_sessions SET publishing = ? WHERE id = ?")
      .bind(int(publishing), sessionId)
      .run();
}

bool Store::deleteStreamSession(std::string_view id) {
  return Statement(db_,
                   "UPDATE stream_sessions SET deleted = 1, publishing = 0 WHERE id = ? AND "
                   "deleted = 0")
             .bind(id)
             .run() == 1;
}

bool Store::isPublishing(std::int64_t accountId) {
  Statement s(db_,
              "SELECT 1 FROM stream_sessions WHERE account_id = ? AND publishing = 1 AND "
              "deleted = 0 LIMIT 1");
  return s.bind(accountId).step();
}

void Store::forgetPublishing() {
  execute(db_,
          "UPDATE session_destinations SET status = 'ended' WHERE status IN ('starting', 'live') "
          "AND session_id IN (SELECT id FROM stream_sessions WHERE publishing = 1);"
          "UPDATE stream_sessions SET publishing = 0 WHERE publishing = 1;");
}

std::optional<std::string> Store::embedUrl(std::int64_t accountId) {
  Statement s(db_, "SELECT url FROM embeds WHERE account_id = ?");
  if (!s.bind(accountId).step()) return std::nullopt;
  return s.text(0);
}

void Store::setEmbedUrl(std::int64_t accountId, std::string_view url, std::int64_t now) {
  Statement(db_, "INSERT OR IGNORE INTO embeds(account_id, url, created) VALUES(?, ?, ?)")
      .bind(accountId, url, now)
      .run();
}

}  // namespace qvn::devcloud
