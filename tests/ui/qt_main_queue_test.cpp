#include "ui/qt_main_queue.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTimer>
#include <algorithm>
#include <thread>
#include <vector>

// Qt is built without the race detector: the reference counts of the jobs it carries from
// thread to thread are atomics it can't see, and look like races on the job itself.
extern "C" const char* __tsan_default_suppressions() {
  return "race:libQt6Core.so\n";
}

namespace qvn {
namespace {

// Runs the Qt loop until `done` or a generous real-time bound passes (liveness only).
void spin(QCoreApplication& app, const bool& done) {
  QTimer bound;
  bound.setSingleShot(true);
  QObject::connect(&bound, &QTimer::timeout, &app, [&] { app.quit(); });
  bound.start(10000);
  QTimer poll;
  QObject::connect(&poll, &QTimer::timeout, &app, [&] {
    if (done) app.quit();
  });
  poll.start(1);
  app.exec();
}

TEST(QtMainQueueTest, RunsJobsOnTheLoopInDueOrderAndAnswersSyncFromOtherThreads) {
  int argc = 1;
  char name[] = "qvn-test";
  char* argv[] = {name, nullptr};
  QCoreApplication app(argc, argv);
  QtMainQueue main;
  EXPECT_TRUE(main.isCurrent());

  std::vector<int> order;
  bool done = false;
  main.asyncAfter(0.05, [&] { order.push_back(3); });
  main.asyncAfter(0.02, [&] { order.push_back(2); });
  main.async([&] { order.push_back(1); });
  main.asyncAfter(0.02, [&] { order.push_back(22); });  // same due time: after its elder

  std::thread worker([&] {
    EXPECT_FALSE(main.isCurrent());
    bool ranOnMain = false;
    main.sync([&] { ranOnMain = main.isCurrent(); });
    EXPECT_TRUE(ranOnMain);
    main.asyncAfter(0.1, [&] { done = true; });
  });
  spin(app, done);
  worker.join();

  EXPECT_TRUE(done);
  ASSERT_GE(order.size(), 3u);
  EXPECT_EQ(order.front(), 1);
  EXPECT_EQ(order.back(), 3);
  const auto two = std::find(order.begin(), order.end(), 2);
  ASSERT_NE(two, order.end());
  EXPECT_EQ(*(two + 1), 22);
}

}  // namespace
}  // namespace qvn
