// Receive-only peer connections on GStreamer's webrtcbin: one pipeline per peer, each
// received stream depayloaded, decoded and handed over from an appsink on its own thread.
#include <gst/app/gstappsink.h>
#include <gst/audio/audio.h>
#include <gst/gst.h>
#include <gst/sdp/sdp.h>
#include <gst/video/video.h>
#define GST_USE_UNSTABLE_API
#include <gst/webrtc/webrtc.h>

#include <cctype>
#include <map>
#include <mutex>
#include <utility>

#include "platform/dispatch.h"
#include "platform/webrtc.h"

namespace qvn {

namespace {

constexpr const char* kTransportCC =
    "http://www.ietf.org/id/draft-holmer-rmcat-transport-wide-cc-extensions-01";
constexpr const char* kVideoOrientation = "urn:3gpp:video-orientation";
// Enough to reorder and recover a lost packet on a local network without adding delay a
// viewer would notice; the stack's default (200 ms) is for the open internet.
constexpr unsigned kJitterMilliseconds = 60;

// ---- The stack, once per process -------------------------------------------------------------

struct Stack {
  std::string line;
  bool ready = false;
};

const Stack& stack() {
  static const Stack made = [] {
    Stack s;
    GError* error = nullptr;
    if (!gst_init_check(nullptr, nullptr, &error)) {
      s.line = std::string("GStreamer did not start: ") + (error ? error->message : "?");
      if (error) g_error_free(error);
      return s;
    }
    for (const char* name : {"webrtcbin", "nicesrc", "dtlsdec", "rtph264depay", "avdec_h264",
                             "rtpopusdepay", "opusdec", "appsink", "videoconvert"}) {
      if (GstElementFactory* factory = gst_element_factory_find(name)) {
        gst_object_unref(factory);
      } else {
        s.line = std::string("WebRTC is missing the GStreamer element ") + name;
        return s;
      }
    }
    // A DTLS decoder without a key of its own makes the process's one certificate the first
    // time it is built, and every later peer shares it: build one now.
    GstElement* dtls = gst_element_factory_make("dtlsdec", nullptr);
    gst_object_unref(dtls);
    s.line =
        "WebRTC decoder codecs: H264/640033,H264/640029,H264/42e01f,H264/42001f,"
        "H264/4d001f,OPUS/OPUS";
    s.ready = true;
    return s;
  }();
  return made;
}

// ---- Text --------------------------------------------------------------------------------

std::string iceStateName(GstWebRTCICEConnectionState state) {
  switch (state) {
    case GST_WEBRTC_ICE_CONNECTION_STATE_NEW:
      return "new";
    case GST_WEBRTC_ICE_CONNECTION_STATE_CHECKING:
      return "checking";
    case GST_WEBRTC_ICE_CONNECTION_STATE_CONNECTED:
      return "connected";
    case GST_WEBRTC_ICE_CONNECTION_STATE_COMPLETED:
      return "completed";
    case GST_WEBRTC_ICE_CONNECTION_STATE_FAILED:
      return "failed";
    case GST_WEBRTC_ICE_CONNECTION_STATE_DISCONNECTED:
      return "disconnected";
    case GST_WEBRTC_ICE_CONNECTION_STATE_CLOSED:
      return "closed";
  }
  return "state " + std::to_string(int(state));
}

std::string peerStateName(GstWebRTCPeerConnectionState state) {
  switch (state) {
    case GST_WEBRTC_PEER_CONNECTION_STATE_NEW:
      return "new";
    case GST_WEBRTC_PEER_CONNECTION_STATE_CONNECTING:
      return "connecting";
    case GST_WEBRTC_PEER_CONNECTION_STATE_CONNECTED:
      return "connected";
    case GST_WEBRTC_PEER_CONNECTION_STATE_DISCONNECTED:
      return "disconnected";
    case GST_WEBRTC_PEER_CONNECTION_STATE_FAILED:
      return "failed";
    case GST_WEBRTC_PEER_CONNECTION_STATE_CLOSED:
      return "closed";
  }
  return "state " + std::to_string(int(state));
}

std::string statsTypeName(int type) {
  switch (type) {
    case GST_WEBRTC_STATS_CODEC:
      return "codec";
    case GST_WEBRTC_STATS_INBOUND_RTP:
      return "inbound-rtp";
    case GST_WEBRTC_STATS_OUTBOUND_RTP:
      return "outbound-rtp";
    case GST_WEBRTC_STATS_REMOTE_INBOUND_RTP:
      return "remote-inbound-rtp";
    case GST_WEBRTC_STATS_REMOTE_OUTBOUND_RTP:
      return "remote-outbound-rtp";
    case GST_WEBRTC_STATS_TRANSPORT:
      return "transport";
    case GST_WEBRTC_STATS_CANDIDATE_PAIR:
      return "candidate-pair";
    case GST_WEBRTC_STATS_LOCAL_CANDIDATE:
      return "local-candidate";
    case GST_WEBRTC_STATS_REMOTE_CANDIDATE:
      return "remote-candidate";
    default:
      return "other";
  }
}

// "packets-received" → "packetsReceived", the names the statistics are known by.
std::string camelCase(const char* key) {
  std::string out;
  bool upper = false;
  for (const char* c = key; *c; ++c) {
    if (*c == '-' || *c == '_') {
      upper = true;
    } else {
      out += upper ? char(std::toupper(static_cast<unsigned char>(*c))) : *c;
      upper = false;
    }
  }
  return out;
}

std::string valueText(const GValue* value) {
  if (G_VALUE_HOLDS_STRING(value))
    return g_value_get_string(value) ? g_value_get_string(value) : "";
  gchar* text = gst_value_serialize(value);
  std::string out = text ? text : "?";
  g_free(text);
  return out;
}

std::string errorText(const GstStructure* reply, const char* otherwise) {
  if (!reply || !gst_structure_has_field(reply, "error")) return otherwise;
  GError* error = nullptr;
  gst_structure_get(reply, "error", G_TYPE_ERROR, &error, nullptr);
  std::string out = error ? error->message : otherwise;
  if (error) g_error_free(error);
  return out;
}

// ---- The offer's media, as receive-only transceivers want them -------------------------------

bool wantedCodec(const GstSDPMedia* media, int payload) {
  const std::string kind = gst_sdp_media_get_media(media);
  GstCaps* caps = gst_sdp_media_get_caps_from_media(media, payload);
  if (!caps) return false;
  const GstStructure* s = gst_caps_get_structure(caps, 0);
  const char* codec = gst_structure_get_string(s, "encoding-name");
  const char* mode = gst_structure_get_string(s, "packetization-mode");
  const bool wanted = codec && ((kind == "video" && g_ascii_strcasecmp(codec, "H264") == 0 &&
                                 mode && std::string(mode) == "1") ||
                                (kind == "audio" && g_ascii_strcasecmp(codec, "OPUS") == 0));
  gst_caps_unref(caps);
  return wanted;
}

// Caps for one m-line: its wanted payloads, each with the offer's congestion-control
// extension and no other, so the answer carries that one and never the orientation tag.
GstCaps* receiveCaps(const GstSDPMedia* media) {
  GstCaps* all = gst_caps_new_empty();
  for (guint i = 0; i < gst_sdp_media_formats_len(media); ++i) {
    const int payload = std::atoi(gst_sdp_media_get_format(media, i));
    if (!wantedCodec(media, payload)) continue;
    GstCaps* caps = gst_sdp_media_get_caps_from_media(media, payload);
    GstStructure* s = gst_caps_get_structure(caps, 0);
    gst_structure_set_name(s, "application/x-rtp");
    for (guint a = 0; a < gst_sdp_media_attributes_len(media); ++a) {
      const GstSDPAttribute* attribute = gst_sdp_media_get_attribute(media, a);
      if (std::string(attribute->key) != "extmap" || !attribute->value) continue;
      const std::string value = attribute->value;
      if (value.find(kTransportCC) == std::string::npos) continue;
      const std::string id = value.substr(0, value.find_first_of(" /"));
      gst_structure_set(s, ("extmap-" + id).c_str(), G_TYPE_STRING, kTransportCC, nullptr);
    }
    gst_caps_append(all, caps);
  }
  return all;
}

void dropOrientation(GstSDPMessage* sdp) {
  for (guint m = 0; m < gst_sdp_message_medias_len(sdp); ++m) {
    auto* media = const_cast<GstSDPMedia*>(gst_sdp_message_get_media(sdp, m));
    for (guint a = gst_sdp_media_attributes_len(media); a-- > 0;) {
      const GstSDPAttribute* attribute = gst_sdp_media_get_attribute(media, a);
      if (std::string(attribute->key) == "extmap" && attribute->value &&
          std::string(attribute->value).find(kVideoOrientation) != std::string::npos)
        gst_sdp_media_remove_attribute(media, a);
    }
  }
}

// The fmtp text of a payload in an m-line, or empty.
std::string fmtpOf(const GstSDPMedia* media, const std::string& payload) {
  for (guint a = 0; a < gst_sdp_media_attributes_len(media); ++a) {
    const GstSDPAttribute* attribute = gst_sdp_media_get_attribute(media, a);
    const std::string value = attribute->value ? attribute->value : "";
    if (std::string(attribute->key) == "fmtp" && value.starts_with(payload + " ")) return value;
  }
  return "";
}

// The answer says which H.264 profile it receives: the one offered. Without it a sender
// takes the answer for baseline and may refuse it for its high-profile stream.
void keepOfferedProfiles(GstSDPMessage* answer, const GstSDPMessage* offer) {
  const guint count =
      std::min(gst_sdp_message_medias_len(answer), gst_sdp_message_medias_len(offer));
  for (guint m = 0; m < count; ++m) {
    auto* media = const_cast<GstSDPMedia*>(gst_sdp_message_get_media(answer, m));
    const GstSDPMedia* offered = gst_sdp_message_get_media(offer, m);
    for (guint a = 0; a < gst_sdp_media_attributes_len(media); ++a) {
      const GstSDPAttribute* attribute = gst_sdp_media_get_attribute(media, a);
      std::string value = attribute->value ? attribute->value : "";
      if (std::string(attribute->key) != "fmtp" ||
          value.find("profile-level-id") != std::string::npos)
        continue;
      const std::string payload = value.substr(0, value.find(' '));
      const std::string original = fmtpOf(offered, payload);
      const size_t at = original.find("profile-level-id=");
      if (at == std::string::npos) continue;
      value += ";" + original.substr(at, original.find(';', at) - at);
      GstSDPAttribute replaced;
      gst_sdp_attribute_set(&replaced, "fmtp", value.c_str());
      gst_sdp_media_replace_attribute(media, a, &replaced);
    }
  }
}

void noteSenderSSRCs(const GstSDPMessage* offer, std::map<std::string, std::string>& kinds) {
  for (guint m = 0; m < gst_sdp_message_medias_len(offer); ++m) {
    const GstSDPMedia* media = gst_sdp_message_get_media(offer, m);
    for (guint a = 0; a < gst_sdp_media_attributes_len(media); ++a) {
      const GstSDPAttribute* attribute = gst_sdp_media_get_attribute(media, a);
      if (std::string(attribute->key) == "ssrc" && attribute->value) {
        const std::string value = attribute->value;
        kinds[value.substr(0, value.find(' '))] = gst_sdp_media_get_media(media);
      }
    }
  }
}

// The codec each kind was answered with: its first payload, as the statistics name it.
void noteAnsweredCodecs(const GstSDPMessage* answer,
                        std::map<std::string, std::map<std::string, std::string>>& codecs) {
  for (guint m = 0; m < gst_sdp_message_medias_len(answer); ++m) {
    const GstSDPMedia* media = gst_sdp_message_get_media(answer, m);
    if (gst_sdp_media_formats_len(media) == 0) continue;
    const std::string kind = gst_sdp_media_get_media(media);
    const std::string payload = gst_sdp_media_get_format(media, 0);
    std::string encoding;
    for (guint a = 0; a < gst_sdp_media_attributes_len(media); ++a) {
      const GstSDPAttribute* attribute = gst_sdp_media_get_attribute(media, a);
      const std::string value = attribute->value ? attribute->value : "";
      if (std::string(attribute->key) == "rtpmap" && value.starts_with(payload + " "))
        encoding = value.substr(payload.size() + 1, value.find('/') - payload.size() - 1);
    }
    const std::string fmtp = fmtpOf(media, payload);
    codecs[kind] = {{"mimeType", kind + "/" + encoding},
                    {"payloadType", payload},
                    {"sdpFmtpLine", fmtp.empty() ? "" : fmtp.substr(payload.size() + 1)}};
  }
}

// ---- Decoded media ---------------------------------------------------------------------------

class SamplePicture final : public DecodedPicture {
 public:
  SamplePicture(GstSample* sample, const GstVideoInfo& info) : sample_(sample) {
    mapped_ = gst_video_frame_map(&frame_, &info, gst_sample_get_buffer(sample), GST_MAP_READ);
  }
  ~SamplePicture() override {
    if (mapped_) gst_video_frame_unmap(&frame_);
    gst_sample_unref(sample_);
  }
  bool mapped() const { return mapped_; }
  int width() const override { return GST_VIDEO_FRAME_WIDTH(&frame_); }
  int height() const override { return GST_VIDEO_FRAME_HEIGHT(&frame_); }
  int rotation() const override { return 0; }
  const std::uint8_t* plane(int index) const override {
    return static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame_, index));
  }
  int stride(int index) const override { return GST_VIDEO_FRAME_PLANE_STRIDE(&frame_, index); }

