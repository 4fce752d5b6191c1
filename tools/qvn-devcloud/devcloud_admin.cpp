#include "devcloud_admin.h"

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "devcloud_replies.h"
#include "devcloud_store.h"
#include "devcloud_streams.h"

namespace qvn::devcloud {
namespace {

constexpr const char* kUsage =
    "usage: qvn-devcloud destination add --db FILE --email ADDRESS --platform WORD\n"
    "                                    --url rtmp://HOST[:PORT]/APP [--key KEY] [--name NAME]\n"
    "                                    [--off]\n"
    "       qvn-devcloud destination list --db FILE [--email ADDRESS]\n"
    "       qvn-devcloud destination remove --db FILE --id ID\n"
    "\n"
    "Destinations are where an account's streams go: the relay publishes to URL/KEY. One\n"
    "without a key shows as not connected. --off adds it turned off. The account is made\n"
    "when the address has none yet. A running qvn-devcloud on the same --db sees the change\n"
    "at once.\n";

std::int64_t nowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

int runDestinationCommand(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  const auto usage = [&](const std::string& complaint) {
    if (!complaint.empty()) err << "qvn-devcloud destination: " << complaint << "\n\n";
    err << kUsage;
    return 2;
  };
  if (argc < 2) return usage("add, list or remove?");
  const std::string verb = argv[1];
  if (verb == "--help" || verb == "-h") {
    out << kUsage;
    return 0;
  }
  static const std::map<std::string, std::set<std::string>> kAllowed = {
      {"add", {"--db", "--email", "--platform", "--url", "--key", "--name", "--off"}},
      {"list", {"--db", "--email"}},
      {"remove", {"--db", "--id"}},
  };
  const auto allowed = kAllowed.find(verb);
  if (allowed == kAllowed.end()) return usage("unknown command " + verb);
  std::map<std::string, std::string> given;
  for (int i = 2; i < argc; ++i) {
    std::string name = argv[i], value;
    if (name == "--help" || name == "-h") {
      out << kUsage;
      return 0;
    }
    if (const auto equals = name.find('='); name.starts_with("--") && equals != name.npos) {
      value = name.substr(equals + 1);
      name.resize(equals);
    } else if (name == "--off") {
      value = "yes";
    } else if (i + 1 < argc) {
      value = argv[++i];
    } else {
      return usage(name + " wants a value");
    }
    if (!allowed->second.contains(name)) return usage(name + " is not an option of " + verb);
    given[name] = value;
  }
  const auto value = [&](const char* name) {
    const auto found = given.find(name);
    return found == given.end() ? std::string() : found->second;
  };
  for (const char* needed : {"--db", "--email", "--platform", "--url", "--id"})
    if (allowed->second.contains(needed) && value(needed).empty() &&
        !(verb == "list" && std::string_view(needed) == "--email"))
      return usage(verb + " wants " + needed);

  try {
    Store store(value("--db"));
    if (verb == "add") {
      const Destination d =
          addDestinationFor(store,
                            {value("--email"), value("--platform"), value("--name"), value("--url"),
                             value("--key"), !given.contains("--off")},
                            nowSeconds());
      out << "added " << d.id << " for " << normalEmail(value("--email")) << ": " << d.platform
          << " \"" << d.name << "\" " << d.url << ", " << (d.enabled ? "on" : "off") << ", "
          << (d.key.empty() ? "not connected (no key)" : "key set") << "\n";
      return 0;
    }
    if (verb == "remove") {
      if (!store.removeDestination(value("--id"))) {
        err << "qvn-devcloud destination: there is no destination " << value("--id") << "\n";
        return 1;
      }
      out << "removed " << value("--id") << "\n";
      return 0;
    }
    std::optional<std::int64_t> only;
    if (!value("--email").empty()) {
      const auto account = store.account(normalEmail(value("--email")));
      if (!account) {
        err << "qvn-devcloud destination: there is no account " << value("--email") << "\n";
        return 1;
      }
      only = account->id;
    }
    for (const auto& d : store.destinations(only)) {
      const auto account = store.account(d.accountId);
      out << d.id << "  " << (account ? account->email : "?") << "  " << d.platform << "  \""
          << d.name << "\"  " << (d.enabled ? "on" : "off") << "  "
          << (d.key.empty() ? "no key" : "key set") << "  " << d.url;
      if (!d.lastError.empty()) out << "  last error: " << d.lastError;
      out << "\n";
    }
    return 0;
  } catch (const Refusal& refusal) {
    return usage(refusal.message);
  } catch (const StoreError& error) {
    err << "qvn-devcloud destination: " << error.what() << "\n";
    return 1;
  }
}

}  // namespace qvn::devcloud
