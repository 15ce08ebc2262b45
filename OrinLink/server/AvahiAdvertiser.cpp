#include "OrinLink/server/AvahiAdvertiser.h"

#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/thread-watch.h>
#include <list>
#include <mutex>

namespace orin {

struct AvahiAdvertiser::Impl {
  struct Service {
    Impl* owner = nullptr;
    std::string name;
    std::string type;
    std::uint16_t port = 0;
    TXTEntries txt;
    AvahiEntryGroup* group = nullptr;
  };

  AvahiThreadedPoll* poll = nullptr;
  AvahiClient* client = nullptr;
  AvailabilityChanged onAvailabilityChanged;
  // Touched under the threaded poll's lock (or on its thread, where the lock is held).
  std::list<Service> services;

  void connect() {
    int error = 0;
    // NO_FAIL: without a daemon the client waits for one instead of failing.
    client = avahi_client_new(avahi_threaded_poll_get(poll), AVAHI_CLIENT_NO_FAIL, &Impl::onClient,
                              this, &error);
  }

  static void onClient(AvahiClient* c, AvahiClientState state, void* context) {
    auto* self = static_cast<Impl*>(context);
    self->client = c;
    switch (state) {
      case AVAHI_CLIENT_S_RUNNING:
        for (auto& service : self->services)
          self->publish(service);
        self->report(true);
        break;
      case AVAHI_CLIENT_S_COLLISION:
      case AVAHI_CLIENT_S_REGISTERING:
        for (auto& service : self->services) {
          if (service.group != nullptr) avahi_entry_group_reset(service.group);
        }
        break;
      case AVAHI_CLIENT_FAILURE:
        self->report(false);
        if (avahi_client_errno(c) == AVAHI_ERR_DISCONNECTED) {
          // The daemon went away: start over and wait for it to return.
          for (auto& service : self->services)
            service.group = nullptr;
          avahi_client_free(c);
          self->client = nullptr;
          self->connect();
        }
        break;
      case AVAHI_CLIENT_CONNECTING:
        self->report(false);
        break;
    }
  }

  static void onGroup(AvahiEntryGroup* group, AvahiEntryGroupState state, void* context) {
    auto* service = static_cast<Service*>(context);
    if (state != AVAHI_ENTRY_GROUP_COLLISION) return;
    char* alternative = avahi_alternative_service_name(service->name.c_str());
    service->name = alternative;
    avahi_free(alternative);
    avahi_entry_group_reset(group);
    service->owner->publish(*service);
  }

  void publish(Service& service) {
    if (client == nullptr || avahi_client_get_state(client) != AVAHI_CLIENT_S_RUNNING) return;
    if (service.group == nullptr) {
      service.group = avahi_entry_group_new(client, &Impl::onGroup, &service);
      if (service.group == nullptr) return;
    }
    if (!avahi_entry_group_is_empty(service.group)) return;
    AvahiStringList* txt = nullptr;
    for (const auto& [key, value] : service.txt) {
      txt = avahi_string_list_add_pair(txt, key.c_str(), value.c_str());
    }
    int result = avahi_entry_group_add_service_strlst(
        service.group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, AvahiPublishFlags(0),
        service.name.c_str(), service.type.c_str(), nullptr, nullptr, service.port, txt);
    avahi_string_list_free(txt);
    if (result == AVAHI_ERR_COLLISION) {
      char* alternative = avahi_alternative_service_name(service.name.c_str());
      service.name = alternative;
      avahi_free(alternative);
      publish(service);
      return;
    }
    if (result == 0) avahi_entry_group_commit(service.group);
  }

  void report(bool available) {
    if (onAvailabilityChanged) onAvailabilityChanged(available);
  }
};

namespace {

class AvahiRegistration final : public ServiceAdvertiser::Registration {
 public:
  AvahiRegistration(std::shared_ptr<AvahiAdvertiser::Impl> impl,
                    std::list<AvahiAdvertiser::Impl::Service>::iterator service)
      : impl_(std::move(impl)), service_(service) {}

  ~AvahiRegistration() override {
    if (impl_->poll == nullptr) return;
    avahi_threaded_poll_lock(impl_->poll);
    if (service_->group != nullptr) avahi_entry_group_free(service_->group);
    impl_->services.erase(service_);
    avahi_threaded_poll_unlock(impl_->poll);
  }

 private:
  std::shared_ptr<AvahiAdvertiser::Impl> impl_;
  std::list<AvahiAdvertiser::Impl::Service>::iterator service_;
};

}  // namespace

AvahiAdvertiser::AvahiAdvertiser(AvailabilityChanged onAvailabilityChanged)
    : impl_(std::make_shared<Impl>()) {
  impl_->onAvailabilityChanged = std::move(onAvailabilityChanged);
  impl_->poll = avahi_threaded_poll_new();
  if (impl_->poll == nullptr) {
    impl_->report(false);
    return;
  }
  avahi_threaded_poll_lock(impl_->poll);
  impl_->connect();
  avahi_threaded_poll_unlock(impl_->poll);
  if (impl_->client == nullptr) impl_->report(false);
  avahi_threaded_poll_start(impl_->poll);
}

AvahiAdvertiser::~AvahiAdvertiser() {
  if (impl_->poll == nullptr) return;
  avahi_threaded_poll_stop(impl_->poll);
  for (auto& service : impl_->services) {
    if (service.group != nullptr) avahi_entry_group_free(service.group);
    service.group = nullptr;
  }
  if (impl_->client != nullptr) avahi_client_free(impl_->client);
  avahi_threaded_poll_free(impl_->poll);
  impl_->poll = nullptr;
  impl_->client = nullptr;
}

std::unique_ptr<ServiceAdvertiser::Registration> AvahiAdvertiser::advertise(std::string name,
                                                                            std::string type,
                                                                            std::uint16_t port,
                                                                            TXTEntries txt) {
  if (impl_->poll == nullptr) return nullptr;
  avahi_threaded_poll_lock(impl_->poll);
  impl_->services.push_back({impl_.get(), std::move(name), std::move(type), port, std::move(txt)});
  auto service = std::prev(impl_->services.end());
  impl_->publish(*service);
  avahi_threaded_poll_unlock(impl_->poll);
  return std::make_unique<AvahiRegistration>(impl_, service);
}

}  // namespace orin
