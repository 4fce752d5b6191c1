// The recorder over a writer that only notes what it is given: file names and sizes, one
// clock from the first media, sound that waits while the writer is busy, and a failure of
// the sound that leaves the pictures going.
#include "outputs/movie_recorder.h"

#include <gmock/gmock.h>

#include <atomic>
#include <mutex>

#include "audio/pcm_tap.h"
#include "platform/movie_writer.h"
#include "testing/local_time.h"

namespace qvn::test {
namespace {

using ::testing::ElementsAre;

// What every writer of a test saw; shared so it outlives the writer.
struct Seen {
  std::mutex lock;
  std::vector<std::int64_t> video, audio;
  std::vector<std::int64_t> audioFirstSample;
  std::vector<MovieSettings> settings;
  int finished = 0;
  std::atomic<bool> videoReady{true}, audioReady{true};
  std::atomic<int> failAudio{0};  // the next n sound appends fail
};

class NotingWriter final : public RecordingWriter {
 public:
  explicit NotingWriter(Seen& seen) : seen_(seen) {}
  bool readyForVideo() const override { return seen_.videoReady; }
  bool appendVideo(PixelBufferRef, std::int64_t pts, std::string&) override {
    std::lock_guard hold(seen_.lock);
    seen_.video.push_back(pts);
    return true;
  }
  bool readyForAudio() const override { return seen_.audioReady; }
  bool appendAudio(const std::int16_t* samples, int, std::int64_t pts,
                   std::string& error) override {
    if (seen_.failAudio > 0) {
      --seen_.failAudio;
      error = "movie 4: disk said no";
      return false;
    }
    std::lock_guard hold(seen_.lock);
    seen_.audio.push_back(pts);
    seen_.audioFirstSample.push_back(samples[0]);
    return true;
  }
  void finish(std::function<void(bool, const std::string&)> done) override {
    {
      std::lock_guard hold(seen_.lock);
      ++seen_.finished;
    }
    done(true, "");
  }
  PixelBufferRef conform(const PixelBuffer&) override {
    return PixelBuffer::make(PixelFormat::i420, 16, 16);
  }

