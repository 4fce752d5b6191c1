// The movie writer read back with ffprobe and ffmpeg: what it writes plays as written, and a
// writer killed in the middle leaves a movie that plays and recovers.
#include "platform/movie_writer.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "testing/child_process.h"

namespace qvn {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;

constexpr std::int64_t kPicture = MovieWriter::kTimescale / 30;
constexpr int kSoundBlock = 480;  // 10 ms, as a sound card hands it over
// The movie the killed child writes to; set only for the child.
constexpr char kChildMovie[] = "QVN_MOVIE_CHILD";

// A bright bar sweeping over a gradient: every picture differs from the last.
PixelBufferRef movingPicture(int width, int height, int index) {
  auto p = PixelBuffer::make(PixelFormat::i420, width, height);
  const int bar = (index * 8) % width;
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      p->data(0)[y * p->stride(0) + x] =
          std::uint8_t(std::abs(x - bar) < 16 ? 235 : 16 + (x + y + index) % 200);
  for (int plane = 1; plane < 3; ++plane)
    for (int y = 0; y < height / 2; ++y)
      std::memset(p->data(plane) + y * p->stride(plane), plane == 1 ? 100 + index % 50 : 150,
                  size_t(width / 2));
  return p;
}

// 1 kHz at half scale on both channels, from 48 kHz frame `start`.
std::vector<std::int16_t> tone(std::int64_t start, int frames) {
  std::vector<std::int16_t> samples;
  for (int i = 0; i < frames; ++i) {
    const double t = double(start + i) / MovieWriter::kTimescale;
    const auto v = std::int16_t(std::lround(16000 * std::sin(2 * M_PI * 1000 * t)));
    samples.insert(samples.end(), {v, v});
  }
  return samples;
}

bool appendWhenReady(MovieWriter& writer, PixelBufferRef picture, std::int64_t pts,
                     std::string& error) {
  while (!writer.readyForVideo()) std::this_thread::sleep_for(1ms);
  return writer.appendVideo(std::move(picture), pts, error);
}

// `seconds` of pictures, and of tone when the movie has sound, as fast as the writer takes them.
void feed(MovieWriter& writer, const MovieSettings& settings, double seconds) {
  std::int64_t soundAt = 0;
  std::string error;
  for (int i = 0; i < int(seconds * 30); ++i) {
    const std::int64_t pts = i * kPicture;
    ASSERT_TRUE(
        appendWhenReady(writer, movingPicture(settings.width, settings.height, i), pts, error))
        << error;
    for (; settings.audio && soundAt < pts + kPicture; soundAt += kSoundBlock) {
      while (!writer.readyForAudio()) std::this_thread::sleep_for(1ms);
      ASSERT_TRUE(
          writer.appendAudio(tone(soundAt, kSoundBlock).data(), kSoundBlock, soundAt, error))
          << error;
    }
  }
}

struct Finished {
  bool ok = false;
  std::string errors;
};

Finished finish(MovieWriter& writer) {
  auto done = std::make_shared<std::promise<Finished>>();
  auto result = done->get_future();
  writer.finish([done](bool ok, const std::string& errors) { done->set_value({ok, errors}); });
  if (result.wait_for(60s) != std::future_status::ready) return {false, "never done"};
  return result.get();
}

// The types of the file's top-level boxes, in order.
std::vector<std::string> boxes(const fs::path& movie) {
  std::ifstream in(movie, std::ios::binary);
  std::vector<std::string> types;
  unsigned char h[16];
  while (in.read(reinterpret_cast<char*>(h), 8)) {
    std::uint64_t length = std::uint64_t(h[0]) << 24 | h[1] << 16 | h[2] << 8 | h[3];
    types.emplace_back(reinterpret_cast<char*>(h + 4), 4);
    if (length == 1) {
      in.read(reinterpret_cast<char*>(h + 8), 8);
      length = 0;
      for (int i = 8; i < 16; ++i) length = length << 8 | h[i];
      in.seekg(std::streamoff(length - 16), std::ios::cur);
    } else if (length < 8) {
      break;
    } else {
      in.seekg(std::streamoff(length - 8), std::ios::cur);
    }
  }
  return types;
}

bool has(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

class MovieWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(ffprobe_.empty() || ffmpeg_.empty()) << "needs ffmpeg and ffprobe";
    dir_ = test::makeTempDir("movie");
  }
  void TearDown() override {
    std::error_code ignored;
    if (!dir_.empty()) fs::remove_all(dir_, ignored);
  }

