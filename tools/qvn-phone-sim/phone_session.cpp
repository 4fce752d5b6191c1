#include "phone_session.h"

#include <algorithm>
#include <iterator>
#include <sstream>

#include "sim_log.h"

namespace qvn {
namespace {

constexpr double kPingSeconds = 5;
constexpr double kZoomMin = 1;
constexpr double kZoomMax = 5;

std::string textOf(const nlohmann::json& message, const char* key) {
  const auto it = message.find(key);
  return it != message.end() && it->is_string() ? it->get<std::string>() : std::string();
}

std::vector<std::string> midsOf(const std::string& sdp) {
  std::vector<std::string> mids;
  std::istringstream lines(sdp);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.starts_with("a=mid:")) mids.push_back(line.substr(6));
  }
  return mids;
}

// "candidate:1 1 UDP 2015363327 127.0.0.1 40312 typ host" → "host 127.0.0.1 40312 UDP".
std::string briefly(const std::string& candidate) {
  std::istringstream words(candidate);
  std::vector<std::string> w{std::istream_iterator<std::string>(words), {}};
  if (w.size() < 8) return candidate;
  return w[7] + " " + w[4] + " " + w[5] + " " + w[2];
}

}  // namespace

bool usableCandidate(const std::string& candidate) {
  return !candidate.empty() && candidate.find(" typ relay") == std::string::npos &&
         candidate.find(" typ srflx") == std::string::npos;
}

PhoneSession::PhoneSession(Settings settings, PhoneMedia& media, Queue& queue, Send send)
    : settings_(std::move(settings)), media_(media), queue_(queue), send_(std::move(send)) {}

void PhoneSession::connected() {
  connected_ = true;
  nlohmann::json hello = {{"type", "hello"}, {"role", "publisher"}, {"name", settings_.name}};
  if (settings_.pin) hello["pin"] = *settings_.pin;
  send_(hello);
}

void PhoneSession::received(const std::string& line) {
  const auto message = nlohmann::json::parse(line, nullptr, false);
  if (message.is_discarded() || !message.is_object()) {
    SimLog::line("ignored a line that is not a JSON object: " + line.substr(0, 80));
    return;
  }
  const std::string type = textOf(message, "type");
  if (type == "welcome") {
    welcome(message);
  } else if (type == "peer-joined") {
    peerJoined();
  } else if (type == "answer") {
    answer(message);
  } else if (type == "ice") {
    remoteCandidate(message);
  } else if (type == "control") {
    control(message);
  } else if (type == "ping") {
    send_({{"type", "pong"}});
  } else if (type == "pong") {
    // The keep-alive came back; nothing to do.
  } else if (type == "error" || type == "pair-fail") {
    const std::string why = textOf(message, "message");
    if (onEnd)
      onEnd(1,
            "the studio refused: " + (why.empty() ? "no reason given" : why) + " (" + type + ")");
  } else {
    SimLog::line("ignored a message of type \"" + type + "\"");
  }
}

void PhoneSession::welcome(const nlohmann::json& message) {
  const auto slot = message.find("slot");
  slot_ = slot != message.end() && slot->is_number_integer() ? slot->get<int>() : 0;
  SimLog::line("paired: slot " + std::to_string(*slot_) + ", session " +
               textOf(message, "session_id"));
  pings_ = RepeatingTimer(queue_, kPingSeconds, [this] { send_({{"type", "ping"}}); });
}

void PhoneSession::peerJoined() {
  if (started_) return;  // one peer connection per pairing
  started_ = true;
  SimLog::line("viewer joined: sending capabilities and making the offer");
  send_({{"type", "capabilities"},
         {"zoomMin", kZoomMin},
         {"zoomMax", kZoomMax},
         {"hasFocus", true},
         {"hasFlip", true},
         {"muted", false}});
  media_.start();
}

void PhoneSession::offerReady(const std::string& sdp) {
  mids_ = midsOf(sdp);
  send_({{"type", "offer"}, {"sdp", sdp}});
  offerSent_ = true;
  SimLog::line("offer sent (" + std::to_string(sdp.size()) + " bytes)");
  if (settings_.printOffer) SimLog::raw(sdp + (sdp.ends_with("\n") ? "" : "\n"));
  for (const auto& [mline, candidate] : earlyLocal_) sendCandidate(mline, candidate);
  earlyLocal_.clear();
}

