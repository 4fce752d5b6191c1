#include "phone_sim.h"

#include <csignal>

#include "sim_log.h"

namespace qvn {
namespace {

constexpr double kByeGraceSeconds = 1;

}  // namespace

PhoneSim::PhoneSim(SimOptions options, SignalWatcher& signals)
    : options_(std::move(options)), signals_(signals) {}

PhoneSim::~PhoneSim() {
  signals_.stop();
  if (sender_) sender_->close();  // first: its threads call into the feed and the main queue
  if (client_) client_->close();
  session_.reset();
  feed_.reset();
  sender_.reset();
}

int PhoneSim::run() {
  if (!build()) return 1;
  signals_.start([this](int signal) {
    main_.async([this, signal] {
      SimLog::line(signal == SIGINT ? "interrupted" : "asked to stop");
      leave();
    });
  });
  feed_->prepare();
  connect();
  if (options_.forSeconds)
    timeUp_ = DelayedWork::schedule(main_, *options_.forSeconds, [this] {
      SimLog::line("time is up");
      leave();
    });
  main_.run();
  return exitCode_;
}

bool PhoneSim::build() {
  std::string error;
  std::unique_ptr<FrameLog> frameLog;
  if (options_.frameLog && !(frameLog = FrameLog::open(*options_.frameLog, error))) {
    SimLog::line(error);
    return false;
  }
  sender_ = WebRTCSender::make(options_.localAddress, error);
  if (!sender_) {
    SimLog::line(error);
    return false;
  }
  sender_->onOffer = [this](const std::string& sdp) {
    main_.async([this, sdp] { session_->offerReady(sdp); });
  };
  sender_->onLocalCandidate = [this](int mline, const std::string& candidate) {
    main_.async([this, mline, candidate] { session_->localCandidate(mline, candidate); });
  };
  // Once the phone is leaving, the studio hanging up its end is no failure.
  sender_->onFailure = [this](const std::string& why) {
    main_.async([this, why] {
      if (!leaving_) finish(1, why);
    });
  };
  sender_->onKeyframeRequest = [this] { feed_->requestKeyframe(); };
  VideoFeed::Settings video{options_.width, options_.height, options_.fps,  options_.bitrate,
                            options_.loop,  options_.climb,  options_.name, options_.codeBase};
  feed_ = std::make_unique<VideoFeed>(
      video, std::move(frameLog),
      [this](const VideoFormat& format, const EncodedFrame& frame) {
        return sender_->pushVideo(format, frame);
      },
      [this](const std::string& why) {
        main_.async([this, why] {
          if (!leaving_) finish(1, "video: " + why);
        });
      });
  PhoneMedia& media = *this;
  session_ = std::make_unique<PhoneSession>(
      PhoneSession::Settings{options_.name, options_.pin, options_.printOffer}, media, main_,
      [this](const nlohmann::json& message) {
        if (client_) client_->send(message);
      });
  session_->onEnd = [this](int code, const std::string& why) { finish(code, why); };
  return true;
}

void PhoneSim::connect() {
  const std::string where = options_.studioHost + ":" + std::to_string(options_.studioPort);
  SimLog::line("connecting to " + where + (options_.loop ? " (looped video)" : ""));
  connection_ =
      NetConnection::open({options_.studioHost, options_.studioPort, false},
                          [this](NetConnection::State state, const std::string& error) {
                            main_.async([this, state, error] { connectionChanged(state, error); });
                          });
}

void PhoneSim::connectionChanged(NetConnection::State state, const std::string& error) {
  const std::string where = options_.studioHost + ":" + std::to_string(options_.studioPort);
  if (state == NetConnection::State::waiting) {
    SimLog::line("no route to " + where + " yet (" + error + "), trying again");
  } else if (state == NetConnection::State::failed) {
    finish(1, "could not connect to " + where + ": " + error);
  } else if (state == NetConnection::State::ready && !client_ && !finished_) {
    SimLog::line("connected to " + where);
    client_ = LineClient::make(connection_);
    client_->onText = [this](const std::string& line) {
      main_.async([this, line] { session_->received(line); });
    };
    client_->onClose = [this] { main_.async([this] { closed(); }); };
    client_->onState = [](const std::string& text) { SimLog::line(text); };
    client_->start(main_);
    session_->connected();
  }
}

void PhoneSim::closed() {
  if (leaving_)
    finish(0, "");
  else
    finish(1, "the studio closed the connection");
}

void PhoneSim::leave() {
  if (!client_) return finish(1, "the studio was never reached");
  if (leaving_ || client_->closed()) return finish(0, "");
  leaving_ = true;
  session_->leave();
  sender_->close();  // the media stops with the bye, as a phone's does
  byeTimeout_ = DelayedWork::schedule(main_, kByeGraceSeconds, [this] { finish(0, ""); });
}

void PhoneSim::finish(int exitCode, const std::string& reason) {
  if (finished_) return;
  finished_ = true;
  exitCode_ = exitCode;
  if (exitCode != 0) {
    SimLog::line("ending: " + reason);
    session_->leave();  // the studio frees the slot at once rather than on its own timeout
  }
  sender_->close();
  SimLog::line(exitCode == 0 ? "left" : "failed");
  main_.quit();
}

// ---- PhoneMedia ----------------------------------------------------------------------------

void PhoneSim::start() {
  sender_->start();
  feed_->start();
}

void PhoneSim::setAnswer(const std::string& sdp) {
  sender_->setAnswer(sdp);
}

void PhoneSim::addRemoteCandidate(int mline, const std::string& candidate) {
  sender_->addRemoteCandidate(mline, candidate);
}

void PhoneSim::setMuted(bool muted) {
  sender_->setMuted(muted);
}

void PhoneSim::setLook(const CameraLook& look) {
  feed_->setLook(look);
}

}  // namespace qvn
