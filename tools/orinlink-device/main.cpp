// orinlink-device: a device client for Orin Link's local AI service, for checking a setup by hand
// and for driving the host as a real device in tests.

#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <vector>

#include "OrinLinkShared/JSONCoding.h"

#include "DeviceClient.h"
#include "DeviceState.h"
#include "ScreenStreamClient.h"

namespace {

using namespace orin;
using namespace orin::device;

constexpr int usageExitCode = 2;
constexpr int failureExitCode = 1;
constexpr std::uint16_t defaultPort = 38141;

constexpr std::string_view description =
    R"(Talks to Orin Link's local AI service as a paired device.

Usage:
  orinlink-device pair --host 192.168.1.20 --code "123 456"
  orinlink-device ask "Why is the sky blue?"
  orinlink-device stream "Tell me a story" --model llama3.2 --no-think
  orinlink-device status | models | health
  orinlink-device screen --seconds 10 --output screen.hevc

Pairing stores the token, host and port in the state file, so later commands need no options.
Exit status: 0 done, 1 other failure or stream error event, 2 usage, 3 not paired,
4 not found, 5 request failed, 6 bad or too large request, 7 cannot reach the host,
8 reply not understood.)";

struct GlobalOptions {
  std::string host;
  int port = defaultPort;
  std::string token;
  std::string statePath;
  double timeoutSeconds = 120;
  bool json = false;

  CLI::Option* hostOption = nullptr;
  CLI::Option* portOption = nullptr;
  CLI::Option* tokenOption = nullptr;
  CLI::Option* stateOption = nullptr;
};

// What every command works with: the options, the state file and a client built from both.
class Session {
 public:
  explicit Session(const GlobalOptions& options) : options_(options) {
    path_ = options.stateOption->count() > 0 ? std::filesystem::path(options.statePath)
                                             : defaultStatePath();
    state_ = loadState(path_);
  }

  const GlobalOptions& options() const { return options_; }
  const std::filesystem::path& statePath() const { return path_; }
  DeviceState& state() { return state_; }

  std::string host() const {
    if (options_.hostOption->count() > 0) return options_.host;
    return state_.host.value_or("127.0.0.1");
  }
  std::uint16_t port() const {
    if (options_.portOption->count() > 0) return static_cast<std::uint16_t>(options_.port);
    return state_.port.value_or(defaultPort);
  }

  DeviceClient client(bool withToken = true) const {
    DeviceClient::Options client;
    client.host = host();
    client.port = port();
    if (withToken) {
      client.token =
          options_.tokenOption->count() > 0 ? std::optional(options_.token) : state_.token;
    }
    client.idleTimeout = std::chrono::milliseconds(
        static_cast<std::chrono::milliseconds::rep>(options_.timeoutSeconds * 1000.0));
    return DeviceClient(std::move(client));
  }

  std::optional<std::string> token() const {
    return options_.tokenOption->count() > 0 ? std::optional(options_.token) : state_.token;
  }

  std::chrono::milliseconds timeout() const {
    return std::chrono::milliseconds(
        static_cast<std::chrono::milliseconds::rep>(options_.timeoutSeconds * 1000.0));
  }

  // In --json mode the reply body as received; otherwise the readable text.
  template <class T, class Render>
  void print(const Answer<T>& answer, Render render) const {
    if (options_.json) {
      std::cout << answer.body;
      if (!answer.body.ends_with('\n')) std::cout << '\n';
    } else {
      render(answer.value);
    }
  }

 private:
  const GlobalOptions& options_;
  std::filesystem::path path_;
  DeviceState state_;
};

struct Command {
  CLI::App* app;
  std::function<int(Session&)> run;
};

std::string localHostName() {
  std::array<char, 256> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0') return "Linux device";
  return name.data();
}

const char* yesNo(bool value) {
  return value ? "yes" : "no";
}

