// What a published frame costs the publisher's thread, as a fraction of the 33 ms a frame
// lasts at 30 frames a second, at 1080p and 2160p:
//
//   convert   Program's BGRA to I420 (libyuv, one thread), as the publisher does;
//   encode    H264Encoder at the preset the studio picks for that size, and at the next slower
//             one to show the margin the choice leaves;
//   ffmpeg    ffmpeg's libx264 encoding the same I420 frames with the same settings (preset,
//             zerolatency, Main, no B-frames, 2 s GOP, the bitrate as a 1 s capped average),
//             in the same run, as the yardstick.
//
// The picture is a detailed texture panning a few pixels a frame with a little noise, so the
// encoder searches motion as it would on a camera. Encodes run back to back (throughput, not
// paced), wall time per frame and CPU seconds per frame. Prints a table; `--json FILE` also
// writes it, `--frames N` changes how many frames each row encodes.
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/codecs.h"
#include "platform/pixel_convert.h"
#include "testing/child_process.h"

namespace {

namespace fs = std::filesystem;
using namespace qvn;
using Clock = std::chrono::steady_clock;

constexpr int kFps = 30;
constexpr double kFrameSeconds = 1.0 / kFps;
// Distinct pictures per size, looped: enough that no two neighbours repeat.
constexpr int kDistinctPictures = 24;

struct Size {
  const char* name;
  int width, height;
  std::int64_t bitrate;  // what the studio sends at that size
  const char* slowerPreset;
};

struct Row {
  std::string size, what;
  double wallMsPerFrame = 0;
  double cpuMsPerFrame = 0;
  double realTimeShare() const { return wallMsPerFrame / (kFrameSeconds * 1000); }
};

double processCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_utime.tv_usec * 1e-6 + usage.ru_stime.tv_sec +
         usage.ru_stime.tv_usec * 1e-6;
}

std::uint32_t nextRandom(std::uint32_t& state) {
  state ^= state << 13;
  state ^= state >> 17;
  state ^= state << 5;
  return state;
}

// Frame `t` of the pan: a window onto a fixed texture of soft bands and fine grain, moved
// three pixels right and two down each frame, plus a little noise of its own.
PixelBufferRef paintBGRA(int width, int height, int t, std::uint32_t& noise) {
  auto picture = PixelBuffer::make(PixelFormat::bgra, width, height);
  for (int y = 0; y < height; ++y) {
    std::uint8_t* row = picture->data(0) + y * picture->stride(0);
    const int v = y + 2 * t;
    for (int x = 0; x < width; ++x) {
      const int u = x + 3 * t;
      const int grain = int((u * 7919 + v * 104729) >> 3 & 0x1F);
      const int jitter = int(nextRandom(noise) & 0x7);
      row[4 * x + 0] = std::uint8_t((u / 4 + v / 9 + grain + jitter) & 0xFF);
      row[4 * x + 1] = std::uint8_t((u / 7 + 2 * (v / 5) + grain) & 0xFF);
      row[4 * x + 2] = std::uint8_t((3 * (u / 11) + v / 3 + jitter) & 0xFF);
      row[4 * x + 3] = 0xFF;
    }
  }
  return picture;
}

template <typename Step>
Row measure(const std::string& size, const std::string& what, int frames, Step step) {
  const double cpuBefore = processCpuSeconds();
  const auto start = Clock::now();
  for (int i = 0; i < frames; ++i) step(i);
  const double wall = std::chrono::duration<double>(Clock::now() - start).count();
  const double cpu = processCpuSeconds() - cpuBefore;
  return {size, what, wall * 1000 / frames, cpu * 1000 / frames};
}

Row encodeRow(const Size& s, const std::string& preset, const std::vector<PixelBufferRef>& i420,
              int frames) {
  std::string error;
  auto encoder = H264Encoder::make({s.width, s.height, kFps, s.bitrate, preset}, error);
  if (!encoder) throw std::runtime_error("encoder " + preset + ": " + error);
  return measure(s.name, "encode " + preset, frames, [&](int i) {
    if (!encoder->encode(*i420[size_t(i) % i420.size()], i * 33, false))
      throw std::runtime_error("encoder " + preset + " failed at frame " + std::to_string(i));
  });
}

// The same frames through ffmpeg's libx264, read raw from a file in a loop.
Row ffmpegRow(const Size& s, const std::string& preset, const fs::path& raw, int frames,
              const fs::path& work) {
  const std::string ffmpeg = test::findProgram("ffmpeg");
  if (ffmpeg.empty()) throw std::runtime_error("ffmpeg is needed: run scripts/setup");
  const std::string rate = std::to_string(s.bitrate);
  const std::vector<std::string> argv = {ffmpeg,
                                         "-hide_banner",
                                         "-nostdin",
                                         "-v",
                                         "error",
                                         "-f",
                                         "rawvideo",
                                         "-pix_fmt",
                                         "yuv420p",
                                         "-s",
                                         std::to_string(s.width) + "x" + std::to_string(s.height),
                                         "-r",
                                         std::to_string(kFps),
                                         "-stream_loop",
                                         "-1",
                                         "-i",
                                         raw.string(),
                                         "-frames:v",
                                         std::to_string(frames),
                                         "-c:v",
                                         "libx264",
                                         "-preset",
                                         preset,
                                         "-tune",
                                         "zerolatency",
                                         "-profile:v",
                                         "main",
                                         "-bf",
                                         "0",
                                         "-g",
                                         std::to_string(2 * kFps),
                                         "-b:v",
                                         rate,
                                         "-maxrate",
                                         rate,
                                         "-bufsize",
                                         rate,
                                         "-f",
                                         "null",
                                         "-"};
  const auto start = Clock::now();
  test::ChildProcess child(argv, work / "ffmpeg.out", work / "ffmpeg.err");
  const auto status = child.wait(600);
  const double wall = std::chrono::duration<double>(Clock::now() - start).count();
  if (!status || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0)
    throw std::runtime_error("ffmpeg failed; see " + (work / "ffmpeg.err").string());
  return {s.name, "ffmpeg " + preset, wall * 1000 / frames,
          child.finalCpuSeconds().value_or(0) * 1000 / frames};
}

