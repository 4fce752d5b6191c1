// The studio's look in Qt terms: the palette's colours and one dark style sheet for the
// whole application. Main thread.
#pragma once

#include <QColor>
#include <QString>

#include "support/qvn_palette.h"

namespace qvn::ui {

inline QColor qcolor(QvnColor c, int alpha = 255) {
  return QColor(c.red, c.green, c.blue, alpha);
}
// "#rrggbb", for style sheets.
QString css(QvnColor c);
// Applies the dark palette and the style sheet to the running application.
void applyStudioStyle();

}  // namespace qvn::ui
