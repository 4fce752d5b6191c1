// Sound out through the sound server's native protocol (PulseAudio, or PipeWire's pulse
// server): one playback stream per output, fed from the server's own real-time thread.
#include <pulse/pulseaudio.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <optional>
#include <thread>
#include <vector>

#include "platform/audio_io.h"
#include "platform/dispatch.h"

namespace qvn {

namespace {

constexpr int kRate = 48000;
constexpr int kMaxFrames = 8192;
constexpr auto kConnectWait = std::chrono::seconds(2);

// A connected context on its own threaded main loop; the loop's lock is held only while
// setting things up and tearing them down, never by the write callback.
class PulseSession {
 public:
  bool connect(std::string& error) {
    loop_ = pa_threaded_mainloop_new();
    if (!loop_) return fail(error, "no main loop");
    context_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "Quorvane Studio");
    if (!context_) return fail(error, "no context");
    pa_context_set_state_callback(
        context_,
        [](pa_context*, void* loop) {
          pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0);
        },
        loop_);
    if (pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
      return fail(error, pa_strerror(pa_context_errno(context_)));
    if (pa_threaded_mainloop_start(loop_) < 0) return fail(error, "main loop did not start");
    pa_threaded_mainloop_lock(loop_);
    const auto until = std::chrono::steady_clock::now() + kConnectWait;
    bool ready = false;
    for (;;) {
      const pa_context_state_t state = pa_context_get_state(context_);
      if (state == PA_CONTEXT_READY) {
        ready = true;
        break;
      }
      if (!PA_CONTEXT_IS_GOOD(state) || std::chrono::steady_clock::now() > until) break;
      pa_threaded_mainloop_wait(loop_);
    }
    if (!ready) error = pa_strerror(pa_context_errno(context_));
    pa_threaded_mainloop_unlock(loop_);
    return ready;
  }

  ~PulseSession() {
    if (loop_) pa_threaded_mainloop_stop(loop_);
    if (context_) {
      pa_context_disconnect(context_);
      pa_context_unref(context_);
    }
    if (loop_) pa_threaded_mainloop_free(loop_);
  }

  pa_threaded_mainloop* loop() const { return loop_; }
  pa_context* context() const { return context_; }

 private:
  bool fail(std::string& error, const std::string& text) {
    error = text;
    return false;
  }
  pa_threaded_mainloop* loop_ = nullptr;
  pa_context* context_ = nullptr;
};

class PulseOutput final : public AudioOutput {
 public:
  PulseOutput(std::unique_ptr<PulseSession> session, Render render)
      : session_(std::move(session)),
        render_(std::move(render)),
        left_(kMaxFrames),
        right_(kMaxFrames) {}

  bool open(const std::optional<std::string>& device, std::string& error) {
    pa_threaded_mainloop_lock(session_->loop());
    const pa_sample_spec format{PA_SAMPLE_FLOAT32LE, kRate, 2};
    stream_ = pa_stream_new(session_->context(), "Monitor", &format, nullptr);
    bool ok = stream_ != nullptr;
    if (ok) {
      pa_stream_set_write_callback(
          stream_,
          [](pa_stream* s, size_t bytes, void* self) {
            static_cast<PulseOutput*>(self)->write(s, bytes);
          },
          this);
      pa_stream_set_state_callback(
          stream_,
          [](pa_stream* s, void* self) {
            auto* output = static_cast<PulseOutput*>(self);
            // A stream the server ended (or lost) is no longer running: its owner restarts.
            if (!PA_STREAM_IS_GOOD(pa_stream_get_state(s))) output->running_ = false;
            pa_threaded_mainloop_signal(output->session_->loop(), 0);
          },
          this);
      // About 30 ms queued at the server, the latency the studio reports: low enough to
      // monitor by, enough to ride out a busy machine's late wake-up without a hole.
      pa_buffer_attr attr{};
      attr.maxlength = uint32_t(-1);
      attr.tlength = uint32_t(pa_usec_to_bytes(30000, &format));
      attr.prebuf = uint32_t(-1);
      attr.minreq = uint32_t(-1);
      attr.fragsize = uint32_t(-1);
      ok = pa_stream_connect_playback(stream_, device ? device->c_str() : nullptr, &attr,
                                      PA_STREAM_ADJUST_LATENCY, nullptr, nullptr) >= 0;
    }
    while (ok) {
      const pa_stream_state_t state = pa_stream_get_state(stream_);
      if (state == PA_STREAM_READY) break;
      if (!PA_STREAM_IS_GOOD(state))
        ok = false;
      else
        pa_threaded_mainloop_wait(session_->loop());
    }
    if (!ok) error = pa_strerror(pa_context_errno(session_->context()));
    if (ok) {
      running_ = true;
      if (const pa_sample_spec* used = pa_stream_get_sample_spec(stream_)) {
        rate_ = int(used->rate);
        channels_ = used->channels;
      }
      if (const char* name = pa_stream_get_device_name(stream_)) askDeviceFormat(name);
    }
    pa_threaded_mainloop_unlock(session_->loop());
    return ok;
  }