 private:
  Seen& seen_;
};

class MovieRecorderTest : public ::testing::Test {
 protected:
  MovieRecorderTest() {
    recorder = MovieRecorder::make({
        [] { return std::filesystem::path("/tmp/qvn-recordings-test"); },
        [this] { return clock.load(); },
        [this](auto consumer) { bus = std::move(consumer); },
        [this](int) { return slotSize; },
        [] {
          return std::pair{1920, 1080};
        },
        [] { return 3; },
        [this](const std::filesystem::path& file, const MovieSettings& s, std::string&) {
          files.push_back(file);
          seen.settings.push_back(s);
          return std::make_unique<NotingWriter>(seen);
        },
        [] { return std::int64_t(1'769'890'500); },
    });
    recorder->onState = [this](bool on, std::optional<std::filesystem::path> file) {
      states.push_back(std::string(on ? "on " : "off ") + (file ? file->filename().string() : ""));
    };
  }
  void settle() {
    recorder->queue().sync([] {});
  }
  // A block of the record bus: `frames` of left then right, the first sample `value`.
  std::vector<float> block(float value, int frames = 1024) {
    std::vector<float> b(std::size_t(frames) * 2, 0.0f);
    b[0] = value;
    return b;
  }
  void picture() { recorder->appendVideo(0, PixelBuffer::make(PixelFormat::bgra, 32, 18)); }

  Seen seen;
  std::atomic<std::int64_t> clock{0};
  std::function<void(const std::vector<float>&, std::int64_t)> bus;
  std::pair<int, int> slotSize{1281, 721};
  std::vector<std::filesystem::path> files;
  std::vector<std::string> states;
  std::shared_ptr<MovieRecorder> recorder;
};

TEST(RecordNaming, FileNamesSizesAndBitratesFollowTheOptions) {
  const std::int64_t when = localTime(2026, 1, 31, 20, 15);
  RecordOptions o;
  EXPECT_EQ(o.fileName(std::nullopt, when), "Quorvane_Recording_2026-01-31_20-15-00.mp4");
  o.prefix = "   ";
  o.includeWorkspace = true;
  o.includeTime = false;
  EXPECT_EQ(o.fileName("Sunday AM", when), "Quorvane_Recording_Sunday-AM_2026-01-31.mp4");
  o.prefix = " Show ";
  o.includeDate = false;
  o.container = "mov";
  EXPECT_EQ(o.fileName(std::nullopt, when), "Show.mov");

  EXPECT_EQ(MovieRecorder::outputSize("program", {1281, 721}, {1920, 1080}),
            (std::pair{1280, 720}));
  EXPECT_EQ(MovieRecorder::outputSize("program", {15, 900}, {3840, 2160}), (std::pair{3840, 2160}));
  EXPECT_EQ(MovieRecorder::outputSize("hd720", {1920, 1080}, {1920, 1080}), (std::pair{1280, 720}));
  EXPECT_EQ(RecordOptions{}.videoBitrate(1920, 1080), 12'441'600);
  o.quality = "low";
  EXPECT_EQ(o.videoBitrate(1920, 1080), 4'147'200);
  EXPECT_EQ(o.videoBitrate(1280, 720), 4'000'000);
}

TEST_F(MovieRecorderTest, TheFirstMediaStartsTheClockAndEarlierSoundIsLeftOut) {
  auto file = recorder->start(0, {}, RecordOptions{}, std::nullopt);
  ASSERT_TRUE(file);
  EXPECT_EQ(file->filename().string().substr(0, 19), "Quorvane_Recording_");
  EXPECT_EQ(seen.settings[0].width, 1280);
  EXPECT_TRUE(seen.settings[0].audio);
  ASSERT_TRUE(bus);
  bus(block(0.5f), 48'000);  // the first media: time zero of the file
  clock = 48'000 + 4'800;
  picture();
  recorder->appendVideo(2, PixelBuffer::make(PixelFormat::bgra, 32, 18));  // not recorded
  bus(block(0.25f), 47'000);                                               // before time zero
  bus(block(1.5f), 49'024);  // beyond full scale: limited
  settle();
  EXPECT_THAT(seen.video, ElementsAre(4'800));
  EXPECT_THAT(seen.audio, ElementsAre(0, 1024));
  EXPECT_THAT(seen.audioFirstSample, ElementsAre(16384, 32767));
  recorder->stop();
  settle();
  EXPECT_EQ(seen.finished, 1);
  EXPECT_THAT(states,
              ElementsAre("on " + file->filename().string(), "off " + file->filename().string()));
}

TEST_F(MovieRecorderTest, SoundWaitsForABusyWriterAndOnlyTheNewestIsKept) {
  ASSERT_TRUE(recorder->start(0, {}, RecordOptions{}, std::nullopt));
  seen.audioReady = false;
  for (int i = 0; i < 50; ++i) bus(block(float(i) / 64), std::int64_t(i) * 1024);
  settle();
  EXPECT_TRUE(seen.audio.empty());
  // The picture doesn't wait for the sound; a writer that can't take it drops it.
  seen.videoReady = false;
  clock = 2048;
  picture();
  settle();
  EXPECT_TRUE(seen.video.empty());
  EXPECT_EQ(recorder->framesDropped(), 1);
  // Stopping writes what waits, ready or not: the first block went to make room.
  recorder->stop();
  settle();
  ASSERT_EQ(seen.audio.size(), 49u);
  EXPECT_EQ(seen.audio.front(), 1024);
  EXPECT_EQ(seen.audio.back(), 49 * 1024);
}

TEST_F(MovieRecorderTest, AFailedSoundAppendEndsTheSoundButThePicturesGoOn) {
  ASSERT_TRUE(recorder->start(0, {}, RecordOptions{}, std::nullopt));
  seen.failAudio = 1;
  bus(block(0.1f), 0);
  bus(block(0.1f), 1024);
  for (int i = 1; i <= 3; ++i) {
    clock = i * 1600;
    picture();
  }
  settle();
  EXPECT_TRUE(seen.audio.empty());
  EXPECT_THAT(seen.video, ElementsAre(1600, 3200, 4800));
  EXPECT_EQ(recorder->framesWritten(), 3);
}

TEST_F(MovieRecorderTest, AStartWhileRecordingFinishesTheFirstMovie) {
  RecordOptions silent;
  silent.prefix = "First";
  ASSERT_TRUE(recorder->start(0, {RecordAudioSource::Kind::none}, silent, std::nullopt));
  EXPECT_FALSE(seen.settings[0].audio);
  EXPECT_FALSE(bus);  // no sound asked for: the record bus isn't joined
  // No phone's sound on Program: pictures only.
  silent.prefix = "Second";
  ASSERT_TRUE(recorder->start(0, {RecordAudioSource::Kind::camera}, silent, std::nullopt));
  EXPECT_FALSE(seen.settings[1].audio);
  settle();
  EXPECT_EQ(seen.finished, 1);
  ASSERT_EQ(states.size(), 3u);
  EXPECT_THAT(states[1], ::testing::StartsWith("off First"));
  EXPECT_THAT(states[2], ::testing::StartsWith("on Second"));
}

// A phone's sound as its tap hands it over: 48 kHz stereo, interleaved.
struct FakeTap final : PCMTap {
  void setConsumer(Consumer c) override { consumer = std::move(c); }
  void play(float value, int frames = 480) {
    std::vector<float> samples(std::size_t(frames) * 2, value);
    PCMView pcm;
    pcm.frames = frames;
    pcm.planes[0] = samples.data();
    if (consumer) consumer(pcm);
  }
  Consumer consumer;
};

TEST_F(MovieRecorderTest, APhonesOwnSoundIsLaidEndToEndOnTheClockWhileItsInputIsOnProgram) {
  auto tap = std::make_shared<FakeTap>();
  recorder->attachTap(tap, 3);  // the input on Program
  ASSERT_TRUE(recorder->start(0, {RecordAudioSource::Kind::camera}, {}, std::nullopt));
  EXPECT_TRUE(seen.settings[0].audio);
  EXPECT_FALSE(bus);  // the mix is not what this movie hears
  clock = 10'000;
  tap->play(0.5f);  // the first media: time zero
  clock = 10'100;   // arrives early: laid after the first all the same
  tap->play(0.25f);
  clock = 40'000;  // after a pause the sound starts again where the clock is
  tap->play(0.125f);
  recorder->followAudioSlot(5);  // another input on Program: this phone is no longer heard
  settle();
  tap->play(1.0f);
  settle();
  EXPECT_THAT(seen.audio, ElementsAre(0, 480, 30'000));
  EXPECT_THAT(seen.audioFirstSample, ElementsAre(16384, 8192, 4096));

  recorder->detachTap(3);
  EXPECT_FALSE(tap->consumer);
  // Without a phone there, or with a microphone the studio doesn't capture, pictures only.
  ASSERT_TRUE(recorder->start(0, {RecordAudioSource::Kind::camera}, {}, std::nullopt));
  EXPECT_FALSE(seen.settings[1].audio);
  ASSERT_TRUE(recorder->start(0, {RecordAudioSource::Kind::mac}, {}, std::nullopt));
  EXPECT_FALSE(seen.settings[2].audio);
}

}  // namespace
}  // namespace qvn::test
