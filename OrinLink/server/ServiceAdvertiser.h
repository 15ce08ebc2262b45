#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace orin {

using TXTEntries = std::vector<std::pair<std::string, std::string>>;

// DNS-SD TXT bytes: pairs sorted by key, each "key=value" behind its length byte; a pair longer
// than 255 bytes is left out.
std::string txtRecord(TXTEntries entries);

// Publishes one DNS-SD service while the returned registration lives. Best effort: without a
// daemon nothing is published and the service itself keeps working.
class ServiceAdvertiser {
 public:
  class Registration {
   public:
    virtual ~Registration() = default;
  };

  virtual ~ServiceAdvertiser() = default;
  virtual std::unique_ptr<Registration> advertise(std::string name, std::string type,
                                                  std::uint16_t port, TXTEntries txt) = 0;
};

}  // namespace orin