 private:
  GstSample* sample_;
  GstVideoFrame frame_{};
  bool mapped_ = false;
};

// ---- The peer --------------------------------------------------------------------------------

// What GStreamer's threads reach through their callbacks. It outlives the peer object until
// the last callback has been disconnected; `open` turns false at `close`, under `gate`.
struct Shared {
  std::recursive_mutex gate;
  bool open = true;
  WebRTCPeer::Events events;
  GstElement* pipeline = nullptr;
  GstElement* webrtc = nullptr;
  std::mutex lock;  // guards the two below
  std::vector<std::string> mids;
  std::vector<std::shared_ptr<RemoteTrack>> tracks;
  GstSDPMessage* offer = nullptr;  // the last one set
  // What the statistics leave out with a bundle (every stream reads as video, codecs are
  // empty): each sender SSRC's kind from the offer, each kind's codec from the answer.
  std::map<std::string, std::string> kindBySSRC;
  std::map<std::string, std::map<std::string, std::string>> codecByKind;

  ~Shared() {
    if (offer) gst_sdp_message_free(offer);
  }

  template <class Call>
  void emit(Call call) {
    std::lock_guard hold(gate);
    if (open) call(events);
  }
};
using SharedRef = std::shared_ptr<Shared>;

struct SinkContext {
  SharedRef shared;
  std::shared_ptr<RemoteTrack> track;
  GstCaps* caps = nullptr;  // of the last picture, with its layout
  GstVideoInfo info{};
};

