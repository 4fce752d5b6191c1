#include "golive/rtmp_url.h"

#include "support/camera_slot.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <vector>

namespace qvn {

namespace {

std::string lowered(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::vector<std::string> splitOmittingEmpty(const std::string& text, char at) {
  std::vector<std::string> pieces;
  size_t start = 0;
  while (start <= text.size()) {
    const size_t end = std::min(text.find(at, start), text.size());
    if (end > start) pieces.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return pieces;
}

std::optional<std::uint16_t> decimalPort(const std::string& text) {
  if (text.empty() || !std::all_of(text.begin(), text.end(), ::isdigit)) return std::nullopt;
  std::uint16_t port = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return port;
}

}  // namespace

std::optional<RTMPTarget> parseIngestURL(const std::string& url, const std::string& streamKey) {
  RTMPTarget t;
  std::string rest = trimmed(url);
  const std::string lower = lowered(rest);
  if (lower.starts_with("rtmps://")) {
    t.tls = true;
    rest = rest.substr(8);
  } else if (lower.starts_with("rtmp://")) {
    rest = rest.substr(7);
  }

  // The authority up to the first "/", the rest as the path; empty pieces don't count.
  rest.erase(0, rest.find_first_not_of('/'));
  if (rest.empty()) return std::nullopt;
  const size_t slash = rest.find('/');
  const std::string hostPart = rest.substr(0, slash);
  std::string appPath = slash == std::string::npos ? "" : rest.substr(slash + 1);

  const std::uint16_t defaultPort = t.tls ? 443 : 1935;
  t.host = hostPart;
  t.port = defaultPort;
  if (const size_t colon = hostPart.find(':'); colon != std::string::npos)
    if (auto port = decimalPort(hostPart.substr(colon + 1))) {
      t.host = hostPart.substr(0, colon);
      t.port = *port;
    }

  if (!appPath.empty() && appPath.back() == '/') appPath.pop_back();
  t.app = appPath.empty() ? "live" : appPath;
  t.stream = streamKey;
  if (t.app.find('/') != std::string::npos && t.stream.empty()) {
    const auto pieces = splitOmittingEmpty(t.app, '/');
    if (pieces.size() >= 2) {
      t.stream = pieces.back();
      t.app.clear();
      for (size_t i = 0; i + 1 < pieces.size(); ++i) t.app += (i ? "/" : "") + pieces[i];
    }
  }
  if (t.stream.empty()) t.stream = t.app;

  t.tcUrl = std::string(t.tls ? "rtmps" : "rtmp") + "://" + t.host +
            (t.port != defaultPort ? ":" + std::to_string(t.port) : "") + "/" + t.app;
  return t;
}

}  // namespace qvn
