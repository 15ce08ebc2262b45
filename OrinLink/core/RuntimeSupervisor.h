#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/cancellation_signal.hpp>

#include "OrinLink/core/SetupGuide.h"
#include "OrinLink/system/SystemActions.h"
#include "OrinLinkShared/AIRecords.h"

namespace orin {

class AppState;

// Keeps the model daemon in view: finds it, starts it, watches for it after an install or a
// start, downloads models and keeps the active one loaded. What it learns goes into the
// application's properties. Main loop only; the application owns it and outlives it.
class RuntimeSupervisor : public std::enable_shared_from_this<RuntimeSupervisor> {
 public:
  static constexpr double warmUpSpacingSeconds = 180;
  static constexpr int installWatchAttempts = 120;
  static constexpr std::string_view ollamaDownloadPage = "https://ollama.com/download";

  struct Environment {
    boost::asio::any_io_executor mainExecutor;
    // Where blocking work (child processes) runs.
    boost::asio::any_io_executor backgroundExecutor;
    SystemActions* system = nullptr;
    std::chrono::steady_clock::duration installWatchInterval;
  };

  static std::shared_ptr<RuntimeSupervisor> make(AppState& app, Environment environment);

  boost::asio::awaitable<void> refresh();
  void startOllama();
  void openDownloadPage();
  void pull(const std::string& model);
  void cancelPull();
  // Returns how long until an unforced warm-up would be heard, zero when this one was.
  std::chrono::steady_clock::duration warm(bool force);
  OllamaInstallState installState() const;
  // Ends the download and the watch in flight.
  void shutdown();

 private:
  RuntimeSupervisor(AppState& app, Environment environment);
  void watch();

  AppState& app_;
  Environment env_;
  std::shared_ptr<boost::asio::cancellation_signal> pullCancel_;
  std::shared_ptr<boost::asio::cancellation_signal> watchCancel_;
  std::optional<Date> lastWarmAt_;
};

}  // namespace orin
