// The local-network announcement through the Avahi daemon, on Avahi's own thread.
#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/thread-watch.h>

#include "platform/service_advert.h"

namespace qvn {

namespace {

class AvahiAdvert final : public ServiceAdvert {
 public:
  AvahiAdvert(Service service, Report report)
      : service_(std::move(service)), report_(std::move(report)) {}

  void start() {
    poll_ = avahi_threaded_poll_new();
    if (!poll_) return fail("no event loop");
    int error = 0;
    client_ = avahi_client_new(avahi_threaded_poll_get(poll_), AvahiClientFlags(0),
                               &AvahiAdvert::clientChanged, this, &error);
    if (!client_) return fail(avahi_strerror(error));
    if (avahi_threaded_poll_start(poll_) < 0) fail("event loop did not start");
  }

  ~AvahiAdvert() override {
    if (poll_) avahi_threaded_poll_stop(poll_);
    if (client_) avahi_client_free(client_);  // frees the group too
    if (poll_) avahi_threaded_poll_free(poll_);
  }

 private:
  void fail(const std::string& why) {
    if (report_) report_(false, why);
  }

  static void clientChanged(AvahiClient* client, AvahiClientState state, void* self) {
    auto* advert = static_cast<AvahiAdvert*>(self);
    if (state == AVAHI_CLIENT_S_RUNNING) advert->addService(client);
    // The host name changed or clashed: withdraw, and publish again once it runs.
    if ((state == AVAHI_CLIENT_S_COLLISION || state == AVAHI_CLIENT_S_REGISTERING) &&
        advert->group_)
      avahi_entry_group_reset(advert->group_);
    if (state == AVAHI_CLIENT_FAILURE) advert->fail(avahi_strerror(avahi_client_errno(client)));
  }

  static void groupChanged(AvahiEntryGroup* group, AvahiEntryGroupState state, void* self) {
    auto* advert = static_cast<AvahiAdvert*>(self);
    if (state == AVAHI_ENTRY_GROUP_ESTABLISHED && advert->report_) advert->report_(true, "");
    if (state == AVAHI_ENTRY_GROUP_COLLISION) {
      // Another studio has the name on this network: take the next one ("… #2").
      char* other = avahi_alternative_service_name(advert->service_.name.c_str());
      advert->service_.name = other;
      avahi_free(other);
      advert->addService(avahi_entry_group_get_client(group));
    }
    if (state == AVAHI_ENTRY_GROUP_FAILURE) advert->fail("the daemon refused the service");
  }

  void addService(AvahiClient* client) {
    if (!group_) group_ = avahi_entry_group_new(client, &AvahiAdvert::groupChanged, this);
    if (!group_) return fail(avahi_strerror(avahi_client_errno(client)));
    if (!avahi_entry_group_is_empty(group_)) avahi_entry_group_reset(group_);
    AvahiStringList* txt = nullptr;
    for (const auto& [key, value] : service_.txt)
      txt = avahi_string_list_add_pair(txt, key.c_str(), value.c_str());
    const int added = avahi_entry_group_add_service_strlst(
        group_, AVAHI_IF_UNSPEC, AVAHI_PROTO_INET, AvahiPublishFlags(0), service_.name.c_str(),
        service_.type.c_str(), nullptr, nullptr, service_.port, txt);
    avahi_string_list_free(txt);
    if (added < 0 || avahi_entry_group_commit(group_) < 0)
      fail(avahi_strerror(avahi_client_errno(client)));
  }

  Service service_;
  Report report_;
  AvahiThreadedPoll* poll_ = nullptr;
  AvahiClient* client_ = nullptr;
  AvahiEntryGroup* group_ = nullptr;
};

}  // namespace

std::unique_ptr<ServiceAdvert> ServiceAdvert::publish(Service service, Report report) {
  auto advert = std::make_unique<AvahiAdvert>(std::move(service), std::move(report));
  advert->start();
  return advert;
}

}  // namespace qvn
