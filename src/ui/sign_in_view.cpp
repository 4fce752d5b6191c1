#include "ui/sign_in_view.h"

#include <QDesktopServices>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRegularExpression>
#include <QStackedWidget>
#include <QUrl>
#include <QVBoxLayout>

#include "cloud/account.h"
#include "ui/qvn_style.h"

namespace qvn::ui {

namespace {

constexpr const char* kSite = "https://quorvane.com";

QLabel* muted(const QString& text) {
  auto* label = new QLabel(text);
  label->setWordWrap(true);
  label->setStyleSheet(QString("color: %1;").arg(css(Qvn::slate)));
  return label;
}

QPushButton* linkButton(const QString& text) {
  auto* b = new QPushButton(text);
  b->setFlat(true);
  b->setCursor(Qt::PointingHandCursor);
  b->setStyleSheet(QString("QPushButton { border: none; background: transparent; color: %1;"
                           " padding: 2px; } QPushButton:hover { color: %2; }")
                       .arg(css(Qvn::slate), css(Qvn::cloud)));
  return b;
}

QPushButton* primary(const QString& text) {
  auto* b = new QPushButton(text);
  b->setStyleSheet(
      QString("QPushButton { background: %1; color: %2; border: none;"
              " font-weight: 600; padding: 10px; }"
              "QPushButton:disabled { background: %3; color: %4; }")
          .arg(css(Qvn::green), css(Qvn::onAccent), css(Qvn::borderSubtle), css(Qvn::muted)));
  return b;
}

QWidget* column(std::initializer_list<QWidget*> widgets) {
  auto* w = new QWidget;
  auto* layout = new QVBoxLayout(w);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(10);
  for (QWidget* child : widgets) layout->addWidget(child);
  layout->addStretch();
  return w;
}

}  // namespace

SignInView::SignInView(CloudAccount& account, QWidget* parent)
    : QWidget(parent),
      account_(account),
      title_(new QLabel),
      subtitle_(muted("")),
      steps_(new QStackedWidget),
      email_(new QLineEdit),
      continueEmail_(primary("Continue with email")),
      google_(new QPushButton("Continue with Google")),
      createLine_(muted("")),
      name_(new QLineEdit),
      create_(primary("Create free account")),
      waitingLine_(muted("")),
      code_(new QLineEdit),
      resend_(linkButton("Resend code")),
      checking_(muted("Checking the code…")),
      error_(new QLabel) {
  setMinimumSize(kMinWidth, kMinHeight);
  title_->setStyleSheet("font-size: 24px; font-weight: 700;");
  title_->setAlignment(Qt::AlignCenter);
  subtitle_->setAlignment(Qt::AlignCenter);
  error_->setWordWrap(true);
  error_->setAlignment(Qt::AlignCenter);
  error_->setStyleSheet(QString("color: %1;").arg(css(Qvn::live)));

  // The address.
  email_->setPlaceholderText("Email address");
  connect(email_, &QLineEdit::textEdited, this,
          [this](const QString& text) { account_.typedEmail = text.toStdString(); });
  auto startSignIn = [this] { account_.startMagic(QvnMagicIntent::signIn); };
  connect(email_, &QLineEdit::returnPressed, this, startSignIn);
  connect(continueEmail_, &QPushButton::clicked, this, startSignIn);
  connect(google_, &QPushButton::clicked, this, [this] { account_.startOAuth("google"); });
  auto* orLine = muted("or");
  orLine->setAlignment(Qt::AlignCenter);
  steps_->addWidget(column({email_, continueEmail_,
                            muted("We'll email you a code, so there's no password to remember. "
                                  "New to Quorvane? You can create a free account next."),
                            orLine, google_}));

  // A new account's name.
  name_->setPlaceholderText("Your name");
  connect(name_, &QLineEdit::textEdited, this,
          [this](const QString& text) { account_.signupName = text.toStdString(); });
  auto startSignUp = [this] { account_.startMagic(QvnMagicIntent::signUp); };
  connect(name_, &QLineEdit::returnPressed, this, startSignUp);
  connect(create_, &QPushButton::clicked, this, startSignUp);
  auto* back = linkButton("Different email");
  connect(back, &QPushButton::clicked, this, [this] { account_.backToEmail(); });
  steps_->addWidget(column({createLine_, name_, create_, back}));

  // The code from the mail.
  code_->setPlaceholderText("6-digit code");
  code_->setAlignment(Qt::AlignCenter);
  code_->setStyleSheet("font-size: 20px; letter-spacing: 4px;");
  connect(code_, &QLineEdit::textEdited, this, [this](const QString& text) {
    account_.oneTimeCode = text.toStdString();
    if (text.count(QRegularExpression("[0-9]")) == 6) account_.submitMagicCode();
  });
  connect(code_, &QLineEdit::returnPressed, this, [this] { account_.submitMagicCode(); });
  connect(resend_, &QPushButton::clicked, this, [this] {
    // The intent of the code in hand.
    account_.startMagic(account_.magicAccount() == QvnMagicAccount::fresh ? QvnMagicIntent::signUp
                                                                          : QvnMagicIntent::signIn);
  });
  auto* different = linkButton("Different email");
  connect(different, &QPushButton::clicked, this, [this] { account_.cancelMagic(); });
  auto* links = new QWidget;
  auto* linksRow = new QHBoxLayout(links);
  linksRow->setContentsMargins(0, 0, 0, 0);
  linksRow->addWidget(resend_);
  linksRow->addStretch();
  linksRow->addWidget(different);
  steps_->addWidget(column({waitingLine_, code_, checking_, links}));

  auto* footer = new QHBoxLayout;
  footer->addStretch();
  for (auto [text, path] : {std::pair{"Terms", "/terms"}, std::pair{"Privacy", "/privacy"},
                            std::pair{"Help", "/contact"}}) {
    auto* link = linkButton(text);
    connect(link, &QPushButton::clicked, this,
            [path = QString(path)] { QDesktopServices::openUrl(QUrl(QString(kSite) + path)); });
    footer->addWidget(link);
  }
  footer->addStretch();

  auto* card = new QWidget;
  card->setObjectName("signInCard");
  card->setFixedWidth(420);
  card->setStyleSheet(QString("QWidget#signInCard { background: %1; border-radius: 14px; }")
                          .arg(css(Qvn::deepNavy)));
  auto* cardLayout = new QVBoxLayout(card);
  cardLayout->setContentsMargins(32, 32, 32, 24);
  cardLayout->setSpacing(12);
  cardLayout->addWidget(title_);
  cardLayout->addWidget(subtitle_);
  cardLayout->addSpacing(8);
  cardLayout->addWidget(steps_);
  cardLayout->addWidget(error_);

  auto* layout = new QVBoxLayout(this);
  layout->addStretch();
  layout->addWidget(card, 0, Qt::AlignHCenter);
  layout->addStretch();
  layout->addLayout(footer);

  auto again = [this](const auto&) { refresh(); };
  subscriptions_.push_back(account_.magicPhase.subscribe(again));
  subscriptions_.push_back(account_.magicAccount.subscribe(again));
  subscriptions_.push_back(account_.magicBusy.subscribe(again));
  subscriptions_.push_back(account_.oauthBusy.subscribe(again));
  subscriptions_.push_back(account_.resendSeconds.subscribe(again));
  subscriptions_.push_back(account_.authRetrySeconds.subscribe(again));
  subscriptions_.push_back(account_.error.subscribe(again));
  subscriptions_.push_back(account_.oneTimeCode.subscribe(again));
  refresh();
}

void SignInView::refresh() {
  const QString address = QString::fromStdString(account_.email());
  const bool fresh = account_.magicAccount() == QvnMagicAccount::fresh;
  switch (account_.magicPhase()) {
    case QvnMagicPhase::email:
      title_->setText("Welcome to Quorvane Studio");
      subtitle_->setText("One Quorvane account for Studio, the mobile app and the web.");
      steps_->setCurrentIndex(0);
      break;
    case QvnMagicPhase::create:
      title_->setText("One more step");
      subtitle_->setText("");
      createLine_->setText(
          QString("There's no Quorvane account for %1 yet. Create one now. It's free.")
              .arg(address));
      steps_->setCurrentIndex(1);
      break;
    case QvnMagicPhase::waiting:
      title_->setText(fresh ? "Verify your email" : "Check your email");
      subtitle_->setText(QString("We sent a 6-digit code to %1").arg(address));
      waitingLine_->setText(fresh ? "Enter the code, or open the link in the email, to finish."
                                  : "Enter the code, or open the link in the email.");
      steps_->setCurrentIndex(2);
      break;
  }
  subtitle_->setVisible(!subtitle_->text().isEmpty());
  const bool busy = account_.magicBusy();
  checking_->setVisible(busy && account_.magicPhase() == QvnMagicPhase::waiting);
  continueEmail_->setEnabled(!busy && account_.authRetrySeconds() == 0);
  create_->setEnabled(!busy && account_.authRetrySeconds() == 0);
  google_->setEnabled(!account_.oauthBusy());
  const int wait = account_.resendSeconds();
  resend_->setText(wait > 0 ? QString("Resend in %1s").arg(wait) : QString("Resend code"));
  resend_->setEnabled(wait == 0 && !busy);
  if (code_->text().toStdString() != account_.oneTimeCode())
    code_->setText(QString::fromStdString(account_.oneTimeCode()));
  error_->setText(QString::fromStdString(account_.error().value_or("")));
  error_->setVisible(account_.error().has_value());
}

}  // namespace qvn::ui
