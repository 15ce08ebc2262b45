#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"

namespace orin::test {

using testing_support::eventually;

// The stand-in services (see bus_standin.cpp) on a bus, ready once constructed.
class BusStandIn : public ChildProcess {
 public:
  BusStandIn(const std::string& address, std::vector<std::string> options)
      : ChildProcess([&] {
          options.insert(options.begin(), {ORIN_BUS_STANDIN, address});
          return options;
        }()) {
    if (!waitForLine("ready"))
      throw std::runtime_error("the bus stand-in did not start: " + output());
  }
};

}  // namespace orin::test