SharedRef* holdShared(const SharedRef& shared) {
  return new SharedRef(shared);
}
void releaseShared(gpointer data, GClosure*) {
  delete static_cast<SharedRef*>(data);
}

template <class Handler>
void connect(gpointer instance, const char* signal, Handler handler, const SharedRef& shared) {
  g_signal_connect_data(instance, signal, G_CALLBACK(handler), holdShared(shared), releaseShared,
                        GConnectFlags(0));
}

GstFlowReturn onPicture(GstAppSink* sink, gpointer data) {
  auto* context = static_cast<SinkContext*>(data);
  GstSample* sample = gst_app_sink_pull_sample(sink);
  if (!sample) return GST_FLOW_OK;
  GstCaps* caps = gst_sample_get_caps(sample);
  if (caps && caps != context->caps) {
    if (!gst_video_info_from_caps(&context->info, caps)) {
      gst_sample_unref(sample);
      return GST_FLOW_OK;
    }
    gst_caps_replace(&context->caps, caps);
  }
  auto picture = std::make_shared<SamplePicture>(sample, context->info);
  if (!picture->mapped()) return GST_FLOW_OK;
  context->shared->emit([&](auto& events) {
    if (events.picture) events.picture(*context->track, std::move(picture));
  });
  return GST_FLOW_OK;
}

