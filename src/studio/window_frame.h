// Where windows open and what of their frames is remembered: the main window's frame under
// "qvn.mainWindow.frame" and each floating panel's under its own name, in the text form
// "{{x, y}, {width, height}}". Screen coordinates, origin at the top left. Main thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qvn {

class Defaults;

struct WindowRect {
  double x = 0, y = 0, width = 0, height = 0;
  bool operator==(const WindowRect&) const = default;
  // Whether `other` lies wholly inside this rectangle.
  bool contains(const WindowRect& other) const;
  WindowRect centredOn(const WindowRect& area) const;
};

std::string frameText(const WindowRect& frame);
std::optional<WindowRect> frameFromText(std::string_view text);

class WindowFrameAutosave {
 public:
  static constexpr double kMinWidth = 1180;
  static constexpr double kMinHeight = 720;

  explicit WindowFrameAutosave(Defaults& settings) : settings_(settings) {}

  // The frame the main window opens at: the remembered one while it still lies on one of
  // the `screens` (their visible frames) and is big enough; else 90 % of `home`, the
  // visible frame of the window's screen, no smaller than the minimum unless the screen is.
  WindowRect fitOnScreen(const std::vector<WindowRect>& screens, const WindowRect& home) const;
  // After a move or resize: kept only out of full screen and at the minimum size or more.
  void remember(const WindowRect& frame, bool fullScreen);

 private:
  Defaults& settings_;
};

// A floating panel's first frame when none is remembered: centred on the main window's
// frame, kept inside the main screen's visible frame; with no main window, centred on
// the screen.
WindowRect placeFloatingPanel(double width, double height, const std::optional<WindowRect>& main,
                              const WindowRect& screen);

}  // namespace qvn
