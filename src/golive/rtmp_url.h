// Where a publish goes: an ingest URL and a stream key read into host, port, application,
// stream and the tcUrl of the connect command. A plain value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qvn {

struct RTMPTarget {
  std::string host;
  std::uint16_t port = 1935;
  bool tls = false;
  std::string app = "live";
  std::string stream;
  std::string tcUrl;
  bool operator==(const RTMPTarget&) const = default;
};

// "rtmp://host[:port]/app[/key]" or "rtmps://…"; none when the URL names no host at all.
std::optional<RTMPTarget> parseIngestURL(const std::string& url, const std::string& streamKey);

}  // namespace qvn
