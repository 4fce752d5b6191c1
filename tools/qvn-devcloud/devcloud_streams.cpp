#include "devcloud_streams.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <set>
#include <string_view>

#include "devcloud_replies.h"

namespace qvn::devcloud {
namespace {

using json = nlohmann::json;

// Nothing serves it: the studio shows and copies the link, and this service can't hold a
// certificate for a real name.
constexpr std::string_view kEmbedBase = "https://embed.quorvane.test/v/";
constexpr std::array<std::string_view, 4> kRelayStates = {"starting", "live", "error", "ended"};

json destinationJson(const Destination& d) {
  return {{"id", d.id},
          {"platform", d.platform},
          {"name", d.name},
          {"is_enabled", d.enabled},
          {"has_key", !d.key.empty()},
          {"last_error", d.lastError}};
}

bool canStream(const Destination& d) {
  return d.enabled && !d.key.empty();
}

// Keys and ids are handed out in base64url; anything else can't be one of ours.
bool looksLikeName(std::string_view text) {
  return !text.empty() && text.size() <= 128 &&
         std::all_of(text.begin(), text.end(),
                     [](unsigned char c) { return std::isalnum(c) || c == '-' || c == '_'; });
}

// A stream key in a log line: enough to tell two apart, too little to publish with.
std::string shortKey(const std::string& key) {
  return key.substr(0, std::min<size_t>(key.size(), 8)) + "…";
}

}  // namespace

json defaultStreamConfig() {
  return {
      {"resolution", "1080p"}, {"fps", 30}, {"bitrate_kbps", 6000}, {"audio_bitrate_kbps", 128}};
}

Destination addDestinationFor(Store& store, const NewDestination& wanted, std::int64_t now) {
  const std::string email = normalEmail(wanted.email);
  if (!isFullEmail(email))
    throw Refusal{400, "invalid_email",
                  "The account wants a full email address, not \"" + wanted.email + "\"."};
  Destination d;
  d.platform = trimmed(wanted.platform);
  std::transform(d.platform.begin(), d.platform.end(), d.platform.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  if (d.platform.empty() || d.platform.find_first_of(" \t/") != std::string::npos)
    throw Refusal{400, "invalid_request", "The platform is one word, like youtube or custom."};
  d.name = trimmed(wanted.name);
  if (d.name.empty()) d.name = d.platform;
  d.url = trimmed(wanted.url);
  while (d.url.ends_with('/')) d.url.pop_back();
  const bool rtmp = d.url.starts_with("rtmp://") || d.url.starts_with("rtmps://");
  if (!rtmp || d.url.find_first_of(" \t|") != std::string::npos ||
      d.url.find('/', d.url.find("://") + 3) == std::string::npos)
    throw Refusal{
        400, "invalid_request",
        "The address is rtmp://host[:port]/app (or rtmps://), not \"" + wanted.url + "\"."};
  d.key = trimmed(wanted.key);
  if (d.key.find_first_of(" \t|/") != std::string::npos)
    throw Refusal{400, "invalid_request", "A stream key has no spaces, slashes or bars."};
  d.enabled = wanted.enabled;
  auto account = store.account(email);
  if (!account) account = store.createAccount(email, "", now);
  d.accountId = account->id;
  return store.addDestination(d);
}

StreamDesk::StreamDesk(Store& store, const ServiceSettings& settings)
    : store_(store), settings_(settings), streamConfig_(defaultStreamConfig()) {}

std::optional<HttpReply> StreamDesk::handle(const HttpCall& call, const std::string& path,
                                            const std::function<Account()>& who) {
  using Handler = HttpReply (StreamDesk::*)(const HttpCall&, const std::string&, const Who&);
  struct Route {
    std::string_view method;
    std::string_view path;  // ending in "/" when an id follows
    Handler handler;
  };
  static constexpr Route kRoutes[] = {
      {"GET", "/v1/destinations", &StreamDesk::listDestinations},
      {"PUT", "/v1/destinations/", &StreamDesk::setDestination},
      {"POST", "/v1/streams/sessions", &StreamDesk::createSession},
      {"GET", "/v1/streams/sessions/", &StreamDesk::getSession},
      {"DELETE", "/v1/streams/sessions/", &StreamDesk::deleteSession},
      {"GET", "/v1/embed", &StreamDesk::getEmbed},
      {"POST", "/v1/embed", &StreamDesk::createEmbed},
      {"POST", "/dev/destinations", &StreamDesk::devAddDestination},
      {"GET", "/dev/stream-config", &StreamDesk::devGetConfig},
      {"POST", "/dev/stream-config", &StreamDesk::devSetConfig},
      {"DELETE", "/dev/stream-config", &StreamDesk::devResetConfig},
      {"POST", "/dev/rtmp/on_publish", &StreamDesk::onPublish},
      {"POST", "/dev/rtmp/on_publish_done", &StreamDesk::onPublishDone},
      {"POST", "/dev/rtmp/on_update", &StreamDesk::onUpdate},
      {"GET", "/dev/relay/targets", &StreamDesk::relayTargets},
      {"POST", "/dev/relay/status", &StreamDesk::relayStatus},
  };
  std::string allowed;
  for (const auto& r : kRoutes) {
    std::string id;
    if (r.path.ends_with('/')) {
      if (!path.starts_with(r.path)) continue;
      id = path.substr(r.path.size());
      if (id.empty() || id.find('/') != std::string::npos) continue;
    } else if (path != r.path) {
      continue;
    }
    if (r.method == call.method) return (this->*r.handler)(call, id, who);
    allowed += allowed.empty() ? "" : ", ";
    allowed += r.method;
  }
  if (allowed.empty()) return std::nullopt;
  auto reply = errorReply(405, "method_not_allowed", path + " takes " + allowed + ".");
  reply.headers.emplace_back("Allow", allowed);
  return reply;
}

// --- the studio's endpoints

HttpReply StreamDesk::listDestinations(const HttpCall&, const std::string&, const Who& who) {
  json list = json::array();
  for (const auto& d : store_.destinations(who().id)) list.push_back(destinationJson(d));
  return jsonReply(200, {{"destinations", list}});
}

HttpReply StreamDesk::setDestination(const HttpCall& call, const std::string& id, const Who& who) {
  const Account account = who();
  const json body = objectBody(call);
  auto d = store_.destination(id);
  if (!d || d->accountId != account.id)
    throw Refusal{404, "not_found", "There's no destination " + id + " on this account."};
  const auto enabled = body.find("is_enabled");
  if (enabled == body.end() || !enabled->is_boolean())
    throw Refusal{400, "invalid_request", "is_enabled is true or false."};
  d->enabled = enabled->get<bool>();
  store_.setDestinationEnabled(d->id, d->enabled);
  log("destination " + d->id + " (" + d->name + ") turned " + (d->enabled ? "on" : "off"));
  return jsonReply(200, {{"destination", destinationJson(*d)}});
}

HttpReply StreamDesk::createSession(const HttpCall& call, const std::string&, const Who& who) {
  const Account account = who();
  const json body = objectBody(call);
  const auto ids = body.find("destination_ids");
  if (ids == body.end() || !ids->is_array())
    throw Refusal{400, "invalid_request", "destination_ids is a list of destination ids."};
  const auto deviceId = optionalText(body, "device_id").value_or("");

  std::vector<SessionDestination> chosen;
  std::set<std::string> seen;
  std::optional<Destination> keyless;
  for (const auto& entry : *ids) {
    if (!entry.is_string() || !seen.insert(entry.get<std::string>()).second) continue;
    const auto d = store_.destination(entry.get<std::string>());
    if (!d || d->accountId != account.id) continue;
    if (d->enabled && d->key.empty() && !keyless) keyless = d;
    if (canStream(*d)) chosen.push_back({d->id, d->platform, d->name, "waiting", ""});
  }
  if (chosen.empty())
    throw Refusal{400, "no_destinations",
                  keyless ? keyless->name +
                                " isn't connected: it has no stream key yet. Add "
                                "one, or turn it off."
                          : "Turn on at least one destination."};

  StreamSession session;
  session.id = "ses_" + randomToken(12);
  session.accountId = account.id;
  session.deviceId = deviceId;
  session.streamKey = "live_" + randomToken(18);
  session.configJson = streamConfig_.dump();
  store_.addStreamSession(session, chosen, settings_.clock());
  log("session " + session.id + " opened for " + account.email + " to " +
      std::to_string(chosen.size()) + " destination(s), key " + shortKey(session.streamKey));
  return jsonReply(201, {{"session", sessionJson(session)}});
}

StreamSession StreamDesk::ownSession(const std::string& id, const Account& account) {
  const auto session = store_.streamSession(id);
  if (!session || session->accountId != account.id)
    throw Refusal{404, "not_found", "There's no stream session " + id + "."};
  return *session;
}

json StreamDesk::sessionJson(const StreamSession& session) const {
  json object = {
      {"id", session.id}, {"ingest_url", settings_.ingestUrl}, {"stream_key", session.streamKey}};
  // A test may have asked for sessions without settings, to see the studio refuse them.
  const json config = json::parse(session.configJson, nullptr, false);
  if (!config.is_null() && !config.is_discarded()) object["stream_config"] = config;
  return object;
}

HttpReply StreamDesk::getSession(const HttpCall&, const std::string& id, const Who& who) {
  const StreamSession session = ownSession(id, who());
  json destinations = json::array();
  for (const auto& d : store_.sessionDestinations(session.id))
    destinations.push_back({{"destination_id", d.destinationId},
                            {"platform", d.platform},
                            {"name", d.name},
                            {"status", d.status},
                            {"error_message", d.errorMessage}});
  return jsonReply(200, {{"session", sessionJson(session)}, {"destinations", destinations}});
}

HttpReply StreamDesk::deleteSession(const HttpCall&, const std::string& id, const Who& who) {
  const StreamSession session = ownSession(id, who());
  if (!store_.deleteStreamSession(session.id))
    throw Refusal{404, "not_found", "Stream session " + id + " has already ended."};
  store_.setSessionDestinations(session.id, "ended");
  // The ingest asks about its publisher every second and drops it at the next refusal.
  log("session " + session.id + " deleted: its key no longer publishes");
  return jsonReply(200, json::object());
}

HttpReply StreamDesk::getEmbed(const HttpCall&, const std::string&, const Who& who) {
  const Account account = who();
  const auto url = store_.embedUrl(account.id);
  if (!url) return jsonReply(200, json::object());
  return jsonReply(200, {{"embed_url", *url}, {"studio_live", store_.isPublishing(account.id)}});
}

HttpReply StreamDesk::createEmbed(const HttpCall& call, const std::string&, const Who& who) {
  const Account account = who();
  objectBody(call);
  const bool isNew = !store_.embedUrl(account.id);
  if (isNew)
    store_.setEmbedUrl(account.id, std::string(kEmbedBase) + randomToken(12), settings_.clock());
  return jsonReply(isNew ? 201 : 200, {{"embed_url", *store_.embedUrl(account.id)},
                                       {"studio_live", store_.isPublishing(account.id)}});
}

// --- controls for tests and for the person running it

HttpReply StreamDesk::devAddDestination(const HttpCall& call, const std::string&, const Who&) {
  const json body = objectBody(call);
  NewDestination wanted{requiredText(body, "email"), requiredText(body, "platform"),
                        optionalText(body, "name").value_or(""), requiredText(body, "url"),
                        optionalText(body, "key").value_or("")};
  if (const auto enabled = body.find("enabled"); enabled != body.end() && !enabled->is_null()) {
    if (!enabled->is_boolean()) throw Refusal{400, "invalid_request", "enabled is true or false."};
    wanted.enabled = enabled->get<bool>();
  }
  const Destination d = addDestinationFor(store_, wanted, settings_.clock());
  log("destination " + d.id + " (" + d.name + ", " + d.platform + ") added for " +
      normalEmail(wanted.email));
  json reply = destinationJson(d);
  reply["url"] = d.url;
  return jsonReply(201, {{"destination", reply}});
}

HttpReply StreamDesk::devGetConfig(const HttpCall&, const std::string&, const Who&) {
  return jsonReply(200, {{"stream_config", streamConfig_}});
}

HttpReply StreamDesk::devSetConfig(const HttpCall& call, const std::string&, const Who&) {
  // Taken as it is, wrong types and missing keys included: the point is to see the studio
  // refuse what it can't use.
  const json config = json::parse(call.body, nullptr, false);
  if (config.is_discarded() || !(config.is_object() || config.is_null()))
    throw Refusal{400, "invalid_json",
                  "The body is the stream_config to hand out: an object, or null for none."};
  streamConfig_ = config;
  log("new sessions get stream_config " + streamConfig_.dump());
  return jsonReply(200, {{"stream_config", streamConfig_}});
}

HttpReply StreamDesk::devResetConfig(const HttpCall&, const std::string&, const Who&) {
  streamConfig_ = defaultStreamConfig();
  return jsonReply(200, {{"stream_config", streamConfig_}});
}

// --- the ingest's calls: form fields, 2xx lets the publisher on, anything else drops it

HttpReply StreamDesk::onPublish(const HttpCall& call, const std::string&, const Who&) {
  const auto form = formOf(call.body);
  const std::string key = queryValue(form, "name");
  const std::string from = queryValue(form, "addr", "?");
  const auto session = looksLikeName(key) ? store_.streamSessionByKey(key) : std::nullopt;
  std::string refusal;
  if (!session)
    refusal = "no session has that stream key";
  else if (session->deleted)
    refusal = "session " + session->id + " was deleted";
  else if (session->publishing)
    refusal = "session " + session->id + " is already being published";
  if (!refusal.empty()) {
    log("on_publish from " + from + " refused: " + refusal);
    return errorReply(403, "forbidden", "That stream key can't publish here.");
  }
  store_.setPublishing(session->id, true);
  store_.setSessionDestinations(session->id, "starting");
  log("on_publish from " + from + " allowed: session " + session->id);
  return jsonReply(200, json::object());
}

HttpReply StreamDesk::onPublishDone(const HttpCall& call, const std::string&, const Who&) {
  const std::string key = queryValue(formOf(call.body), "name");
  const auto session = looksLikeName(key) ? store_.streamSessionByKey(key) : std::nullopt;
  if (session && session->publishing) {
    store_.setPublishing(session->id, false);
    store_.setSessionDestinations(session->id, "ended");
    log("publish ended: session " + session->id);
  }
  return jsonReply(200, json::object());
}

HttpReply StreamDesk::onUpdate(const HttpCall& call, const std::string&, const Who&) {
  const auto form = formOf(call.body);
  HttpReply reply = jsonReply(200, json::object());
  // Every second for every publisher and player: only a refusal is worth a line.
  reply.quiet = true;
  if (queryValue(form, "call") != "update_publish") return reply;
  const std::string key = queryValue(form, "name");
  const auto session = looksLikeName(key) ? store_.streamSessionByKey(key) : std::nullopt;
  if (session && !session->deleted) return reply;
  log("on_update: dropping the publisher of " +
      (session ? "deleted session " + session->id : std::string("an unknown stream key")));
  return errorReply(403, "forbidden", "That stream key no longer publishes.");
}

HttpReply StreamDesk::relayTargets(const HttpCall& call, const std::string&, const Who&) {
  const std::string key = requiredQuery(queryOf(call.target), "key");
  const auto session = looksLikeName(key) ? store_.streamSessionByKey(key) : std::nullopt;
  if (!session || session->deleted)
    throw Refusal{404, "no_session", "No open stream session has that key."};
  json targets = json::array();
  for (const auto& sd : store_.sessionDestinations(session->id)) {
    const auto d = store_.destination(sd.destinationId);
    if (d && canStream(*d)) {
      targets.push_back(
          {{"destination_id", d->id}, {"name", d->name}, {"url", d->url + "/" + d->key}});
    } else if (sd.status != "ended") {
      // Turned off, disconnected or removed since the session began: not streamed to.
      store_.setSessionDestination(session->id, sd.destinationId, "ended", "");
      log("relay: session " + session->id + ", " + sd.name + " (" + sd.destinationId +
          "): ended (turned off or removed)");
    }
  }
  return jsonReply(200, {{"session_id", session->id},
                         {"source", settings_.ingestUrl + "/" + key},
                         {"targets", targets}});
}

HttpReply StreamDesk::relayStatus(const HttpCall& call, const std::string&, const Who&) {
  const json body = objectBody(call);
  const std::string key = requiredText(body, "key");
  const std::string destinationId = requiredText(body, "destination_id");
  std::string status = requiredText(body, "status");
  std::string message = trimmed(optionalText(body, "error_message").value_or(""));
  if (std::find(kRelayStates.begin(), kRelayStates.end(), status) == kRelayStates.end())
    throw Refusal{400, "invalid_request", "status is starting, live, error or ended."};
  if (status == "error" && message.empty()) message = "The stream could not reach it.";
  if (status != "error") message.clear();

  const auto session = looksLikeName(key) ? store_.streamSessionByKey(key) : std::nullopt;
  if (!session || session->deleted)
    throw Refusal{404, "no_session", "No open stream session has that key."};
  const auto list = store_.sessionDestinations(session->id);
  const auto current = std::find_if(list.begin(), list.end(), [&](const SessionDestination& d) {
    return d.destinationId == destinationId;
  });
  if (current == list.end())
    throw Refusal{404, "not_found", "That destination is not one of the session's."};
  // A relay still winding down after its publish ended can't bring it back to life.
  if (!session->publishing && (status == "starting" || status == "live"))
    throw Refusal{409, "not_publishing", "Nothing publishes with that key now."};
  // The end of a stream doesn't wipe out why a destination failed before it.
  if (status == "ended" && current->status == "error") return jsonReply(200, json::object());

  if (current->status != status || current->errorMessage != message) {
    store_.setSessionDestination(session->id, destinationId, status, message);
    log("relay: session " + session->id + ", " + current->name + " (" + destinationId +
        "): " + status + (message.empty() ? "" : ": " + message));
  }
  if (status == "error") store_.setDestinationError(destinationId, message);
  if (status == "live") store_.setDestinationError(destinationId, "");
  return jsonReply(200, json::object());
}

}  // namespace qvn::devcloud
