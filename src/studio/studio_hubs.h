// Every hub and service the studio talks to, handed to `CameraModel` when it is built.
// Each is a process-wide object that knows nothing of the model.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "audio/audio_hubs.h"
#include "cloud/cloud_account.h"
#include "golive/go_live_publisher.h"
#include "inputs/capture_hubs.h"
#include "inputs/media_library.h"
#include "outputs/output_hubs.h"
#include "overlays/overlay_store.h"
#include "phones/signaling_server.h"
#include "platform/app.h"
#include "support/support_services.h"
#include "video/frame_hub.h"
#include "video/mix_control.h"

namespace qvn {

// How the phones reach the studio: the port phones pair on, and an address ICE is kept to
// (none: every local address).
struct PhoneOptions {
  std::uint16_t port = 8765;
  std::optional<std::string> localAddress;
};

struct StudioHubs {
  std::shared_ptr<SignalingServer> signaling;
  std::shared_ptr<MixControl> mix;  // the MixEngine, reading pictures from `frames`
  std::shared_ptr<FrameHub> frames;
  std::shared_ptr<LocalCaptureHub> localCapture;
  std::shared_ptr<MediaSourceHub> media;
  std::shared_ptr<ScreenCaptureHub> screenCapture;
  std::shared_ptr<NDIHub> ndi;
  std::shared_ptr<SessionRecorder> recorder;
  std::shared_ptr<GoLivePublisher> publisher;
  std::shared_ptr<ProgramOutput> programOutput;
  std::shared_ptr<VirtualCameraController> virtualCamera;
  std::shared_ptr<WirelessDisplayBrowser> wirelessBrowser;
  std::shared_ptr<QvnAudioEngine> audio;
  std::shared_ptr<QvnAudioDevices> audioDevices;
  std::shared_ptr<QvnMasterAudioInput> masterInput;
  std::shared_ptr<QvnMonitorMixer> monitorMixer;
  std::shared_ptr<QvnAuxOutput> auxOutput;
  std::shared_ptr<QvnExternalHub> externalHub;
  std::shared_ptr<QvnMeterBus> meterBus;
  std::shared_ptr<QvnMediaLibrary> mediaLibrary;
  std::shared_ptr<OverlayStore> overlays;
  std::shared_ptr<QvnCloudAccount> cloud;
  std::shared_ptr<QvnAutoUpdater> updater;
  std::shared_ptr<QvnTelemetry> telemetry;
  std::shared_ptr<Screens> screens;
  std::shared_ptr<KeyMonitor> keys;
  std::shared_ptr<SleepWatcher> sleep;
  std::shared_ptr<StayAwake> stayAwake;
  std::shared_ptr<AppLifecycle> lifecycle;

  // The process's hubs: the real ones that exist, and for the parts of the studio that are
  // not built yet their stand-ins. The app swaps in what only it can make.
  static StudioHubs make(const PhoneOptions& phones = {});
};

}  // namespace qvn
