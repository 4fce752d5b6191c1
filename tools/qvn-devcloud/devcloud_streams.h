// The devcloud's stream side: an account's destinations, the stream sessions of "Go Live"
// with each destination's state, the embed link, and the loopback endpoints the ingest
// (nginx) and its relays call. Same thread rules as the service it is part of.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "devcloud_service.h"
#include "devcloud_store.h"

namespace qvn::devcloud {

// What the studio is told to encode with unless a test asks for something else.
nlohmann::json defaultStreamConfig();

struct NewDestination {
  std::string email;
  std::string platform;
  std::string name;  // empty: the platform
  std::string url;
  std::string key;
  bool enabled = true;
};

// Checks it (Refusal 400 with words for a person), makes the account when there is none
// yet, and keeps it.
Destination addDestinationFor(Store& store, const NewDestination& wanted, std::int64_t now);

class StreamDesk {
 public:
  StreamDesk(Store& store, const ServiceSettings& settings);

  // The reply when `path` is one of the stream side's, none otherwise. `who` gives the
  // account of a request under /v1/, or throws the refusal a bad token earns.
  std::optional<HttpReply> handle(const HttpCall& call, const std::string& path,
                                  const std::function<Account()>& who);

 private:
  using Who = std::function<Account()>;
  HttpReply listDestinations(const HttpCall&, const std::string&, const Who&);
  HttpReply setDestination(const HttpCall&, const std::string& id, const Who&);
  HttpReply createSession(const HttpCall&, const std::string&, const Who&);
  HttpReply getSession(const HttpCall&, const std::string& id, const Who&);
  HttpReply deleteSession(const HttpCall&, const std::string& id, const Who&);
  HttpReply getEmbed(const HttpCall&, const std::string&, const Who&);
  HttpReply createEmbed(const HttpCall&, const std::string&, const Who&);

  HttpReply devAddDestination(const HttpCall&, const std::string&, const Who&);
  HttpReply devGetConfig(const HttpCall&, const std::string&, const Who&);
  HttpReply devSetConfig(const HttpCall&, const std::string&, const Who&);
  HttpReply devResetConfig(const HttpCall&, const std::string&, const Who&);
  HttpReply onPublish(const HttpCall&, const std::string&, const Who&);
  HttpReply onPublishDone(const HttpCall&, const std::string&, const Who&);
  HttpReply onUpdate(const HttpCall&, const std::string&, const Who&);
  HttpReply relayTargets(const HttpCall&, const std::string&, const Who&);
  HttpReply relayStatus(const HttpCall&, const std::string&, const Who&);

  // The account's own session, or Refusal 404.
  StreamSession ownSession(const std::string& id, const Account& account);
  nlohmann::json sessionJson(const StreamSession& session) const;
  void log(const std::string& line) const { settings_.log(line); }

  Store& store_;
  const ServiceSettings& settings_;
  nlohmann::json streamConfig_;
};

}  // namespace qvn::devcloud
