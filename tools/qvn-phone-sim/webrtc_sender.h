// The sending half of the phone's peer connection, on GStreamer's webrtcbin: our own H.264
// frames through an appsrc and RTP payloader (pt 102), and a 440 Hz tone through Opus (pt
// 111), both payloaders carrying the transport-wide congestion control header extension,
// everything bundled on one transport, no STUN or TURN, and ICE held to one local address
// when one is given. The offer is made once both streams have their caps, so it describes
// what is actually sent (the encoder's own profile and level).
//
// Made, driven and destroyed on one thread (the main queue); `pushVideo` comes from the
// feed's queue. The callbacks, set before `start`, are called on GStreamer's threads, and
// never once `close` has begun. States and warnings go straight to the log.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "encoded_loop.h"

typedef struct _GstPad GstPad;
typedef struct _GstStructure GstStructure;

namespace qvn {

class WebRTCSender {
 public:
  // None, with `error` in plain words, when GStreamer lacks an element the sim needs.
  static std::unique_ptr<WebRTCSender> make(const std::optional<std::string>& localAddress,
                                            std::string& error);
  // Closes, as `close` does.
  ~WebRTCSender();
  WebRTCSender(const WebRTCSender&) = delete;
  WebRTCSender& operator=(const WebRTCSender&) = delete;

  std::function<void(const std::string& sdp)> onOffer;
  std::function<void(int mline, const std::string& candidate)> onLocalCandidate;
  std::function<void(const std::string& error)> onFailure;  // the peer connection can't go on
  std::function<void()> onKeyframeRequest;  // the studio asked for a picture to start from

  // Starts the pipeline; the offer follows through `onOffer`.
  void start();
  void setAnswer(const std::string& sdp);
  void addRemoteCandidate(int mline, const std::string& candidate);
  void setMuted(bool muted);
  // Hangs up: the pipeline stops, its threads are joined, and no callback comes after this.
  void close();

  // One encoded frame, timed by the pipeline's clock as it goes in. Until the peer connection
  // is first up, only the stream's caps go (the offer needs them) and frames are dropped, as
  // are those after it until a keyframe: false for a frame that did not go. The feed's queue.
  bool pushVideo(const VideoFormat& format, const EncodedFrame& frame);

 private:
  struct Elements;
  explicit WebRTCSender(std::unique_ptr<Elements> elements);
  void connectSignals();
  void describe(GstPad* out);
  void makeOfferOnceReady();
  void offerCreated(const GstStructure* reply);
  void stateChanged(const char* property);
  void failed(const std::string& error);

  std::unique_ptr<Elements> e_;
  std::atomic<bool> started_{false};
  std::atomic<bool> offerMade_{false};
  std::atomic<bool> connected_{false};
  std::atomic<bool> closing_{false};  // from the destructor on, callbacks stay quiet
  // The feed's queue.
  std::optional<VideoFormat> videoFormat_;
  bool sentKeyframe_ = false;
};

}  // namespace qvn
