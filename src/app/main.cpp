// quorvane-studio: the studio's entry. With a display it opens the studio window; with
// --headless (or no display) it runs the whole studio without a window, its status lines on
// standard output.
#include <malloc.h>
#include <pthread.h>
#include <signal.h>

#include <cxxabi.h>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <typeinfo>

#include "app/headless_actions.h"
#include "app/headless_show.h"
#include "app/health_log.h"
#include "audio/audio_engine.h"
#include "cloud/account.h"
#include "golive/rtmp_publisher.h"
#include "outputs/movie_recorder.h"
#include "phones/tcp_signaling_server.h"
#include "platform/app.h"
#include "platform/crypto.h"
#include "platform/defaults.h"
#include "platform/files.h"
#include "platform/http.h"
#include "platform/secure_store.h"
#include "platform/single_instance.h"
#include "studio/studio_shell.h"
#include "support/qvn_log.h"
#include "ui/main_window.h"
#include "ui/qt_main_queue.h"
#include "ui/qvn_style.h"
#include "video/mix_engine.h"

#include <unistd.h>

#include <QApplication>
#include <QDesktopServices>
#include <QUrl>

namespace {

struct Options {
  bool headless = false;
  bool phones = false;
  qvn::PhoneOptions phoneOptions;
  std::optional<double> forSeconds;
  // Without an operator: the next live input to Program this often, the inset on beside it.
  std::optional<double> autoSwitchSeconds;
  bool inset = false;
  std::optional<std::string> dataRoot;
  std::optional<std::string> publishURL;
  std::optional<std::filesystem::path> recordFile;
  std::string recordCodec = "h264";
  // The cloud's address: the local stand-in that scripts/run starts, unless told otherwise.
  std::string apiBase = "http://127.0.0.1:8790";
  // A web sign-in's answer, as the browser hands it to a new studio process.
  std::optional<std::string> launchURL;
  // Without a window: sign in by e-mail, and go live once signed in.
  std::optional<std::string> signInEmail;
  bool goLive = false;
};

constexpr std::string_view kUsage =
    "usage: quorvane-studio [--headless] [--for SECONDS] [--data-root DIR] [--phones]\n"
    "                       [--phone-port N] [--phone-local-addr ADDRESS] [--publish URL]\n"
    "                       [--record FILE.mp4|FILE.mov] [--record-codec h264|hevc]\n"
    "                       [--api-base URL] [--sign-in EMAIL] [--go-live]\n"
    "                       [--auto-switch SECONDS] [--inset]\n"
    "                       [quorvanestudio:URL]\n";

// An error text for the operator, or none when the options are good.
std::optional<std::string> parse(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    auto value = [&]() -> std::optional<std::string_view> {
      if (i + 1 >= argc) return std::nullopt;
      return std::string_view(argv[++i]);
    };
    auto seconds = [&]() -> std::optional<double> {
      auto text = value();
      double number = 0;
      if (!text ||
          std::from_chars(text->data(), text->data() + text->size(), number).ec != std::errc() ||
          number <= 0)
        return std::nullopt;
      return number;
    };
    if (arg == "--headless") {
      options.headless = true;
    } else if (arg == "--for") {
      options.forSeconds = seconds();
      if (!options.forSeconds) return "--for needs a number of seconds above 0";
    } else if (arg == "--auto-switch") {
      options.autoSwitchSeconds = seconds();
      if (!options.autoSwitchSeconds) return "--auto-switch needs a number of seconds above 0";
    } else if (arg == "--inset") {
      options.inset = true;
    } else if (arg == "--data-root") {
      auto dir = value();
      if (!dir || dir->empty()) return "--data-root needs a folder";
      options.dataRoot = std::string(*dir);
    } else if (arg == "--phones") {
      options.phones = true;
    } else if (arg == "--phone-port") {
      auto text = value();
      unsigned port = 0;
      if (!text ||
          std::from_chars(text->data(), text->data() + text->size(), port).ec != std::errc() ||
          port < 1 || port > 65535)
        return "--phone-port needs a port number from 1 to 65535";
      options.phoneOptions.port = static_cast<std::uint16_t>(port);
    } else if (arg == "--phone-local-addr") {
      auto address = value();
      if (!address || address->empty()) return "--phone-local-addr needs an IP address";
      options.phoneOptions.localAddress = std::string(*address);
    } else if (arg == "--publish") {
      auto url = value();
      if (!url || !(url->starts_with("rtmp://") || url->starts_with("rtmps://")) ||
          url->find('/', url->find("//") + 2) == std::string_view::npos)
        return "--publish needs an rtmp:// or rtmps:// address ending in the stream key";
      options.publishURL = std::string(*url);
    } else if (arg == "--api-base") {
      auto base = value();
      if (!base || !qvn::isAllowedAPIBase(std::string(*base)))
        return "--api-base needs an https:// address, or http:// to this computer";
      options.apiBase = std::string(*base);
    } else if (arg == "--sign-in") {
      auto email = value();
      if (!email || !qvn::acceptedEmail(std::string(*email)))
        return "--sign-in needs a full email address, like " + std::string(qvn::kExampleEmail);
      options.signInEmail = std::string(*email);
    } else if (arg == "--go-live") {
      options.goLive = true;
    } else if (arg.starts_with(std::string(qvn::CloudAccount::kCallbackScheme) + ":")) {
      options.launchURL = std::string(arg);
    } else if (arg == "--record") {
      auto file = value();
      if (!file || !(file->ends_with(".mp4") || file->ends_with(".mov")))
        return "--record needs a movie file ending in .mp4 or .mov";
      options.recordFile = std::string(*file);
    } else if (arg == "--record-codec") {
      auto codec = value();
      if (!codec || (*codec != "h264" && *codec != "hevc"))
        return "--record-codec needs h264 or hevc";
      options.recordCodec = std::string(*codec);
    } else {
      return "unknown option " + std::string(arg);
    }
  }
  return std::nullopt;
}

