#pragma once

#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"

namespace orin::test {

using testing_support::eventually;

// The stand-in services (see bus_standin.cpp) on a bus, ready once constructed.
class BusStandIn : public ChildProcess {
 public:
  BusStandIn(const std::string& address, const std::vector<std::string>& options);
};

}  // namespace orin::test
