#include "http_test_client.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <cctype>

namespace qvn::devcloud::test {

namespace beast = boost::beast;
namespace http = beast::http;
using tcp = boost::asio::ip::tcp;

nlohmann::json Reply::json() const {
  auto value = nlohmann::json::parse(body, nullptr, false);
  return value.is_discarded() ? nlohmann::json() : value;
}

std::string Reply::header(const std::string& lowerCaseName) const {
  const auto found = headers.find(lowerCaseName);
  return found == headers.end() ? std::string() : found->second;
}

Reply TestClient::send(const std::string& method, const std::string& target,
                       const std::string& body, const std::string& bearer) const {
  boost::asio::io_context io;
  beast::tcp_stream stream(io);
  stream.expires_after(std::chrono::seconds(10));
  stream.connect(tcp::endpoint(boost::asio::ip::address_v4::loopback(), port_));

  http::request<http::string_body> request(http::string_to_verb(method), target, 11);
  request.set(http::field::host, "127.0.0.1:" + std::to_string(port_));
  request.set(http::field::accept, "application/json");
  if (!bearer.empty()) request.set(http::field::authorization, "Bearer " + bearer);
  if (!body.empty()) {
    request.set(http::field::content_type, "application/json");
    request.body() = body;
  }
  request.keep_alive(false);
  request.prepare_payload();
  http::write(stream, request);

  beast::flat_buffer buffer;
  http::response<http::string_body> response;
  http::read(stream, buffer, response);
  beast::error_code ignored;
  stream.socket().shutdown(tcp::socket::shutdown_both, ignored);

  Reply reply;
  reply.status = response.result_int();
  reply.body = response.body();
  for (const auto& field : response) {
    std::string name(field.name_string());
    for (auto& c : name) c = char(std::tolower(static_cast<unsigned char>(c)));
    reply.headers[name] = std::string(field.value());
  }
  return reply;
}

std::optional<std::string> queryParameter(const std::string& url, const std::string& key) {
  const auto mark = url.find('?');
  if (mark == std::string::npos) return std::nullopt;
  size_t at = mark + 1;
  while (at <= url.size()) {
    const auto end = std::min(url.find('&', at), url.size());
    const std::string pair = url.substr(at, end - at);
    const auto equals = pair.find('=');
    if (pair.substr(0, equals) == key) {
      std::string value, raw = equals == std::string::npos ? "" : pair.substr(equals + 1);
      for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == '%' && i + 2 < raw.size()) {
          value.push_back(char(std::stoi(raw.substr(i + 1, 2), nullptr, 16)));
          i += 2;
        } else {
          value.push_back(raw[i] == '+' ? ' ' : raw[i]);
        }
      }
      return value;
    }
    at = end + 1;
  }
  return std::nullopt;
}

}  // namespace qvn::devcloud::test
