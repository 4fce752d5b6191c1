// The one application object of a window test, on Qt's offscreen platform and in the
// studio's style. Include it from one file per test program: it also tells the race
// detector about Qt, which is built without it and whose cross-thread event posting looks
// like races.
#pragma once

#include <QApplication>

#include "ui/qvn_style.h"

extern "C" const char* __tsan_default_suppressions() {
  return "race:libQt6Core.so\nrace:libQt6Gui.so\n";
}

namespace qvn::test {

inline QApplication& offscreenApplication() {
  static int argc = 1;
  static char name[] = "qvn-window-test";
  static char* argv[] = {name, nullptr};
  static QApplication* app = [] {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    auto* a = new QApplication(argc, argv);
    ui::applyStudioStyle();
    return a;
  }();
  return *app;
}

}  // namespace qvn::test
