// The window while nobody is signed in: the sign-in screen and nothing else, its words at
// each step, and a sign-up with the code qvn-devcloud prints that ends on the studio. On
// Qt's offscreen platform, over the real HTTP client.
#include <gmock/gmock.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QLabel>
#include <QLineEdit>
#include <QTest>

#include "cloud/account.h"
#include "cloud/devcloud_process.h"
#include "platform/http.h"
#include "platform/secure_store.h"
#include "studio/recording_hubs.h"
#include "ui/main_window.h"
#include "ui/offscreen_app.h"
#include "ui/sign_in_view.h"

namespace qvn::test {
namespace {

using nlohmann::json;

class SignInWindow : public StudioFixture {
 protected:
  SignInWindow() : cloud(root) { offscreenApplication(); }
  ~SignInWindow() override {
    window.reset();
    account.reset();
  }

  // Both loops turn: the account's on the main queue, the window's in Qt.
  template <class F>
  bool until(F done) {
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < 15000) {
      main.drainWaiting(0.01);
      QApplication::processEvents();
    }
    return done();
  }
  json lastCode(const std::string& email) {
    std::optional<HttpResponse> reply;
    http->send({"GET", cloud.apiBase() + "/dev/last-code?email=" + email, {}, "", 10, false},
               [&](HttpResponse r) { reply = std::move(r); });
    until([&] { return reply.has_value(); });
    return json::parse(reply ? reply->body : "{}", nullptr, false);
  }

  DevCloudProcess cloud;
  std::shared_ptr<HttpClient> http = makeHttpClient(main);
  std::unique_ptr<CloudAccount> account;
  std::unique_ptr<ui::MainWindow> window;
};

TEST_F(SignInWindow, ASignUpWithThePrintedCodeEndsOnTheStudio) {
  ASSERT_FALSE(cloud.apiBase().empty());
  account = std::make_unique<CloudAccount>(
      CloudAccount::Services{{main, http, makeFileSecureStore(root / "secrets.json"), *store,
                              cloud.apiBase(), [] { return std::string("window-machine"); }},
                             nullptr,
                             "Window Computer",
                             "0.1.0"});
  window = std::make_unique<ui::MainWindow>(build(), *hubs.frames, *store, account.get());
  window->open();
  ui::SignInView* signIn = window->signInView();
  ASSERT_NE(signIn, nullptr);
  EXPECT_TRUE(signIn->isVisible());
  EXPECT_EQ(window->minimumSize(), QSize(880, 544));
  EXPECT_EQ(signIn->title().text(), "Welcome to Quorvane Studio");

  QTest::keyClicks(&signIn->emailField(), " New@Example.com");
  QTest::keyClick(&signIn->emailField(), Qt::Key_Return);
  ASSERT_TRUE(until([&] { return signIn->title().text() == "One more step"; }));
  QLineEdit* name = nullptr;
  for (QLineEdit* field : window->findChildren<QLineEdit*>())
    if (field->placeholderText() == "Your name") name = field;
  ASSERT_NE(name, nullptr);
  QTest::keyClicks(name, "Nia");
  QTest::keyClick(name, Qt::Key_Return);
  ASSERT_TRUE(until([&] { return signIn->title().text() == "Verify your email"; }));

  // Digits typed into the code field stay there; six of them send it.
  QTest::keyClicks(&signIn->codeField(),
                   QString::fromStdString(lastCode("new@example.com").value("code", "")));
  ASSERT_TRUE(until([&] { return !signIn->isVisible(); }));
  EXPECT_EQ(window->minimumSize(), QSize(1180, 720));
  EXPECT_EQ(account->user()->email, "new@example.com");
  EXPECT_EQ(model->previewSlot(), 0);  // the digits picked no input
}

}  // namespace
}  // namespace qvn::test
