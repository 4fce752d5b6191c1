// The Go Live sheet's small pieces, shared by its tabs and views: texts in the palette's
// weights, its kinds of buttons, a switch, and how a link is opened. Main thread.
#pragma once

#include <QAbstractButton>
#include <QString>
#include <functional>
#include <string>

#include "support/qvn_palette.h"

class QLabel;
class QLayout;
class QPushButton;

namespace qvn::ui {

// Opens a web page; the sheet's is the desktop's browser unless a test puts in its own.
using UrlOpener = std::function<void(const std::string& url)>;

inline QString qtext(const std::string& s) {
  return QString::fromStdString(s);
}

// A wrapping line of text in a colour of the palette.
QLabel* sheetText(const QString& text, QvnColor colour = Qvn::slate);
QLabel* sheetHeading(const QString& text, int pixelSize = 18);
// Filled buttons: the accent for going on, red for ending a stream.
QPushButton* primaryButton(const QString& text);
QPushButton* dangerButton(const QString& text);
// A button that reads as a link.
QPushButton* linkButton(const QString& text);
// Deletes every item of a layout, widgets included.
void clearLayout(QLayout& layout);

// An on/off switch: a pill with a knob, checkable like any button.
class Switch : public QAbstractButton {
 public:
  explicit Switch(QWidget* parent = nullptr);
  QSize sizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;
};

}  // namespace qvn::ui
