#pragma once

#include <functional>
#include <memory>
#include <string>

#include "OrinLink/server/ServiceAdvertiser.h"

namespace orin {

// DNS-SD through the Avahi daemon. Without a daemon the services keep working unadvertised; the
// client waits for the daemon and publishes once it appears, and again after it restarts. A name
// that collides on the network takes Avahi's alternative ("Name #2").
class AvahiAdvertiser final : public ServiceAdvertiser {
 public:
  // Called on Avahi's own thread with whether discovery works now.
  using AvailabilityChanged = std::function<void(bool available)>;

  explicit AvahiAdvertiser(AvailabilityChanged onAvailabilityChanged = {});
  ~AvahiAdvertiser() override;

  std::unique_ptr<Registration> advertise(std::string name, std::string type, std::uint16_t port,
                                          TXTEntries txt) override;

  struct Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace orin
