// A stand-in for the local Ollama daemon's HTTP API, for integration tests and benchmarks.

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <nlohmann/json.hpp>

#include "Config.h"
#include "Server.h"

namespace {

namespace asio = boost::asio;

struct Flags {
  std::string host = "127.0.0.1";
  std::uint16_t port = 11434;
  std::string configPath;
  bool allowAnyHost = false;
  bool exitWithParent = false;
  std::vector<std::string> models;
  std::string reply;
  std::size_t replyTokens = 0;
  std::string replyPiece = " token";
  double tokenRate = 0;
  std::int64_t firstTokenDelayMs = 0;
  unsigned failStatus = 0;
  std::int64_t headerDelayMs = 0;
  std::size_t cutAfter = 0;
  std::int64_t pullStep = 0;
  std::int64_t pullStepDelayMs = 0;
  std::size_t pullFailAfter = 0;
};

// Flags win over the config file, for every model as well as the top level.
void applyFlags(const Flags& flags, const CLI::App& app, standin::Behaviour& behaviour) {
  const auto given = [&](const char* name) { return app.count(name) > 0; };
  if (given("--token-rate")) behaviour.tokenRate = flags.tokenRate;
  if (given("--first-token-delay-ms")) {
    behaviour.firstTokenDelay = standin::Milliseconds(flags.firstTokenDelayMs);
  }
  if (given("--fail-status")) behaviour.fault.status = flags.failStatus;
  if (given("--header-delay-ms")) {
    behaviour.fault.headerDelay = standin::Milliseconds(flags.headerDelayMs);
  }
  if (given("--cut-after")) behaviour.fault.cutAfter = flags.cutAfter;
  if (given("--pull-step")) behaviour.pull.step = flags.pullStep;
  if (given("--pull-step-delay-ms")) {
    behaviour.pull.stepDelay = standin::Milliseconds(flags.pullStepDelayMs);
  }
  if (given("--pull-fail-after")) behaviour.pull.failAfterSteps = flags.pullFailAfter;
}

standin::Config loadConfig(const Flags& flags, const CLI::App& app) {
  nlohmann::json document = nlohmann::json::object();
  if (!flags.configPath.empty()) {
    std::ifstream file(flags.configPath);
    if (!file) throw std::runtime_error("cannot read " + flags.configPath);
    document = nlohmann::json::parse(file);
  }
  if (!flags.models.empty()) {
    document["models"] = nlohmann::json::array();
    for (const std::string& name : flags.models)
      document["models"].push_back({{"name", name}});
  }
  standin::Config config = standin::parseConfig(document);
  applyFlags(flags, app, config.behaviour);
  for (standin::Model& model : config.models) {
    applyFlags(flags, app, model.behaviour);
    if (app.count("--reply") > 0) model.reply = standin::tokenise(flags.reply);
    if (app.count("--reply-tokens") > 0) model.reply.assign(flags.replyTokens, flags.replyPiece);
  }
  return config;
}

asio::ip::address resolveHost(const std::string& host, bool allowAnyHost) {
  const asio::ip::address address = host == "localhost"
                                        ? asio::ip::address(asio::ip::address_v4::loopback())
                                        : asio::ip::make_address(host);
  if (!address.is_loopback() && !allowAnyHost) {
    throw std::runtime_error("refusing to listen on " + host +
                             ", which is not loopback (pass --allow-any-host)");
  }
  return address;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Stand-in for the Ollama daemon's HTTP API"};
  Flags flags;
  app.add_option("--host", flags.host, "Address to listen on (loopback only by default)")
      ->capture_default_str();
  app.add_option("--port", flags.port, "Port to listen on; 0 picks a free one")
      ->capture_default_str();
  app.add_option("--config", flags.configPath, "JSON config file")->check(CLI::ExistingFile);
  app.add_flag("--allow-any-host", flags.allowAnyHost, "Allow a non-loopback --host");
  app.add_flag("--exit-with-parent", flags.exitWithParent,
               "Stop when the process that started this one dies (Linux)");
  app.add_option("--model", flags.models, "Serve these models (replaces the config's list)");
  app.add_option("--reply", flags.reply, "Reply text of every model, streamed word by word");
  app.add_option("--reply-tokens", flags.replyTokens,
                 "Reply with this many copies of --reply-piece");
  app.add_option("--reply-piece", flags.replyPiece, "Piece used by --reply-tokens")
      ->capture_default_str();
  app.add_option("--token-rate", flags.tokenRate, "Tokens per second; 0 = as fast as possible")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--first-token-delay-ms", flags.firstTokenDelayMs, "Delay before the first token")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--fail-status", flags.failStatus, "Answer every API request with this status")
      ->check(CLI::Range(100U, 599U));
  app.add_option("--header-delay-ms", flags.headerDelayMs, "Delay every answer's headers")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--cut-after", flags.cutAfter, "Close streams after this many lines");
  app.add_option("--pull-step", flags.pullStep, "Bytes per pull progress line")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--pull-step-delay-ms", flags.pullStepDelayMs, "Delay per pull progress line")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--pull-fail-after", flags.pullFailAfter, "Fail pulls after this many steps");
  CLI11_PARSE(app, argc, argv);
  // A test runner that crashes must not leave a server behind holding its output pipes.
  const pid_t parent = getppid();
  if (flags.exitWithParent && (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != parent)) {
    return 1;
  }

  try {
    standin::Config config = loadConfig(flags, app);
    const asio::ip::address address = resolveHost(flags.host, flags.allowAnyHost);
    asio::io_context io{1};
    const auto endpoint = standin::startServer(io, {address, flags.port}, std::move(config));
    asio::signal_set signals{io, SIGINT, SIGTERM};
    signals.async_wait([&io](const boost::system::error_code&, int) { io.stop(); });
    std::cout << "listening on " << endpoint.address().to_string() << ':' << endpoint.port()
              << std::endl;
    io.run();
  } catch (const std::exception& error) {
    std::cerr << "ollama-standin: " << error.what() << '\n';
    return 1;
  }
  return 0;
}
