// A real ingest on loopback for the publishing tests and the bench: nginx with its RTMP
// module, in a temporary prefix of its own, optionally behind TLS fronts made with the
// stream module, with a certificate authority and server certificates made for the run.
//
// nginx runs as one process (no daemon, no master) started here, so the destructor ends
// exactly that process id and nothing else. Construction throws std::runtime_error with a
// readable reason when nginx, a module or openssl is missing or nginx won't come up.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

namespace qvn::test {

class ChildProcess;

class NginxIngest {
 public:
  struct Options {
    // A TLS front on its own port, with a "localhost" certificate from caFile()'s CA.
    bool tls = false;
    // Another TLS front whose certificate comes from a second CA that nobody trusts.
    bool untrustedTLS = false;
  };

  explicit NginxIngest(Options options);
  NginxIngest() : NginxIngest(Options{}) {}
  ~NginxIngest();
  NginxIngest(const NginxIngest&) = delete;
  NginxIngest& operator=(const NginxIngest&) = delete;

  // "rtmp://127.0.0.1:PORT/live": any stream key may publish, and anyone may play it back
  // at rtmpURL() + "/" + key.
  std::string rtmpURL() const;
  // The same server's application that refuses every publish.
  std::string lockedURL() const;
  // "rtmps://localhost:TLSPORT/live", through the trusted TLS front.
  std::string rtmpsURL() const;
  // "rtmps://localhost:PORT/live", through the front with the untrusted certificate.
  std::string untrustedRtmpsURL() const;
  // The PEM file of the CA that signed the trusted front's certificate.
  std::filesystem::path caFile() const { return prefix_ / "tls" / "ca.crt"; }

  // The ingest gone at once, as a crash or a cut cable would take it; and back on the same
  // ports and configuration.
  void stop();
  void start();

  std::uint16_t rtmpPort() const { return rtmpPort_; }
  pid_t pid() const;
  bool running();
  const std::filesystem::path& prefix() const { return prefix_; }
  // nginx's own log, for failure messages.
  std::string errorLog() const;

  // The folder nginx's modules are loaded from; QVN_NGINX_MODULES overrides it.
  static std::filesystem::path modulesDir();

 private:
  void makeCertificates(const std::string& openssl);
  void writeConfig(const std::filesystem::path& modules);
  void waitUntilListening();

  Options options_;
  std::string nginxPath_;
  std::filesystem::path prefix_;
  std::uint16_t rtmpPort_ = 0;
  std::uint16_t tlsPort_ = 0;
  std::uint16_t untrustedPort_ = 0;
  std::unique_ptr<ChildProcess> nginx_;
};

}  // namespace qvn::test