Command addPair(CLI::App& app) {
  struct Options {
    std::string code;
    std::string deviceId;
    std::string name;
    bool printToken = false;
  };
  auto options = std::make_shared<Options>();
  CLI::App* sub = app.add_subcommand(
      "pair", "Pair with the host using the six-digit code it shows, and keep the token.");
  sub->add_option("--code", options->code, "The pairing code shown on the host, e.g. \"123 456\"")
      ->required();
  sub->add_option("--device-id", options->deviceId,
                  "Identifier to pair as (default: a random one kept in the state file)");
  sub->add_option("--name", options->name,
                  "Name the host shows for this device (default: "
                  "this computer's host name)");
  sub->add_flag("--print-token", options->printToken,
                "Print the token on standard output instead of storing it");

  return {sub, [options](Session& session) {
            DeviceState& state = session.state();
            const std::string deviceId = !options->deviceId.empty() ? options->deviceId
                                         : state.deviceId           ? *state.deviceId
                                                                    : Uuid::random().string();
            const std::string name = !options->name.empty() ? options->name : localHostName();
            const auto answer = session.client(false).pair({options->code, deviceId, name});

            if (options->printToken) {
              std::cout << answer.value.token << '\n';
              std::cerr << "Paired as " << name << ".\n";
              return 0;
            }
            state.deviceId = deviceId;
            state.displayName = name;
            state.host = session.host();
            state.port = session.port();
            state.token = answer.value.token;
            saveState(session.statePath(), state);
            session.print(answer,
                          [&](const PairResponse&) { std::cout << "Paired as " << name << ".\n"; });
            return 0;
          }};
}

struct GenerateOptions {
  std::string prompt;
  std::string model;
  double temperature = 0;
  bool think = false;
  bool noThink = false;
  CLI::Option* modelOption = nullptr;
  CLI::Option* temperatureOption = nullptr;

  OrinLinkGenerateRequest request() const {
    std::optional<bool> thinkChoice;
    if (think) thinkChoice = true;
    if (noThink) thinkChoice = false;
    return makeGenerateRequest(
        prompt, modelOption->count() > 0 ? std::optional(model) : std::nullopt,
        temperatureOption->count() > 0 ? std::optional(temperature) : std::nullopt, thinkChoice);
  }
};

std::shared_ptr<GenerateOptions> addGenerateOptions(CLI::App* sub) {
  auto options = std::make_shared<GenerateOptions>();
  sub->add_option("PROMPT", options->prompt, "What to ask")->required();
  options->modelOption =
      sub->add_option("--model", options->model, "Model to use (default: the host's active model)");
  options->temperatureOption =
      sub->add_option("--temperature", options->temperature, "Sampling temperature, e.g. 0.7")
          ->check(CLI::Range(0.0, 100.0));
  CLI::Option* think =
      sub->add_flag("--think", options->think, "Let the model think before answering");
  CLI::Option* noThink =
      sub->add_flag("--no-think", options->noThink, "Ask the model to answer straight away");
  think->excludes(noThink);
  return options;
}

Command addAsk(CLI::App& app) {
  CLI::App* sub = app.add_subcommand("ask", "Ask for a whole reply and print it.");
  auto options = addGenerateOptions(sub);
  return {sub, [options](Session& session) {
            const auto answer = session.client().generate(options->request());
            session.print(answer, [](const OrinLinkResponse& response) {
              std::cout << response.assistantMessage << '\n';
              if (const auto& call = response.proposedToolCall) {
                std::cout << "\nProposed tool: " << call->name << '\n';
                if (!call->userFacingSummary.empty()) std::cout << call->userFacingSummary << '\n';
                std::cout << json::serialize(
                                 json::Codec<OrinToolCall::Arguments>::encode(call->arguments),
                                 json::Format::prettySortedKeys)
                          << '\n';
              }
            });
            return 0;
          }};
}

