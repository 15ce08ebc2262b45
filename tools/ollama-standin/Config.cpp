#include "Config.h"

#include <cctype>
#include <initializer_list>
#include <stdexcept>

namespace standin {
namespace {

using nlohmann::json;

[[noreturn]] void fail(std::string_view where, std::string_view what) {
  throw std::invalid_argument(std::string(where) + ": " + std::string(what));
}

// A typo in a test's config should fail loudly rather than silently fall back to a default.
void checkKeys(const json& object, std::initializer_list<std::string_view> known,
               std::string_view where) {
  if (!object.is_object()) fail(where, "expected an object");
  for (const auto& item : object.items()) {
    bool found = false;
    for (std::string_view key : known)
      found = found || key == item.key();
    if (!found) fail(where, "unknown key \"" + item.key() + "\"");
  }
}

std::string text(const json& object, const char* key, std::string fallback,
                 std::string_view where) {
  auto it = object.find(key);
  if (it == object.end()) return fallback;
  if (!it->is_string()) fail(where, std::string(key) + " must be text");
  return it->get<std::string>();
}

std::uint64_t count(const json& object, const char* key, std::uint64_t fallback,
                    std::string_view where) {
  auto it = object.find(key);
  if (it == object.end()) return fallback;
  if (!it->is_number_integer() || it->get<std::int64_t>() < 0) {
    fail(where, std::string(key) + " must be a non-negative integer");
  }
  return it->get<std::uint64_t>();
}

std::optional<std::size_t> optionalCount(const json& object, const char* key,
                                         std::optional<std::size_t> fallback,
                                         std::string_view where) {
  if (!object.contains(key)) return fallback;
  if (object.at(key).is_null()) return std::nullopt;
  return static_cast<std::size_t>(count(object, key, 0, where));
}

Milliseconds millis(const json& object, const char* key, Milliseconds fallback,
                    std::string_view where) {
  return Milliseconds(static_cast<Milliseconds::rep>(
      count(object, key, static_cast<std::uint64_t>(fallback.count()), where)));
}

std::vector<std::string> pieces(const json& value, std::string_view where) {
  if (value.is_string()) return tokenise(value.get<std::string>());
  std::vector<std::string> result;
  if (value.is_array()) {
    for (const json& piece : value) {
      if (!piece.is_string()) fail(where, "reply pieces must be text");
      result.push_back(piece.get<std::string>());
    }
    return result;
  }
  checkKeys(value, {"piece", "count"}, where);
  result.assign(count(value, "count", 0, where), text(value, "piece", " token", where));
  return result;
}

Fault parseFault(const json& object, Fault fault) {
  constexpr std::string_view where = "fault";
  checkKeys(object, {"status", "error", "header_delay_ms", "cut_after"}, where);
  if (object.contains("status")) {
    auto status = count(object, "status", 0, where);
    if (status < 100 || status > 599) fail(where, "status must be an HTTP status code");
    fault.status = static_cast<unsigned>(status);
  }
  fault.error = text(object, "error", fault.error, where);
  fault.headerDelay = millis(object, "header_delay_ms", fault.headerDelay, where);
  fault.cutAfter = optionalCount(object, "cut_after", fault.cutAfter, where);
  return fault;
}

PullBehaviour parsePull(const json& object, PullBehaviour pull) {
  constexpr std::string_view where = "pull";
  checkKeys(object, {"layers", "step", "step_delay_ms", "fail_after_steps", "error"}, where);
  if (auto it = object.find("layers"); it != object.end()) {
    if (!it->is_array()) fail(where, "layers must be an array");
    pull.layers.clear();
    for (const json& entry : *it) {
      checkKeys(entry, {"digest", "total"}, "layer");
      Layer layer{text(entry, "digest", "", "layer"),
                  static_cast<std::int64_t>(count(entry, "total", 0, "layer"))};
      if (!layer.digest.starts_with("sha256:") || layer.digest.size() < 19) {
        fail("layer", "digest must be \"sha256:\" and at least 12 hex digits");
      }
      pull.layers.push_back(std::move(layer));
    }
  }
  pull.step = static_cast<std::int64_t>(
      count(object, "step", static_cast<std::uint64_t>(pull.step), where));
  pull.stepDelay = millis(object, "step_delay_ms", pull.stepDelay, where);
  pull.failAfterSteps = optionalCount(object, "fail_after_steps", pull.failAfterSteps, where);
  pull.error = text(object, "error", pull.error, where);
  return pull;
}

Behaviour parseBehaviour(const json& object, Behaviour behaviour, std::string_view where) {
  if (auto it = object.find("token_rate"); it != object.end()) {
    if (!it->is_number() || it->get<double>() < 0) fail(where, "token_rate must be 0 or more");
    behaviour.tokenRate = it->get<double>();
  }
  behaviour.firstTokenDelay =
      millis(object, "first_token_delay_ms", behaviour.firstTokenDelay, where);
  if (object.contains("fault")) behaviour.fault = parseFault(object.at("fault"), behaviour.fault);
  if (object.contains("pull")) behaviour.pull = parsePull(object.at("pull"), behaviour.pull);
  return behaviour;
}

// Stable across runs so that digests in a test's expectations do not move.
std::string digestOf(std::string_view name) {
  static constexpr char hex[] = "0123456789abcdef";
  std::uint64_t hash = 14695981039346656037ULL;
  std::string digest;
  while (digest.size() < 64) {
    for (char c : name)
      hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
    for (int shift = 60; shift >= 0 && digest.size() < 64; shift -= 4) {
      digest.push_back(hex[(hash >> shift) & 0xF]);
    }
  }
  return digest;
}

Thinking parseThinking(const std::string& value) {
  if (value == "supported") return Thinking::supported;
  if (value == "unsupported") return Thinking::unsupported;
  if (value == "refuses-key") return Thinking::refusesKey;
  fail("model", "thinking must be supported, unsupported or refuses-key");
}

Model parseModel(const json& object, const Behaviour& base) {
  constexpr std::string_view where = "model";
  checkKeys(object,
            {"name", "size", "digest", "family", "parameter_size", "quantization_level", "thinking",
             "reply", "thinking_reply", "installed", "token_rate", "first_token_delay_ms", "fault",
             "pull"},
            where);
  Model model;
  model.name = text(object, "name", "", where);
  if (model.name.empty()) fail(where, "name is required");
  model.size = static_cast<std::int64_t>(count(object, "size", 2019393189, where));
  model.digest = text(object, "digest", digestOf(model.name), where);
  model.family = text(object, "family", model.family, where);
  model.parameterSize = text(object, "parameter_size", model.parameterSize, where);
  model.quantizationLevel = text(object, "quantization_level", model.quantizationLevel, where);
  model.thinking = parseThinking(text(object, "thinking", "unsupported", where));
  model.reply = pieces(object.value("reply", json("Hello! How can I help you today?")), where);
  if (object.contains("thinking_reply")) {
    model.thinkingReply = pieces(object.at("thinking_reply"), where);
  }
  if (auto it = object.find("installed"); it != object.end()) {
    if (!it->is_boolean()) fail(where, "installed must be true or false");
    model.installed = it->get<bool>();
  }
  model.behaviour = parseBehaviour(object, base, where);
  return model;
}

json defaultModels() {
  return json::array({
      {{"name", "llama3.2:latest"},
       {"size", 2019393189},
       {"family", "llama"},
       {"parameter_size", "3.2B"},
       {"quantization_level", "Q4_K_M"}},
      {{"name", "qwen3:8b"},
       {"size", 5225388164},
       {"family", "qwen3"},
       {"parameter_size", "8.2B"},
       {"quantization_level", "Q4_K_M"},
       {"thinking", "supported"},
       {"thinking_reply", "The user greets me, so I greet back."}},
  });
}

}  // namespace

std::vector<Layer> Model::layers() const {
  if (!behaviour.pull.layers.empty()) return behaviour.pull.layers;
  return {{"sha256:" + digest, size}};
}

Config parseConfig(const json& document) {
  checkKeys(document, {"models", "token_rate", "first_token_delay_ms", "fault", "pull"}, "config");
  Config config;
  config.behaviour = parseBehaviour(document, Behaviour{}, "config");
  json models = document.value("models", defaultModels());
  if (!models.is_array()) fail("config", "models must be an array");
  for (const json& entry : models) {
    config.models.push_back(parseModel(entry, config.behaviour));
  }
  return config;
}

Config defaultConfig() {
  return parseConfig(json::object());
}

std::vector<std::string> tokenise(std::string_view text) {
  std::vector<std::string> result;
  std::size_t start = 0;
  const auto isSpace = [&](std::size_t i) {
    return std::isspace(static_cast<unsigned char>(text[i])) != 0;
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    // A new piece starts where white space follows a word.
    if (i > start && isSpace(i) && !isSpace(i - 1)) {
      result.emplace_back(text.substr(start, i - start));
      start = i;
    }
  }
  if (start < text.size()) result.emplace_back(text.substr(start));
  return result;
}

}  // namespace standin
