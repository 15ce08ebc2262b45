#include "tests/system/SystemFixture.h"

#include <stdexcept>

namespace orin::test {

BusStandIn::BusStandIn(const std::string& address, const std::vector<std::string>& options)
    : ChildProcess([&] {
        std::vector<std::string> argv = {ORIN_BUS_STANDIN, address};
        argv.insert(argv.end(), options.begin(), options.end());
        return argv;
      }()) {
  if (!waitForLine("ready"))
    throw std::runtime_error("the bus stand-in did not start: " + output());
}

}  // namespace orin::test