Command addStream(CLI::App& app) {
  CLI::App* sub =
      app.add_subcommand("stream", "Ask for a streamed reply and print each token as it arrives.");
  auto options = addGenerateOptions(sub);
  return {sub, [options](Session& session) {
            const bool asJSON = session.options().json;
            bool lineOpen = false;
            const auto onToken = [&](std::string_view token) {
              if (asJSON) {
                // One JSON string per line keeps token boundaries and line feeds intact.
                const std::string line = json::serialize(json::Ordered(std::string(token)));
                std::fwrite(line.data(), 1, line.size(), stdout);
                std::fputc('\n', stdout);
              } else {
                std::fwrite(token.data(), 1, token.size(), stdout);
                lineOpen = !token.empty() ? token.back() != '\n' : lineOpen;
              }
              std::fflush(stdout);
            };
            try {
              session.client().generateStream(options->request(), onToken);
            } catch (const DeviceError&) {
              // The message goes to stderr on a line of its own.
              if (lineOpen) std::fputc('\n', stdout);
              std::fflush(stdout);
              throw;
            }
            if (!asJSON) std::fputc('\n', stdout);
            std::fflush(stdout);
            return 0;
          }};
}

Command addStatus(CLI::App& app) {
  CLI::App* sub = app.add_subcommand("status", "Show the host's state (needs pairing).");
  return {sub, [](Session& session) {
            session.print(session.client().status(), [](const OrinLinkStatusPayload& status) {
              std::cout << "Running: " << yesNo(status.running) << '\n'
                        << "Paired devices: " << status.pairedDevices << '\n'
                        << "Model runtime available: " << yesNo(status.runtimeAvailable) << '\n'
                        << "Active model: " << status.activeModel << '\n'
                        << "Server port: " << status.serverPort << '\n'
                        << "Local network: " << yesNo(status.localNetworkEnabled) << '\n'
                        << "Reliability mode: " << yesNo(status.reliabilityModeEnabled) << '\n';
              if (status.edition) std::cout << "Edition: " << *status.edition << '\n';
              if (status.capabilities) {
                std::cout << "Capabilities:";
                const char* separator = " ";
                for (const auto& capability : *status.capabilities) {
                  std::cout << separator << capability;
                  separator = ", ";
                }
                std::cout << '\n';
              }
            });
            return 0;
          }};
}

Command addModels(CLI::App& app) {
  CLI::App* sub = app.add_subcommand("models", "List the host's models, one per line.");
  return {sub, [](Session& session) {
            session.print(session.client().models(), [](const ModelList& list) {
              for (const auto& model : list.models)
                std::cout << model << '\n';
            });
            return 0;
          }};
}

Command addHealth(CLI::App& app) {
  CLI::App* sub = app.add_subcommand("health", "Check that the host answers (no pairing needed).");
  return {sub, [](Session& session) {
            session.print(session.client(false).health(), [](const OrinLinkHealth& health) {
              std::cout << health.app << ' ' << health.version << ": " << health.status << '\n'
                        << "Runtime: " << health.runtime << '\n'
                        << "Active model: " << health.activeModel << '\n';
            });
            return 0;
          }};
}

void printFigures(const StreamFigures& figures, double seconds, std::string_view label,
                  bool asJSON) {
  const double bitsPerSecond =
      seconds > 0 ? static_cast<double>(figures.bytes) * 8.0 / seconds : 0.0;
  const double maxDelay = static_cast<double>(figures.delayMaxMicroseconds) / 1000.0;
  if (asJSON) {
    json::Ordered line = json::Ordered::object();
    line["period"] = std::string(label);
    line["frames"] = figures.frames;
    line["bitsPerSecond"] = static_cast<std::uint64_t>(bitsPerSecond);
    line["keyframes"] = figures.keyframes;
    line["configurations"] = figures.configurations;
    line["averageDelayMilliseconds"] = figures.averageDelayMilliseconds();
    line["maxDelayMilliseconds"] = maxDelay;
    std::cout << json::serialize(line) << std::endl;
    return;
  }
  std::cout << label << ": " << figures.frames << " frames, " << std::fixed << std::setprecision(2)
            << bitsPerSecond / 1'000'000.0 << " Mbit/s, " << figures.keyframes << " keyframes, "
            << figures.configurations << " configurations, delay " << std::setprecision(1)
            << figures.averageDelayMilliseconds() << " ms average, " << maxDelay << " ms at most"
            << std::endl;
}