GstFlowReturn onSound(GstAppSink* sink, gpointer data) {
  auto* context = static_cast<SinkContext*>(data);
  GstSample* sample = gst_app_sink_pull_sample(sink);
  if (!sample) return GST_FLOW_OK;
  GstAudioInfo info;
  GstMapInfo map;
  GstBuffer* buffer = gst_sample_get_buffer(sample);
  if (gst_audio_info_from_caps(&info, gst_sample_get_caps(sample)) &&
      gst_buffer_map(buffer, &map, GST_MAP_READ)) {
    const DecodedSound sound{reinterpret_cast<const float*>(map.data),
                             int(map.size / std::max(1, GST_AUDIO_INFO_BPF(&info))),
                             GST_AUDIO_INFO_CHANNELS(&info), GST_AUDIO_INFO_RATE(&info)};
    context->shared->emit([&](auto& events) {
      if (events.sound) events.sound(*context->track, sound);
    });
    gst_buffer_unmap(buffer, &map);
  }
  gst_sample_unref(sample);
  return GST_FLOW_OK;
}

void freeSinkContext(gpointer data) {
  auto* context = static_cast<SinkContext*>(data);
  if (context->caps) gst_caps_unref(context->caps);
  delete context;
}

GstElement* element(const char* factory) {
  return gst_element_factory_make(factory, nullptr);
}

