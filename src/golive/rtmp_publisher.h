// Program and the stream bus as one RTMP publish: the newest Program picture encoded to
// H.264, the stream bus to AAC, both on one timeline that starts at the first picture, sent
// through an RTMPSocket that is opened again, with a growing wait, when the ingest is lost.
//
// Threads: everything it owns lives on its queue ("io.quorvane.camera.golive"). The mix
// queue only drops the newest picture into a one-frame mailbox; the audio bus and the
// socket's callbacks hand over to the queue at once. Callbacks are called on the queue.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "golive/go_live_publisher.h"
#include "golive/publish_sample.h"
#include "golive/publish_timing.h"
#include "golive/rtmp_socket.h"
#include "platform/codecs.h"
#include "platform/dispatch.h"
#include "platform/pixel_buffer.h"

namespace qvn {

class FrameHub;
class AudioEngine;

class RTMPPublisher final : public GoLivePublisher,
                            public std::enable_shared_from_this<RTMPPublisher> {
 public:
  static constexpr std::int64_t kAudioQueueFrames = 96000;
  static constexpr std::int64_t kBacklogBytes = 2 * 1024 * 1024;
  static constexpr int kMostReconnects = 5;
  static constexpr std::int64_t kBitrateFloor = 250'000;

  // Where the pictures, the sound and the canvas size come from; all set once.
  struct Sources {
    std::shared_ptr<FrameHub> frames;
    std::shared_ptr<AudioEngine> audio;
    std::function<std::pair<int, int>()> canvasSize;
    // The H.264 encoder; H264Encoder unless a test gives its own.
    std::function<std::unique_ptr<VideoEncoder>(const H264Settings&, std::string& error)>
        makeEncoder;
    // The wait before reconnect `attempt`, none to give up; `reconnectDelay` unless a test
    // shortens it.
    std::function<std::optional<double>(int attempt)> reconnectWait;
  };
  static std::shared_ptr<RTMPPublisher> make(Sources sources);
  ~RTMPPublisher() override;

  // Any thread; waits for the queue.
  bool start(const std::string& ingestURL, const std::string& streamKey, int slot,
             const StreamConfig& config) override;
  void stop() override;
  void setLiveBitrate(std::int64_t bitsPerSecond);
  void setProgramSlot(int) override {}

  // The last second's sample; none before the first one or after `stop`. Any thread.
  std::optional<QvnPublishSample> latestSample() const;
  // Any thread.
  void setPreferredSize(std::optional<std::pair<int, int>> size) override;
  long networkDrops() const override;

  // Milliseconds on the stream's timeline; negative times become 0, halves round away.
  static std::uint32_t videoMilliseconds(double pts, double videoZero);
  static std::uint32_t audioMilliseconds(std::int64_t startFrame, std::int64_t originFrame,
                                         double videoZero);
  // Whether an encoded picture goes out, and whether the pictures after it wait for the next
  // keyframe. A picture whose millisecond would not advance goes, never out of order; a
  // backlogged ingest costs inter frames until a keyframe.
  struct VideoGate {
    bool send = true;
    bool waitForKeyframe = false;
  };
  static VideoGate videoGate(std::optional<std::uint32_t> lastMs, std::uint32_t ms, bool keyframe,
                             bool waitingForKeyframe, bool backlogged);
  // The wait before reconnect `attempt` (1, 2, 4, 8, 16 s); none after the fifth, when the
  // ingest counts as lost.
  static std::optional<double> reconnectDelay(int attempt);
  // A chosen size of 720 lines or fewer streams at 4 Mb/s at most; the canvas as it is keeps
  // what it was given.
  static std::int64_t bitrateFor(std::int64_t bitrate, int height, bool chosen);

 private:
  struct Pending {
    std::vector<float> block;  // left then right, 1024 frames each
    std::int64_t startFrame = 0;
  };
  explicit RTMPPublisher(Sources sources);
  bool startOnQueue(const std::string& url, const std::string& key, int slot,
                    const StreamConfig& config);
  void stopOnQueue();
  void status(const std::string& text);
  void openSocket();
  void handleDisconnect(const std::string& reason);
  void offer(const PixelBufferRef& buffer);
  void takeFromMailbox();
  void encode(const PixelBufferRef& buffer, double made);
  PixelBufferRef toI420(const PixelBufferRef& bgra);
  void publish(const EncodedFrame& frame, double pts, double made, double submitted,
               double encoded);
  void enqueueAudio(std::vector<float> block, std::int64_t startFrame);
  void flushAudio();
  std::int64_t audioBitrate() const;
  bool sampled() const;
  void takeSample();

  const Sources sources_;
  std::unique_ptr<SerialQueue> queue_;

  // The queue's own.
  std::unique_ptr<VideoEncoder> encoder_;
  std::unique_ptr<AACEncoder> aac_;
  std::shared_ptr<RTMPSocket> rtmp_;
  bool sentHeader_ = false, sentAudioHeader_ = false;
  bool stopping_ = false;
  double startedAt_ = 0;
  int width_ = 1920, height_ = 1080, fps_ = 30;
  std::string ingestURL_, streamKey_;
  int liveSlot_ = 0;
  std::optional<StreamConfig> liveConfig_;
  int reconnectAttempt_ = 0;
  DelayedWork reconnectWork_;
  long droppedVideoFrames_ = 0, framesSubmitted_ = 0, encoderDrops_ = 0, reconnectCount_ = 0;
  std::int64_t encodedVideoBytes_ = 0, sentBytesTotal_ = 0;
  std::int64_t currentBitrate_ = 0, targetBitrate_ = 0;
  double lastEncodeTime_ = 0, lastForcedKeyframe_ = 0;
  std::optional<double> lastKeyframePts_;
  QvnPublishTiming timing_;
  std::int64_t originFrame_ = 0;
  std::optional<double> videoZeroSeconds_;
  std::optional<std::uint32_t> lastVideoMs_;  // of the last picture sent; kept across sockets
  std::deque<Pending> pcmQueue_;
  std::int64_t queuedFrames_ = 0;
  long audioQueueDrops_ = 0;
  long publishCalls_ = 0;
  QvnPixelBufferPool scaledPool_{PixelFormat::bgra, 2};
  QvnPixelBufferPool i420Pool_{PixelFormat::i420, 2};

  RepeatingTimer healthTimer_;
  std::mutex preferredLock_;
  std::optional<std::pair<int, int>> preferredSize_;
  mutable std::mutex sampleLock_;
  std::optional<QvnPublishSample> latestSample_;

  // The one-frame mailbox between the mix queue and ours.
  std::mutex mailboxLock_;
  PixelBufferRef nextFrame_;
  double nextMade_ = 0;
  long replacedPictures_ = 0;  // under the mailbox lock
};

}  // namespace qvn
