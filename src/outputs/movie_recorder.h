// The session recorder: Program (or one input) and its sound to a movie file. The file's
// clock is the audio engine's count of rendered 48 kHz frames: each picture is stamped with
// it when it arrives, each block of the record bus carries its own, and both are measured
// from the first media to arrive. Nothing waits: a picture the writer can't take now is
// dropped, so a slow disk costs frames, never time on the mix.
//
// Threads: `appendVideo` runs on the mix queue (or an input's thread) and only stamps and
// posts; the record bus's blocks come on the audio engine's bus queue and are posted too.
// Everything that touches the writer runs on the recorder's queue
// ("io.quorvane.camera.record"). `start` and `stop` are called on the main thread;
// `onState` comes from the record queue or the writer's thread. Movies left by a crash are
// repaired on a queue of their own, so a long repair never holds up a new recording.
//
// Sound comes from the mix's record bus, or from the phone on the recorded input (or on
// Program) through its tap, on the phone's audio thread. The tap's buffers carry no frame
// number: they are laid end to end on the file's clock from where the clock stood when the
// first arrived, and set back on it when they drift more than a few blocks away. Microphone
// capture isn't part of the studio yet, so that choice records pictures only.
#pragma once

#include <atomic>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "audio/pcm_converter.h"
#include "outputs/output_hubs.h"
#include "platform/dispatch.h"
#include "platform/pixel_buffer.h"

namespace qvn {

struct MovieSettings;

// What the recorder writes through: the platform's movie writer, or a test's.
class RecordingWriter {
 public:
  virtual ~RecordingWriter() = default;
  virtual bool readyForVideo() const = 0;
  // An I420 picture of the movie's size at `pts` (48 kHz frames).
  virtual bool appendVideo(PixelBufferRef picture, std::int64_t pts, std::string& error) = 0;
  virtual bool readyForAudio() const = 0;
  virtual bool appendAudio(const std::int16_t* interleaved, int frames, std::int64_t pts,
                           std::string& error) = 0;
  // `done` on any thread, once; `errors` is the chain of causes when not ok.
  virtual void finish(std::function<void(bool ok, const std::string& errors)> done) = 0;
  // Program's BGRA at the movie's size, cropped to fill; none when it can't be.
  virtual PixelBufferRef conform(const PixelBuffer& bgra) = 0;
};

class MovieRecorder final : public SessionRecorder,
                            public std::enable_shared_from_this<MovieRecorder> {
 public:
  static constexpr std::size_t kMostPendingAudio = 48;
  static constexpr int kRate = 48'000;

  struct Sources {
    // Where recordings go when no folder was chosen.
    std::function<std::filesystem::path()> recordingsFolder;
    // The audio engine's rendered frames now: the file's clock.
    std::function<std::int64_t()> clock;
    // Joins the record bus (a null consumer leaves it).
    std::function<void(std::function<void(const std::vector<float>&, std::int64_t)>)> recordBus;
    // A slot's picture size now, and the canvas's.
    std::function<std::pair<int, int>(int slot)> slotSize;
    std::function<std::pair<int, int>()> canvasSize;
    // The input on Program, whose sound a recording of Program with a phone's sound takes.
    std::function<int()> programSlot;
    std::function<std::unique_ptr<RecordingWriter>(const std::filesystem::path&,
                                                   const MovieSettings&, std::string& error)>
        makeWriter;
    // Seconds since the epoch, for file names.
    std::function<std::int64_t()> wallClock;
  };
  static std::shared_ptr<MovieRecorder> make(Sources sources);
  ~MovieRecorder() override;

  std::optional<std::filesystem::path> start(int videoSlot, RecordAudioSource audio,
                                             const RecordOptions& options,
                                             const std::optional<std::string>& workspace) override;
  // The same into a file of the caller's naming; its folder must exist.
  bool startFile(const std::filesystem::path& file, int videoSlot, RecordAudioSource audio,
                 const RecordOptions& options);
  void recoverUnfinished(const std::filesystem::path& folder) override;
  void stop() override;
  // At quit: finishes a recording under way and waits at most `seconds` for its movie.
  // False when it didn't finish in time.
  bool finishBlocking(double seconds);
  void attachTap(std::shared_ptr<PCMTap> tap, int slot) override;
  void detachTap(int slot) override;
  void followAudioSlot(int slot) override;
  // Whether `source` has sound to record now for `videoSlot`.
  bool canRecord(const RecordAudioSource& source, int videoSlot);

  // A picture of `slot`; only the recorded slot's are taken. Any thread; never waits.
  void appendVideo(int slot, const PixelBufferRef& buffer);
  // Sound at bus frame `startFrame`: left then right, `frames` each.
  void appendPCM(std::vector<float> block, std::int64_t startFrame);

  // The movie's picture size for a choice; each side made even.
  static std::pair<int, int> outputSize(const std::string& size, std::pair<int, int> slot,
                                        std::pair<int, int> canvas);
  // The platform's movie file, for `Sources::makeWriter`.
  static std::unique_ptr<RecordingWriter> movieFile(const std::filesystem::path& file,
                                                    const MovieSettings& settings,
                                                    std::string& error);
  // The writer's settings for the options at a size.
  static MovieSettings settingsFor(const RecordOptions& options, int width, int height, bool audio);

  Queue& queue() { return *queue_; }
  long framesWritten() const { return frameCount_.load(); }
  // Pictures of the recorded input that never reached a movie since the studio started: the
  // writer was busy, or the picture couldn't be converted or appended. Any thread.
  long framesDropped() const { return droppedFrames_.load(std::memory_order_relaxed); }

 private:
  struct TapFeed;
  struct Pending {
    std::vector<float> block;
    std::int64_t startFrame;
  };
  explicit MovieRecorder(Sources sources);
  void stopThen(std::function<void()> finished);
  void connectSound(const RecordAudioSource& audio);
  void ensureSession(std::int64_t stamp);
  void writeVideo(PixelBufferRef buffer, std::int64_t stamp);
  void takeTapPCM(TapFeed& feed, const PCMView& pcm);
  void takePCM(std::vector<float> block, std::int64_t startFrame);
  void flushPendingAudio(bool force);
  void finishOnQueue(std::function<void()> completion);
  void report(bool running, std::optional<std::filesystem::path> file);

  Sources sources_;
  std::unique_ptr<SerialQueue> queue_;  // declared first of the queue's own: it goes last
  std::unique_ptr<SerialQueue> recoveryQueue_;
  // Read on the mix and bus queues without the record queue.
  std::atomic<bool> running_{false};
  std::atomic<int> videoSlot_{0};
  std::atomic<RecordAudioSource::Kind> audioKind_{RecordAudioSource::Kind::none};
  std::atomic<int> audioSlot_{0};
  std::atomic<long> frameCount_{0};
  std::atomic<long> droppedFrames_{0};
  std::mutex currentLock_;
  std::optional<std::filesystem::path> current_;  // the movie being written, under the lock
  std::mutex tapsLock_;
  std::map<int, std::shared_ptr<PCMTap>> phoneTaps_;  // under the lock

  // The record queue's own.
  std::unique_ptr<RecordingWriter> writer_;
  std::unique_ptr<RecordingWriter> finishing_;  // the last one, until its finish is done
  bool hasAudio_ = false;
  bool sessionStarted_ = false;
  std::optional<std::int64_t> clockOrigin_;
  std::deque<Pending> pendingAudio_;
  bool audioOK_ = true;
  std::vector<std::int16_t> interleaved_;
  std::optional<std::filesystem::path> file_;
};

}  // namespace qvn
