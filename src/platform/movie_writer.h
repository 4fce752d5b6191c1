// Recording Program and its sound to an MP4 or QuickTime file that survives a crash.
//
// While recording, the file is fragmented (a fragment at each keyframe and at least every half
// second), so a killed process or a power cut leaves a movie that plays up to its last whole
// fragment: it loses half a second at most, and what the encoder was still holding. At
// finish it is copied, stream by stream without re-encoding, into a normal movie that replaces
// it. A marker file "<movie>.recording" sits beside the movie from `create` until a finish
// that succeeds; one found at start means `recoverMovie` has work to do.
//
// Times are counts of 48 kHz frames from the file's time zero, one clock for pictures and sound.
//
// Errors read "{domain} {code}: {description}", from the outermost cause to the innermost,
// joined by " ← ": "movie 3: couldn't write the movie ← posix 28: No space left on device".
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "platform/pixel_buffer.h"

namespace qvn {

class SerialQueue;

enum class MovieContainer { mp4, mov };
enum class MovieCodec { h264, hevc };

struct MovieSettings {
  MovieContainer container = MovieContainer::mp4;
  MovieCodec codec = MovieCodec::h264;  // H.264 Main or HEVC Main, no frame reordering
  int width = 1920;                     // both even
  int height = 1080;
  std::int64_t videoBitrate = 10'000'000;  // bits per second
  int fps = 30;                            // the rate pictures are expected at
  int keyframeInterval = 30;               // in pictures; each keyframe starts a fragment
  // AAC-LC, 48 kHz stereo, 192 kb/s. Should its encoder not start, the movie is recorded
  // without sound, and the first sound handed over is refused with the reason.
  bool audio = true;
  // The encoder's preset. Empty: H264Encoder's choice for the size, or HEVC's fastest; a
  // faster one leaves room for a stream being encoded at the same time.
  std::string preset;
};

// One movie being written. The owner calls everything from one thread at a time (its serial
// queue); encoding and writing happen on the writer's own thread, so nothing here waits on
// them except the destructor.
class MovieWriter {
 public:
  static constexpr int kTimescale = 48'000;
  static constexpr int kVideoQueue = 3;  // pictures handed over and not yet encoded

  using Done = std::function<void(bool ok, const std::string& errors)>;

  // Opens the file, writes its header and the marker; none, with `error` set, when it can't.
  // A file that was created and then couldn't be written stays as it is, without a marker.
  static std::unique_ptr<MovieWriter> create(const std::filesystem::path& path,
                                             const MovieSettings& settings, std::string& error);
  // Without `finish`, the pictures handed over are still written and the fragmented file
  // closed, but the marker stays: the next start recovers it. Waits for a finish under way.
  ~MovieWriter();
  MovieWriter(const MovieWriter&) = delete;
  MovieWriter& operator=(const MovieWriter&) = delete;

  // Whether a picture would be taken now; cheap.
  bool readyForVideo() const;
  // Hands over an I420 picture of the movie's size (BT.709 video range). False when it isn't
  // taken: not ready, a time that doesn't come after the last picture's (dropped, never
  // written), or, with `error` set, a wrong picture or a writer that has failed.
  bool appendVideo(PixelBufferRef picture, std::int64_t pts, std::string& error);

  // Whether sound would be taken now (less than a second of it is waiting); cheap. True too
  // when the sound's encoder didn't start, so that the next appendAudio says why.
  bool readyForAudio() const;
  // Copies `frames` interleaved 16-bit stereo frames starting at `pts`. A gap of up to a
  // second is filled with silence and an overlap with what came before is dropped. False
  // with `error` set when the writer has failed or has no sound track.
  bool appendAudio(const std::int16_t* interleaved, int frames, std::int64_t pts,
                   std::string& error);

  // Encodes what is waiting, closes the file and makes it a normal movie (a copy that takes
  // as long as reading and writing the movie once), then calls `done` on the writer's thread.
  // Nothing is taken afterwards. `ok` with errors means the movie is whole but stayed
  // fragmented (it plays; say why in the log), for instance for want of room for the copy.
  // Failing, the file is kept with its marker, for recovery.
  void finish(Done done);

 private:
  struct Core;
  MovieWriter(std::shared_ptr<Core> core, std::unique_ptr<SerialQueue> worker);

  std::shared_ptr<Core> core_;
  std::unique_ptr<SerialQueue> worker_;
  std::int64_t lastVideoPts_ = INT64_MIN;
  bool finishing_ = false;
};

// "<movie>.recording": present while the movie isn't finished.
std::filesystem::path recordingMarker(const std::filesystem::path& movie);

struct MovieRecovery {
  enum class Outcome {
    recovered,  // `path` is now a normal movie of `seconds`
    damaged,    // nothing could be read; the original was moved to `path`
    missing,    // no movie beside the marker
  };
  Outcome outcome = Outcome::missing;
  std::filesystem::path path;
  double seconds = 0;
  std::string errors;  // why, when damaged
};

// For a movie whose marker was found at start: copies what can be read, up to the last whole
// fragment, into a normal movie that replaces it, or sets it aside as "<stem>.damaged<ext>".
// The marker is removed either way. Blocks for as long as the copy takes.
MovieRecovery recoverMovie(const std::filesystem::path& movie);

// Program's BGRA as the writer's pictures: scaled to fill the movie's size keeping its shape,
// the overflow cropped evenly from both sides (never letterboxed), then I420 BT.709 video
// range, in pooled buffers. A picture within a unit of the movie's size on both sides is not
// scaled but placed at the top left, a missing last row or column repeating the one before.
// One thread at a time.
class MoviePictureConformer {
 public:
  MoviePictureConformer(int width, int height);
  ~MoviePictureConformer();
  // None for a picture that isn't BGRA or is a pixel or less on a side.
  PixelBufferRef conform(const PixelBuffer& bgra);

 private:
  int width_, height_;
  PixelBufferRef scaled_;
  std::unique_ptr<QvnPixelBufferPool> pictures_;
};

}  // namespace qvn
