#include "webrtc_sender.h"

#define GST_USE_UNSTABLE_API  // the WebRTC library's headers ask for it
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/rtp/rtp.h>
#include <gst/sdp/sdp.h>
#include <gst/video/video.h>
#include <gst/webrtc/webrtc.h>

#include "sim_log.h"

namespace qvn {
namespace {

constexpr double kToneVolume = 0.1;
constexpr guint kVideoPayload = 102;
constexpr guint kAudioPayload = 111;
// One id for both streams: bundled, they share the transport the sequence numbers count on.
constexpr guint kTransportWideCCId = 1;

std::string enumNick(GObject* object, const char* property) {
  GParamSpec* param = g_object_class_find_property(G_OBJECT_GET_CLASS(object), property);
  if (!param || !G_IS_PARAM_SPEC_ENUM(param)) return "?";
  int value = 0;
  g_object_get(object, property, &value, nullptr);
  const GEnumValue* known = g_enum_get_value(G_PARAM_SPEC_ENUM(param)->enum_class, value);
  return known ? known->value_nick : std::to_string(value);
}

std::string errorText(GError* error) {
  std::string text = error ? error->message : "unknown error";
  g_clear_error(&error);
  return text;
}

// The error a promise was answered with, if any.
std::optional<std::string> promiseError(const GstStructure* reply) {
  GError* error = nullptr;
  if (reply && gst_structure_has_field(reply, "error") &&
      gst_structure_get(reply, "error", G_TYPE_ERROR, &error, nullptr))
    return errorText(error);
  return std::nullopt;
}

GstPad* peerOf(GstElement* element, const char* padName) {
  GstPad* own = gst_element_get_static_pad(element, padName);
  GstPad* peer = gst_pad_get_peer(own);
  gst_object_unref(own);
  return peer;
}

// The payloader numbers its packets for the receiver's bandwidth estimate; the extension
// shows up in its caps, and from there as an a=extmap in the offer.
bool addTransportWideCC(GstElement* payloader) {
  GstElement* twcc = gst_element_factory_make("rtphdrexttwcc", nullptr);
  if (!twcc) return false;
  gst_object_ref_sink(twcc);
  gst_rtp_header_extension_set_id(GST_RTP_HEADER_EXTENSION(twcc), kTransportWideCCId);
  g_signal_emit_by_name(payloader, "add-extension", twcc);
  gst_object_unref(twcc);
  return true;
}

// Before gathering: from then on ICE offers this address only.
bool holdICETo(GstElement* webrtc, const std::string& address) {
  GstWebRTCICE* ice = nullptr;
  g_object_get(webrtc, "ice-agent", &ice, nullptr);
  gboolean added = FALSE;
  if (ice) {
    g_signal_emit_by_name(ice, "add-local-ip-address", address.c_str(), &added);
    gst_object_unref(ice);
  }
  return added;
}

}  // namespace

struct WebRTCSender::Elements {
  // One sent stream: its payloader's output and the transceiver it goes out on.
  struct Stream {
    GstPad* out = nullptr;
    GstWebRTCRTPTransceiver* transceiver = nullptr;
    std::atomic<bool> described{false};  // the transceiver has the stream's caps
    ~Stream() {
      if (out) gst_object_unref(out);
      if (transceiver) gst_object_unref(transceiver);
    }
  };
  GstElement* pipeline = nullptr;
  GstElement* webrtc = nullptr;
  GstElement* appsrc = nullptr;
  GstElement* tone = nullptr;
  Stream video;
  Stream audio;

