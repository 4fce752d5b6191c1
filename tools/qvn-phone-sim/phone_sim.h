// The whole sim: the connection to the studio, the pairing session, the camera feed and the
// WebRTC sender, wired together and run on the calling thread as the main queue until the
// phone leaves or fails.
//
// `run` is called once, on the thread that made the sim; everything the parts report hops
// to the main queue before it touches the session.
#pragma once

#include <memory>
#include <string>

#include "phone_session.h"
#include "phones/line_client.h"
#include "platform/dispatch.h"
#include "platform/net_connection.h"
#include "signal_watcher.h"
#include "sim_options.h"
#include "video_feed.h"
#include "webrtc_sender.h"

namespace qvn {

class PhoneSim final : private PhoneMedia {
 public:
  // Borrows the signal watcher for the length of `run`.
  PhoneSim(SimOptions options, SignalWatcher& signals);
  ~PhoneSim() override;

  // The process's exit code: 0 after a bye, 1 when refused or failed.
  int run();

 private:
  // PhoneMedia, for the session.
  void start() override;
  void setAnswer(const std::string& sdp) override;
  void addRemoteCandidate(int mline, const std::string& candidate) override;
  void setMuted(bool muted) override;
  void setLook(const CameraLook& look) override;

  bool build();
  void connect();
  void connectionChanged(NetConnection::State state, const std::string& error);
  void closed();
  // Says bye and ends once the studio has closed the connection, or after a second. Asked
  // twice (a second Ctrl-C), it ends at once.
  void leave();
  void finish(int exitCode, const std::string& reason);

  const SimOptions options_;
  SignalWatcher& signals_;
  LoopMainQueue main_;
  std::unique_ptr<WebRTCSender> sender_;
  std::unique_ptr<VideoFeed> feed_;
  std::unique_ptr<PhoneSession> session_;
  std::shared_ptr<NetConnection> connection_;
  std::shared_ptr<LineClient> client_;
  DelayedWork timeUp_;
  DelayedWork byeTimeout_;
  bool leaving_ = false;
  bool finished_ = false;
  int exitCode_ = 0;
};

}  // namespace qvn
