// Pairs devices against the registry file given on the command line until it is killed, writing
// "save N;" to standard output after the Nth save so that a test can kill it in the middle of one.
#include <cstdio>
#include <string>

#include "OrinLink/pairing/DeviceRegistry.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: registry_crash_writer FILE\n");
    return 2;
  }
  orin::DeviceRegistry registry(argv[1]);
  for (unsigned long i = 1;; ++i) {
    // A bounded set of devices, so the file keeps a steady size while every save changes it.
    registry.pair("device-" + std::to_string(i % 16), "Device " + std::to_string(i),
                  registry.pairingCode());
    std::printf("save %lu;\n", i);
    std::fflush(stdout);
  }
}
