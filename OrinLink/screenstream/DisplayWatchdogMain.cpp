// orinlink-display-watchdog DISPLAY: started by a virtual display with its socket on fd 3;
// restores the user's screens when the process that started it ends without saying it did.

#include <csignal>
#include <memory>
#include <string>

#include "OrinLink/screenstream/DisplayWatchdog.h"
#include "OrinLink/screenstream/XcbDisplayConfigurator.h"

int main(int argc, char** argv) {
  // The signals that end a session or a terminal's jobs must not end the watchdog before the
  // app it guards: it ends on its own when the app's end of the socket closes.
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE}) {
    std::signal(signal, SIG_IGN);
  }
  std::string display = argc > 1 ? argv[1] : "";
  return orin::screen::runDisplayWatchdog(
      3, [&] { return std::make_unique<orin::screen::XcbDisplayConfigurator>(display); });
}
