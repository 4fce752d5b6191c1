// What the devcloud keeps: accounts, e-mail sign-in requests, web sign-ins, refresh tokens,
// the events and support messages it was sent, the secret that signs access tokens, and the
// stream side: destinations, stream sessions with each destination's state, embed links.
// One SQLite connection in WAL mode. Not thread-safe: one thread at a time, which is the
// server's one thread once it runs.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;

namespace qvn::devcloud {

// A database that can't be opened, read or written.
struct StoreError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Account {
  std::int64_t id = 0;
  std::string email;  // lower case
  std::string displayName;
  std::string username;
  std::string role;
  std::string status;
};

// One code sent by e-mail, finished by the code, or by its link and then a poll.
struct MagicRequest {
  std::string id;
  std::int64_t accountId = 0;
  std::string email;
  std::string code;
  std::string challenge;
  std::string deviceId;
  std::string deviceName;
  std::string platform;
  std::int64_t expires = 0;
  bool approved = false;  // its link was opened
  bool used = false;      // tokens were handed out for it, or it was burnt by wrong codes
  int wrongCodes = 0;
};

// One web sign-in, from its start through the approval page to the exchange of its code.
struct OAuthFlow {
  std::string id;
  std::string provider;
  std::string challenge;
  std::string state;
  std::string deviceId;
  std::string deviceName;
  std::string platform;
  std::int64_t expires = 0;               // of the approval page
  std::optional<std::int64_t> accountId;  // set once approved, with its code
  std::int64_t codeExpires = 0;
  bool used = false;
};

struct RefreshToken {
  std::int64_t accountId = 0;
  std::string deviceId;
  std::string deviceName;
  std::int64_t expires = 0;
  bool revoked = false;
};

// Where an account's streams can go: an RTMP server and the key to publish there with.
struct Destination {
  std::string id;
  std::int64_t accountId = 0;
  std::string platform;  // a free word: "youtube", "custom", …
  std::string name;
  std::string url;  // rtmp(s)://host[:port]/app, without a trailing /
  std::string key;  // empty: not connected
  bool enabled = true;
  std::string lastError;  // of its last failed relay; empty when none or since gone live
};

// One "Go Live": the key the studio publishes with, and the settings it was given.
struct StreamSession {
  std::string id;
  std::int64_t accountId = 0;
  std::string deviceId;
  std::string streamKey;
  std::string configJson;  // the stream_config handed out, "null" when none was
  bool deleted = false;
  bool publishing = false;  // the ingest holds a publisher with its key right now
};

// A destination as one session sees it; name and platform are copied at the session's start
// so its list still reads well if the destination is removed meanwhile.
struct SessionDestination {
  std::string destinationId;
  std::string platform;
  std::string name;
  std::string status;  // waiting, starting, live, error, ended
  std::string errorMessage;
};

class Store {
 public:
  // Opens or creates the database at `path` (":memory:" for one that lives with the
  // object) and its token secret. Throws StoreError.
  explicit Store(const std::string& path);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Random at the database's creation, the same for its whole life after.
  const std::vector<std::uint8_t>& tokenSecret() const { return secret_; }

  std::optional<Account> account(std::string_view email);
  std::optional<Account> account(std::int64_t id);
  Account createAccount(const std::string& email, const std::string& displayName, std::int64_t now);

  void addMagicRequest(const MagicRequest& request, std::int64_t now);
  std::optional<MagicRequest> magicRequest(std::string_view id);
  // The newest request for the address.
  std::optional<MagicRequest> latestMagicRequest(std::string_view email);
  void approveMagicRequest(std::string_view id);
  // True for the one caller that turns it from unused to used.
  bool useMagicRequest(std::string_view id);
  // The count of wrong codes so far, this one included.
  int noteWrongCode(std::string_view id);

  void addOAuthFlow(const OAuthFlow& flow);
  std::optional<OAuthFlow> oauthFlow(std::string_view id);
  std::optional<OAuthFlow> oauthFlowByCode(std::string_view codeHash);
  void approveOAuthFlow(std::string_view id, std::int64_t accountId, std::string_view codeHash,
                        std::int64_t codeExpires);
  bool useOAuthFlow(std::string_view id);

  void addRefreshToken(std::string_view tokenHash, std::int64_t accountId,
                       std::string_view deviceId, std::string_view deviceName, std::int64_t now,
                       std::int64_t expires);
  std::optional<RefreshToken> refreshToken(std::string_view tokenHash);
  // True for the one caller that turns it from live to revoked.
  bool revokeRefreshToken(std::string_view tokenHash);
  // Every live token of the account, or of one of its devices; how many there were.
  int revokeRefreshTokens(std::int64_t accountId, std::optional<std::string_view> deviceId);
  // Whether the device holds a live refresh token of the account: an access token is only
  // good while its sign-in is.
  bool hasLiveSession(std::int64_t accountId, std::string_view deviceId, std::int64_t now);

  void addEvent(std::int64_t accountId, std::string_view json, std::int64_t now);
  void addSupportMessage(std::int64_t accountId, std::string_view json, std::int64_t now);
  int eventCount();
  int supportMessageCount();

  // Its id is made here; returns it with the id.
  Destination addDestination(Destination destination);
  std::optional<Destination> destination(std::string_view id);
  // In the order they were added; every account's when `accountId` is none.
  std::vector<Destination> destinations(std::optional<std::int64_t> accountId);
  void setDestinationEnabled(std::string_view id, bool enabled);
  void setDestinationError(std::string_view id, std::string_view lastError);
  bool removeDestination(std::string_view id);

  void addStreamSession(const StreamSession& session,
                        const std::vector<SessionDestination>& destinations, std::int64_t now);
  std::optional<StreamSession> streamSession(std::string_view id);
  std::optional<StreamSession> streamSessionByKey(std::string_view streamKey);
  std::vector<SessionDestination> sessionDestinations(std::string_view sessionId);
  // True when that destination is one of the session's.
  bool setSessionDestination(std::string_view sessionId, std::string_view destinationId,
                             std::string_view status, std::string_view errorMessage);
  // Every destination of the session to `status` with no error; "ended" leaves an error
  // standing, so the reason of a failure outlives the stream.
  void setSessionDestinations(std::string_view sessionId, std::string_view status);
  void setPublishing(std::string_view sessionId, bool publishing);
  // True for the one caller that deletes it.
  bool deleteStreamSession(std::string_view id);
  bool isPublishing(std::int64_t accountId);
  // At a start nothing is published yet, whatever a previous run left behind.
  void forgetPublishing();

  std::optional<std::string> embedUrl(std::int64_t accountId);
  void setEmbedUrl(std::int64_t accountId, std::string_view url, std::int64_t now);

 private:
  sqlite3* db_ = nullptr;
  std::vector<std::uint8_t> secret_;
};

}  // namespace qvn::devcloud
