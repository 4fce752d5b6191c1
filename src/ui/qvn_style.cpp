#include "ui/qvn_style.h"

#include <QApplication>
#include <QPalette>

namespace qvn::ui {

QString css(QvnColor c) {
  return qcolor(c).name();
}

void applyStudioStyle() {
  QPalette p;
  p.setColor(QPalette::Window, qcolor(Qvn::voidBlack));
  p.setColor(QPalette::Base, qcolor(Qvn::deepNavy));
  p.setColor(QPalette::AlternateBase, qcolor(Qvn::panel));
  p.setColor(QPalette::Button, qcolor(Qvn::panel));
  p.setColor(QPalette::WindowText, qcolor(Qvn::cloud));
  p.setColor(QPalette::Text, qcolor(Qvn::cloud));
  p.setColor(QPalette::ButtonText, qcolor(Qvn::cloud));
  p.setColor(QPalette::PlaceholderText, qcolor(Qvn::muted));
  p.setColor(QPalette::Highlight, qcolor(Qvn::green));
  p.setColor(QPalette::HighlightedText, qcolor(Qvn::onAccent));
  p.setColor(QPalette::ToolTipBase, qcolor(Qvn::panel));
  p.setColor(QPalette::ToolTipText, qcolor(Qvn::cloud));
  p.setColor(QPalette::Disabled, QPalette::ButtonText, qcolor(Qvn::muted));
  p.setColor(QPalette::Disabled, QPalette::WindowText, qcolor(Qvn::muted));
  QApplication::setPalette(p);
  QApplication::setStyle("Fusion");
  qApp->setStyleSheet(
      QString("QWidget { color: %1; font-size: 13px; }"
              "QToolTip { background: %2; border: 1px solid %3; }"
              "QPushButton, QToolButton, QComboBox, QDoubleSpinBox {"
              "  background: %2; border: 1px solid %3; border-radius: 6px; padding: 5px 10px; }"
              "QPushButton:hover, QToolButton:hover { border-color: %4; }"
              "QPushButton:checked, QToolButton:checked { background: %4; color: %5; }"
              "QPushButton:disabled { color: %6; border-color: %7; }"
              "QPushButton#take { background: %8; color: white; font-weight: 600;"
              "  font-size: 15px; padding: 10px; border: none; }"
              "QPushButton#take:disabled { background: %7; color: %6; }"
              "QScrollArea, QScrollArea > QWidget > QWidget { background: transparent; }"
              "QListWidget { background: %9; border: none; font-family: monospace;"
              "  font-size: 12px; }"
              "QScrollBar:horizontal { background: transparent; height: 8px; margin: 0; }"
              "QScrollBar::handle:horizontal { background: %3; border-radius: 4px;"
              "  min-width: 40px; }"
              "QScrollBar::add-line, QScrollBar::sub-line { width: 0; height: 0; }"
              "QScrollBar::add-page, QScrollBar::sub-page { background: none; }"
              "QMenu { background: %2; border: 1px solid %3; }"
              "QMenu::item:selected { background: %4; color: %5; }")
          .arg(css(Qvn::cloud), css(Qvn::panel), css(Qvn::border), css(Qvn::green),
               css(Qvn::onAccent), css(Qvn::muted), css(Qvn::borderSubtle), css(Qvn::live),
               css(Qvn::deepNavy)));
}

}  // namespace qvn::ui
