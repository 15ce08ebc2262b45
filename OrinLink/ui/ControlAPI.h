#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include "OrinLink/core/AppState.h"
#include "OrinLink/server/LocalHTTPServer.h"

namespace orin {

// The JSON API behind the control panel and the command-line subcommands, on loopback only.
// Every request needs the per-user secret; a Host that is not this loopback address is refused
// (a page on another site cannot reach us through a rebound name), and a state change that a
// browser sends from another origin is refused.
class ControlAPI {
 public:
  static constexpr std::uint16_t defaultPort = 38140;
  static constexpr std::string_view sessionCookie = "orinlink_session";

  // The per-user secret: read from the 0600 file, made (32 random bytes as hex) when missing.
  static std::string loadOrCreateSecret(const std::filesystem::path& file);
  static std::filesystem::path defaultSecretFile();

  ControlAPI(std::shared_ptr<AppState> app, std::string secret, std::uint16_t port,
             boost::asio::any_io_executor serverExecutor,
             boost::asio::any_io_executor mainExecutor);
  ~ControlAPI();

  void setStateChanged(LocalHTTPServer::StateChanged callback);
  // POST /api/panel/open: another start of Orin Link asks this one to show its panel.
  void setOpenPanel(std::function<void()> open) { openPanel_ = std::move(open); }
  void start();
  void stop();
  std::uint16_t port() const;

  // The state the interface shows, without token hashes or tokens.
  static nlohmann::ordered_json snapshot(const AppState& app);

  boost::asio::awaitable<HTTPHandlerResult> handle(HTTPRequest request);

 private:
  struct Call;
  HTTPResponse performOperation(const std::string& path, const HTTPRequest& request);
  static HTTPResponse performSetupAction(AppState& app, const json::ObjectReader& args);
  TextChunkStream changeStream();
  bool hostAllowed(const HTTPRequest& request) const;
  bool originAllowed(const HTTPRequest& request) const;
  bool hasSecret(const HTTPRequest& request) const;

  std::weak_ptr<AppState> app_;
  std::string secret_;
  boost::asio::any_io_executor mainExecutor_;
  std::unique_ptr<LocalHTTPServer> server_;
  std::function<void()> openPanel_;
};

}  // namespace orin