  ~PulseOutput() override {
    pa_threaded_mainloop_lock(session_->loop());
    running_ = false;
    if (stream_) {
      pa_stream_set_write_callback(stream_, nullptr, nullptr);
      pa_stream_set_state_callback(stream_, nullptr, nullptr);
      pa_stream_disconnect(stream_);
      pa_stream_unref(stream_);
    }
    pa_threaded_mainloop_unlock(session_->loop());
    session_.reset();
  }

  bool isRunning() const override { return running_; }
  int deviceRate() const override { return rate_; }
  int deviceChannels() const override { return channels_; }

 private:
  // The server's thread asks for `bytes`: rendered in place into its own buffer.
  void write(pa_stream* s, size_t bytes) {
    while (bytes > 0) {
      void* data = nullptr;
      size_t size = bytes;
      if (pa_stream_begin_write(s, &data, &size) < 0 || !data) return;
      const int frames = std::min(int(size / (2 * sizeof(float))), kMaxFrames);
      if (frames <= 0) {
        pa_stream_cancel_write(s);
        return;
      }
      render_(frames, left_.data(), right_.data());
      auto* out = static_cast<float*>(data);
      for (int i = 0; i < frames; ++i) {
        out[2 * i] = left_[size_t(i)];
        out[2 * i + 1] = right_[size_t(i)];
      }
      const size_t written = size_t(frames) * 2 * sizeof(float);
      pa_stream_write(s, data, written, nullptr, 0, PA_SEEK_RELATIVE);
      bytes -= std::min(bytes, written);
    }
  }

  // The server converts our 48 kHz stereo to whatever the device runs at; the log says what
  // that is. Caller holds the loop's lock. Without an answer the stream's own stands.
  void askDeviceFormat(const char* sink) {
    struct Ask {
      pa_threaded_mainloop* loop;
      std::optional<pa_sample_spec> format;
    } ask{session_->loop(), std::nullopt};
    pa_operation* op = pa_context_get_sink_info_by_name(
        session_->context(), sink,
        [](pa_context*, const pa_sink_info* info, int eol, void* data) {
          auto* a = static_cast<Ask*>(data);
          if (!eol && info) a->format = info->sample_spec;
          pa_threaded_mainloop_signal(a->loop, 0);
        },
        &ask);
    while (op && pa_operation_get_state(op) == PA_OPERATION_RUNNING)
      pa_threaded_mainloop_wait(session_->loop());
    if (op) pa_operation_unref(op);
    if (ask.format && pa_sample_spec_valid(&*ask.format)) {
      rate_ = int(ask.format->rate);
      channels_ = ask.format->channels;
    }
  }

  std::unique_ptr<PulseSession> session_;
  Render render_;
  std::vector<float> left_, right_;
  pa_stream* stream_ = nullptr;
  std::atomic<bool> running_{false};
  int rate_ = kRate;
  int channels_ = 2;
};

// Keeps time from the monotonic clock, rendering whole 10 ms blocks as they come due.
class NullOutput final : public AudioOutput {
 public:
  explicit NullOutput(Render render)
      : render_(std::move(render)), left_(kBlock), right_(kBlock), thread_([this] { run(); }) {}
  ~NullOutput() override {
    stop_ = true;
    thread_.join();
  }
  bool isRunning() const override { return true; }
  int deviceRate() const override { return kRate; }
  int deviceChannels() const override { return 2; }