  test::RunResult run(const std::vector<std::string>& argv) {
    fs::create_directories(dir_ / "runs");
    return test::runProgram(argv, 120, dir_ / "runs");
  }
  json probe(const fs::path& movie) {
    const auto r = run({ffprobe_, "-v", "error", "-print_format", "json", "-count_packets",
                        "-show_streams", "-show_format", movie.string()});
    EXPECT_TRUE(r.succeeded()) << r.describe();
    return r.succeeded() ? json::parse(r.out) : json::object();
  }
  int decodedPictures(const fs::path& movie) {
    const auto r =
        run({ffprobe_, "-v", "error", "-select_streams", "v:0", "-count_frames", "-show_entries",
             "stream=nb_read_frames", "-of", "csv=p=0", movie.string()});
    return r.succeeded() ? std::atoi(r.out.c_str()) : -1;
  }
  int keyframes(const fs::path& movie) {
    const auto r = run({ffprobe_, "-v", "error", "-select_streams", "v:0", "-show_entries",
                        "packet=flags", "-of", "csv=p=0", movie.string()});
    return int(std::count(r.out.begin(), r.out.end(), 'K'));
  }
  // What decoding the whole movie complains of.
  std::string decodeErrors(const fs::path& movie) {
    const auto r = run({ffmpeg_, "-v", "error", "-i", movie.string(), "-f", "null", "-"});
    return r.succeeded() ? r.err : r.describe();
  }

  // Three seconds of 640×360 pictures and tone, read back.
  void expectPlaysBack(const MovieSettings& settings, const fs::path& movie,
                       const std::string& codec, const std::string& brand) {
    std::string error;
    auto writer = MovieWriter::create(movie, settings, error);
    ASSERT_TRUE(writer) << error;
    EXPECT_TRUE(fs::exists(recordingMarker(movie)));
    feed(*writer, settings, 3);
    const Finished done = finish(*writer);
    ASSERT_TRUE(done.ok) << done.errors;
    EXPECT_EQ(done.errors, "");
    EXPECT_FALSE(fs::exists(recordingMarker(movie)));
    EXPECT_FALSE(fs::exists(fs::path(movie) += ".copying"));

    const auto top = boxes(movie);
    EXPECT_TRUE(has(top, "moov"));
    EXPECT_FALSE(has(top, "moof")) << "still fragmented";
    const json info = probe(movie);
    EXPECT_EQ(info["format"]["tags"]["major_brand"], brand);
    json video, audio;
    for (const auto& s : info["streams"]) (s["codec_type"] == "video" ? video : audio) = s;
    ASSERT_FALSE(video.is_null() || audio.is_null()) << info.dump();
    EXPECT_EQ(video["codec_name"], codec);
    EXPECT_EQ(video["profile"], "Main");
    EXPECT_EQ(video["width"], 640);
    EXPECT_EQ(video["height"], 360);
    EXPECT_EQ(video["nb_read_packets"], "90");
    EXPECT_EQ(keyframes(movie), 3) << "one each 30 pictures";
    EXPECT_EQ(decodedPictures(movie), 90);
    int num = 0, den = 1;
    std::sscanf(video["avg_frame_rate"].get<std::string>().c_str(), "%d/%d", &num, &den);
    EXPECT_NEAR(double(num) / den, 30, 0.5);
    EXPECT_EQ(audio["codec_name"], "aac");
    EXPECT_EQ(audio["profile"], "LC");
    EXPECT_EQ(audio["sample_rate"], "48000");
    EXPECT_EQ(audio["channels"], 2);
    EXPECT_NEAR(std::stod(video["start_time"].get<std::string>()),
                std::stod(audio["start_time"].get<std::string>()), 0.05);
    EXPECT_EQ(decodeErrors(movie), "");
  }

  const std::string ffprobe_ = test::findProgram("ffprobe");
  const std::string ffmpeg_ = test::findProgram("ffmpeg");
  fs::path dir_;
};

MovieSettings small() {
  MovieSettings s;
  s.width = 640;
  s.height = 360;
  s.videoBitrate = 1'000'000;
  return s;
}

