// orin_ai_faults: hostile and broken connections against orinlink's AI service on loopback, then
// a check that it still answers, and that a device's token and the pairing code never reach its
// output or its files. Exit status 0 when every check passes.

#include <CLI/CLI.hpp>
#include <atomic>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>

#include <nlohmann/json.hpp>

#include "BenchSupport.h"
#include "tests/support/StandInProcess.h"

namespace {

using namespace orin::aibench;
using nlohmann::ordered_json;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::string_view chatModel = "chat:latest";
constexpr std::string_view slowModel = "slow:latest";
constexpr std::size_t maxRequestBytes = 2'000'000;

enum class Kind {
  garbageHalfClose,
  garbageReset,
  binaryHalfClose,
  truncatedBodyHalfClose,
  truncatedHeadReset,
  oversizedBody,
  oversizedHead,
  immediateHalfClose,
  immediateReset,
  streamReset,
  requestThenReset,
  fragmentedRequest,
};
constexpr int kindCount = 12;

const char* kindName(Kind kind) {
  switch (kind) {
    case Kind::garbageHalfClose:
      return "garbage, then half-close";
    case Kind::garbageReset:
      return "garbage, then reset";
    case Kind::binaryHalfClose:
      return "random bytes with a blank line, then half-close";
    case Kind::truncatedBodyHalfClose:
      return "body shorter than Content-Length, then half-close";
    case Kind::truncatedHeadReset:
      return "half a request line, then reset";
    case Kind::oversizedBody:
      return "2,100,000-byte request with a head";
    case Kind::oversizedHead:
      return "2,100,000 bytes without a blank line";
    case Kind::immediateHalfClose:
      return "connect and half-close";
    case Kind::immediateReset:
      return "connect and reset";
    case Kind::streamReset:
      return "streamed generation, reset after the first bytes";
    case Kind::requestThenReset:
      return "GET /status (answered on the main loop), reset before reading";
    case Kind::fragmentedRequest:
      return "GET /health in pieces";
  }
  return "?";
}

// The status a well-behaved server gives; 0 where the client leaves before any reply.
int expectedStatus(Kind kind) {
  switch (kind) {
    case Kind::garbageHalfClose:
    case Kind::binaryHalfClose:
    case Kind::truncatedBodyHalfClose:
    case Kind::immediateHalfClose:
      return 400;
    case Kind::oversizedBody:
    case Kind::oversizedHead:
      return 413;
    case Kind::fragmentedRequest:
      return 200;
    default:
      return 0;
  }
}

int statusOf(const std::string& reply) {
  if (!reply.starts_with("HTTP/1.1 ") || reply.size() < 12) return 0;
  return std::atoi(reply.c_str() + 9);
}

std::string garbage(std::mt19937& random, std::size_t size, bool printable) {
  std::string out(size, ' ');
  std::uniform_int_distribution<int> byte(printable ? 33 : 0, printable ? 126 : 255);
  for (char& c : out)
    c = static_cast<char>(byte(random));
  return out;
}

// One hostile connection; the status of the reply read, or 0.
int attack(Kind kind, std::uint16_t port, const std::string& token, std::mt19937& random) {
  Socket socket = connectLoopback(port, seconds(15));
  if (!socket.valid()) return -1;
  const int fd = socket.fd();
  const auto halfCloseAndRead = [&]() {
    ::shutdown(fd, SHUT_WR);
    return statusOf(readToEnd(fd, 1 << 20));
  };
  switch (kind) {
    case Kind::garbageHalfClose:
      sendAll(fd, garbage(random, 300, true));
      return halfCloseAndRead();
    case Kind::garbageReset:
      sendAll(fd, garbage(random, 300, true));
      socket.reset();
      return 0;
    case Kind::binaryHalfClose:
      sendAll(fd, garbage(random, 200, false) + "\r\n\r\n" + garbage(random, 50, false));
      return halfCloseAndRead();
    case Kind::truncatedBodyHalfClose:
      sendAll(fd, "POST /v1/generate HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 5000\r\n\r\n" +
                      std::string(100, '{'));
      return halfCloseAndRead();
    case Kind::truncatedHeadReset:
      sendAll(fd, "GET /heal");
      socket.reset();
      return 0;
    case Kind::oversizedBody:
    case Kind::oversizedHead: {
      std::string bytes = kind == Kind::oversizedBody
                              ? "POST /v1/generate HTTP/1.1\r\nContent-Length: 3000000\r\n\r\n"
                              : "GET /";
      bytes.resize(maxRequestBytes + 100'000, 'a');
      // The server answers once the limit is passed and may stop reading; a failed send is fine.
      sendAll(fd, bytes);
      return halfCloseAndRead();
    }
    case Kind::immediateHalfClose:
      return halfCloseAndRead();
    case Kind::immediateReset:
      socket.reset();
      return 0;
    case Kind::streamReset: {
      sendAll(fd, orinlinkStreamRequest(port, token, std::string(slowModel), "Count."));
      char buffer[4096];
      std::size_t got = 0;
      while (got < 200) {
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
      }
      socket.reset();
      return 0;
    }
    case Kind::requestThenReset:
      sendAll(fd, "GET /status HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
      socket.reset();
      return 0;
    case Kind::fragmentedRequest:
      for (const char* piece :
           {"GE", "T /hea", "lth HTTP/1.1\r\nHo", "st: 127.0.0.1\r\n", "\r\n"}) {
        sendAll(fd, piece);
        std::this_thread::sleep_for(milliseconds(1));
      }
      return statusOf(readToEnd(fd, 1 << 20));
  }
  return 0;
}

struct Finding {
  std::string where;
  std::string what;
};

// Whether the code stands in the text as a number of its own, not inside a longer one.
bool containsCode(const std::string& text, const std::string& code) {
  for (std::size_t at = text.find(code); at != std::string::npos; at = text.find(code, at + 1)) {
    const bool digitBefore = at > 0 && std::isdigit(static_cast<unsigned char>(text[at - 1]));
    const std::size_t after = at + code.size();
    const bool digitAfter =
        after < text.size() && std::isdigit(static_cast<unsigned char>(text[after]));
    if (!digitBefore && !digitAfter) return true;
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Hostile connections and secret hygiene checks against orinlink on loopback"};
  std::string orinlinkPath = ORINLINK_PATH;
  std::string workDirectory = "build/release/ai-faults";
  std::string out;
  std::size_t connections = 2000;
  unsigned parallel = 16;
  std::vector<int> onlyKinds;
  app.add_option("--orinlink", orinlinkPath, "orinlink executable")->capture_default_str();
  app.add_option("--work-dir", workDirectory, "Scratch directory (replaced)")
      ->capture_default_str();
  app.add_option("--out", out, "JSON results file");
  app.add_option("--connections", connections, "Hostile connections")->capture_default_str();
  app.add_option("--parallel", parallel, "Connections at once")
      ->capture_default_str()
      ->check(CLI::Range(1U, 256U));
  app.add_option("--kind", onlyKinds, "Only these kinds of connection (0-11), to reproduce one")
      ->check(CLI::Range(0, kindCount - 1));
  CLI11_PARSE(app, argc, argv);

  ordered_json results;
  bool passed = true;
  const auto check = [&](bool ok, const std::string& what) {
    std::cout << (ok ? "  ok    " : "  FAIL  ") << what << '\n';
    if (!ok) passed = false;
    results["checks"].push_back({{"check", what}, {"passed", ok}});
  };
  try {
    results["date"] = today();
    results["loadAtStart"] = loadAverages();
    nlohmann::json config;
    config["models"] = {
        {{"name", chatModel}, {"reply", "Hello there, this is a short reply for the check."}},
        {{"name", slowModel}, {"reply", numberedWords(200)}, {"token_rate", 100}}};
    auto standIn = orin::testing_support::StandInProcess::withConfig(config);
    OrinLinkProcess orinlink(orinlinkPath, fs::absolute(workDirectory),
                             {{"ollamaBaseURL", standIn.baseURL()}, {"activeModel", chatModel}});
    orinlink.start();
    std::this_thread::sleep_for(seconds(1));
    const pid_t pid = orinlink.pid();
    results["before"] = {{"vmRSSKiB", readMemory(pid).rssKiB},
                         {"openFiles", openFileCount(pid)},
                         {"threads", threadCount(pid)}};

    // A paired device going about its business.
    const std::string codeUsed = orinlink.pairingCode();
    const std::string token = orinlink.pairDevice("fault-check-device", "Fault check");
    const std::string codeAfterPairing = orinlink.pairingCode();
    {
      orin::device::DeviceClient::Options options;
      options.port = orinlink.port();
      options.token = token;
      options.idleTimeout = seconds(20);
      const orin::device::DeviceClient device(options);
      device.health();
      device.status();
      device.models();
      device.generate(
          orin::device::makeGenerateRequest("Hello?", std::nullopt, std::nullopt, std::nullopt));
      std::size_t streamed = 0;
      device.generateStream(
          orin::device::makeGenerateRequest("Hello?", std::nullopt, std::nullopt, std::nullopt),
          [&](std::string_view) { ++streamed; });
      check(streamed > 0, "a paired device streams a reply before the faults");
      check(httpGet(orinlink.port(), "/no-such-path").status == 401,
            "an unknown path without a token gets 401");
    }

    // The hostile connections: one kind after another, several at once, so that a crash can be
    // put down to its kind. A crashed orinlink is noted and started again on the same files.
    std::vector<int> kindOrder = onlyKinds;
    if (kindOrder.empty()) {
      for (int k = 0; k < kindCount; ++k)
        kindOrder.push_back(k);
    }
    std::cout << "sending " << connections << " hostile connections, " << parallel << " at once…"
              << std::endl;
    ordered_json kinds = ordered_json::array();
    ordered_json crashes = ordered_json::array();
    std::size_t unexpected = 0;
    const auto started = Clock::now();
    for (std::size_t k = 0; k < kindOrder.size(); ++k) {
      const Kind kind = static_cast<Kind>(kindOrder[k]);
      // Spread as evenly as the count allows.
      const std::size_t share =
          connections / kindOrder.size() + (k < connections % kindOrder.size() ? 1 : 0);
      std::atomic<std::size_t> next{0};
      std::mutex tallyMutex;
      std::map<int, std::size_t> statuses;
      std::vector<std::thread> workers;
      for (unsigned w = 0; w < parallel; ++w) {
        workers.emplace_back([&, w] {
          std::mt19937 random(1234 + w + 100 * static_cast<unsigned>(k));
          while (next++ < share) {
            const int status = attack(kind, orinlink.port(), token, random);
            std::lock_guard lock(tallyMutex);
            ++statuses[status];
          }
        });
      }
      for (std::thread& worker : workers)
        worker.join();
      std::this_thread::sleep_for(milliseconds(200));
      ordered_json row;
      row["kind"] = kindName(kind);
      row["connections"] = share;
      row["expectedStatus"] = expectedStatus(kind);
      for (const auto& [status, n] : statuses) {
        // -1: the connection was refused (nothing listening any more).
        row["statuses"][std::to_string(status)] = n;
        if (expectedStatus(kind) != 0 && status != expectedStatus(kind)) unexpected += n;
      }
      row["orinlinkSurvived"] = orinlink.running();
      std::cout << "    " << share << " x " << row["kind"].get<std::string>() << ": "
                << row["statuses"].dump() << (row["orinlinkSurvived"] ? "" : "  -> orinlink died")
                << std::endl;
      if (!row["orinlinkSurvived"]) {
        const int status = orinlink.stop();
        const std::string errors = readTextFile(orinlink.errorFile());
        crashes.push_back(
            {{"kind", kindName(kind)},
             {"signal", WIFSIGNALED(status) ? WTERMSIG(status) : 0},
             {"exitCode", WIFEXITED(status) ? WEXITSTATUS(status) : -1},
             {"stderrTail", errors.substr(errors.size() > 2000 ? errors.size() - 2000 : 0)}});
        const std::string suffix = ".crash" + std::to_string(crashes.size());
        fs::rename(orinlink.outputFile(), fs::path(orinlink.outputFile()).concat(suffix));
        fs::rename(orinlink.errorFile(), fs::path(orinlink.errorFile()).concat(suffix));
        orinlink.start();
      }
      kinds.push_back(row);
    }
    const double seconds = microseconds(Clock::now() - started) / 1e6;
    results["hostile"] = {{"connections", connections}, {"parallel", parallel},
                          {"seconds", seconds},         {"kinds", kinds},
                          {"crashes", crashes},         {"unexpectedReplies", unexpected}};
    check(crashes.empty(), "orinlink survives every kind of hostile connection (" +
                               std::to_string(crashes.size()) + " kinds crashed it)");
    check(unexpected == 0, "every hostile connection that waited got the expected status");

    // Afterwards: alive, answering, nothing left behind.
    check(standIn.waitFor({{"active_generations", 0}}, 20000),
          "every generation cut off by a reset was cancelled upstream");
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const bool survived = crashes.empty();
    check(orinlink.running(), "orinlink is running at the end");
    const PlainReply health = httpGet(orinlink.port(), "/health");
    check(health.status == 200 && health.body.find("\"ok\"") != std::string::npos,
          "GET /health answers 200 afterwards");
    {
      orin::device::DeviceClient::Options options;
      options.port = orinlink.port();
      options.token = token;
      options.idleTimeout = std::chrono::seconds(20);
      std::size_t streamed = 0;
      orin::device::DeviceClient(options).generateStream(
          orin::device::makeGenerateRequest("Again?", std::nullopt, std::nullopt, std::nullopt),
          [&](std::string_view) { ++streamed; });
      check(streamed > 0, "a paired device still streams a reply afterwards");
    }
    const pid_t after = orinlink.pid();
    results["after"] = {{"vmRSSKiB", readMemory(after).rssKiB},
                        {"vmHWMKiB", readMemory(after).hwmKiB},
                        {"openFiles", openFileCount(after)},
                        {"threads", threadCount(after)}};
    if (survived) {
      check(
          results["after"]["openFiles"].get<int>() <= results["before"]["openFiles"].get<int>() + 2,
          "no descriptors left open (" + results["before"]["openFiles"].dump() + " before, " +
              results["after"]["openFiles"].dump() + " after)");
    }

    // Secrets: the token and the codes, in everything orinlink wrote.
    const std::string codeAtEnd = orinlink.pairingCode();
    const int exitStatus = orinlink.stop();
    check(WIFEXITED(exitStatus) && WEXITSTATUS(exitStatus) == 0,
          "orinlink exits cleanly on SIGTERM");
    // Its output files, config and data are all under the work directory.
    std::vector<std::pair<std::string, std::string>> texts;
    std::size_t outputBytes = 0;
    for (const auto& entry : fs::recursive_directory_iterator(fs::absolute(workDirectory))) {
      if (!entry.is_regular_file()) continue;
      texts.emplace_back(entry.path().string(), readTextFile(entry.path()));
      if (entry.path().parent_path() == fs::absolute(workDirectory)) {
        outputBytes += texts.back().second.size();
      }
    }
    const std::size_t filesScanned = texts.size();
    // The code is shown as "123 456"; it is looked for with and without the blank.
    std::vector<std::string> codes;
    for (const std::string& code : {codeUsed, codeAfterPairing, codeAtEnd}) {
      codes.push_back(code);
      std::string digits;
      for (const char c : code) {
        if (std::isdigit(static_cast<unsigned char>(c))) digits.push_back(c);
      }
      codes.push_back(digits);
    }
    std::vector<Finding> findings;
    for (const auto& [where, text] : texts) {
      if (text.find(token) != std::string::npos) findings.push_back({where, "device token"});
      for (const std::string& code : codes) {
        if (containsCode(text, code)) findings.push_back({where, "pairing code " + code});
      }
    }
    ordered_json found = ordered_json::array();
    for (const Finding& f : findings) {
      found.push_back({{"where", f.where}, {"what", f.what}});
      std::cout << "    found " << f.what << " in " << f.where << '\n';
    }
    results["secrets"] = {{"filesScanned", filesScanned},
                          {"outputBytes", outputBytes},
                          {"codesChecked", 3},
                          {"findings", found}};
    check(findings.empty(), "no token or pairing code in orinlink's output, config or data (" +
                                std::to_string(filesScanned) + " files)");
  } catch (const std::exception& error) {
    std::cerr << "orin_ai_faults: " << error.what() << '\n';
    results["error"] = error.what();
    passed = false;
  }
  results["loadAtEnd"] = loadAverages();
  results["passed"] = passed;
  if (!out.empty()) {
    fs::create_directories(fs::absolute(out).parent_path());
    std::ofstream(out) << results.dump(2) << '\n';
  }
  std::cout << (passed ? "all fault checks passed" : "FAULT CHECKS FAILED") << std::endl;
  return passed ? 0 : 1;
}
