// Pairs devices against the registry file given on the command line until it is killed, writing
// one byte to standard output after each save so that a test can kill it in the middle of one.
#include <cstdio>
#include <string>
#include <unistd.h>

#include "OrinLink/pairing/DeviceRegistry.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: registry_crash_writer FILE\n");
    return 2;
  }
  orin::DeviceRegistry registry(argv[1]);
  for (unsigned long i = 0;; ++i) {
    // A bounded set of devices, so the file keeps a steady size while every save changes it.
    registry.pair("device-" + std::to_string(i % 16), "Device " + std::to_string(i),
                  registry.pairingCode());
    if (::write(STDOUT_FILENO, "s", 1) != 1) return 1;
  }
}
