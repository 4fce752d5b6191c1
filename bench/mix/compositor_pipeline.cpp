#include "compositor_pipeline.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/video/gstvideoaggregator.h>
#include <gst/video/video.h>

#include <algorithm>
#include <cstring>

namespace qvn::bench {

namespace {

constexpr int kFramesPerSecond = 30;

GstCaps* bgraCaps(int width, int height) {
  return gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "BGRA", "width", G_TYPE_INT,
                             width, "height", G_TYPE_INT, height, "framerate", GST_TYPE_FRACTION,
                             kFramesPerSecond, 1, "pixel-aspect-ratio", GST_TYPE_FRACTION, 1, 1,
                             nullptr);
}

// Wraps a picture's pixels without copying; the buffer keeps the picture alive.
GstBuffer* wrap(const PixelBufferRef& picture) {
  const gsize size = gsize(picture->stride()) * gsize(picture->height());
  auto* keep = new PixelBufferRef(picture);
  GstBuffer* buffer =
      gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, picture->data(), size, 0, size, keep,
                                  [](gpointer p) { delete static_cast<PixelBufferRef*>(p); });
  gsize offsets[GST_VIDEO_MAX_PLANES] = {0};
  gint strides[GST_VIDEO_MAX_PLANES] = {picture->stride()};
  gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_BGRA,
                                 guint(picture->width()), guint(picture->height()), 1, offsets,
                                 strides);
  return buffer;
}

std::string busError(GstElement* pipeline) {
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
  gst_object_unref(bus);
  if (!message) return {};
  GError* error = nullptr;
  gchar* debug = nullptr;
  gst_message_parse_error(message, &error, &debug);
  std::string text = error ? error->message : "unknown error";
  if (debug) text += std::string(" (") + debug + ")";
  g_clear_error(&error);
  g_free(debug);
  gst_message_unref(message);
  return text;
}

}  // namespace

CompositorPipeline::CompositorPipeline(int canvasWidth, int canvasHeight,
                                       std::vector<CompositorLayer> layers) {
  pipeline_ = gst_pipeline_new("qvn-bench-compositor");
  GstElement* compositor = add("compositor");
  GstElement* filter = add("capsfilter");
  sink_ = add("appsink");
  if (!compositor || !filter || !sink_) return;

  // Blending on the streaming thread only (0 would mean one worker per core).
  g_object_set(compositor, "max-threads", 1u, nullptr);
  gst_util_set_object_arg(G_OBJECT(compositor), "background", "black");
  // The pads' scaling runs as tasks on the aggregator's shared pool, one thread per core by
  // default, which would scale two pads at once; one thread keeps it serial.
  GstTaskPool* pool =
      gst_video_aggregator_get_execution_task_pool(GST_VIDEO_AGGREGATOR(compositor));
  if (GST_IS_SHARED_TASK_POOL(pool)) {
    gst_shared_task_pool_set_max_threads(GST_SHARED_TASK_POOL(pool), 1);
  } else {
    fail("the compositor's task pool is not a shared pool; its threads can't be limited");
  }
  gst_object_unref(pool);
  if (!error_.empty()) return;

  GstCaps* canvasCaps = bgraCaps(canvasWidth, canvasHeight);
  g_object_set(filter, "caps", canvasCaps, nullptr);
  gst_caps_unref(canvasCaps);
  g_object_set(sink_, "sync", FALSE, "enable-last-sample", FALSE, nullptr);
  if (!gst_element_link_many(compositor, filter, sink_, nullptr)) {
    fail("compositor, capsfilter and appsink don't link");
    return;
  }

  for (const CompositorLayer& layer : layers) {
    GstElement* source = add("appsrc");
    if (!source) return;
    sources_.push_back(source);
    GstCaps* caps = bgraCaps(layer.picture->width(), layer.picture->height());
    g_object_set(source, "caps", caps, "format", GST_FORMAT_TIME, "is-live", FALSE, "max-bytes",
                 guint64(0), nullptr);
    gst_caps_unref(caps);

    GstPad* pad = gst_element_request_pad_simple(compositor, "sink_%u");
    // The converter scales the pad's picture: one thread, and the mix's bilinear filter
    // rather than its default cubic one.
    GstStructure* config =
        gst_structure_new("GstVideoConverter", GST_VIDEO_CONVERTER_OPT_THREADS, G_TYPE_UINT, 1u,
                          GST_VIDEO_CONVERTER_OPT_RESAMPLER_METHOD, GST_TYPE_VIDEO_RESAMPLER_METHOD,
                          GST_VIDEO_RESAMPLER_METHOD_LINEAR, nullptr);
    g_object_set(pad, "xpos", layer.x, "ypos", layer.y, "width", layer.width, "height",
                 layer.height, "alpha", layer.alpha, "converter-config", config, nullptr);
    gst_structure_free(config);
    GstPad* out = gst_element_get_static_pad(source, "src");
    const bool linked = gst_pad_link(out, pad) == GST_PAD_LINK_OK;
    gst_object_unref(out);
    gst_object_unref(pad);
    if (!linked) {
      fail("appsrc doesn't link to the compositor");
      return;
    }
    pictures_.push_back(wrap(layer.picture));
  }

  if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
    fail("the pipeline doesn't start");
}