TEST_F(MovieWriterTest, H264InMP4PlaysBackAsWritten) {
  expectPlaysBack(small(), dir_ / "Show.mp4", "h264", "isom");
}

TEST_F(MovieWriterTest, HEVCInQuickTimePlaysBackAsWritten) {
  MovieSettings s = small();
  s.container = MovieContainer::mov;
  s.codec = MovieCodec::hevc;
  expectPlaysBack(s, dir_ / "Show.mov", "hevc", "qt  ");
  const json info = probe(dir_ / "Show.mov");
  EXPECT_EQ(info["streams"][0]["codec_tag_string"], "hvc1");
}

TEST_F(MovieWriterTest, PictureWhoseTimeDoesNotAdvanceIsDropped) {
  MovieSettings s = small();
  s.audio = false;
  std::string error;
  auto writer = MovieWriter::create(dir_ / "Drops.mp4", s, error);
  ASSERT_TRUE(writer) << error;
  int taken = 0;
  for (std::int64_t pts : {0, 1600, 1600, 800, 3200}) {
    taken += appendWhenReady(*writer, movingPicture(640, 360, taken), pts, error);
    EXPECT_EQ(error, "");
  }
  EXPECT_EQ(taken, 3);
  EXPECT_FALSE(writer->appendAudio(tone(0, 10).data(), 10, 0, error));
  EXPECT_NE(error.find("no sound"), std::string::npos);
  ASSERT_TRUE(finish(*writer).ok);
  EXPECT_EQ(probe(dir_ / "Drops.mp4")["streams"][0]["nb_read_packets"], "3");
}

TEST_F(MovieWriterTest, UnwritableFolderFailsAtCreateWithReadableText) {
  std::ofstream(dir_ / "file") << "not a folder";
  std::string error;
  EXPECT_FALSE(MovieWriter::create(dir_ / "file" / "Show.mp4", small(), error));
  EXPECT_EQ(error.rfind("movie 1: couldn't create ", 0), 0u) << error;
  EXPECT_NE(error.find(" ← posix 20: Not a directory"), std::string::npos) << error;
  if (geteuid() != 0) {  // root writes anywhere
    fs::create_directory(dir_ / "locked");
    ::chmod((dir_ / "locked").c_str(), 0500);
    EXPECT_FALSE(MovieWriter::create(dir_ / "locked" / "Show.mp4", small(), error));
    EXPECT_NE(error.find("Permission denied"), std::string::npos) << error;
  }
}

TEST_F(MovieWriterTest, MovieThatCantBeWrittenIsKeptWithoutItsMarker) {
  if (!fs::exists("/dev/full")) GTEST_SKIP() << "needs /dev/full";
  // The file is made, and every write to it then fails for want of room.
  const fs::path movie = dir_ / "Full.mp4";
  fs::create_symlink("/dev/full", movie);
  std::string error;
  EXPECT_FALSE(MovieWriter::create(movie, small(), error));
  EXPECT_EQ(error.rfind("movie 3: couldn't write the movie ← ", 0), 0u) << error;
  EXPECT_NE(error.find("posix 28: No space left on device"), std::string::npos) << error;
  EXPECT_TRUE(fs::is_symlink(movie));
  EXPECT_FALSE(fs::exists(recordingMarker(movie)));
}

TEST_F(MovieWriterTest, FinishWithoutPicturesFailsAndKeepsTheFile) {
  const fs::path movie = dir_ / "Empty.mp4";
  std::string error;
  auto writer = MovieWriter::create(movie, small(), error);
  ASSERT_TRUE(writer) << error;
  const Finished done = finish(*writer);
  EXPECT_FALSE(done.ok);
  EXPECT_EQ(done.errors, "movie 5: no pictures were recorded");
  EXPECT_TRUE(fs::exists(movie));
  EXPECT_TRUE(fs::exists(recordingMarker(movie)));
}

TEST_F(MovieWriterTest, WriterDroppedWithoutFinishLeavesAFragmentedMovieToRecover) {
  const fs::path movie = dir_ / "Dropped.mp4";
  std::string error;
  auto writer = MovieWriter::create(movie, small(), error);
  ASSERT_TRUE(writer) << error;
  feed(*writer, small(), 1);
  writer.reset();
  const auto top = boxes(movie);
  EXPECT_GE(std::count(top.begin(), top.end(), "moof"), 2) << "a fragment each half second";
  EXPECT_TRUE(fs::exists(recordingMarker(movie)));
  EXPECT_EQ(decodedPictures(movie), 30);
  EXPECT_EQ(decodeErrors(movie), "");
}

