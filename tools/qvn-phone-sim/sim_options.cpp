#include "sim_options.h"

#include <arpa/inet.h>

#include <charconv>
#include <cmath>
#include <string_view>
#include <utility>
#include <vector>

#include "frame_code.h"

namespace qvn {
namespace {

constexpr int kLargestSide = 4096;

template <typename Number>
bool parseNumber(std::string_view text, Number& value) {
  const char* end = text.data() + text.size();
  auto [stop, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && stop == end;
}

bool isLoopback(const std::string& host) {
  in_addr address{};
  return host == "localhost" ||
         (inet_pton(AF_INET, host.c_str(), &address) == 1 && (ntohl(address.s_addr) >> 24) == 127);
}

// One option's value, or the complaint about it (empty when it is fine).
std::string apply(SimOptions& o, std::string_view name, const std::string& value) {
  if (name == "--studio") {
    const auto colon = value.rfind(':');
    o.studioHost = value.substr(0, colon);
    if (colon != std::string::npos &&
        (!parseNumber(std::string_view(value).substr(colon + 1), o.studioPort) ||
         o.studioPort == 0))
      return "--studio wants HOST:PORT with a port from 1 to 65535, not " + value;
    if (o.studioHost.empty()) return "--studio wants HOST:PORT, not " + value;
  } else if (name == "--pin") {
    if (value.empty() || value.find_first_not_of("0123456789") != std::string::npos)
      return "--pin wants digits, not " + value;
    o.pin = value;
  } else if (name == "--name") {
    if (value.empty()) return "--name wants some text";
    o.name = value;
  } else if (name == "--size") {
    const auto x = value.find('x');
    if (x == std::string::npos || !parseNumber(std::string_view(value).substr(0, x), o.width) ||
        !parseNumber(std::string_view(value).substr(x + 1), o.height) || o.width < 128 ||
        o.height < 128 || o.width > kLargestSide || o.height > kLargestSide || o.width % 2 ||
        o.height % 2)
      return "--size wants WxH, each even and from 128 to 4096, not " + value;
  } else if (name == "--fps") {
    if (!parseNumber(value, o.fps) || o.fps < 1 || o.fps > 120)
      return "--fps wants a whole number from 1 to 120, not " + value;
  } else if (name == "--bitrate") {
    if (!parseNumber(value, o.bitrate) || o.bitrate < 50'000 || o.bitrate > 100'000'000)
      return "--bitrate wants bits per second from 50000 to 100000000, not " + value;
  } else if (name == "--for") {
    double seconds = 0;
    if (!parseNumber(value, seconds) || !std::isfinite(seconds) || seconds <= 0)
      return "--for wants a number of seconds above 0, not " + value;
    o.forSeconds = seconds;
  } else if (name == "--local-addr") {
    in_addr address{};
    if (inet_pton(AF_INET, value.c_str(), &address) != 1)
      return "--local-addr wants an IPv4 address, not " + value;
    o.localAddress = value;
  } else if (name == "--code-base") {
    if (!parseNumber(value, o.codeBase) || o.codeBase > kFrameCodeMask)
      return "--code-base wants a whole number from 0 to 16777215, not " + value;
  } else if (name == "--frame-log") {
    if (value.empty()) return "--frame-log wants a file name";
    o.frameLog = value;
  } else {
    return "unknown option " + std::string(name);
  }
  return {};
}

}  // namespace

std::variant<SimOptions, SimHelp, std::string> parseSimOptions(int argc, const char* const* argv) {
  SimOptions o;
  std::vector<std::pair<std::string_view, bool*>> flags = {{"--loop", &o.loop},
                                                           {"--portrait", &o.portrait},
                                                           {"--climb", &o.climb},
                                                           {"--print-offer", &o.printOffer}};
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (arg == "--help" || arg == "-h") return SimHelp{};
    bool isFlag = false;
    for (auto& [flag, value] : flags)
      if (arg == flag) *value = isFlag = true;
    if (isFlag) continue;
    // --name=value and --name value alike.
    std::string value;
    if (const auto equals = arg.find('='); equals != std::string_view::npos) {
      value = arg.substr(equals + 1);
      arg = arg.substr(0, equals);
    } else if (arg.starts_with("--") && i + 1 < argc) {
      value = argv[++i];
    } else if (arg.starts_with("--")) {
      return std::string(arg) + " wants a value";
    } else {
      return "unexpected argument " + std::string(arg);
    }
    if (auto complaint = apply(o, arg, value); !complaint.empty()) return complaint;
  }
  if (o.studioHost.empty()) return std::string("--studio HOST:PORT is needed");
  if (o.portrait && o.width > o.height) std::swap(o.width, o.height);
  if (!o.localAddress && isLoopback(o.studioHost)) o.localAddress = "127.0.0.1";
  return o;
}

std::string simUsage() {
  return R"(usage: qvn-phone-sim --studio HOST:PORT [options]

A phone that pairs with the studio and sends a test pattern and a 440 Hz tone over WebRTC.

  --studio HOST:PORT   the studio's phone port (PORT defaults to 8765)
  --pin N              the pairing code, when the studio asks for one
  --name TEXT          the phone's name (default "Sim Phone")
  --size WxH           picture size (default 1280x720)
  --fps N              frames per second (default 30)
  --bitrate BPS        video bitrate (default 2500000)
  --for SECONDS        say bye and leave after that long
  --local-addr ADDR    the only address ICE uses (default 127.0.0.1 for a studio on loopback)
  --loop               encode 4 s once and send it over and over: little CPU per phone
  --portrait           send the picture upright (height above width), as a held phone does
  --climb              start at half size and go to full size after 2 s
  --frame-log FILE     append "<frame code> <CLOCK_MONOTONIC seconds>" per frame sent
  --code-base N        add N to every frame code, so several phones' codes differ
  --print-offer        print the offer SDP
  --help               this text

Every picture carries its frame code in the top-left corner: the running frame number, or
with --loop the frame's index in the loop, plus --code-base.
)";
}

}  // namespace qvn
