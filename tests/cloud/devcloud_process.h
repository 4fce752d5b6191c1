// qvn-devcloud for one test: started on a port the system picks, its address read from the
// line it prints, and stopped by its own process id when the test is done.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/files.h"
#include "testing/child_process.h"

namespace qvn::test {

class DevCloudProcess {
 public:
  // `extra` options such as {"--access-ttl", "2"}; its files go in `work`. The stream
  // ingest (an nginx of its own) only when a test streams.
  explicit DevCloudProcess(const std::filesystem::path& work, std::vector<std::string> extra = {},
                           bool ingest = false) {
    std::vector<std::string> argv = {QVN_DEVCLOUD, "--port", "0", "--db",
                                     (work / "cloud.sqlite").string()};
    if (!ingest) argv.push_back("--no-ingest");
    argv.insert(argv.end(), extra.begin(), extra.end());
    process_ = std::make_unique<ChildProcess>(argv, work / "cloud.out", work / "cloud.err");
    const std::regex listening("listening on (http://127\\.0\\.0\\.1:[0-9]+)");
    std::smatch m;
    for (int i = 0; i < 500 && apiBase_.empty(); ++i) {
      const std::string out = readFile(work / "cloud.out").value_or("");
      if (std::regex_search(out, m, listening)) apiBase_ = m[1];
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  // Empty when it never said where it listens.
  const std::string& apiBase() const { return apiBase_; }

 private:
  std::unique_ptr<ChildProcess> process_;
  std::string apiBase_;
};

}  // namespace qvn::test
