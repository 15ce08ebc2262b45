#include "OrinLink/aiservice/AIService.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <vector>

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "OrinLink/common/ErrorDescription.h"
#include "OrinLink/http/RouteTable.h"
#include "OrinLink/pairing/TokenHash.h"
#include "OrinLink/runtime/OllamaExchange.h"
#include "OrinLinkShared/ToolCallParser.h"

namespace orin {

namespace asio = boost::asio;

// What the server's thread reads instead of asking the main loop, republished there whenever it
// changes; and a gate that keeps /health from asking for a warm-up while one would be refused
// for spacing anyway.
struct AIService::Board {
  struct Facts {
    std::string healthReply;
    std::string activeModel;
    std::vector<AIServiceHost::Credential> devices;
    OllamaRuntime relayRuntime;
  };
  std::atomic<std::shared_ptr<const Facts>> facts;
  std::atomic<bool> warmPending{false};
  std::atomic<std::chrono::steady_clock::rep> noWarmBefore{0};
};

namespace {

constexpr std::string_view unauthorizedMessage =
    "Pair this device with Orin Link before calling this endpoint.";

// How often a streamed reply's tokens reach the conversation log and the statistics at most:
// often enough that the panel shows the reply growing smoothly.
constexpr auto bookkeepingInterval = std::chrono::milliseconds(50);

// The one error form a device sees when a handler fails.
HTTPResponse handlerFailure(const std::exception_ptr& error) {
  OrinLinkResponse response{Uuid::random(),
                            std::nullopt,
                            OrinLinkStatus::failed,
                            OrinLane::chat,
                            "",
                            std::nullopt,
                            std::nullopt,
                            OrinLinkError{"request_failed", describe(error)}};
  return HTTPResponse::json(response, HTTPStatus::internalServerError,
                            std::string(reasonPhrase(HTTPStatus::internalServerError)));
}

HTTPResponse healthResponse(const std::string& activeModel) {
  return HTTPResponse::json(
      OrinLinkHealth{"ok", "Orin Link", std::string(AIService::appVersion), "ollama", activeModel},
      HTTPStatus::ok, "OK");
}

std::int64_t characterCount(std::string_view text) {
  std::int64_t count = 0;
  for (const char c : text)
    count += (static_cast<unsigned char>(c) & 0xC0) != 0x80 ? 1 : 0;
  return count;
}

// Tokens relayed on the server's loop, waiting to be entered in the statistics and the
// conversation log on the main loop; one hand-off is in flight at a time, however fast tokens
// come.
class GenerationTally {
 public:
  struct Taken {
    std::string text;
    std::int64_t before = 0;
    std::int64_t count = 0;
  };
  // True when the caller should post a hand-off.
  bool add(const std::string& token) {
    const std::lock_guard lock(mutex_);
    pending_ += token;
    ++count_;
    const bool first = !posted_;
    posted_ = true;
    return first;
  }
  Taken take() {
    const std::lock_guard lock(mutex_);
    posted_ = false;
    Taken taken{std::move(pending_), applied_, count_};
    pending_.clear();
    applied_ = count_;
    return taken;
  }
  std::int64_t total() {
    const std::lock_guard lock(mutex_);
    return count_;
  }

 private:
  std::mutex mutex_;
  std::string pending_;
  std::int64_t applied_ = 0;
  std::int64_t count_ = 0;
  bool posted_ = false;
};

ModelGenerateRequest modelRequest(const OrinLinkGenerateRequest& generate,
                                  const std::string& activeModel) {
  return {generate.prompt, generate.model.value_or(activeModel), generate.temperature.value_or(0.7),
          generate.think.value_or(false)};
}

struct RelayCancellation {
  asio::cancellation_signal signal;
  bool finished = false;  // the relay's loop only
};

}  // namespace

// One streamed reply's bookkeeping. The tally is filled on the relay's loop; the rest is the main
// loop's, set there before any of the tally is taken.
struct AIService::Generation {
  GenerationTally tally;
  std::optional<Uuid> entry;
  Date start{0};