std::vector<Row> measureSize(const Size& s, int frames, const fs::path& work) {
  std::uint32_t noise = 0x9E3779B9u;
  std::vector<PixelBufferRef> bgra, i420;
  for (int t = 0; t < kDistinctPictures; ++t) {
    bgra.push_back(paintBGRA(s.width, s.height, t, noise));
    i420.push_back(PixelBuffer::make(PixelFormat::i420, s.width, s.height));
  }
  auto convert = [&](int i) {
    const size_t k = size_t(i) % bgra.size();
    if (!bgraToI420(*bgra[k], *i420[k])) throw std::runtime_error("conversion failed");
  };
  // Once untimed first: the publisher converts into pooled pictures, already paged in.
  for (int i = 0; i < kDistinctPictures; ++i) convert(i);
  std::vector<Row> rows;
  rows.push_back(measure(s.name, "convert BGRA→I420", frames, convert));
  bgra.clear();

  const fs::path raw = work / (std::string(s.name) + ".yuv");
  {
    std::ofstream out(raw, std::ios::binary);
    for (const auto& p : i420)
      for (int plane = 0; plane < 3; ++plane) {
        const int w = plane ? s.width / 2 : s.width, h = plane ? s.height / 2 : s.height;
        for (int y = 0; y < h; ++y)
          out.write(reinterpret_cast<const char*>(p->data(plane) + y * p->stride(plane)), w);
      }
    if (!out) throw std::runtime_error("can't write " + raw.string());
  }
  const std::string chosen = H264Encoder::presetFor(s.width, s.height);
  rows.push_back(encodeRow(s, chosen, i420, frames));
  rows.push_back(ffmpegRow(s, chosen, raw, frames, work));
  rows.push_back(encodeRow(s, s.slowerPreset, i420, frames));
  fs::remove(raw);
  return rows;
}

void print(const std::vector<Row>& rows) {
  std::printf("%-6s %-22s %12s %12s %16s\n", "size", "step", "wall ms/frm", "CPU ms/frm",
              "share of 33 ms");
  for (const Row& r : rows)
    std::printf("%-6s %-22s %12.2f %12.2f %15.0f%%\n", r.size.c_str(), r.what.c_str(),
                r.wallMsPerFrame, r.cpuMsPerFrame, 100 * r.realTimeShare());
  for (size_t i = 0; i + 1 < rows.size(); ++i)
    if (rows[i].what.rfind("encode ", 0) == 0 && rows[i + 1].what.rfind("ffmpeg ", 0) == 0)
      std::printf("%-6s H264Encoder/ffmpeg: wall %.2fx, CPU %.2fx\n", rows[i].size.c_str(),
                  rows[i].wallMsPerFrame / rows[i + 1].wallMsPerFrame,
                  rows[i].cpuMsPerFrame / rows[i + 1].cpuMsPerFrame);
}

void writeJson(const std::vector<Row>& rows, const std::string& path) {
  nlohmann::json j = nlohmann::json::array();
  for (const Row& r : rows)
    j.push_back({{"size", r.size},
                 {"step", r.what},
                 {"wallMsPerFrame", r.wallMsPerFrame},
                 {"cpuMsPerFrame", r.cpuMsPerFrame},
                 {"realTimeShare", r.realTimeShare()}});
  std::ofstream out(path);
  out << j.dump(2) << "\n";
  if (!out) throw std::runtime_error("can't write " + path);
}

}  // namespace

int main(int argc, char** argv) {
  std::string jsonPath;
  int frames = 150;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--json" && i + 1 < argc) {
      jsonPath = argv[++i];
    } else if (arg == "--frames" && i + 1 < argc) {
      frames = std::atoi(argv[++i]);
    } else {
      std::fprintf(stderr, "usage: qvn-bench-publish [--frames N] [--json FILE]\n");
      return 2;
    }
  }
  if (frames < kDistinctPictures) {
    std::fprintf(stderr, "qvn-bench-publish: --frames needs %d or more\n", kDistinctPictures);
    return 2;
  }
  try {
    const fs::path work = test::makeTempDir("bench-publish");
    std::vector<Row> rows;
    for (const Size& s : {Size{"1080p", 1920, 1080, 6'000'000, "faster"},
                          Size{"2160p", 3840, 2160, 16'000'000, "superfast"}}) {
      const auto sized = measureSize(s, frames, work);
      rows.insert(rows.end(), sized.begin(), sized.end());
    }
    fs::remove_all(work);
    print(rows);
    if (!jsonPath.empty()) writeJson(rows, jsonPath);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "qvn-bench-publish: %s\n", e.what());
    return 1;
  }
  return 0;
}
