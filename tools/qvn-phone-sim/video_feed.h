// The sim's camera: one encoded frame per tick at the frame rate, handed to the sender with
// the format it belongs to. Live, each tick draws the pattern and encodes it, and the code
// is the running frame number; with --loop it sends a pre-encoded cycle, and the code is the
// frame's index in the loop. --climb starts at half size and goes to full size after two
// seconds of sending, with a new encoder (or loop), a new configuration and a keyframe.
//
// Ticks run on the feed's own queue ("io.quorvane.phone-sim.video"); loops are encoded on a
// second one, so a change of look never stalls the picture. The sink and `onFailure` are
// called on the feed's queue. The other methods may be called from any thread.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "encoded_loop.h"
#include "frame_log.h"
#include "platform/dispatch.h"

namespace qvn {

class VideoFeed {
 public:
  struct Settings {
    int width = 1280;
    int height = 720;
    int fps = 30;
    std::int64_t bitrate = 2'500'000;
    bool loop = false;
    bool climb = false;
    std::string name;  // for the picture's label
    // Added to every frame code, so that several phones' pictures tell apart.
    std::uint32_t codeBase = 0;
  };
  // Sends one frame; false when it could not go, so it is neither logged nor counted.
  using Sink = std::function<bool(const VideoFormat& format, const EncodedFrame& frame)>;

  // Owns the frame log, when there is one.
  VideoFeed(Settings settings, std::unique_ptr<FrameLog> frameLog, Sink sink,
            std::function<void(const std::string& error)> onFailure);
  // Stops ticking and finishes with both queues: no sink call after it returns.
  ~VideoFeed();
  VideoFeed(const VideoFeed&) = delete;
  VideoFeed& operator=(const VideoFeed&) = delete;

  // Starts encoding the loops ahead of time, so they are ready when a viewer joins.
  void prepare();
  void start();
  void setLook(const CameraLook& look);
  void requestKeyframe() { keyframeWanted_ = true; }

 private:
  struct Size {
    int width, height;
    bool operator==(const Size&) const = default;
  };
  Size sizeNow() const;
  H264Settings encoderSettings(Size size) const;
  void tick();
  void sendLive(Size size);
  void sendLooped(Size size);
  void send(const VideoFormat& format, const EncodedFrame& frame, std::uint32_t code);
  std::shared_ptr<const EncodedLoop> loopFor(Size size) const;
  void encodeMissingLoop();
  void fail(const std::string& error);

  const Settings settings_;
  const Sink sink_;
  const std::function<void(const std::string&)> onFailure_;
  std::atomic<bool> keyframeWanted_{false};
  std::atomic<bool> stopping_{false};

  // The feed's queue.
  std::unique_ptr<FrameLog> frameLog_;
  CameraLook look_;
  bool started_ = false;
  bool failed_ = false;
  std::optional<double> firstSentAt_;  // the climb counts from the first frame that went
  std::uint32_t frameNumber_ = 0;      // frames sent
  std::int64_t encoded_ = 0;           // frames encoded live, sent or not: the encoder's clock
  std::optional<Size> lastSize_;
  std::unique_ptr<TestPattern> pattern_;  // live
  std::unique_ptr<H264Encoder> encoder_;  // live, for `encoderSize_`
  Size encoderSize_{0, 0};
  PixelBufferRef picture_;
  std::vector<std::shared_ptr<const EncodedLoop>> loops_;
  std::shared_ptr<const EncodedLoop> playing_;
  size_t loopIndex_ = 0;
  bool encodingLoop_ = false;
  RepeatingTimer ticks_;

  // The loop encoder's queue.
  std::unique_ptr<TestPattern> loopPattern_;

  // Last, so they go first: their jobs use everything above.
  std::unique_ptr<SerialQueue> queue_;
  std::unique_ptr<SerialQueue> loopQueue_;
};

}  // namespace qvn