  void apply(AIServiceHost& host) {
    const auto taken = tally.take();
    if (taken.count == taken.before) return;
    if (entry) host.appendConversationToken(taken.text, *entry);
    // The rate is refreshed every eighth token.
    if (taken.count / 8 > taken.before / 8) {
      const double elapsed = std::max(host.now().secondsSince(start), 0.05);
      host.noteTokenRate(static_cast<double>(taken.count / 8 * 8) / elapsed);
    }
  }
};

std::shared_ptr<AIService> AIService::make(AIServiceHost& host, asio::any_io_executor mainExecutor,
                                           asio::any_io_executor relayExecutor) {
  return std::shared_ptr<AIService>(
      new AIService(host, std::move(mainExecutor), std::move(relayExecutor)));
}

AIService::AIService(AIServiceHost& host, asio::any_io_executor mainExecutor,
                     asio::any_io_executor relayExecutor)
    : host_(host),
      main_(std::move(mainExecutor)),
      relay_(std::move(relayExecutor)),
      spare_(std::make_shared<SpareConnection>(relay_)),
      board_(std::make_shared<Board>()) {
  republish();
}

asio::awaitable<HTTPHandlerResult> AIService::route(HTTPRequest request) {
  static const RouteTable<Endpoint> routes{
      {{"GET", "/health"}, {false, &AIService::health}},
      {{"POST", "/v1/pair"}, {false, &AIService::pair}},
      {{"GET", "/status"}, {true, &AIService::status}},
      {{"GET", "/models"}, {true, &AIService::models}},
      {{"POST", "/v1/generate"}, {true, &AIService::generate}},
      {{"POST", "/v1/generate/stream"}, {true, &AIService::generateStream}},
  };
  const Endpoint* endpoint = routes.find(request.method, request.path);
  std::string device;
  // An unpaired caller learns nothing, not even which paths exist.
  if (!endpoint || endpoint->needsPairing) {
    auto name = host_.authenticate(request.bearerToken());
    if (!name) {
      co_return HTTPHandlerResult::response(HTTPResponse::error(
          HTTPStatus::unauthorized, "unauthorized", std::string(unauthorizedMessage)));
    }
    device = std::move(*name);
  }
  if (!endpoint) {
    co_return HTTPHandlerResult::response(
        HTTPResponse::error(HTTPStatus::notFound, "not_found",
                            "No Orin Link endpoint exists at " + request.path + "."));
  }
  std::exception_ptr failure;
  try {
    // Awaited calls are made in statements of their own: GCC 12 destroys temporaries created
    // inside a co_await expression twice.
    auto handling = (this->*endpoint->handle)(std::move(request), std::move(device));
    co_return co_await std::move(handling);
  } catch (...) {
    failure = std::current_exception();
  }
  co_return HTTPHandlerResult::response(handlerFailure(failure));
}

asio::awaitable<HTTPHandlerResult> AIService::health(HTTPRequest, std::string) {
  warmUp();
  co_return HTTPHandlerResult::response(healthResponse(host_.statusFacts().activeModel));
}

asio::awaitable<HTTPHandlerResult> AIService::pair(HTTPRequest request, std::string) {
  const auto pairing = decodeJSON<PairRequest>(request.body);
  std::string token = host_.pair(pairing);
  co_return HTTPHandlerResult::response(
      HTTPResponse::json(PairResponse{pairing.deviceId, std::move(token)}, HTTPStatus::ok, "OK"));
}

asio::awaitable<HTTPHandlerResult> AIService::status(HTTPRequest, std::string) {
  const auto facts = host_.statusFacts();
  const OrinLinkStatusPayload payload{
      facts.isServerRunning,
      facts.pairedDevices,
      facts.isOllamaAvailable,
      facts.activeModel,
      facts.serverPort,
      true,
      facts.reliabilityModeEnabled,
      "website",
      std::vector<std::string>{"textAI", "displayMirroring", "portal", "virtualUltrawide"}};
  co_return HTTPHandlerResult::response(HTTPResponse::json(payload, HTTPStatus::ok, "OK"));
}

asio::awaitable<HTTPHandlerResult> AIService::models(HTTPRequest, std::string) {
  OllamaRuntime client = host_.runtimeOn(main_);
  auto listing = client.listModels();
  std::vector<OllamaModel> models = co_await std::move(listing);
  std::vector<std::string> names;
  for (auto& model : models)
    names.push_back(std::move(model.name));
  co_return HTTPHandlerResult::response(HTTPResponse::json(
      std::map<std::string, std::vector<std::string>, std::less<>>{{"models", names}},
      HTTPStatus::ok, "OK"));
}

asio::awaitable<HTTPHandlerResult> AIService::generate(HTTPRequest request, std::string device) {
  const auto generate = decodeJSON<OrinLinkGenerateRequest>(request.body);
  host_.noteRequestedModel(generate.model);
  host_.noteGenerationStarted(device);
  const Date start = host_.now();
  const ModelGenerateRequest upstream = modelRequest(generate, host_.statusFacts().activeModel);
  OllamaRuntime client = host_.runtimeOn(main_);
  std::string text;
  std::exception_ptr failure;
  bool retryWithoutThink = false;
  try {
    auto generating = client.generateOnce(upstream, upstream.think);
    text = co_await std::move(generating);
  } catch (const OllamaError& error) {
    retryWithoutThink = error.kind() == OllamaError::Kind::httpStatus && error.statusCode() == 400;
    if (!retryWithoutThink) failure = std::current_exception();
  } catch (...) {
    failure = std::current_exception();
  }
  if (retryWithoutThink) {
    try {
      auto retrying = client.generateOnce(upstream, std::nullopt);
      text = co_await std::move(retrying);
    } catch (...) {
      failure = std::current_exception();
    }
  }
  if (failure) {
    host_.endGeneration(0, start);
    std::rethrow_exception(failure);
  }
  const std::int64_t characters = characterCount(text);
  host_.endGeneration(characters > 3 ? characters / 4 : 1, start);

  auto toolCall = OrinToolParser::extractToolCall(text);
  std::string shown = OrinToolParser::removingToolCallMarkup(text);
  if (auto entry = host_.beginConversationEntry(generate.prompt, device)) {
    host_.appendConversationToken(shown, *entry);
    host_.completeConversationEntry(*entry);
  }
  const OrinLane lane = toolCall ? OrinLane::toolProposal : OrinLane::chat;
  const OrinLinkResponse response{Uuid::random(), generate.id,      OrinLinkStatus::success,
                                  lane,           std::move(shown), std::move(toolCall),
                                  std::nullopt,   std::nullopt};
  co_return HTTPHandlerResult::response(HTTPResponse::json(response, HTTPStatus::ok, "OK"));
}

asio::awaitable<HTTPHandlerResult> AIService::generateStream(HTTPRequest request,
                                                             std::string device) {
  const auto generate = decodeJSON<OrinLinkGenerateRequest>(request.body);
  auto generation = std::make_shared<Generation>();
  beginGeneration(*generation, generate, device);
  co_return HTTPHandlerResult::eventStream(
      relay(host_.runtimeOn(relay_), modelRequest(generate, host_.statusFacts().activeModel),
            std::move(generation), {}));
}

// The first token's path: a paired device's request goes upstream from here, without waiting
// for the main loop. Anything else (an unknown token, a body that does not decode) is left to
// the main loop, which gives the usual reply.
std::optional<TextChunkStream> AIService::generateStreamAtOnce(const HTTPRequest& request) {
  const auto token = request.bearerToken();
  if (!token || token->empty()) return std::nullopt;
  const auto facts = board_->facts.load();
  const std::string hash = tokenHash(*token);
  const auto device = std::find_if(
      facts->devices.begin(), facts->devices.end(),
      [&](const AIServiceHost::Credential& c) { return sameTokenHash(c.tokenHash, hash); });
  if (device == facts->devices.end()) return std::nullopt;
  std::optional<OrinLinkGenerateRequest> generate;
  try {
    generate = decodeJSON<OrinLinkGenerateRequest>(request.body);
  } catch (const std::exception&) {
    return std::nullopt;
  }
  auto generation = std::make_shared<Generation>();
  const ModelGenerateRequest upstream = modelRequest(*generate, facts->activeModel);
  auto begin = [weak = weak_from_this(), main = main_, generation, token,
                generate = std::move(*generate), name = device->deviceName] {
    asio::post(main, [weak, generation, token, generate, name] {
      auto self = weak.lock();
      if (!self) return;
      // Records the device as seen.
      const auto current = self->host_.authenticate(token);
      self->beginGeneration(*generation, generate, current.value_or(name));
    });
  };
  return relay(facts->relayRuntime, upstream, std::move(generation), std::move(begin));
}

void AIService::beginGeneration(Generation& generation, const OrinLinkGenerateRequest& request,
                                const std::string& device) {
  host_.noteRequestedModel(request.model);
  host_.noteGenerationStarted(device);
  generation.entry = host_.beginConversationEntry(request.prompt, device);
  generation.start = host_.now();
}

// Tokens are read upstream and relayed on the server's own loop, where the device's socket is
// written, so a token crosses no thread; the bookkeeping follows on the main loop, where the
// generation has begun before any hand-off arrives. A generation not yet begun there is begun
// once the first token has gone out, or after one bookkeeping interval without one: the main
// loop's work would otherwise take the cores while the first token is on its way.
TextChunkStream AIService::relay(OllamaRuntime upstreamClient, ModelGenerateRequest request,
                                 std::shared_ptr<Generation> generation,
                                 std::function<void()> begin) {
  auto made = TextChunkStream::make();
  TextChunkStream chunks = std::move(made.first);
  const TextChunkStream::Continuation continuation = made.second;
  const asio::any_io_executor relay = relay_;
  // The device going away cancels the relay, which cancels the runtime's stream and so the
  // request upstream. Emitted on the relay's loop, and only while the relay runs.
  auto cancel = std::make_shared<RelayCancellation>();
  continuation.onTermination([relay, cancel](TextChunkStream::Termination why) {
    if (why != TextChunkStream::Termination::cancelled) return;
    asio::post(relay, [cancel] {
      if (!cancel->finished) cancel->signal.emit(asio::cancellation_type::terminal);
    });
  });
  asio::co_spawn(
      relay,
      [weak = weak_from_this(), main = main_, relay,
       upstream = upstreamClient.stream(std::move(request)), continuation, cancel, generation,
       begin = std::make_shared<std::function<void()>>(
           std::move(begin))]() mutable -> asio::awaitable<void> {
        std::exception_ptr failure;
        const auto handOff = [weak, main, generation] {
          asio::post(main, [weak, generation] {
            if (auto self = weak.lock()) generation->apply(self->host_);
          });
        };
        // Waking the main loop costs the relay's thread more than a token does, so tokens reach
        // the bookkeeping at most once per interval; the first one at once.
        asio::steady_timer handOffTimer(relay);
        std::chrono::steady_clock::time_point lastHandOff;
        // Shared with the handlers below, which may run after this frame is gone.
        const auto beginOnce = [begin] {
          if (!*begin) return;
          (*begin)();
          *begin = nullptr;
        };
        asio::steady_timer beginTimer(relay, bookkeepingInterval);
        if (*begin) {
          beginTimer.async_wait([beginOnce](boost::system::error_code ec) {
            if (!ec) beginOnce();
          });
        }
        try {
          while (true) {
            std::optional<std::string> token = co_await upstream.next(asio::use_awaitable);
            if (!token) break;
            const bool handOffNeeded = generation->tally.add(*token);
            continuation.yield(std::move(*token));
            if (*begin) {
              beginTimer.cancel();
              // Queued behind the token's delivery, and ahead of the first hand-off; the end
              // below begins it first if it has not run by then.
              asio::post(relay, beginOnce);
            }
            if (!handOffNeeded) continue;
            const auto now = std::chrono::steady_clock::now();
            if (now >= lastHandOff + bookkeepingInterval) {
              lastHandOff = now;
              // Queued behind the token's delivery, so the main loop wakes after the write.
              asio::post(relay, handOff);
            } else {
              lastHandOff += bookkeepingInterval;
              handOffTimer.expires_at(lastHandOff);
              handOffTimer.async_wait([handOff](boost::system::error_code ec) {
                if (!ec) handOff();
              });
            }
          }
        } catch (...) {
          failure = std::current_exception();
        }
        cancel->finished = true;
        beginTimer.cancel();
        beginOnce();
        asio::post(main, [weak, generation] {
          auto self = weak.lock();
          if (!self) return;
          generation->apply(self->host_);
          if (generation->entry) self->host_.completeConversationEntry(*generation->entry);
          self->host_.endGeneration(generation->tally.total(), generation->start);
        });
        if (failure) {
          continuation.finish(failure);
        } else {
          continuation.finish();
        }
      },
      asio::bind_cancellation_slot(cancel->signal.slot(), asio::detached));
  return chunks;
}

void AIService::republish() {
  const std::string activeModel = host_.statusFacts().activeModel;
  OllamaRuntime relayRuntime = host_.runtimeOn(relay_);
  relayRuntime.useSpareConnection(spare_);
  board_->facts = std::make_shared<const Board::Facts>(
      Board::Facts{healthResponse(activeModel).serialized(), activeModel, host_.pairedDevices(),
                   std::move(relayRuntime)});
}

void AIService::warmUp() {
  const auto wait = host_.requestWarmUp();
  if (wait > std::chrono::steady_clock::duration::zero()) {
    board_->noWarmBefore = (std::chrono::steady_clock::now() + wait).time_since_epoch().count();
  }
}

std::function<std::optional<HTTPImmediateAnswer>(const HTTPRequest&)>
AIService::immediateHandler() {
  return [weak = weak_from_this(), board = board_,
          main = main_](const HTTPRequest& request) -> std::optional<HTTPImmediateAnswer> {
    const std::string_view path = routingPath(request.path);
    if (request.method == "POST" && path == "/v1/generate/stream") {
      auto self = weak.lock();
      if (!self) return std::nullopt;
      auto chunks = self->generateStreamAtOnce(request);
      if (!chunks) return std::nullopt;
      return HTTPImmediateAnswer(std::move(*chunks));
    }
    if (request.method != "GET" || path != "/health") return std::nullopt;
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    if (now >= board->noWarmBefore.load(std::memory_order_relaxed) &&
        !board->warmPending.exchange(true)) {
      asio::post(main, [weak] {
        if (auto self = weak.lock()) {
          self->board_->warmPending = false;
          self->warmUp();
        }
      });
    }
    return board->facts.load()->healthReply;
  };
}

}  // namespace orin