  ~Elements() {
    if (pipeline) gst_object_unref(pipeline);
  }
};

std::unique_ptr<WebRTCSender> WebRTCSender::make(const std::optional<std::string>& localAddress,
                                                 std::string& error) {
  auto e = std::make_unique<Elements>();
  e->pipeline = gst_pipeline_new("qvn-phone-sim");
  std::string missing;
  auto add = [&](const char* factory) {
    GstElement* element = gst_element_factory_make(factory, nullptr);
    if (element)
      gst_bin_add(GST_BIN(e->pipeline), element);
    else if (missing.empty())
      missing = factory;
    return element;
  };
  e->webrtc = add("webrtcbin");
  e->appsrc = add("appsrc");
  GstElement* videoPay = add("rtph264pay");
  e->tone = add("audiotestsrc");
  GstElement* convert = add("audioconvert");
  GstElement* resample = add("audioresample");
  GstElement* opus = add("opusenc");
  GstElement* audioPay = add("rtpopuspay");
  if (!missing.empty()) {
    error = "GStreamer has no " + missing + " element (gstreamer1.0-plugins-bad, -good, -base)";
    return nullptr;
  }

  g_object_set(e->webrtc, "bundle-policy", GST_WEBRTC_BUNDLE_POLICY_MAX_BUNDLE, nullptr);
  // Live, timed by us; if the network ever stops taking frames, the oldest go.
  g_object_set(e->appsrc, "is-live", TRUE, "format", GST_FORMAT_TIME, "do-timestamp", FALSE,
               "max-time", guint64(GST_SECOND), nullptr);
  gst_util_set_object_arg(G_OBJECT(e->appsrc), "leaky-type", "downstream");
  g_object_set(videoPay, "config-interval", -1, "pt", kVideoPayload, nullptr);
  gst_util_set_object_arg(G_OBJECT(videoPay), "aggregate-mode", "zero-latency");
  g_object_set(e->tone, "is-live", TRUE, "freq", 440.0, "volume", kToneVolume, nullptr);
  gst_util_set_object_arg(G_OBJECT(e->tone), "wave", "sine");
  g_object_set(audioPay, "pt", kAudioPayload, nullptr);
  if (!addTransportWideCC(videoPay) || !addTransportWideCC(audioPay)) {
    error = "GStreamer has no rtphdrexttwcc (gstreamer1.0-plugins-good)";
    return nullptr;
  }

  // Video first: it is m-line 0, the one the bundle's transport belongs to.
  if (!gst_element_link_many(e->appsrc, videoPay, e->webrtc, nullptr) ||
      !gst_element_link_many(e->tone, convert, resample, opus, audioPay, e->webrtc, nullptr)) {
    error = "could not link the sending pipeline";
    return nullptr;
  }
  for (auto [pay, stream] : {std::pair{videoPay, &e->video}, std::pair{audioPay, &e->audio}}) {
    GstPad* sink = peerOf(pay, "src");
    g_object_get(sink, "transceiver", &stream->transceiver, nullptr);
    gst_object_unref(sink);
    if (!stream->transceiver) {
      error = "webrtcbin made no transceiver for a stream";
      return nullptr;
    }
    g_object_set(stream->transceiver, "direction", GST_WEBRTC_RTP_TRANSCEIVER_DIRECTION_SENDONLY,
                 nullptr);
    stream->out = gst_element_get_static_pad(pay, "src");
  }

  if (localAddress && !holdICETo(e->webrtc, *localAddress)) {
    error = "ICE would not take the local address " + *localAddress;
    return nullptr;
  }
  std::unique_ptr<WebRTCSender> sender(new WebRTCSender(std::move(e)));
  sender->connectSignals();
  return sender;
}

WebRTCSender::WebRTCSender(std::unique_ptr<Elements> elements) : e_(std::move(elements)) {}

WebRTCSender::~WebRTCSender() {
  close();
  GstBus* bus = gst_element_get_bus(e_->pipeline);
  gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
  gst_object_unref(bus);
  g_signal_handlers_disconnect_by_data(e_->webrtc, this);
  g_signal_handlers_disconnect_by_data(e_->video.out, this);
  g_signal_handlers_disconnect_by_data(e_->audio.out, this);
}

void WebRTCSender::connectSignals() {
  g_signal_connect(e_->webrtc, "on-ice-candidate",
                   G_CALLBACK(+[](GstElement*, guint mline, gchar* candidate, gpointer self) {
                     auto* s = static_cast<WebRTCSender*>(self);
                     if (!s->closing_ && s->onLocalCandidate)
                       s->onLocalCandidate(int(mline), candidate);
                   }),
                   this);
  for (const char* property : {"notify::ice-connection-state", "notify::connection-state"})
    g_signal_connect(e_->webrtc, property,
                     G_CALLBACK(+[](GObject*, GParamSpec* param, gpointer self) {
                       static_cast<WebRTCSender*>(self)->stateChanged(param->name);
                     }),
                     this);
  for (GstPad* pad : {e_->video.out, e_->audio.out})
    g_signal_connect(pad, "notify::caps", G_CALLBACK(+[](GObject* out, GParamSpec*, gpointer self) {
                       static_cast<WebRTCSender*>(self)->describe(GST_PAD(out));
                     }),
                     this);
  // The studio's picture-loss and full-picture requests come up the video branch as
  // force-key-unit events.
  GstPad* appsrcOut = gst_element_get_static_pad(e_->appsrc, "src");
  gst_pad_add_probe(
      appsrcOut, GST_PAD_PROBE_TYPE_EVENT_UPSTREAM,
      +[](GstPad*, GstPadProbeInfo* info, gpointer self) {
        auto* s = static_cast<WebRTCSender*>(self);
        if (gst_video_event_is_force_key_unit(GST_PAD_PROBE_INFO_EVENT(info)) && !s->closing_ &&
            s->onKeyframeRequest) {
          SimLog::line("keyframe asked for by the studio");
          s->onKeyframeRequest();
        }
        return GST_PAD_PROBE_OK;
      },
      this, nullptr);
  gst_object_unref(appsrcOut);
  GstBus* bus = gst_element_get_bus(e_->pipeline);
  gst_bus_set_sync_handler(
      bus,
      +[](GstBus*, GstMessage* message, gpointer self) {
        auto* s = static_cast<WebRTCSender*>(self);
        GError* error = nullptr;
        const std::string from = GST_MESSAGE_SRC_NAME(message);
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
          gst_message_parse_error(message, &error, nullptr);
          s->failed(from + ": " + errorText(error));
        } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_WARNING) {
          gst_message_parse_warning(message, &error, nullptr);
          SimLog::line("GStreamer warning from " + from + ": " + errorText(error));
        }
        return GST_BUS_DROP;
      },
      this, nullptr);
  gst_object_unref(bus);
}

