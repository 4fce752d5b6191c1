#include "devcloud_options.h"

#include <charconv>
#include <string_view>

namespace qvn::devcloud {
namespace {

template <typename Number>
bool parseNumber(std::string_view text, Number& value) {
  const char* end = text.data() + text.size();
  auto [stop, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && stop == end;
}

// One option's value, or the complaint about it (empty when it is fine).
std::string apply(DevCloudOptions& o, std::string_view name, std::string value) {
  // A day is far beyond any test; the bound keeps exp from overflowing.
  constexpr std::int64_t kLongestTtl = 86'400;
  if (name == "--port") {
    if (!parseNumber(value, o.port)) return "--port wants a number from 0 to 65535, not " + value;
  } else if (name == "--ingest-port") {
    if (!parseNumber(value, o.ingestPort))
      return "--ingest-port wants a number from 0 to 65535, not " + value;
  } else if (name == "--db") {
    if (value.empty()) return "--db wants a file name";
    o.database = value;
  } else if (name == "--access-ttl" || name == "--code-ttl") {
    std::int64_t seconds = 0;
    if (!parseNumber(value, seconds) || seconds < 1 || seconds > kLongestTtl)
      return std::string(name) + " wants whole seconds from 1 to 86400, not " + value;
    (name == "--access-ttl" ? o.accessTtlSeconds : o.codeTtlSeconds) = seconds;
  } else if (name == "--site") {
    while (!value.empty() && value.back() == '/') value.pop_back();
    if ((!value.starts_with("http://") && !value.starts_with("https://")) ||
        value.find_first_of(" ?#") != std::string::npos ||
        value.size() <= std::string_view("https://").size())
      return "--site wants an http(s) address without a query, not " + value;
    o.site = value;
  } else {
    return "unknown option " + std::string(name);
  }
  return {};
}

}  // namespace

std::variant<DevCloudOptions, DevCloudHelp, std::string> parseDevCloudOptions(
    int argc, const char* const* argv) {
  DevCloudOptions options;
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (arg == "--help" || arg == "-h") return DevCloudHelp{};
    if (arg == "--no-ingest") {
      options.ingest = false;
      continue;
    }
    std::string value;
    if (const auto equals = arg.find('='); arg.starts_with("--") && equals != arg.npos) {
      value = arg.substr(equals + 1);
      arg = arg.substr(0, equals);
    } else if (i + 1 < argc) {
      value = argv[++i];
    } else {
      return std::string(arg) + " wants a value";
    }
    if (auto complaint = apply(options, arg, std::move(value)); !complaint.empty())
      return complaint;
  }
  return options;
}

std::string devCloudUsage() {
  return "usage: qvn-devcloud [--port N] [--db FILE] [--access-ttl SECONDS] [--code-ttl SECONDS]\n"
         "                    [--site URL] [--ingest-port N | --no-ingest]\n"
         "       qvn-devcloud destination add|list|remove --db FILE ...  (--help for more)\n"
         "\n"
         "The studio's cloud account service on 127.0.0.1, for tests and demos, with an RTMP\n"
         "ingest (nginx) that relays each stream to the account's destinations.\n"
         "  --port N              port to listen on; 0 (the default) picks a free one\n"
         "  --db FILE             SQLite file for accounts and tokens; none keeps them in memory\n"
         "  --access-ttl SECONDS  lifetime of an access token (900)\n"
         "  --code-ttl SECONDS    lifetime of an e-mail code and of a web sign-in (600)\n"
         "  --site URL            base of the links it prints and redirects to (its own "
         "address)\n"
         "  --ingest-port N       port of the RTMP ingest; 0 (the default) picks a free one\n"
         "  --no-ingest           start no ingest; sessions still name its address\n"
         "\n"
         "It prints \"qvn-devcloud listening on http://127.0.0.1:PORT\" once it listens, then\n"
         "\"qvn-devcloud ingest on rtmp://127.0.0.1:PORT/live\" (or why there is none), and\n"
         "\"code for EMAIL: DIGITS\" with the sign-in link for every e-mail it would send.\n";
}

}  // namespace qvn::devcloud
