#include "show/stream_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

#include "frame_code.h"
#include "platform/pixel_buffer.h"

namespace qvn::bench {

namespace fs = std::filesystem;

double monotonicNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

StreamReader::StreamReader(const std::string& url, const fs::path& work, const std::string& tag) {
  const std::string ffmpeg = test::findProgram("ffmpeg");
  if (ffmpeg.empty()) throw std::runtime_error("ffmpeg is not installed");
  const fs::path pipe = work / ("stream-" + tag + ".bgra");
  fs::remove(pipe);
  // The reading end is open before ffmpeg's: opening a pipe's writing end waits for a reader.
  int fd = -1;
  if (::mkfifo(pipe.c_str(), 0600) != 0 ||
      (fd = ::open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) < 0)
    throw std::runtime_error("can't make the pipe " + pipe.string());
  try {
    // One decoding thread and no input buffering: a picture comes out as soon as it is whole.
    // Each picture once, as it came: none made up or left out. The code's cells are large, so
    // the decoder may skip its loop filter and the scaler take the nearest pixel, to leave the
    // machine to the studio.
    const std::vector<std::string> argv = {
        ffmpeg,
        "-hide_banner",
        "-loglevel",
        "warning",
        "-nostdin",
        "-skip_loop_filter",
        "all",
        "-threads",
        "1",
        "-fflags",
        "nobuffer",
        "-flags",
        "low_delay",
        "-probesize",
        "5000000",
        "-analyzeduration",
        "3000000",
        "-i",
        url,
        "-an",
        "-fps_mode",
        "passthrough",
        "-vf",
        "scale=" + std::to_string(kWidth) + ":" + std::to_string(kHeight) + ":flags=neighbor",
        "-pix_fmt",
        "bgra",
        "-f",
        "rawvideo",
        "-y",
        pipe.string()};
    ffmpeg_ =
        std::make_unique<test::ChildProcess>(argv, fs::path(), work / ("stream-" + tag + ".log"));
  } catch (...) {
    ::close(fd);
    throw;
  }
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  // ffmpeg opens the pipe only once it knows the stream; until then, and between its pictures,
  // this end keeps the reader from seeing the pipe's end.
  holdOpen_ = ::open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  reader_ = std::thread([this, fd] { readLoop(fd); });
}

StreamReader::~StreamReader() {
  if (ffmpeg_) ffmpeg_->stop(SIGTERM, 2);
  ffmpeg_.reset();
  if (holdOpen_ >= 0) ::close(holdOpen_);
  if (reader_.joinable()) reader_.join();
}

std::vector<ReadPicture> StreamReader::pictures() const {
  std::lock_guard hold(lock_);
  return pictures_;
}

void StreamReader::readLoop(int fd) {
  auto picture = PixelBuffer::make(PixelFormat::bgra, kWidth, kHeight);
  if (!picture) {
    ::close(fd);
    return;
  }
  const size_t row = size_t(kWidth) * 4;
  for (bool open = true; open;) {
    for (int y = 0; y < kHeight && open; ++y) {
      std::uint8_t* at = picture->data() + size_t(y) * size_t(picture->stride());
      for (size_t got = 0; got < row;) {
        const ssize_t n = ::read(fd, at + got, row - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
          open = false;
          break;
        }
        got += size_t(n);
      }
    }
    if (!open) break;
    ReadPicture read{readFrameCode(*picture), monotonicNow()};
    std::lock_guard hold(lock_);
    pictures_.push_back(read);
  }
  ::close(fd);
}

}  // namespace qvn::bench