// depayloader ! decoder ! converter ! raw caps ! appsink, behind a queue of its own so the
// decoder runs on its own thread, off the receiving one.
void attachDecoder(const SharedRef& shared, GstPad* pad, MediaKind kind, const std::string& id) {
  const bool video = kind == MediaKind::video;
  GstElement* queue = element("queue");
  GstElement* depay = element(video ? "rtph264depay" : "rtpopusdepay");
  GstElement* decoder = element(video ? "avdec_h264" : "opusdec");
  GstElement* convert = element(video ? "videoconvert" : "audioconvert");
  GstElement* resample = video ? nullptr : element("audioresample");
  GstElement* filter = element("capsfilter");
  GstElement* sink = element("appsink");
  if (video) {
    // A broken picture after a lost packet is worse than holding the last good one; frame
    // threads would each add a frame of delay.
    g_object_set(decoder, "output-corrupt", FALSE, nullptr);
    if (g_object_class_find_property(G_OBJECT_GET_CLASS(decoder), "thread-type"))
      gst_util_set_object_arg(G_OBJECT(decoder), "thread-type", "slice");
  } else {
    g_object_set(decoder, "plc", TRUE, nullptr);
  }
  GstCaps* raw = gst_caps_from_string(video ? "video/x-raw,format=I420"
                                            : "audio/x-raw,format=F32LE,layout=interleaved");
  g_object_set(filter, "caps", raw, nullptr);
  gst_caps_unref(raw);
  g_object_set(sink, "sync", FALSE, "enable-last-sample", FALSE, nullptr);

  auto track = video ? std::shared_ptr<RemoteTrack>(std::make_shared<RemoteVideoTrack>(id))
                     : std::make_shared<RemoteAudioTrack>(id);
  GstAppSinkCallbacks callbacks{};
  callbacks.new_sample = video ? onPicture : onSound;
  gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, new SinkContext{shared, track},
                             freeSinkContext);

  std::vector<GstElement*> chain{queue, depay, decoder, convert};
  if (resample) chain.push_back(resample);
  chain.push_back(filter);
  chain.push_back(sink);
  for (GstElement* element : chain) gst_bin_add(GST_BIN(shared->pipeline), element);
  for (size_t i = 0; i + 1 < chain.size(); ++i) gst_element_link(chain[i], chain[i + 1]);
  for (GstElement* element : chain) gst_element_sync_state_with_parent(element);
  GstPad* input = gst_element_get_static_pad(queue, "sink");
  gst_pad_link(pad, input);
  gst_object_unref(input);
  {
    std::lock_guard hold(shared->lock);
    shared->tracks.push_back(track);
  }
  shared->emit([&](auto& events) {
    if (events.trackAdded) events.trackAdded(track);
  });
}

// Streams of another kind are taken and dropped, so an unlinked pad doesn't stop the rest.
void attachDrain(const SharedRef& shared, GstPad* pad) {
  GstElement* sink = element("fakesink");
  g_object_set(sink, "sync", FALSE, "async", FALSE, nullptr);
  gst_bin_add(GST_BIN(shared->pipeline), sink);
  gst_element_sync_state_with_parent(sink);
  GstPad* input = gst_element_get_static_pad(sink, "sink");
  gst_pad_link(pad, input);
  gst_object_unref(input);
}