// Uncaught exceptions leave one line in the log before the process ends.
void logUncaught() {
  std::string name = "unknown";
  std::string reason;
  if (auto error = std::current_exception()) {
    try {
      std::rethrow_exception(error);
    } catch (const std::exception& e) {
      int status = 0;
      char* demangled = abi::__cxa_demangle(typeid(e).name(), nullptr, nullptr, &status);
      name = demangled ? demangled : typeid(e).name();
      std::free(demangled);
      reason = e.what();
    } catch (...) {
    }
  }
  qvn::QvnLog::line("uncaught: " + name + " " + reason);
  qvn::QvnLog::flush();
  std::abort();
}

// How the main thread runs: its loop, the way to end it, and the window to open once the
// studio has started (none when headless). The window is held until the studio ends, and
// is gone before the model it shows.
struct MainLoop {
  std::function<void()> run;
  std::function<void()> quit;
  std::function<std::shared_ptr<void>(qvn::CameraModel&, qvn::StudioHubs&, qvn::Defaults&,
                                      qvn::CloudAccount&, std::function<void()> quit)>
      openWindow;
  // Opens a web page in the user's browser; false when it couldn't.
  std::function<bool(const std::string& url)> openURL;
};

bool hasDisplay() {
  for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
    if (const char* value = std::getenv(name); value && *value) return true;
  return false;
}

std::filesystem::path instanceSocket() {
  return qvn::appPaths().stateDir / "studio.sock";
}

std::string computerName() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0 || !name[0]) return "Linux computer";
  return name;
}

std::shared_ptr<qvn::CloudAccount> makeAccount(const Options& options, qvn::MainQueue& main,
                                               qvn::Defaults& settings,
                                               std::function<bool(const std::string&)> openURL,
                                               std::shared_ptr<qvn::GoLivePublisher> publisher) {
  std::string apiBase = options.apiBase;
  if (const char* fromEnvironment = std::getenv("QVN_API_BASE");
      fromEnvironment && qvn::isAllowedAPIBase(fromEnvironment) && apiBase == Options{}.apiBase)
    apiBase = fromEnvironment;
  if (!openURL)
    openURL = [](const std::string& url) {
      qvn::QvnLog::line("sign-in: open " + url + " in a browser to go on");
      return true;
    };
  return std::make_shared<qvn::CloudAccount>(qvn::CloudAccount::Services{
      {main, qvn::makeHttpClient(main),
       qvn::makeSecureStore(qvn::appPaths().dataDir / "secrets.json",
                            [](const std::string& line) { qvn::QvnLog::line(line); }),
       settings, apiBase, [] { return qvn::machineIdentity(); }},
      std::move(openURL),
      computerName(),
      QVN_VERSION,
      [publisher] { publisher->stop(); },
      [publisher] { return publisher->networkDrops(); }});
}