void WebRTCSender::close() {
  if (closing_.exchange(true)) return;
  // Joins every streaming thread and webrtcbin's own: nothing calls back after this.
  gst_element_set_state(e_->pipeline, GST_STATE_NULL);
}

void WebRTCSender::start() {
  if (started_.exchange(true)) return;
  if (gst_element_set_state(e_->pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
    return failed("the sending pipeline would not start");
  makeOfferOnceReady();
}

// The payloader's caps become the transceiver's codec preferences: webrtcbin would otherwise
// take them from its own input pad, where they may not have arrived yet when the offer is made.
void WebRTCSender::describe(GstPad* out) {
  if (offerMade_ || closing_) return;
  auto& stream = out == e_->video.out ? e_->video : e_->audio;
  GstCaps* caps = gst_pad_get_current_caps(out);
  if (!caps) return;
  g_object_set(stream.transceiver, "codec-preferences", caps, nullptr);
  gst_caps_unref(caps);
  stream.described = true;
  makeOfferOnceReady();
}

void WebRTCSender::makeOfferOnceReady() {
  if (!started_ || closing_ || !e_->video.described || !e_->audio.described ||
      offerMade_.exchange(true))
    return;
  GstPromise* promise = gst_promise_new_with_change_func(
      +[](GstPromise* p, gpointer self) {
        static_cast<WebRTCSender*>(self)->offerCreated(gst_promise_get_reply(p));
        gst_promise_unref(p);
      },
      this, nullptr);
  g_signal_emit_by_name(e_->webrtc, "create-offer", nullptr, promise);
}

void WebRTCSender::offerCreated(const GstStructure* reply) {
  if (closing_) return;
  GstWebRTCSessionDescription* offer = nullptr;
  if (reply && gst_structure_has_field(reply, "offer"))
    gst_structure_get(reply, "offer", GST_TYPE_WEBRTC_SESSION_DESCRIPTION, &offer, nullptr);
  if (!offer) return failed("no offer: " + promiseError(reply).value_or("webrtcbin made none"));
  // Held to the first caps, the transceiver would refuse the next ones (--climb's new size
  // and configuration); the offer has what it needed from them.
  for (auto* stream : {&e_->video, &e_->audio})
    g_object_set(stream->transceiver, "codec-preferences", nullptr, nullptr);
  GstPromise* done = gst_promise_new();
  g_signal_emit_by_name(e_->webrtc, "set-local-description", offer, done);
  gst_promise_unref(done);
  gchar* text = gst_sdp_message_as_text(offer->sdp);
  if (onOffer) onOffer(text);
  g_free(text);
  gst_webrtc_session_description_free(offer);
}

void WebRTCSender::setAnswer(const std::string& sdp) {
  GstSDPMessage* message = nullptr;
  if (gst_sdp_message_new_from_text(sdp.c_str(), &message) != GST_SDP_OK)
    return failed("the studio's answer is not SDP");
  GstWebRTCSessionDescription* answer =
      gst_webrtc_session_description_new(GST_WEBRTC_SDP_TYPE_ANSWER, message);
  GstPromise* promise = gst_promise_new_with_change_func(
      +[](GstPromise* p, gpointer self) {
        auto* s = static_cast<WebRTCSender*>(self);
        if (auto error = promiseError(gst_promise_get_reply(p)))
          s->failed("the studio's answer was refused: " + *error);
        else if (!s->closing_)
          SimLog::line("answer set");
        gst_promise_unref(p);
      },
      this, nullptr);
  g_signal_emit_by_name(e_->webrtc, "set-remote-description", answer, promise);
  gst_webrtc_session_description_free(answer);
}

void WebRTCSender::addRemoteCandidate(int mline, const std::string& candidate) {
  g_signal_emit_by_name(e_->webrtc, "add-ice-candidate", guint(mline), candidate.c_str());
}

void WebRTCSender::setMuted(bool muted) {
  g_object_set(e_->tone, "volume", muted ? 0.0 : kToneVolume, nullptr);
}

bool WebRTCSender::pushVideo(const VideoFormat& format, const EncodedFrame& frame) {
  if (!started_ || closing_) return false;
  const GstClockTime now = gst_element_get_current_running_time(e_->pipeline);
  if (!GST_CLOCK_TIME_IS_VALID(now)) return false;
  if (videoFormat_ != format) {
    // A new size or encoder: new caps ahead of its first frame, in the appsrc's own order.
    GstBuffer* record =
        gst_buffer_new_memdup(format.configuration.data(), format.configuration.size());
    GstCaps* caps = gst_caps_new_simple(
        "video/x-h264", "stream-format", G_TYPE_STRING, "avc", "alignment", G_TYPE_STRING, "au",
        "width", G_TYPE_INT, format.width, "height", G_TYPE_INT, format.height, "framerate",
        GST_TYPE_FRACTION, format.fps, 1, "codec_data", GST_TYPE_BUFFER, record, nullptr);
    gst_app_src_set_caps(GST_APP_SRC(e_->appsrc), caps);
    gst_caps_unref(caps);
    gst_buffer_unref(record);
    videoFormat_ = format;
  }
  // Frames sent before the peer connection is up would wait in queues and arrive late and
  // stale; a decoder can only start from a keyframe.
  if (!connected_ || (!frame.keyframe && !sentKeyframe_)) return false;
  sentKeyframe_ = true;
  GstBuffer* buffer = gst_buffer_new_memdup(frame.nals.data(), frame.nals.size());
  GST_BUFFER_PTS(buffer) = now;
  GST_BUFFER_DTS(buffer) = now;  // no reordering
  GST_BUFFER_DURATION(buffer) = gst_util_uint64_scale_int(GST_SECOND, 1, format.fps);
  if (!frame.keyframe) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
  return gst_app_src_push_buffer(GST_APP_SRC(e_->appsrc), buffer) == GST_FLOW_OK;
}

void WebRTCSender::stateChanged(const char* property) {
  if (closing_) return;
  const std::string state = enumNick(G_OBJECT(e_->webrtc), property);
  if (std::string(property) == "ice-connection-state") {
    SimLog::line("ICE " + state);
  } else {
    SimLog::line("peer connection " + state);
    if (state == "connected" && !connected_.exchange(true) && onKeyframeRequest)
      onKeyframeRequest();  // the first frame through starts the picture
    if (state == "failed") failed("the peer connection failed");
  }
}

void WebRTCSender::failed(const std::string& error) {
  if (!closing_ && onFailure) onFailure(error);
}

}  // namespace qvn
