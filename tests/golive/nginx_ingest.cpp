#include "golive/nginx_ingest.h"

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "testing/child_process.h"

namespace qvn::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Liveness bounds only: a loaded CI box may be slow, but nginx up in this long is broken.
constexpr double kStartSeconds = 20;
constexpr double kStopSeconds = 10;
constexpr double kOpensslSeconds = 30;

const char* const kInstallHint =
    "install nginx libnginx-mod-rtmp libnginx-mod-stream openssl "
    "(scripts/setup does)";

std::string readText(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeText(const fs::path& file, const std::string& text) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out.flush()) throw std::runtime_error("can't write " + file.string());
}

// Both authorities and their server certificates come from this one file's sections.
const char* const kOpensslConfig = R"([req]
distinguished_name = dn
prompt = no
[dn]
CN = unused
[ca_ext]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[server_ext]
basicConstraints = CA:FALSE
keyUsage = critical, digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth
subjectAltName = DNS:localhost, IP:127.0.0.1
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
)";

}  // namespace

fs::path NginxIngest::modulesDir() {
  const char* dir = getenv("QVN_NGINX_MODULES");
  return dir && *dir ? fs::path(dir) : fs::path("/usr/lib/nginx/modules");
}

NginxIngest::NginxIngest(Options options) : options_(options) {
  const std::string nginx = findProgram("nginx");
  if (nginx.empty())
    throw std::runtime_error(std::string("nginx is not installed: ") + kInstallHint);
  const fs::path modules = modulesDir();
  for (const char* module : {"ngx_rtmp_module.so", "ngx_stream_module.so"}) {
    const bool needed =
        std::string(module) == "ngx_rtmp_module.so" || options_.tls || options_.untrustedTLS;
    if (needed && !fs::exists(modules / module))
      throw std::runtime_error("nginx module " + (modules / module).string() +
                               " is missing: " + kInstallHint);
  }
  std::string openssl;
  if (options_.tls || options_.untrustedTLS) {
    openssl = findProgram("openssl");
    if (openssl.empty())
      throw std::runtime_error(std::string("openssl is not installed: ") + kInstallHint);
  }

  prefix_ = makeTempDir("nginx");
  try {
    fs::create_directories(prefix_ / "logs");
    fs::create_directories(prefix_ / "tls");
    const auto ports = freeLoopbackPorts(3);
    rtmpPort_ = ports[0];
    if (options_.tls) tlsPort_ = ports[1];
    if (options_.untrustedTLS) untrustedPort_ = ports[2];
    if (!openssl.empty()) makeCertificates(openssl);
    writeConfig(modules);
    nginxPath_ = nginx;
    start();
  } catch (...) {
    nginx_.reset();
    std::error_code ignored;
    fs::remove_all(prefix_, ignored);
    throw;
  }
}

void NginxIngest::start() {
  const fs::path conf = prefix_ / "nginx.conf";
  const fs::path log = prefix_ / "logs" / "error.log";
  // -e: the log is ours from the first line, before the configuration is read.
  nginx_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{nginxPath_, "-p", prefix_.string() + "/", "-c", conf.string(), "-e",
                               log.string()},
      prefix_ / "logs" / "stdout.log", prefix_ / "logs" / "stderr.log");
  waitUntilListening();
}

