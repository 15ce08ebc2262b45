#include "OrinLink/app/Application.h"

#include <csignal>
#include <cstdio>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>

#include "OrinLink/common/ErrorDescription.h"
#include "OrinLink/concurrency/SerialExecutor.h"
#include "OrinLink/core/AppState.h"
#include "OrinLink/server/AvahiAdvertiser.h"
#include "OrinLink/settings/SettingsStore.h"
#include "OrinLink/system/EditionGuard.h"
#include "OrinLink/system/LinuxDesktopIntegration.h"
#include "OrinLink/system/SystemActions.h"
#include "OrinLink/ui/ControlAPI.h"
#include "OrinLink/ui/ControlPanelAssets.h"
#include "OrinLink/ui/TerminalView.h"
#include "OrinLink/ui/TrayItem.h"

namespace orin {

namespace asio = boost::asio;

std::uint16_t controlPort(const std::filesystem::path& configDirectory) {
  const SettingsStore settings(configDirectory / "settings.json");
  const std::int64_t port = settings.integer("controlPort");
  return port > 0 && port <= 65535 ? static_cast<std::uint16_t>(port) : ControlAPI::defaultPort;
}

namespace {

// The desktop's facilities for this session. The panel opens at the address the control API
// publishes once it listens.
DesktopIntegration makeDesktopIntegration(const ApplicationOptions& options,
                                          std::shared_ptr<ControlPanelAddress> panel) {
  return makeLinuxDesktopIntegration({std::move(panel), options.openControlPanel});
}

int runWith(const ApplicationOptions& options, EditionGuard* guard, EventLoop& mainLoop,
            SerialExecutor& httpLoop, SerialExecutor& workLoop, SerialExecutor& streamLoop,
            SerialExecutor& platformLoop) {
  PosixSystemActions system;

  std::optional<AvahiAdvertiser> advertiser;
  std::weak_ptr<AppState> weakApp;
  if (options.advertise) {
    advertiser.emplace([&mainLoop, &weakApp](bool available) {
      asio::post(mainLoop, [&weakApp, available] {
        if (auto app = weakApp.lock()) app->setDiscoveryAvailable(available);
      });
    });
  }

  AppState::Environment environment;
  environment.mainExecutor = mainLoop.get_executor();
  environment.httpExecutor = httpLoop.executor();
  environment.backgroundExecutor = workLoop.executor();
  environment.settingsFile = options.configDirectory / "settings.json";
  environment.registryFile = options.dataDirectory / "paired-devices.json";
  environment.system = &system;
  environment.advertiser = advertiser ? &*advertiser : nullptr;
  environment.serviceName =
      system.computerName().value_or(std::string(LocalHTTPServer::defaultServiceName));
  environment.serverPortOverride = options.serverPort;
  environment.streamPlatform = screen::makeSessionStreamPlatform(options.configDirectory);
  environment.streamServerExecutor = streamLoop.executor();
  environment.streamPlatformExecutor = platformLoop.executor();
  environment.streamPortOverride = options.streamPort;
  const auto panel = std::make_shared<ControlPanelAddress>();
  environment.desktop = makeDesktopIntegration(options, panel);
  // The tray stands in for the badge and the windowed presence wherever a session bus exists.
  TrayItem* tray = nullptr;
  if (auto item = TrayItem::make(mainLoop.get_executor()); item->hasBus()) {
    tray = item.get();
    environment.desktop.presence = std::move(item);
    environment.desktop.availability.presence = true;
  }

  std::shared_ptr<AppState> app;
  try {
    app = AppState::make(std::move(environment));
  } catch (const StartupError& error) {
    std::fprintf(stderr, "orinlink: %s\n", error.what());
    return 1;
  }
  weakApp = app;

  std::string secret;
  try {
    secret = ControlAPI::loadOrCreateSecret(options.configDirectory / "control-secret");
  } catch (...) {
    std::fprintf(stderr, "orinlink: could not keep the control secret in %s: %s\n",
                 options.configDirectory.c_str(), describe(std::current_exception()).c_str());
    return 1;
  }
  const std::uint16_t port = options.controlPort.value_or(controlPort(options.configDirectory));
  ControlAPI control(app, secret, port, httpLoop.executor(), mainLoop.get_executor());
  TerminalView view(app, mainLoop.get_executor());
  const auto openPanel = [weak = std::weak_ptr(app)] {
    if (auto owner = weak.lock()) owner->openSettingsWindow();
  };
  control.setOpenPanel(openPanel);
  control.setStateChanged(
      [&, port](bool running, std::uint16_t bound, std::optional<std::string> error) {
        if (running) {
          view.setControlPort(bound);
          panel->set(controlPanelURL(bound, secret));
          if (guard) guard->recordControlAPI(bound, options.configDirectory / "control-secret");
        } else {
          std::fprintf(stderr, "orinlink: the control API could not listen on 127.0.0.1:%u: %s\n",
                       static_cast<unsigned>(port), error.value_or("unknown error").c_str());
        }
      });

  // Listening before launch, which opens the panel.
  control.start();
  app->applyDockPolicy();
  app->launch();

  const auto quit = [&] {
    app->shutdown();
    control.stop();
    mainLoop.stop();
  };
  if (tray != nullptr) tray->follow(app, openPanel, quit);
  asio::signal_set signals(mainLoop, SIGINT, SIGTERM);
  signals.async_wait([&](const boost::system::error_code& ec, int) {
    if (!ec) quit();
  });
  mainLoop.run();
  if (view.isLive()) std::fputs("\n", stdout);
  return 0;
}

}  // namespace

int runApplication(const ApplicationOptions& options) {
  // Before anything starts: another edition or another copy of this one may be running.
  auto claim = claimEdition(options.openControlPanel);
  if (const int* status = std::get_if<int>(&claim)) return *status;
  const auto guard = std::move(std::get<std::unique_ptr<EditionGuard>>(claim));
  EventLoop mainLoop;
  SerialExecutor httpLoop("orinlink.http");
  SerialExecutor workLoop("orinlink.work");
  SerialExecutor streamLoop("orinlink.stream");
  // Setting up capture or a virtual display can block; the Tailscale lookup need not wait.
  SerialExecutor platformLoop("orinlink.display");
  const int status =
      runWith(options, guard.get(), mainLoop, httpLoop, workLoop, streamLoop, platformLoop);
  // The files still being written are finished, and the user's screens put back, not dropped.
  workLoop.finish();
  platformLoop.finish();
  shutDownLoops({&mainLoop}, {&httpLoop, &workLoop, &streamLoop, &platformLoop});
  return status;
}

}  // namespace orin
