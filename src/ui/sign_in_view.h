// The sign-in screen, up exactly while nobody is signed in: the address, then either the
// name for a new account or the code from the mail; and the web provider's button. It holds
// no logic of its own: it shows the account's sign-in state and calls its operations.
// Main thread.
#pragma once

#include <QWidget>
#include <vector>

#include "support/observable.h"

class QLabel;
class QLineEdit;
class QPushButton;
class QStackedWidget;

namespace qvn {
class CloudAccount;
}

namespace qvn::ui {

class SignInView : public QWidget {
 public:
  static constexpr int kMinWidth = 880;
  static constexpr int kMinHeight = 544;

  SignInView(CloudAccount& account, QWidget* parent = nullptr);

  QLineEdit& emailField() { return *email_; }
  QLineEdit& codeField() { return *code_; }
  QLabel& title() { return *title_; }

 private:
  void refresh();

  CloudAccount& account_;
  QLabel* title_;
  QLabel* subtitle_;
  QStackedWidget* steps_;
  QLineEdit* email_;
  QPushButton* continueEmail_;
  QPushButton* google_;
  QLabel* createLine_;
  QLineEdit* name_;
  QPushButton* create_;
  QLabel* waitingLine_;
  QLineEdit* code_;
  QPushButton* resend_;
  QLabel* checking_;
  QLabel* error_;
  std::vector<Subscription> subscriptions_;
};

}  // namespace qvn::ui
