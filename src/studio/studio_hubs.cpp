#include "studio/studio_hubs.h"

#include <algorithm>
#include <ctime>

#include "audio/audio_engine.h"
#include "audio/not_yet_available.h"
#include "inputs/not_yet_available.h"
#include "outputs/movie_recorder.h"
#include "outputs/not_yet_available.h"
#include "phones/tcp_signaling_server.h"
#include "phones/webrtc_receiver_session.h"
#include "platform/webrtc.h"
#include "support/qvn_log.h"
#include "video/mix_engine.h"

namespace qvn {

namespace {

class SleepWatcherNotYetAvailable final : public SleepWatcher {
 public:
  std::optional<std::string> start() override { return "sleep is not watched in this build"; }
};

class StayAwakeNotYetAvailable final : public StayAwake {
 public:
  std::optional<std::string> start() override { return std::nullopt; }
  void stop() override {}
};

}  // namespace

StudioHubs StudioHubs::make(const PhoneOptions& phones) {
  auto frames = std::make_shared<FrameHub>();
  auto mix = MixEngine::make(frames);
  auto audio = AudioEngine::make();
  auto recorder = MovieRecorder::make({
      // Asked at each start, when the library's folders are made sure of.
      .recordingsFolder =
          [] {
            MediaLibrary::ensureFolders();
            return MediaLibrary::recordings();
          },
      .clock = [weak = std::weak_ptr(audio)]() -> std::int64_t {
        auto engine = weak.lock();
        return engine ? engine->mix().streamFrames() : 0;
      },
      .recordBus =
          [weak = std::weak_ptr(audio)](AudioEngine::Consumer consumer) {
            if (auto engine = weak.lock()) engine->addBusConsumer("record", std::move(consumer));
          },
      .slotSize =
          [frames](int slot) {
            const auto size = frames->size(slot);
            return std::pair{int(size.width), int(size.height)};
          },
      .canvasSize =
          [] {
            return std::pair{MixEngine::canvasWidth(), MixEngine::canvasHeight()};
          },
      .programSlot =
          [weak = std::weak_ptr(mix)] {
            auto engine = weak.lock();
            return engine ? engine->programSlotMirror() : 0;
          },
      .makeWriter = MovieRecorder::movieFile,
      .wallClock = [] { return std::int64_t(std::time(nullptr)); },
  });
  // Program reaches the recorder from the mix queue; the recorder only stamps and posts.
  frames->setProgramTaps(nullptr,
                         [weak = std::weak_ptr(recorder)](int slot, const PixelBufferRef& buffer) {
                           if (auto r = weak.lock()) r->appendVideo(slot, buffer);
                         });
  // Readied now, certificate and all, so the first phone doesn't wait for it.
  QvnLog::line(WebRTCStack::prepare());
  PhoneSinks sinks{
      .frames = frames,
      .noteIncoming =
          [weak = std::weak_ptr(mix)](int slot) {
            if (auto engine = weak.lock()) engine->noteIncoming(slot);
          },
      .sound =
          [weak = std::weak_ptr(audio)](int slot, const PCMView& pcm) {
            if (auto engine = weak.lock()) engine->ingest(slot, pcm);
          },
      .canvasLongEdge =
          [] { return std::max(MixEngine::canvasWidth(), MixEngine::canvasHeight()); },
      .localAddress = phones.localAddress,
  };
  return StudioHubs{
      .signaling = TCPSignalingServer::make(WebRTCReceiverSession::factory(std::move(sinks)),
                                            "0.0.0.0", phones.port),
      .mix = mix,
      .frames = frames,
      .localCapture = std::make_shared<LocalCaptureHubNotYetAvailable>(),
      .media = std::make_shared<MediaSourceHubNotYetAvailable>(),
      .screenCapture = std::make_shared<ScreenCaptureHubNotYetAvailable>(),
      .ndi = std::make_shared<NDIHubNotYetAvailable>(),
      .recorder = recorder,
      .publisher = std::make_shared<GoLivePublisherNotYetAvailable>(),
      .programOutput = std::make_shared<ProgramOutputNotYetAvailable>(),
      .virtualCamera = std::make_shared<VirtualCameraControllerNotYetAvailable>(),
      .wirelessBrowser = std::make_shared<WirelessDisplayBrowserNotYetAvailable>(),
      .audio = audio,
      .audioDevices = std::make_shared<QvnAudioDevicesNotYetAvailable>(),
      .masterInput = std::make_shared<QvnMasterAudioInputNotYetAvailable>(),
      .monitorMixer = std::make_shared<QvnMonitorMixerNotYetAvailable>(),
      .auxOutput = std::make_shared<QvnAuxOutputNotYetAvailable>(),
      .externalHub = std::make_shared<QvnExternalHubNotYetAvailable>(),
      .meterBus = std::make_shared<QvnMeterBusNotYetAvailable>(),
      .mediaLibrary = std::make_shared<QvnMediaLibraryFolders>(),
      .overlays = std::make_shared<OverlayStoreNotYetAvailable>(),
      .cloud = std::make_shared<QvnCloudAccountNotYetAvailable>(),
      .updater = std::make_shared<QvnAutoUpdaterNotYetAvailable>(),
      .telemetry = std::make_shared<QvnTelemetryNotYetAvailable>(),
      .screens = std::make_shared<ScreensNotYetAvailable>(),
      .keys = std::make_shared<KeyMonitorNotYetAvailable>(),
      .sleep = std::make_shared<SleepWatcherNotYetAvailable>(),
      .stayAwake = std::make_shared<StayAwakeNotYetAvailable>(),
      .lifecycle = std::make_shared<ManualAppLifecycle>(),
  };
}

}  // namespace qvn
