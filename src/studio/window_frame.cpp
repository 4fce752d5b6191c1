#include "studio/window_frame.h"

#include <algorithm>
#include <cstdio>

#include "platform/defaults.h"

namespace qvn {

namespace {
constexpr const char* kMainFrameKey = "qvn.mainWindow.frame";
}

bool WindowRect::contains(const WindowRect& other) const {
  return other.x >= x && other.y >= y && other.x + other.width <= x + width &&
         other.y + other.height <= y + height;
}

WindowRect WindowRect::centredOn(const WindowRect& area) const {
  return {area.x + (area.width - width) / 2, area.y + (area.height - height) / 2, width, height};
}

std::string frameText(const WindowRect& f) {
  char text[128];
  std::snprintf(text, sizeof text, "{{%g, %g}, {%g, %g}}", f.x, f.y, f.width, f.height);
  return text;
}

std::optional<WindowRect> frameFromText(std::string_view text) {
  WindowRect f;
  int used = 0;
  const std::string copy(text);
  if (std::sscanf(copy.c_str(), " {{%lf , %lf }, {%lf , %lf }}%n", &f.x, &f.y, &f.width, &f.height,
                  &used) != 4 ||
      size_t(used) != copy.size() || f.width < 0 || f.height < 0)
    return std::nullopt;
  return f;
}

WindowRect WindowFrameAutosave::fitOnScreen(const std::vector<WindowRect>& screens,
                                            const WindowRect& home) const {
  if (auto text = settings_.text(kMainFrameKey))
    if (auto stored = frameFromText(*text);
        stored && stored->width >= kMinWidth && stored->height >= kMinHeight)
      for (const WindowRect& screen : screens) {
        // Two points of slack on every side, for frames snapped to a screen's edge.
        const WindowRect slack{screen.x - 2, screen.y - 2, screen.width + 4, screen.height + 4};
        if (slack.contains(*stored)) return *stored;
      }
  const double width = std::min(std::max(0.9 * home.width, kMinWidth), home.width);
  const double height = std::min(std::max(0.9 * home.height, kMinHeight), home.height);
  return WindowRect{0, 0, width, height}.centredOn(home);
}

void WindowFrameAutosave::remember(const WindowRect& frame, bool fullScreen) {
  if (fullScreen || frame.width < kMinWidth || frame.height < kMinHeight) return;
  settings_.set(kMainFrameKey, frameText(frame));
}

WindowRect placeFloatingPanel(double width, double height, const std::optional<WindowRect>& main,
                              const WindowRect& screen) {
  WindowRect frame = WindowRect{0, 0, width, height}.centredOn(main ? *main : screen);
  if (!main) return frame;
  frame.x = std::clamp(frame.x, screen.x, std::max(screen.x, screen.x + screen.width - width));
  frame.y = std::clamp(frame.y, screen.y, std::max(screen.y, screen.y + screen.height - height));
  return frame;
}

}  // namespace qvn