HealthCounts healthNow(const qvn::StudioHubs& hubs, const qvn::RTMPPublisher& publisher) {
  HealthCounts counts;
  if (auto mix = std::dynamic_pointer_cast<qvn::MixEngine>(hubs.mix))
    counts.lateTicks = mix->lateTicks();
  if (auto sample = publisher.latestSample())
    counts.publishDropped = sample->replacedPictures + sample->encoderDrops + sample->networkDrops;
  if (auto recorder = std::dynamic_pointer_cast<qvn::MovieRecorder>(hubs.recorder))
    counts.recordDropped = recorder->framesDropped();
  if (auto audio = std::dynamic_pointer_cast<qvn::AudioEngine>(hubs.audio))
    counts.audioOverruns = audio->mix().busUnderruns();
  return counts;
}

// The studio from start to quit on `main`.
int runStudio(const Options& options, qvn::MainQueue& main, const MainLoop& loop,
              const sigset_t& quitSignals) {
  qvn::Defaults settings(qvn::appPaths().settingsFile());
  // As the first-run sheet would: the phone listener is on from now on.
  if (options.phones) settings.set("qvn.phones.enabled", true);
  auto lifecycle = std::make_shared<qvn::ManualAppLifecycle>();
  auto hubs = qvn::StudioHubs::make(options.phoneOptions);
  hubs.sleep = qvn::makeLogindSleepWatcher();
  hubs.stayAwake = qvn::makeLogindStayAwake();
  hubs.lifecycle = lifecycle;
  // The external inputs' saved routing, and the meters fifteen times a second.
  if (auto audio = std::dynamic_pointer_cast<qvn::AudioEngine>(hubs.audio)) {
    audio->attachSettings(settings);
    audio->startPublishing(main, hubs.meterBus);
  }
  // Program and the stream bus as one RTMP stream, for Go Live and for --publish.
  auto publisher = qvn::RTMPPublisher::make(
      {hubs.frames, std::dynamic_pointer_cast<qvn::AudioEngine>(hubs.audio), [] {
         return std::pair{qvn::MixEngine::canvasWidth(), qvn::MixEngine::canvasHeight()};
       }});
  hubs.publisher = publisher;
  auto account = makeAccount(options, main, settings, loop.openURL, publisher);
  hubs.cloud = account;
  // Later starts hand their sign-in answers to this studio.
  std::string instanceError;
  auto instance = qvn::SingleInstance::listen(
      instanceSocket(),
      [&main, weak = std::weak_ptr(account)](const std::string& url) {
        main.async([weak, url] {
          if (auto a = weak.lock()) a->handleAuthURL(url);
        });
      },
      instanceError);
  if (!instance) qvn::QvnLog::line("single instance: " + instanceError);
  qvn::StudioShell shell({main, settings, hubs, nullptr}, lifecycle);

  // The status list goes to standard output as it grows.
  auto printer = shell.model().log.subscribe([](const std::vector<std::string>& lines) {
    if (lines.empty()) return;
    std::printf("%s\n", lines.back().c_str());
    std::fflush(stdout);
  });

  bool quitting = false;
  auto quit = [&] {
    if (quitting) return;
    quitting = true;
    shell.terminate();
    qvn::QvnLog::line("studio quit");
    loop.quit();
  };
  std::thread([&main, &quit, quitSignals] {
    pthread_setname_np(pthread_self(), "qvn-signals");
    int received = 0;
    sigwait(&quitSignals, &received);
    main.async(quit);
  }).detach();
  if (options.forSeconds) main.asyncAfter(*options.forSeconds, quit);

  std::shared_ptr<void> window;
  std::unique_ptr<HeadlessActions> actions;
  std::unique_ptr<HeadlessShow> show;
  HealthLog health(main, [&hubs, publisher] { return healthNow(hubs, *publisher); });
  main.async([&] {
    shell.launch();
    if (options.signInEmail || options.goLive)
      actions = std::make_unique<HeadlessActions>(shell.model(), *account, options.signInEmail,
                                                  options.goLive);
    if (options.autoSwitchSeconds)
      show = std::make_unique<HeadlessShow>(shell.model(), main, *options.autoSwitchSeconds,
                                            options.inset);
    if (loop.openWindow) window = loop.openWindow(shell.model(), hubs, settings, *account, quit);
  });
  // Straight to the user's own server, without the cloud: Program and the stream bus.
  if (options.publishURL)
    main.async([&] {
      const std::string& url = *options.publishURL;
      const size_t cut = url.rfind('/');
      qvn::StreamConfig config;
      config.width = qvn::MixEngine::canvasWidth();
      config.height = qvn::MixEngine::canvasHeight();
      config.videoBitrate = config.height > 1080 ? 16'000'000 : 6'000'000;
      publisher->start(url.substr(0, cut), url.substr(cut + 1), 0, config);
    });
  // Program and the mix's sound to a movie of the caller's naming, until the run ends.
  auto recorder = std::dynamic_pointer_cast<qvn::MovieRecorder>(hubs.recorder);
  if (options.recordFile && recorder)
    main.async([&] {
      const auto file = std::filesystem::absolute(*options.recordFile);
      std::error_code ignored;
      std::filesystem::create_directories(file.parent_path(), ignored);
      recorder->recoverUnfinished(file.parent_path());
      qvn::RecordOptions movie;
      movie.container = file.extension() == ".mov" ? "mov" : "mp4";
      movie.codec = options.recordCodec;
      if (!recorder->startFile(file, 0, {}, movie))
        qvn::QvnLog::line("record: could not start " + file.string());
    });
  loop.run();
  // A recording under way becomes a whole movie before the process ends.
  if (recorder && !recorder->finishBlocking(30))
    qvn::QvnLog::line("record: the movie was still being finished at quit");
  show.reset();
  actions.reset();
  window.reset();
  publisher->stop();
  qvn::QvnLog::flush();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // Pictures (a megabyte and more) get pages of their own, handed back when freed. Left to
  // itself the allocator raises this bar after the first large free and carves pictures out
  // of its heaps, whose holes it keeps: every phone that came and went left memory behind.
  mallopt(M_MMAP_THRESHOLD, 1 << 20);
  Options options;
  if (auto error = parse(argc, argv, options)) {
    std::cerr << "quorvane-studio: " << *error << "\n" << kUsage;
    return 2;
  }

  // A peer closing a socket must not end the process; quit signals go to one waiting thread,
  // which every later thread inherits by this mask.
  signal(SIGPIPE, SIG_IGN);
  sigset_t quitSignals;
  sigemptyset(&quitSignals);
  sigaddset(&quitSignals, SIGINT);
  sigaddset(&quitSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &quitSignals, nullptr);
  std::set_terminate(logUncaught);

  qvn::setAppPaths(options.dataRoot ? qvn::AppPaths::underRoot(*options.dataRoot)
                                    : qvn::AppPaths::fromEnvironment());
  // A sign-in answer for a studio that is already running goes to it, and this one ends.
  if (options.launchURL && qvn::SingleInstance::sendToRunning(instanceSocket(), *options.launchURL))
    return 0;
  if (!options.headless && !hasDisplay()) {
    qvn::QvnLog::line("no display — running headless");
    options.headless = true;
  }
  if (options.headless) {
    qvn::LoopMainQueue main;
    return runStudio(options, main, {[&] { main.run(); }, [&] { main.quit(); }, nullptr, nullptr},
                     quitSignals);
  }
  QApplication app(argc, argv);
  QApplication::setApplicationName("Quorvane Studio");
  qvn::ui::applyStudioStyle();
  qvn::QtMainQueue main;
  return runStudio(options, main,
                   {[] { QApplication::exec(); }, [] { QApplication::quit(); },
                    [&app](qvn::CameraModel& model, qvn::StudioHubs& hubs, qvn::Defaults& settings,
                           qvn::CloudAccount& account, std::function<void()> quit) {
                      auto window = std::make_shared<qvn::ui::MainWindow>(model, *hubs.frames,
                                                                          settings, &account);
                      QObject::connect(&app, &QApplication::lastWindowClosed, window.get(), quit);
                      window->open();
                      return std::shared_ptr<void>(window);
                    },
                    [](const std::string& url) {
                      return QDesktopServices::openUrl(QUrl(QString::fromStdString(url)));
                    }},
                   quitSignals);
}