void PhoneSession::answer(const nlohmann::json& message) {
  const std::string sdp = textOf(message, "sdp");
  if (!offerSent_ || answered_ || sdp.empty()) {
    SimLog::line("ignored an answer that fits no offer");
    return;
  }
  answered_ = true;
  media_.setAnswer(sdp);
  for (const auto& early : earlyRemote_) media_.addRemoteCandidate(early.mline, early.candidate);
  if (!earlyRemote_.empty())
    SimLog::line("added " + std::to_string(earlyRemote_.size()) +
                 " ICE candidate(s) that came before the answer");
  earlyRemote_.clear();
}

void PhoneSession::remoteCandidate(const nlohmann::json& message) {
  const auto it = message.find("candidate");
  if (it == message.end() || !it->is_object()) return;
  const std::string candidate = textOf(*it, "candidate");
  if (candidate.empty()) return;  // the end of the studio's candidates
  if (!usableCandidate(candidate)) {
    SimLog::line("ICE candidate from the studio dropped: " + briefly(candidate));
    return;
  }
  int mline = 0;
  if (const auto index = it->find("sdpMLineIndex");
      index != it->end() && index->is_number_integer())
    mline = index->get<int>();
  else if (const auto mid = std::find(mids_.begin(), mids_.end(), textOf(*it, "sdpMid"));
           mid != mids_.end())
    mline = int(mid - mids_.begin());
  SimLog::line("ICE candidate from the studio: " + briefly(candidate));
  if (answered_)
    media_.addRemoteCandidate(mline, candidate);
  else
    earlyRemote_.push_back({mline, candidate});
}

void PhoneSession::localCandidate(int mline, const std::string& candidate) {
  if (!usableCandidate(candidate)) return;
  if (!offerSent_)
    earlyLocal_.emplace_back(mline, candidate);
  else
    sendCandidate(mline, candidate);
}

void PhoneSession::sendCandidate(int mline, const std::string& candidate) {
  const std::string mid = size_t(mline) < mids_.size() ? mids_[size_t(mline)] : "0";
  send_({{"type", "ice"},
         {"candidate", {{"candidate", candidate}, {"sdpMid", mid}, {"sdpMLineIndex", mline}}}});
  SimLog::line("ICE candidate sent: " + briefly(candidate));
}

void PhoneSession::control(const nlohmann::json& message) {
  const std::string action = textOf(message, "action");
  const auto value = message.find("value");
  const bool hasValue = value != message.end();
  nlohmann::json ack = {{"type", "control-ack"}, {"action", action}};
  std::string said;
  if (action == "flip") {
    look_.back = !look_.back;
    media_.setLook(look_);
    ack["value"] = look_.back;
    said = look_.back ? "back camera" : "front camera";
  } else if (action == "zoom" && hasValue && value->is_number()) {
    look_.zoom = std::clamp(value->get<double>(), kZoomMin, kZoomMax);
    media_.setLook(look_);
    ack["value"] = *value;
    said = value->dump();
  } else if (action == "focus" && message.contains("x") && message["x"].is_number() &&
             message.contains("y") && message["y"].is_number()) {
    const bool locked =
        message.contains("lock") && message["lock"].is_boolean() && message["lock"].get<bool>();
    look_.focus = FocusPoint{std::clamp(message["x"].get<double>(), 0.0, 1.0),
                             std::clamp(message["y"].get<double>(), 0.0, 1.0), locked};
    media_.setLook(look_);
    // Focus has no single value: its fields come back as they came.
    ack["x"] = message["x"];
    ack["y"] = message["y"];
    ack["lock"] = locked;
    said = "(" + message["x"].dump() + ", " + message["y"].dump() + ")" + (locked ? " locked" : "");
  } else if (action == "mute" && hasValue && value->is_boolean()) {
    media_.setMuted(value->get<bool>());
    ack["value"] = *value;
    said = value->get<bool>() ? "tone off" : "tone on";
  } else if (action == "quality" && hasValue) {
    ack["value"] = *value;
    said = value->dump() + " (the sim keeps its size)";
  } else {
    SimLog::line("control ignored: " + message.dump());
    return;
  }
  SimLog::line("control " + action + ": " + said);
  send_(ack);
}

void PhoneSession::leave() {
  pings_.cancel();
  if (!connected_ || saidBye_) return;
  saidBye_ = true;
  send_({{"type", "bye"}});
  SimLog::line("bye");
}

}  // namespace qvn