// The writer of the test below, run in a child process of its own.
TEST(MovieWriterChild, DISABLED_WritesUntilKilled) {
  const char* movie = std::getenv(kChildMovie);
  ASSERT_TRUE(movie);
  std::string error;
  auto writer = MovieWriter::create(movie, small(), error);
  ASSERT_TRUE(writer) << error;
  // Past four seconds by as many pictures as the encoder holds back, so that what closes the
  // fragment ending at four seconds has come out of it.
  feed(*writer, small(), 5);
  std::this_thread::sleep_for(1s);  // for the worker to write what it was handed
  std::printf("written\n");
  std::fflush(stdout);
  std::this_thread::sleep_for(120s);
}

TEST_F(MovieWriterTest, KilledWriterLeavesAMovieThatPlaysAndRecovers) {
  const fs::path movie = dir_ / "Killed.mp4";
  const fs::path said = dir_ / "child.out";
  {
    ::setenv(kChildMovie, movie.c_str(), 1);
    test::ChildProcess child(
        {fs::read_symlink("/proc/self/exe").string(), "--gtest_also_run_disabled_tests",
         "--gtest_filter=MovieWriterChild.DISABLED_WritesUntilKilled"},
        said, dir_ / "child.err");
    ::unsetenv(kChildMovie);
    auto written = [&said] {
      std::ifstream in(said);
      return std::string(std::istreambuf_iterator<char>(in), {}).find("written\n") !=
             std::string::npos;
    };
    for (int i = 0; i < 1200 && !written() && child.running(); ++i)
      std::this_thread::sleep_for(50ms);
    ASSERT_TRUE(written()) << "the child wrote nothing";
    child.stop(SIGKILL, 0);
  }
  EXPECT_TRUE(fs::exists(recordingMarker(movie)));
  EXPECT_GE(decodedPictures(movie), 90) << "as the crash left it";

  // A power cut in the middle of writing the last fragment, on a copy.
  const fs::path torn = dir_ / "Torn.mp4";
  fs::copy_file(movie, torn);
  fs::resize_file(torn, fs::file_size(torn) - 2000);
  std::ofstream(recordingMarker(torn)).flush();

  MovieRecovery r = recoverMovie(movie);
  EXPECT_EQ(r.outcome, MovieRecovery::Outcome::recovered) << r.errors;
  EXPECT_EQ(r.path, movie);
  EXPECT_GE(r.seconds, 3.9);
  EXPECT_FALSE(fs::exists(recordingMarker(movie)));
  EXPECT_FALSE(has(boxes(movie), "moof"));
  EXPECT_GE(decodedPictures(movie), 120);
  EXPECT_EQ(decodeErrors(movie), "");

  const double whole = r.seconds;
  r = recoverMovie(torn);
  EXPECT_EQ(r.outcome, MovieRecovery::Outcome::recovered) << r.errors;
  EXPECT_LT(r.seconds, whole) << "the torn fragment was left out";
  EXPECT_GE(r.seconds, whole - 0.6) << "fragments last half a second at most";
  EXPECT_FALSE(fs::exists(recordingMarker(torn)));
  EXPECT_EQ(decodeErrors(torn), "");
}

TEST_F(MovieWriterTest, UnreadableMovieIsSetAsideAndAMissingOneIsForgotten) {
  const fs::path junk = dir_ / "Junk.mp4";
  std::ofstream(junk) << "not a movie";
  std::ofstream(recordingMarker(junk)).flush();
  MovieRecovery r = recoverMovie(junk);
  EXPECT_EQ(r.outcome, MovieRecovery::Outcome::damaged);
  EXPECT_EQ(r.path, dir_ / "Junk.damaged.mp4");
  EXPECT_EQ(r.errors.rfind("movie 7: couldn't recover Junk.mp4 ← ", 0), 0u) << r.errors;
  EXPECT_TRUE(fs::exists(r.path));
  EXPECT_FALSE(fs::exists(junk));
  EXPECT_FALSE(fs::exists(recordingMarker(junk)));

  const fs::path gone = dir_ / "Gone.mp4";
  std::ofstream(recordingMarker(gone)).flush();
  EXPECT_EQ(recoverMovie(gone).outcome, MovieRecovery::Outcome::missing);
  EXPECT_FALSE(fs::exists(recordingMarker(gone)));
}

