// GStreamer's compositor doing the mix's work on the same pictures, as the yardstick of the
// mix benchmark: each picture comes from an appsrc, is scaled and placed by a pad of the
// compositor over a black background, and the canvas is pulled from an appsink. It is set
// up to work as one CPU thread would, as the mix does.
#pragma once

#include <gst/gst.h>

#include <string>
#include <vector>

#include "platform/pixel_buffer.h"

namespace qvn::bench {

struct CompositorLayer {
  PixelBufferRef picture;  // BGRA; the pipeline reads it in place
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
  double alpha = 1;
};

class CompositorPipeline {
 public:
  // Layers are drawn in order, the first one lowest. Needs gst_init first.
  CompositorPipeline(int canvasWidth, int canvasHeight, std::vector<CompositorLayer> layers);
  ~CompositorPipeline();
  CompositorPipeline(const CompositorPipeline&) = delete;
  CompositorPipeline& operator=(const CompositorPipeline&) = delete;

  // Empty while the pipeline works; else what went wrong.
  const std::string& error() const { return error_; }

  // One output frame: a buffer pushed on each appsrc, one canvas pulled from the appsink.
  // With `copyInto` (a BGRA buffer of the canvas size) the canvas is copied there.
  bool frame(PixelBuffer* copyInto = nullptr);

  // What is set to keep it on one thread and on the mix's filter, one line each.
  static std::vector<std::string> settings();

 private:
  GstElement* add(const char* factory);
  bool fail(std::string what);

  GstElement* pipeline_ = nullptr;
  GstElement* sink_ = nullptr;
  std::vector<GstElement*> sources_;
  std::vector<GstBuffer*> pictures_;  // one wrapper per layer, copied (not its pixels) per push
  guint64 frames_ = 0;
  std::string error_;
};

}  // namespace qvn::bench