void onPadAdded(GstElement*, GstPad* pad, gpointer data) {
  const SharedRef& shared = *static_cast<SharedRef*>(data);
  if (GST_PAD_DIRECTION(pad) != GST_PAD_SRC) return;
  GstCaps* caps = gst_pad_get_current_caps(pad);
  if (!caps) caps = gst_pad_query_caps(pad, nullptr);
  const GstStructure* s = gst_caps_get_structure(caps, 0);
  auto field = [s](const char* key) {
    const char* value = gst_structure_get_string(s, key);
    return std::string(value ? value : "");
  };
  const std::string media = field("media");
  const std::string codec = field("encoding-name");
  gchar* name = gst_pad_get_name(pad);
  const std::string id = name;
  g_free(name);
  gst_caps_unref(caps);
  if (media == "video" && g_ascii_strcasecmp(codec.c_str(), "H264") == 0)
    attachDecoder(shared, pad, MediaKind::video, id);
  else if (media == "audio" && g_ascii_strcasecmp(codec.c_str(), "OPUS") == 0)
    attachDecoder(shared, pad, MediaKind::audio, id);
  else
    attachDrain(shared, pad);
}

void onLocalCandidate(GstElement*, guint index, gchar* candidate, gpointer data) {
  const SharedRef& shared = *static_cast<SharedRef*>(data);
  ICECandidate out{candidate ? candidate : "", std::nullopt, int(index)};
  {
    std::lock_guard hold(shared->lock);
    if (index < shared->mids.size()) out.sdpMid = shared->mids[index];
  }
  shared->emit([&](auto& events) {
    if (events.localCandidate) events.localCandidate(out);
  });
}

void onIceState(GstElement* webrtc, GParamSpec*, gpointer data) {
  GstWebRTCICEConnectionState state;
  g_object_get(webrtc, "ice-connection-state", &state, nullptr);
  static_cast<SharedRef*>(data)->get()->emit([&](auto& events) {
    if (events.iceState) events.iceState(iceStateName(state));
  });
}

void onPeerState(GstElement* webrtc, GParamSpec*, gpointer data) {
  GstWebRTCPeerConnectionState state;
  g_object_get(webrtc, "connection-state", &state, nullptr);
  static_cast<SharedRef*>(data)->get()->emit([&](auto& events) {
    if (events.peerState) events.peerState(peerStateName(state));
  });
}

// A promise whose reply goes to `reply` on the stack's thread, unless the peer closed.
GstPromise* promise(const SharedRef& shared, std::function<void(const GstStructure* reply)> reply) {
  struct Waiting {
    SharedRef shared;
    std::function<void(const GstStructure*)> reply;
  };
  return gst_promise_new_with_change_func(
      [](GstPromise* p, gpointer data) {
        auto* waiting = static_cast<Waiting*>(data);
        const GstStructure* answer =
            gst_promise_wait(p) == GST_PROMISE_RESULT_REPLIED ? gst_promise_get_reply(p) : nullptr;
        std::lock_guard hold(waiting->shared->gate);
        if (waiting->shared->open) waiting->reply(answer);
      },
      new Waiting{shared, std::move(reply)},
      [](gpointer data) { delete static_cast<Waiting*>(data); });
}

// The signal takes its own reference to the promise; ours goes once it is handed over.
template <class Argument>
void emitWithPromise(GstElement* webrtc, const char* signal, Argument argument,
                     GstPromise* promise) {
  g_signal_emit_by_name(webrtc, signal, argument, promise);
  gst_promise_unref(promise);
}

// Tearing a pipeline down waits for its threads, which may be the very threads whose event
// led to the close; it happens here instead, in order.
SerialQueue& teardownQueue() {
  static SerialQueue queue("io.quorvane.camera.webrtc", QueuePriority::utility);
  return queue;
}

class GstPeer final : public WebRTCPeer {
 public:
  explicit GstPeer(SharedRef shared) : shared_(std::move(shared)) {}
  ~GstPeer() override { close(); }

  // The element is torn down once closed: every call on it checks first, under the gate.
  template <class Call>
  void whileOpen(Call call) {
    std::lock_guard hold(shared_->gate);
    if (shared_->open) call(shared_->webrtc);
  }