// A BGRA picture, opaque, each pixel's grey level given by `level(x, y)`.
template <typename Level>
PixelBufferRef greys(int width, int height, Level level) {
  auto p = PixelBuffer::make(PixelFormat::bgra, width, height);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const auto v = std::uint8_t(level(x, y));
      const std::uint8_t pixel[4] = {v, v, v, 255};
      std::memcpy(p->bgraAt(x, y), pixel, 4);
    }
  return p;
}

TEST(MoviePictureConformer, FillsTheMovieCroppingTheSidesNeverLetterboxing) {
  // 16:9 into 4:3: the outer eighths of the width are what gets cropped, so no red is left.
  auto wide = PixelBuffer::make(PixelFormat::bgra, 1280, 720);
  for (int y = 0; y < 720; ++y)
    for (int x = 0; x < 1280; ++x) {
      const bool red = x < 160 || x >= 1120;
      const std::uint8_t pixel[4] = {std::uint8_t(red ? 0 : 128), std::uint8_t(red ? 0 : 128),
                                     std::uint8_t(red ? 255 : 128), 255};
      std::memcpy(wide->bgraAt(x, y), pixel, 4);
    }
  MoviePictureConformer conformer(640, 480);
  const PixelBufferRef picture = conformer.conform(*wide);
  ASSERT_TRUE(picture);
  EXPECT_EQ(picture->format(), PixelFormat::i420);
  ASSERT_EQ(picture->width(), 640);
  ASSERT_EQ(picture->height(), 480);
  for (int y : {0, 239, 479})
    for (int x : {0, 1, 320, 638, 639}) {
      EXPECT_NEAR(picture->data(0)[y * picture->stride(0) + x], 126, 3) << x << "," << y;
      EXPECT_NEAR(picture->data(2)[y / 2 * picture->stride(2) + x / 2], 128, 3) << x << "," << y;
    }
  EXPECT_FALSE(conformer.conform(*movingPicture(64, 36, 0)));
}

TEST(MoviePictureConformer, PictureAUnitOffTheSizeIsPlacedNotScaledAndASlimOneDropped) {
  MoviePictureConformer conformer(64, 36);
  auto luma = [](const PixelBufferRef& p, int x, int y) {
    return int(p->data(0)[y * p->stride(0) + x]);
  };
  // 65×37: a white line at x 32 stays one pixel wide, the black last column and row of the
  // movie stay black, and the unit beyond them is cut.
  PixelBufferRef p = conformer.conform(*greys(65, 37, [](int x, int y) {
    return x >= 64 || y >= 36 ? 255 : x == 63 || y == 35 ? 0 : x == 32 ? 255 : 128;
  }));
  ASSERT_TRUE(p);
  ASSERT_EQ(p->width(), 64);
  ASSERT_EQ(p->height(), 36);
  for (int y : {0, 20, 34}) {
    EXPECT_NEAR(luma(p, 31, y), 126, 3) << y;
    EXPECT_NEAR(luma(p, 32, y), 235, 3) << y;
    EXPECT_NEAR(luma(p, 33, y), 126, 3) << y;
    EXPECT_NEAR(luma(p, 63, y), 16, 3) << y;
  }
  EXPECT_NEAR(luma(p, 10, 35), 16, 3);
  // 63×35, through the same conformer: the missing column and row repeat their neighbours;
  // nothing is left of the picture before.
  p = conformer.conform(
      *greys(63, 35, [](int x, int y) { return x == 62 || y == 34 ? 255 : 128; }));
  ASSERT_TRUE(p);
  for (int y : {0, 20, 34, 35}) EXPECT_NEAR(luma(p, 63, y), 235, 3) << y;
  for (int x : {0, 32, 62}) EXPECT_NEAR(luma(p, x, 35), 235, 3) << x;
  EXPECT_NEAR(luma(p, 32, 0), 126, 3);

  EXPECT_FALSE(conformer.conform(*greys(1, 36, [](int, int) { return 128; })));
  EXPECT_FALSE(conformer.conform(*greys(64, 1, [](int, int) { return 128; })));
}

}  // namespace
}  // namespace qvn