CompositorPipeline::~CompositorPipeline() {
  if (pipeline_) {
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(pipeline_);
  }
  for (GstBuffer* picture : pictures_) gst_buffer_unref(picture);
}

GstElement* CompositorPipeline::add(const char* factory) {
  GstElement* element = gst_element_factory_make(factory, nullptr);
  if (!element) {
    fail(std::string("no GStreamer element '") + factory + "'");
    return nullptr;
  }
  gst_bin_add(GST_BIN(pipeline_), element);
  return element;
}

bool CompositorPipeline::fail(std::string what) {
  if (error_.empty()) error_ = std::move(what);
  return false;
}

bool CompositorPipeline::frame(PixelBuffer* copyInto) {
  if (!error_.empty()) return false;
  const GstClockTime start = gst_util_uint64_scale(frames_, GST_SECOND, kFramesPerSecond);
  const GstClockTime end = gst_util_uint64_scale(frames_ + 1, GST_SECOND, kFramesPerSecond);
  ++frames_;
  for (size_t i = 0; i < sources_.size(); ++i) {
    GstBuffer* buffer = gst_buffer_copy(pictures_[i]);  // shares the pixels
    GST_BUFFER_PTS(buffer) = start;
    GST_BUFFER_DURATION(buffer) = end - start;
    if (gst_app_src_push_buffer(GST_APP_SRC(sources_[i]), buffer) != GST_FLOW_OK)
      return fail("appsrc refused a buffer");
  }
  GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink_), 10 * GST_SECOND);
  if (!sample) {
    const std::string why = busError(pipeline_);
    return fail(why.empty() ? "no canvas came out within 10 s" : why);
  }
  bool ok = true;
  if (copyInto) {
    GstVideoInfo info;
    GstVideoFrame frame;
    ok = gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) &&
         gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample), GST_MAP_READ);
    if (ok) {
      const int rows = std::min(copyInto->height(), int(GST_VIDEO_FRAME_HEIGHT(&frame)));
      const int bytes = std::min(copyInto->width(), int(GST_VIDEO_FRAME_WIDTH(&frame))) * 4;
      for (int y = 0; y < rows; ++y)
        std::memcpy(copyInto->data() + y * copyInto->stride(),
                    static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0)) +
                        y * GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0),
                    size_t(bytes));
      gst_video_frame_unmap(&frame);
    } else {
      fail("the canvas can't be read");
    }
  }
  gst_sample_unref(sample);
  return ok;
}

std::vector<std::string> CompositorPipeline::settings() {
  return {
      "compositor max-threads=1 (blending on the streaming thread only)",
      "aggregator conversion task pool: gst_shared_task_pool_set_max_threads(1)",
      "pad converter-config: GstVideoConverter.threads=1, resampler-method=linear",
      "compositor background=black; appsink sync=false; appsrc BGRA 1280x720 at 30/1",
  };
}

}  // namespace qvn::bench