  void setRemoteOffer(const std::string& sdp, Done done) override {
    GstSDPMessage* message = nullptr;
    gst_sdp_message_new_from_text(sdp.c_str(), &message);
    if (!message || gst_sdp_message_medias_len(message) == 0) {
      if (message) gst_sdp_message_free(message);
      return done("the offer is not a session description");
    }
    addTransceivers(message);
    {
      std::lock_guard hold(shared_->lock);
      if (shared_->offer) gst_sdp_message_free(shared_->offer);
      gst_sdp_message_copy(message, &shared_->offer);
      noteSenderSSRCs(message, shared_->kindBySSRC);
    }
    GstWebRTCSessionDescription* offer =
        gst_webrtc_session_description_new(GST_WEBRTC_SDP_TYPE_OFFER, message);
    whileOpen([&](GstElement* webrtc) {
      emitWithPromise(webrtc, "set-remote-description", offer,
                      promise(shared_, [done](const GstStructure* reply) {
                        if (reply && gst_structure_has_field(reply, "error"))
                          done(errorText(reply, "refused"));
                        else
                          done(std::nullopt);
                      }));
    });
    gst_webrtc_session_description_free(offer);
  }

  void answer(Answered done) override {
    SharedRef shared = shared_;
    whileOpen([&](GstElement* webrtc) {
      emitWithPromise(
          webrtc, "create-answer", static_cast<GstStructure*>(nullptr),
          promise(shared, [shared, done](const GstStructure* reply) {
            GstWebRTCSessionDescription* answer = nullptr;
            if (reply)
              gst_structure_get(reply, "answer", GST_TYPE_WEBRTC_SESSION_DESCRIPTION, &answer,
                                nullptr);
            if (!answer) return done({std::nullopt, errorText(reply, "no answer was made"), false});
            dropOrientation(answer->sdp);
            {
              std::lock_guard hold(shared->lock);
              if (shared->offer) keepOfferedProfiles(answer->sdp, shared->offer);
              noteAnsweredCodecs(answer->sdp, shared->codecByKind);
            }
            gchar* text = gst_sdp_message_as_text(answer->sdp);
            std::string sdp = text;
            g_free(text);
            // The promise's reply comes under the gate, so the element is still there.
            emitWithPromise(shared->webrtc, "set-local-description", answer,
                            promise(shared, [done, sdp](const GstStructure* set) {
                              if (set && gst_structure_has_field(set, "error"))
                                done({std::nullopt, errorText(set, "refused"), true});
                              else
                                done({sdp, "", true});
                            }));
            gst_webrtc_session_description_free(answer);
          }));
    });
  }

  void addCandidate(const ICECandidate& candidate) override {
    whileOpen([&](GstElement* webrtc) {
      g_signal_emit_by_name(webrtc, "add-ice-candidate", guint(candidate.sdpMLineIndex),
                            candidate.candidate.c_str());
    });
  }

  void stats(std::function<void(std::vector<StatsReport>)> done) override {
    whileOpen([&](GstElement* webrtc) {
      emitWithPromise(webrtc, "get-stats", static_cast<GstPad*>(nullptr),
                      promise(shared_, [done, shared = shared_.get()](const GstStructure* reply) {
                        done(reply ? reports(reply, *shared) : std::vector<StatsReport>{});
                      }));
    });
  }

  void close() override {
    {
      std::lock_guard hold(shared_->gate);
      if (!shared_->open) return;
      shared_->open = false;
    }
    teardownQueue().async([shared = shared_] {
      gst_element_set_state(shared->pipeline, GST_STATE_NULL);
      // The last references to the elements, and with them their handlers' hold on `shared`.
      gst_object_unref(shared->webrtc);
      gst_object_unref(shared->pipeline);
      shared->webrtc = shared->pipeline = nullptr;
    });
  }