Command addScreen(CLI::App& app) {
  struct Options {
    int streamPort = OrinScreenStream::defaultPort;
    double seconds = 10;
    std::string output;
    std::string code;
    std::string deviceId;
    std::string name;
    int shape = 0;
    bool stall = false;
    CLI::Option* shapeOption = nullptr;
  };
  auto options = std::make_shared<Options>();
  CLI::App* sub = app.add_subcommand(
      "screen",
      "Receive the host's screen stream for a while, print figures each second and optionally "
      "keep the video.\nThe figures are frames, bitrate, keyframes, configurations and the "
      "capture-to-receive delay: the receipt time on CLOCK_MONOTONIC minus the frame's "
      "presentation time, which the host stamps from its own CLOCK_MONOTONIC, so the delay is "
      "meaningful only when this client runs on the host itself.");
  sub->add_option("--stream-port", options->streamPort, "Port of the screen stream")
      ->check(CLI::Range(1, 65535))
      ->capture_default_str();
  sub->add_option("--seconds", options->seconds, "How long to receive")
      ->check(CLI::Range(0.0, 86400.0))
      ->capture_default_str();
  sub->add_option("--output", options->output,
                  "Write the video to this file as an Annex-B HEVC stream (.hevc)");
  sub->add_option("--code", options->code,
                  "Pairing code shown on the host, used when the host asks this device to pair; "
                  "the token is then kept in the state file");
  sub->add_option("--device-id", options->deviceId,
                  "Identifier to pair as (default: the one in the state file, else a new one)");
  sub->add_option("--name", options->name,
                  "Name the host shows for this device (default: this computer's host name)");
  options->shapeOption =
      sub->add_option("--shape", options->shape,
                      "Ask for a desktop shape: 0 the host's own screen, 1 ultrawide, 2 super "
                      "ultrawide")
          ->check(CLI::Range(0, 2));
  sub->add_flag("--stall", options->stall,
                "After the handshake stop reading for --seconds, like a client that falls behind");
  return {sub, [options](Session& session) {
            DeviceState& state = session.state();
            ScreenStreamClient::Options connection;
            connection.host = session.host();
            connection.port = static_cast<std::uint16_t>(options->streamPort);
            connection.connectTimeout = session.timeout();
            if (options->stall) connection.receiveBufferBytes = 4096;
            ScreenStreamClient client(connection);

            ScreenStreamClient::Credentials credentials;
            credentials.token = session.token();
            if (!options->code.empty()) credentials.pairingCode = options->code;
            credentials.deviceId = !options->deviceId.empty() ? options->deviceId
                                   : state.deviceId           ? *state.deviceId
                                                              : Uuid::random().string();
            credentials.deviceName = !options->name.empty() ? options->name
                                     : state.displayName    ? *state.displayName
                                                            : localHostName();
            const auto welcome = client.handshake(credentials, session.timeout());
            if (welcome.issuedToken) {
              state.deviceId = credentials.deviceId;
              state.displayName = credentials.deviceName;
              state.host = session.host();
              state.token = welcome.issuedToken;
              saveState(session.statePath(), state);
              std::cerr << "Paired as " << credentials.deviceName << ".\n";
            }
            std::cerr << "Streaming from " << welcome.accepted.name.value_or("the host") << ".\n";
            if (options->shapeOption->count() > 0) {
              OrinScreenControlMessage request;
              request.kind = OrinScreenControlMessage::Kind::setShape;
              request.shape = options->shape;
              client.send(request);
            }

            using Clock = std::chrono::steady_clock;
            const auto start = Clock::now();
            const auto end = start + std::chrono::duration_cast<Clock::duration>(
                                         std::chrono::duration<double>(options->seconds));
            if (options->stall) {
              std::this_thread::sleep_until(end);
              return 0;
            }

            std::ofstream output;
            if (!options->output.empty()) {
              output.open(options->output, std::ios::binary | std::ios::trunc);
              if (!output) throw Error("Cannot write " + options->output + ".");
            }
            const bool asJSON = session.options().json;
            AnnexBWriter writer;
            StreamFigures period;
            StreamFigures total;
            int second = 1;
            auto periodEnd = start + std::chrono::seconds(1);
            bool closed = false;
            while (!closed && Clock::now() < end) {
              const auto until = std::min(periodEnd, end);
              ScreenMessage message;
              const auto received = client.receive(
                  message, std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()));
              if (received == ScreenStreamClient::Received::closed) closed = true;
              if (received == ScreenStreamClient::Received::message) {
                if (message.config) {
                  writer.configure(*message.config);
                  period.addConfiguration();
                  total.addConfiguration();
                } else if (message.frameHeader) {
                  period.addFrame(message);
                  total.addFrame(message);
                  const ByteString bytes = writer.frame(*message.frameHeader, message.frameData());
                  output.write(reinterpret_cast<const char*>(bytes.data()),
                               static_cast<std::streamsize>(bytes.size()));
                } else if (const auto& control = message.control) {
                  if (control->kind == OrinScreenControlMessage::Kind::error && control->message)
                    std::cerr << "Orin Link: " << *control->message << '\n';
                  if (control->kind == OrinScreenControlMessage::Kind::shape && control->shape) {
                    if (const auto shape = screenShapeFromRawValue(*control->shape))
                      std::cerr << "Shape: " << label(*shape) << '\n';
                  }
                }
              }
              const auto now = Clock::now();
              if (now >= periodEnd || now >= end || closed) {
                const double length =
                    std::chrono::duration<double>(std::min(now, periodEnd) -
                                                  (periodEnd - std::chrono::seconds(1)))
                        .count();
                printFigures(period, length, "second " + std::to_string(second), asJSON);
                period = {};
                ++second;
                periodEnd += std::chrono::seconds(1);
              }
            }
            output.flush();
            if (output.is_open() && !output) throw Error("Cannot write " + options->output + ".");
            const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
            printFigures(total, elapsed, "total", asJSON);
            if (closed) {
              throw DeviceError(DeviceError::Kind::unreachable,
                                "Orin Link closed the screen stream.");
            }
            return 0;
          }};
}

