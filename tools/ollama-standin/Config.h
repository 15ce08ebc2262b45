#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace standin {

using Milliseconds = std::chrono::milliseconds;

enum class Thinking { supported, unsupported, refusesKey };

// Faults apply to one response each; every field is independent of the others.
struct Fault {
  std::optional<unsigned> status;  // answer this status instead, with {"error": error}
  std::string error = "injected fault";
  Milliseconds headerDelay{0};
  std::optional<std::size_t> cutAfter;  // close the connection after this many streamed lines
};

struct Layer {
  std::string digest;  // "sha256:<hex>"
  std::int64_t total = 0;
};

struct PullBehaviour {
  std::vector<Layer> layers;  // empty: one layer made from the model's digest and size
  std::int64_t step = 0;      // bytes per progress line; 0: a tenth of the layer
  Milliseconds stepDelay{0};
  std::optional<std::size_t> failAfterSteps;
  std::string error = "max retries exceeded: unexpected EOF";
};

// What a response does; set at the top level and overridden field by field per model.
struct Behaviour {
  double tokenRate = 0;  // tokens per second; 0 streams as fast as the socket takes them
  Milliseconds firstTokenDelay{0};
  Fault fault;
  PullBehaviour pull;
};

struct Model {
  std::string name;
  std::int64_t size = 0;
  std::string digest;  // hex, as the model list shows it
  std::string family = "llama";
  std::string parameterSize = "3.2B";
  std::string quantizationLevel = "Q4_K_M";
  Thinking thinking = Thinking::unsupported;
  std::vector<std::string> reply;
  std::vector<std::string> thinkingReply;  // sent as "thinking" pieces when thinking is on
  bool installed = true;
  Behaviour behaviour;

  std::vector<Layer> layers() const;
};

struct Config {
  std::vector<Model> models;
  Behaviour behaviour;  // for answers that name no configured model
};

// Throws std::invalid_argument naming the offending key.
Config parseConfig(const nlohmann::json& document);
Config defaultConfig();

// Words with their leading white space, so the pieces concatenate back to the text.
std::vector<std::string> tokenise(std::string_view text);

}  // namespace standin
