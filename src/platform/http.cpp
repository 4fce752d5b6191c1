#include "platform/http.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <optional>
#include <string_view>

namespace qvn {

namespace {

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

bool isDigits(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](unsigned char c) { return std::isdigit(c) != 0; });
}

// An empty port is allowed ("host:" means the scheme's default); anything else must be a
// number a socket can have.
bool isPort(std::string_view text) {
  if (text.empty()) return true;
  return text.size() <= 5 && isDigits(text) && std::stoul(std::string(text)) <= 65535;
}

// Characters a host, port and user name may hold. Anything else (a backslash, a space, a
// control character) is parsed differently by different clients, so such a URL is refused
// rather than guessed at.
bool isAuthorityChar(unsigned char c) {
  return std::isalnum(c) || std::strchr("-._~%!$&'()*+,;=:@[]", c) != nullptr;
}

struct Authority {
  std::string host;  // without brackets for IPv6
  bool ipv6 = false;
};

std::optional<Authority> parseAuthority(std::string_view authority) {
  if (!std::all_of(authority.begin(), authority.end(),
                   [](unsigned char c) { return isAuthorityChar(c); }))
    return std::nullopt;
  // "user:password@host": only what follows the last '@' is where the request goes.
  if (const auto at = authority.rfind('@'); at != std::string_view::npos)
    authority.remove_prefix(at + 1);

  Authority result;
  std::string_view port;
  if (authority.starts_with('[')) {
    const auto close = authority.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    result.host = std::string(authority.substr(1, close - 1));
    result.ipv6 = true;
    const auto rest = authority.substr(close + 1);
    if (!rest.empty()) {
      if (rest[0] != ':') return std::nullopt;
      port = rest.substr(1);
    }
    in6_addr address{};
    if (::inet_pton(AF_INET6, result.host.c_str(), &address) != 1) return std::nullopt;
  } else {
    const auto colon = authority.find(':');
    result.host = std::string(authority.substr(0, colon));
    if (colon != std::string_view::npos) port = authority.substr(colon + 1);
    if (result.host.empty() || result.host.find_first_of("[]") != std::string::npos)
      return std::nullopt;
  }
  if (!isPort(port)) return std::nullopt;
  return result;
}

bool isLoopbackHost(const Authority& authority) {
  if (authority.ipv6) {
    in6_addr address{};
    return ::inet_pton(AF_INET6, authority.host.c_str(), &address) == 1 &&
           std::memcmp(&address, &in6addr_loopback, sizeof address) == 0;
  }
  if (lowerCase(authority.host) == "localhost") return true;
  // inet_pton takes the strict dotted quad only, so "0x7f.1" or "127.1" (which some
  // resolvers would still send to loopback) are refused.
  in_addr address{};
  if (::inet_pton(AF_INET, authority.host.c_str(), &address) != 1) return false;
  return (ntohl(address.s_addr) >> 24) == 127;
}

}  // namespace

std::string HttpResponse::header(const std::string& lowerCaseName) const {
  for (auto it = headers.rbegin(); it != headers.rend(); ++it)
    if (it->first == lowerCaseName) return it->second;
  return {};
}

bool isAllowedAPIBase(const std::string& url) {
  const auto schemeEnd = url.find("://");
  if (schemeEnd == std::string::npos) return false;
  const std::string scheme = lowerCase(std::string_view(url).substr(0, schemeEnd));
  if (scheme != "https" && scheme != "http") return false;

  const std::string_view rest = std::string_view(url).substr(schemeEnd + 3);
  const auto authority = parseAuthority(rest.substr(0, rest.find_first_of("/?#")));
  if (!authority) return false;
  return scheme == "https" || isLoopbackHost(*authority);
}

}  // namespace qvn