int runCommand(const Command& command, const GlobalOptions& options) {
  try {
    Session session(options);
    return command.run(session);
  } catch (const DeviceError& error) {
    if (options.json && !error.replyBody().empty()) std::cout << error.replyBody() << '\n';
    std::cerr << error.what() << '\n';
    return error.exitCode();
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return failureExitCode;
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(std::string(description), "orinlink-device");
  // Global options may follow the subcommand too.
  app.fallthrough();

  GlobalOptions options;
  options.hostOption = app.add_option(
      "--host", options.host, "Host running Orin Link (default: the paired host, else 127.0.0.1)");
  options.portOption = app.add_option("--port", options.port,
                                      "Port of its AI service (default: the paired port, "
                                      "else 38141)")
                           ->check(CLI::Range(1, 65535));
  options.tokenOption =
      app.add_option("--token", options.token, "Bearer token to use instead of the stored one");
  options.stateOption =
      app.add_option("--state", options.statePath,
                     "State file (default: $XDG_CONFIG_HOME/orinlink-device/device.json)");
  app.add_option("--timeout", options.timeoutSeconds,
                 "Longest wait in seconds for the connection or the next bytes of a reply")
      ->check(CLI::Range(0.001, 86400.0))
      ->capture_default_str();
  app.add_flag("--json", options.json, "Print the replies' JSON as received, for scripts");

  // Each command registers itself here; a new one is one more line.
  const std::vector<Command> commands{addPair(app),   addAsk(app),    addStream(app),
                                      addStatus(app), addModels(app), addHealth(app),
                                      addScreen(app)};
  for (const Command& command : commands) {
    command.app->footer(
        "The options of orinlink-device --help (--host, --port, --token, --state, --timeout, "
        "--json) may follow the command too.");
  }
  app.require_subcommand(1);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return usageExitCode;
  }

  for (const Command& command : commands) {
    if (command.app->parsed()) return runCommand(command, options);
  }
  return usageExitCode;
}
