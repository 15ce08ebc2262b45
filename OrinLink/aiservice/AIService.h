#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include "OrinLink/aiservice/AIServiceHost.h"
#include "OrinLink/http/HTTPMessage.h"

namespace orin {

// The devices' HTTP API: routes, pairing check, handlers, the token relay and its statistics.
// Requests are handled on the main loop, except /health and event streams of paired devices,
// which start on the server's own loop; streamed tokens are always relayed there and their
// bookkeeping follows on the main loop. The host must outlive the service.
class AIService : public std::enable_shared_from_this<AIService> {
 public:
  static constexpr std::string_view appVersion = "0.1.0";

  static std::shared_ptr<AIService> make(AIServiceHost& host,
                                         boost::asio::any_io_executor mainExecutor,
                                         boost::asio::any_io_executor relayExecutor);

  // Never throws: every failure becomes a reply.
  boost::asio::awaitable<HTTPHandlerResult> route(HTTPRequest request);

  // For the server's executor, where it never blocks: answers GET /health from the reply last
  // published (asking the main loop for a warm-up unless one would be refused anyway), and starts
  // a paired device's event stream at once, its bookkeeping following on the main loop.
  std::function<std::optional<HTTPImmediateAnswer>(const HTTPRequest&)> immediateHandler();
  // Called whenever the active model, the paired devices or the daemon's address change.
  void republish();

 private:
  struct Board;
  struct Generation;
  AIService(AIServiceHost& host, boost::asio::any_io_executor mainExecutor,
            boost::asio::any_io_executor relayExecutor);

  boost::asio::awaitable<HTTPHandlerResult> health(HTTPRequest request, std::string device);
  boost::asio::awaitable<HTTPHandlerResult> pair(HTTPRequest request, std::string device);
  boost::asio::awaitable<HTTPHandlerResult> status(HTTPRequest request, std::string device);
  boost::asio::awaitable<HTTPHandlerResult> models(HTTPRequest request, std::string device);
  boost::asio::awaitable<HTTPHandlerResult> generate(HTTPRequest request, std::string device);
  boost::asio::awaitable<HTTPHandlerResult> generateStream(HTTPRequest request, std::string device);
  std::optional<TextChunkStream> generateStreamAtOnce(const HTTPRequest& request);
  void beginGeneration(Generation& generation, const OrinLinkGenerateRequest& request,
                       const std::string& device);
  TextChunkStream relay(OllamaRuntime upstream, ModelGenerateRequest request,
                        std::shared_ptr<Generation> generation, std::function<void()> begin);
  void warmUp();

  struct Endpoint {
    bool needsPairing = true;
    boost::asio::awaitable<HTTPHandlerResult> (AIService::*handle)(HTTPRequest, std::string);
  };

  AIServiceHost& host_;
  boost::asio::any_io_executor main_;
  boost::asio::any_io_executor relay_;
  // Relayed streams find a daemon connection waiting here.
  std::shared_ptr<SpareConnection> spare_;
  std::shared_ptr<Board> board_;
};

}  // namespace orin