void NginxIngest::stop() {
  if (nginx_) nginx_->stop(SIGKILL, kStopSeconds);
  nginx_.reset();
  // The workers of a killed master leave on their own, a moment later on a loaded machine;
  // until they have, one of them still accepts, and a new start would seem to listen.
  const auto deadline = Clock::now() + std::chrono::duration<double>(kStopSeconds);
  for (std::uint16_t port : {rtmpPort_, tlsPort_, untrustedPort_}) {
    while (port != 0 && tools::acceptsOnLoopback(port)) {
      if (Clock::now() >= deadline)
        throw std::runtime_error("nginx's workers still accept on 127.0.0.1:" +
                                 std::to_string(port) + " after it was killed");
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
}

NginxIngest::~NginxIngest() {
  // TERM lets nginx close its sockets; the grace is a liveness bound before KILL.
  if (nginx_) nginx_->stop(SIGTERM, kStopSeconds);
  nginx_.reset();
  std::error_code ignored;
  fs::remove_all(prefix_, ignored);
}

void NginxIngest::makeCertificates(const std::string& openssl) {
  const fs::path dir = prefix_ / "tls";
  const fs::path conf = dir / "openssl.cnf";
  writeText(conf, kOpensslConfig);
  auto run = [&](std::vector<std::string> argv) {
    argv.insert(argv.begin(), openssl);
    const RunResult r = runProgram(argv, kOpensslSeconds, dir);
    if (!r.succeeded()) throw std::runtime_error("openssl " + argv[1] + ": " + r.describe());
  };
  // An authority and a "localhost" certificate it signs; P-256 keys are quick to make.
  auto makePair = [&](const std::string& ca, const std::string& server, const std::string& name,
                      int serial) {
    const std::string key = (dir / (ca + ".key")).string();
    const std::string crt = (dir / (ca + ".crt")).string();
    run({"req", "-x509", "-config", conf.string(), "-extensions", "ca_ext", "-newkey", "ec",
         "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout", key, "-out", crt, "-days", "2",
         "-subj", "/CN=" + name});
    const std::string csr = (dir / (server + ".csr")).string();
    run({"req", "-new", "-config", conf.string(), "-newkey", "ec", "-pkeyopt",
         "ec_paramgen_curve:P-256", "-nodes", "-keyout", (dir / (server + ".key")).string(), "-out",
         csr, "-subj", "/CN=localhost"});
    run({"x509", "-req", "-in", csr, "-CA", crt, "-CAkey", key, "-set_serial",
         std::to_string(serial), "-days", "2", "-extfile", conf.string(), "-extensions",
         "server_ext", "-out", (dir / (server + ".crt")).string()});
  };
  if (options_.tls) makePair("ca", "server", "Quorvane Test CA", 2);
  if (options_.untrustedTLS) makePair("rogue-ca", "rogue", "Quorvane Untrusted CA", 3);
}

void NginxIngest::writeConfig(const fs::path& modules) {
  const std::string p = prefix_.string();
  std::ostringstream c;
  c << "load_module " << (modules / "ngx_rtmp_module.so").string() << ";\n";
  if (options_.tls || options_.untrustedTLS)
    c << "load_module " << (modules / "ngx_stream_module.so").string() << ";\n";
  // One process, in the foreground: the pid we started is the one serving.
  c << "daemon off;\n"
       "master_process off;\n"
       "worker_processes 1;\n"
    << "error_log " << p << "/logs/error.log info;\n"
    << "pid " << p << "/nginx.pid;\n"
    << "events { worker_connections 256; }\n"
    << "rtmp {\n"
       "  server {\n"
    << "    listen 127.0.0.1:" << rtmpPort_ << ";\n"
    << "    chunk_size 4096;\n"
       "    ack_window 262144;\n"
       // The bench steps video messages up to the largest a message header can carry.
       "    max_message 16M;\n"
       "    application live { live on; record off; }\n"
       "    application locked { live on; record off; deny publish all; }\n"
       "  }\n"
       "}\n";
  if (options_.tls || options_.untrustedTLS) {
    c << "stream {\n";
    auto front = [&](std::uint16_t port, const std::string& cert) {
      c << "  server {\n"
        << "    listen 127.0.0.1:" << port << " ssl;\n"
        << "    ssl_certificate " << p << "/tls/" << cert << ".crt;\n"
        << "    ssl_certificate_key " << p << "/tls/" << cert << ".key;\n"
        << "    proxy_pass 127.0.0.1:" << rtmpPort_ << ";\n"
        << "  }\n";
    };
    if (options_.tls) front(tlsPort_, "server");
    if (options_.untrustedTLS) front(untrustedPort_, "rogue");
    c << "}\n";
  }
  writeText(prefix_ / "nginx.conf", c.str());
}

void NginxIngest::waitUntilListening() {
  const auto deadline = Clock::now() + std::chrono::duration<double>(kStartSeconds);
  for (std::uint16_t port : {rtmpPort_, tlsPort_, untrustedPort_}) {
    if (port == 0) continue;
    while (!tools::acceptsOnLoopback(port)) {
      if (!nginx_->running())
        throw std::runtime_error("nginx exited at start: " + errorLog() +
                                 readText(prefix_ / "logs" / "stderr.log"));
      if (Clock::now() >= deadline)
        throw std::runtime_error("nginx is not listening on 127.0.0.1:" + std::to_string(port) +
                                 " after " + std::to_string(int(kStartSeconds)) +
                                 " s: " + errorLog());
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
}

std::string NginxIngest::rtmpURL() const {
  return "rtmp://127.0.0.1:" + std::to_string(rtmpPort_) + "/live";
}

std::string NginxIngest::lockedURL() const {
  return "rtmp://127.0.0.1:" + std::to_string(rtmpPort_) + "/locked";
}

std::string NginxIngest::rtmpsURL() const {
  return "rtmps://localhost:" + std::to_string(tlsPort_) + "/live";
}

std::string NginxIngest::untrustedRtmpsURL() const {
  return "rtmps://localhost:" + std::to_string(untrustedPort_) + "/live";
}

pid_t NginxIngest::pid() const {
  return nginx_ ? nginx_->pid() : -1;
}

bool NginxIngest::running() {
  return nginx_ && nginx_->running();
}

std::string NginxIngest::errorLog() const {
  return readText(prefix_ / "logs" / "error.log");
}

}  // namespace qvn::test