 private:
  static constexpr int kBlock = 480;
  void run() {
    pthread_setname_np(pthread_self(), "qvn-audio-clock");
    const double start = monotonicTime();
    long long blocks = 0;
    while (!stop_) {
      const double due = start + double(blocks) * kBlock / kRate;
      const double wait = due - monotonicTime();
      if (wait > 0)
        std::this_thread::sleep_for(std::chrono::duration<double>(std::min(wait, 0.05)));
      if (monotonicTime() < due) continue;
      render_(kBlock, left_.data(), right_.data());
      ++blocks;
    }
  }
  Render render_;
  std::vector<float> left_, right_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace

std::unique_ptr<AudioOutput> openAudioOutput(const std::optional<std::string>& deviceID,
                                             AudioOutput::Render render, std::string& error) {
  auto session = std::make_unique<PulseSession>();
  if (!session->connect(error)) return nullptr;
  auto output = std::make_unique<PulseOutput>(std::move(session), std::move(render));
  if (!output->open(deviceID, error)) return nullptr;
  return output;
}

std::unique_ptr<AudioOutput> openNullAudioOutput(AudioOutput::Render render) {
  return std::make_unique<NullOutput>(std::move(render));
}

class PulseDeviceWatch final : public AudioDeviceWatch {
 public:
  PulseDeviceWatch(std::unique_ptr<PulseSession> session, std::function<void()> changed)
      : session_(std::move(session)), changed_(std::move(changed)) {
    pa_threaded_mainloop_lock(session_->loop());
    pa_context_set_subscribe_callback(session_->context(), onEvent, this);
    if (pa_operation* op = pa_context_subscribe(
            session_->context(),
            pa_subscription_mask_t(PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SERVER),
            nullptr, nullptr))
      pa_operation_unref(op);
    pa_threaded_mainloop_unlock(session_->loop());
  }
  // The session stops its loop first, so no event comes in while the rest goes.
  ~PulseDeviceWatch() override { session_.reset(); }

 private:
  // Outputs added or removed, and the server's own changes (its default among them); a
  // volume moving on an output is not a change of device.
  static void onEvent(pa_context*, pa_subscription_event_type_t type, uint32_t, void* data) {
    const auto facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
    const auto kind = type & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
    if (facility == PA_SUBSCRIPTION_EVENT_SERVER || kind != PA_SUBSCRIPTION_EVENT_CHANGE)
      static_cast<PulseDeviceWatch*>(data)->changed_();
  }

  std::unique_ptr<PulseSession> session_;
  std::function<void()> changed_;
};

std::unique_ptr<AudioDeviceWatch> watchAudioDevices(std::function<void()> changed) {
  auto session = std::make_unique<PulseSession>();
  std::string error;
  if (!session->connect(error)) return nullptr;
  return std::make_unique<PulseDeviceWatch>(std::move(session), std::move(changed));
}

std::vector<AudioDeviceInfo> listAudioOutputs() {
  std::vector<AudioDeviceInfo> devices;
  PulseSession session;
  std::string error;
  if (!session.connect(error)) return devices;
  struct Ask {
    std::vector<AudioDeviceInfo>* devices;
    pa_threaded_mainloop* loop;
  } ask{&devices, session.loop()};
  pa_threaded_mainloop_lock(session.loop());
  pa_operation* op = pa_context_get_sink_info_list(
      session.context(),
      [](pa_context*, const pa_sink_info* info, int eol, void* data) {
        auto* a = static_cast<Ask*>(data);
        if (eol || !info) {
          pa_threaded_mainloop_signal(a->loop, 0);
          return;
        }
        a->devices->push_back(
            {info->name ? info->name : "", info->description ? info->description : ""});
      },
      &ask);
  while (op && pa_operation_get_state(op) == PA_OPERATION_RUNNING)
    pa_threaded_mainloop_wait(session.loop());
  if (op) pa_operation_unref(op);
  pa_threaded_mainloop_unlock(session.loop());
  return devices;
}

}  // namespace qvn