 private:
  static std::vector<StatsReport> reports(const GstStructure* reply, Shared& shared) {
    std::vector<StatsReport> out;
    for (int i = 0; i < gst_structure_n_fields(reply); ++i) {
      const GValue* value = gst_structure_get_value(reply, gst_structure_nth_field_name(reply, i));
      if (!GST_VALUE_HOLDS_STRUCTURE(value)) continue;
      const GstStructure* s = gst_value_get_structure(value);
      StatsReport report;
      GstWebRTCStatsType type;
      if (gst_structure_get(s, "type", GST_TYPE_WEBRTC_STATS_TYPE, &type, nullptr))
        report.type = statsTypeName(type);
      if (const char* id = gst_structure_get_string(s, "id")) report.id = id;
      for (int f = 0; f < gst_structure_n_fields(s); ++f) {
        const char* key = gst_structure_nth_field_name(s, f);
        report.values[camelCase(key)] = valueText(gst_structure_get_value(s, key));
      }
      out.push_back(std::move(report));
    }
    std::lock_guard hold(shared.lock);
    for (auto& report : out) {
      auto kind = shared.kindBySSRC.find(report.values["ssrc"]);
      if (report.type != "inbound-rtp" || kind == shared.kindBySSRC.end()) continue;
      report.values["kind"] = kind->second;
      report.values["codecId"] = "codec-" + kind->second;
    }
    for (const auto& [kind, values] : shared.codecByKind)
      out.push_back({"codec", "codec-" + kind, values});
    return out;
  }

  // Once, on the first offer: one receive-only transceiver per m-line, in its order.
  void addTransceivers(const GstSDPMessage* offer) {
    std::lock_guard hold(shared_->lock);
    if (!shared_->mids.empty()) return;
    for (guint m = 0; m < gst_sdp_message_medias_len(offer); ++m) {
      const GstSDPMedia* media = gst_sdp_message_get_media(offer, m);
      const char* mid = gst_sdp_media_get_attribute_val(media, "mid");
      shared_->mids.push_back(mid ? mid : std::to_string(m));
      GstCaps* caps = receiveCaps(media);
      if (!gst_caps_is_empty(caps)) {
        GstWebRTCRTPTransceiver* transceiver = nullptr;
        g_signal_emit_by_name(shared_->webrtc, "add-transceiver",
                              GST_WEBRTC_RTP_TRANSCEIVER_DIRECTION_RECVONLY, caps, &transceiver);
        if (transceiver) gst_object_unref(transceiver);
      }
      gst_caps_unref(caps);
    }
  }

  SharedRef shared_;
};

}  // namespace

std::string WebRTCStack::prepare() {
  return stack().line;
}

std::unique_ptr<WebRTCPeer> WebRTCPeer::make(Options options, Events events, std::string& error) {
  if (!stack().ready) {
    error = stack().line;
    return nullptr;
  }
  auto shared = std::make_shared<Shared>();
  shared->events = std::move(events);
  shared->pipeline = gst_pipeline_new(options.name.empty() ? nullptr : options.name.c_str());
  shared->webrtc = element("webrtcbin");
  if (!shared->pipeline || !shared->webrtc) {
    error = "the WebRTC element could not be made";
    if (shared->pipeline) gst_object_unref(shared->pipeline);
    return nullptr;
  }
  gst_object_ref(shared->webrtc);  // ours, beside the pipeline's
  gst_bin_add(GST_BIN(shared->pipeline), shared->webrtc);
  gst_util_set_object_arg(G_OBJECT(shared->webrtc), "bundle-policy", "max-bundle");
  g_object_set(shared->webrtc, "latency", kJitterMilliseconds, nullptr);
  if (options.localAddress) {
    GstWebRTCICE* ice = nullptr;
    g_object_get(shared->webrtc, "ice-agent", &ice, nullptr);
    gboolean added = FALSE;
    if (ice) {
      g_signal_emit_by_name(ice, "add-local-ip-address", options.localAddress->c_str(), &added);
      gst_object_unref(ice);
    }
    if (!added) {
      error = "ICE can't use the address " + *options.localAddress;
      gst_object_unref(shared->webrtc);
      gst_object_unref(shared->pipeline);
      return nullptr;
    }
  }
  connect(shared->webrtc, "pad-added", onPadAdded, shared);
  connect(shared->webrtc, "on-ice-candidate", onLocalCandidate, shared);
  connect(shared->webrtc, "notify::ice-connection-state", onIceState, shared);
  connect(shared->webrtc, "notify::connection-state", onPeerState, shared);
  if (gst_element_set_state(shared->pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    error = "the WebRTC pipeline did not start";
    gst_element_set_state(shared->pipeline, GST_STATE_NULL);
    gst_object_unref(shared->webrtc);
    gst_object_unref(shared->pipeline);
    return nullptr;
  }
  return std::make_unique<GstPeer>(std::move(shared));
}

}  // namespace qvn
