// The command line of qvn-phone-sim, read into settings. Plain values: any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

namespace qvn {

struct SimOptions {
  std::string studioHost;
  std::uint16_t studioPort = 8765;
  std::optional<std::string> pin;
  std::string name = "Sim Phone";
  int width = 1280;  // as sent: turned already with --portrait
  int height = 720;
  int fps = 30;
  std::int64_t bitrate = 2'500'000;
  std::optional<double> forSeconds;
  // The one address ICE may use; by default loopback when the studio is on this machine.
  std::optional<std::string> localAddress;
  bool loop = false;
  bool portrait = false;
  bool climb = false;
  std::optional<std::string> frameLog;
  std::uint32_t codeBase = 0;
  bool printOffer = false;
};

struct SimHelp {};  // --help: the usage text, and a clean exit

// The options, the request for help, or one line saying what is wrong.
std::variant<SimOptions, SimHelp, std::string> parseSimOptions(int argc, const char* const* argv);

std::string simUsage();

}  // namespace qvn
