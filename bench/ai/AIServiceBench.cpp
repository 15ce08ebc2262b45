// orin_ai_bench: the AI service measured end to end on loopback. Token relay latency against the
// stand-in daemon itself, many concurrent streams, memory and start-up time, and GET /health
// throughput against nginx. Everything runs on 127.0.0.1 and every wait is bounded.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sstream>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "BenchSupport.h"
#include "tests/support/StandInProcess.h"

namespace {

using namespace orin::aibench;
using nlohmann::ordered_json;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::string_view pacedModel = "relay-paced:latest";
constexpr std::string_view fastModel = "relay-fast:latest";
constexpr std::string_view bulkModel = "bulk:latest";
constexpr std::string_view prompt = "Count for me, one word at a time.";

struct Options {
  std::string orinlink = ORINLINK_PATH;
  std::string relayFloor = RELAY_FLOOR_PATH;
  std::string workDirectory = "build/release/ai-bench";
  std::string out = "build/release/ai-bench-results.json";
  std::string faultsResults;
  std::string nginx = "nginx";
  std::string wrk = "wrk";
  std::vector<std::string> sections{"relay", "streams", "startup", "http"};
  std::size_t requests = 120;
  std::size_t tokens = 200;
  double rate = 200;
  std::size_t warmup = 5;
  std::size_t streams = 256;
  std::size_t streamTokens = 1000;
  double streamRate = 0;
  std::size_t starts = 20;
  std::string wrkThreads = "2";
  std::string wrkConnections = "32";
  std::string wrkDuration = "10s";
  std::size_t repetitions = 3;
};

bool wants(const Options& options, std::string_view section) {
  return std::find(options.sections.begin(), options.sections.end(), section) !=
         options.sections.end();
}

ordered_json loadNow() {
  return loadAverages();
}

// --- Relay latency ------------------------------------------------------------------------------

struct PathSamples {
  std::vector<double> firstToken, gap, relay, total;
  std::size_t streams = 0, failures = 0, wrongTokens = 0, unmarked = 0;
  std::string lastFailure;
};

void collect(const StreamRecord& record, const std::vector<Clock::time_point>& marks,
             std::size_t expected, PathSamples& into) {
  ++into.streams;
  if (!record.failure.empty() || record.tokens.size() != expected) {
    ++into.failures;
    into.lastFailure = record.failure.empty()
                           ? "got " + std::to_string(record.tokens.size()) + " tokens"
                           : record.failure;
    return;
  }
  for (std::size_t k = 0; k < record.tokens.size(); ++k) {
    if (tokenNumber(record.tokens[k].text) != k + 1) ++into.wrongTokens;
  }
  into.firstToken.push_back(microseconds(record.tokens.front().at - record.started));
  into.total.push_back(microseconds(record.tokens.back().at - record.started));
  for (std::size_t k = 1; k < record.tokens.size(); ++k) {
    into.gap.push_back(microseconds(record.tokens[k].at - record.tokens[k - 1].at));
  }
  for (std::size_t k = 0; k < record.tokens.size(); ++k) {
    const std::size_t n = k + 1;
    if (n >= marks.size() || marks[n] == Clock::time_point{}) {
      ++into.unmarked;
      continue;
    }
    into.relay.push_back(microseconds(record.tokens[k].at - marks[n]));
  }
}

ordered_json describe(PathSamples& samples) {
  ordered_json out;
  out["streams"] = samples.streams;
  out["failures"] = samples.failures;
  if (!samples.lastFailure.empty()) out["lastFailure"] = samples.lastFailure;
  out["wrongTokens"] = samples.wrongTokens;
  out["tokensWithoutTapMark"] = samples.unmarked;
  // In request order, for looking at drift and outliers.
  out["firstTokenSeriesMicroseconds"] = samples.firstToken;
  out["firstTokenMicroseconds"] = percentiles(samples.firstToken).toJSON();
  out["gapMicroseconds"] = percentiles(samples.gap).toJSON();
  out["relayMicroseconds"] = percentiles(samples.relay).toJSON();
  out["streamMicroseconds"] = percentiles(samples.total).toJSON();
  return out;
}

ordered_json added(const ordered_json& a, const ordered_json& b, const char* key) {
  ordered_json out;
  for (const char* p : {"p50", "p90", "p99"}) {
    out[p] = b[key][p].get<double>() - a[key][p].get<double>();
  }
  return out;
}

// The three ways a token can take, all through the tap in front of the stand-in.
enum class RelayPath { direct, floor, orinlink };

ordered_json runRelay(const Options& options, TokenTap& tap, const RelayFloor& floor,
                      const OrinLinkProcess& orinlink, const std::string& token,
                      std::string_view model) {
  PathSamples direct, floored, relayed;
  const auto one = [&](RelayPath path, PathSamples* into) {
    const bool viaOrinlink = path == RelayPath::orinlink;
    const std::uint16_t port = viaOrinlink                ? orinlink.port()
                               : path == RelayPath::floor ? floor.port()
                                                          : tap.port();
    const std::string request =
        viaOrinlink
            ? orinlinkStreamRequest(orinlink.port(), token, std::string(model), std::string(prompt))
            : daemonStreamRequest(tap.port(), std::string(model), std::string(prompt));
    tap.arm();
    const StreamRecord record =
        fetchStream(port, request, viaOrinlink ? Framing::eventStream : Framing::ndjson);
    if (into != nullptr) collect(record, tap.marks(), options.tokens, *into);
  };
  const std::array<std::pair<RelayPath, PathSamples*>, 3> paths{{{RelayPath::direct, &direct},
                                                                 {RelayPath::floor, &floored},
                                                                 {RelayPath::orinlink, &relayed}}};
  for (std::size_t i = 0; i < options.warmup; ++i) {
    for (const auto& [path, samples] : paths)
      one(path, nullptr);
  }
  const std::string load = loadAverages();
  const auto started = Clock::now();
  for (std::size_t i = 0; i < options.requests; ++i) {
    // Rotating which goes first keeps any drift from favouring one path.
    for (std::size_t k = 0; k < paths.size(); ++k) {
      const auto& [path, samples] = paths[(i + k) % paths.size()];
      one(path, samples);
    }
  }
  ordered_json out;
  out["model"] = model;
  out["requestsPerPath"] = options.requests;
  out["tokensPerRequest"] = options.tokens;
  out["seconds"] = microseconds(Clock::now() - started) / 1e6;
  out["loadBefore"] = load;
  out["loadAfter"] = loadAverages();
  out["standIn"] = describe(direct);
  out["relayFloor"] = describe(floored);
  out["orinlink"] = describe(relayed);
  for (const auto& [key, name] :
       {std::pair{"firstTokenMicroseconds", "FirstToken"}, std::pair{"gapMicroseconds", "Gap"},
        std::pair{"relayMicroseconds", "Relay"}, std::pair{"streamMicroseconds", "Stream"}}) {
    out[std::string("added") + name + "Microseconds"] = added(out["standIn"], out["orinlink"], key);
    out[std::string("floorAdded") + name + "Microseconds"] =
        added(out["standIn"], out["relayFloor"], key);
  }
  return out;
}

// --- Concurrent streams -------------------------------------------------------------------------

struct Stream {
  orin::aibench::Socket socket;
  std::string request;
  std::size_t sent = 0;
  StreamDecoder decoder{Framing::eventStream};
  StreamRecord record;
  Clock::time_point finished{};
  bool over = false;
};

ordered_json runStreams(const Options& options, const OrinLinkProcess& orinlink,
                        const std::string& token) {
  std::vector<Stream> streams(options.streams);
  for (Stream& s : streams) {
    s.request =
        orinlinkStreamRequest(orinlink.port(), token, std::string(bulkModel), std::string(prompt));
  }
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll < 0) fail("epoll_create1 failed");
  const std::string load = loadAverages();
  const auto started = Clock::now();
  std::size_t open = 0;
  for (std::size_t i = 0; i < streams.size(); ++i) {
    Stream& s = streams[i];
    s.record.started = Clock::now();
    s.socket =
        orin::aibench::Socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    ::setsockopt(s.socket.fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(orinlink.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int connected =
        ::connect(s.socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (connected != 0 && errno != EINPROGRESS) {
      s.record.failure = "connect failed";
      s.over = true;
      continue;
    }
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT;
    event.data.u64 = i;
    ::epoll_ctl(epoll, EPOLL_CTL_ADD, s.socket.fd(), &event);
    ++open;
  }
  const auto deadline = started + seconds(300);
  std::array<epoll_event, 512> events{};
  std::array<char, 65536> buffer{};
  while (open > 0 && Clock::now() < deadline) {
    const int ready = ::epoll_wait(epoll, events.data(), static_cast<int>(events.size()), 1000);
    for (int e = 0; e < ready; ++e) {
      Stream& s = streams[events[static_cast<std::size_t>(e)].data.u64];
      const std::uint32_t what = events[static_cast<std::size_t>(e)].events;
      if (s.over) continue;
      if ((what & EPOLLOUT) != 0 && s.sent < s.request.size()) {
        const ssize_t n = ::send(s.socket.fd(), s.request.data() + s.sent,
                                 s.request.size() - s.sent, MSG_NOSIGNAL);
        if (n > 0) s.sent += static_cast<std::size_t>(n);
        if (s.sent == s.request.size()) {
          epoll_event event{};
          event.events = EPOLLIN;
          event.data.u64 = events[static_cast<std::size_t>(e)].data.u64;
          ::epoll_ctl(epoll, EPOLL_CTL_MOD, s.socket.fd(), &event);
        }
      }
      if ((what & (EPOLLIN | EPOLLHUP | EPOLLERR)) == 0) continue;
      bool closed = false;
      while (!s.decoder.finished()) {
        const ssize_t n = ::recv(s.socket.fd(), buffer.data(), buffer.size(), 0);
        if (n > 0) {
          s.decoder.feed({buffer.data(), static_cast<std::size_t>(n)}, Clock::now(), s.record);
          continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) break;
        closed = true;
        break;
      }
      if (s.decoder.finished() || closed) {
        s.finished = Clock::now();
        s.over = true;
        if (!s.record.done && s.record.failure.empty()) s.record.failure = "closed before the end";
        ::epoll_ctl(epoll, EPOLL_CTL_DEL, s.socket.fd(), nullptr);
        s.socket.close();
        --open;
      }
    }
  }
  const auto ended = Clock::now();
  ::close(epoll);

  std::size_t complete = 0, received = 0, missing = 0, outOfOrder = 0, duplicated = 0, failed = 0;
  std::vector<double> firstToken, duration;
  std::string lastFailure;
  for (Stream& s : streams) {
    received += s.record.tokens.size();
    std::vector<int> seen(options.streamTokens + 1, 0);
    bool inOrder = s.record.tokens.size() == options.streamTokens;
    for (std::size_t k = 0; k < s.record.tokens.size(); ++k) {
      const std::size_t n = tokenNumber(s.record.tokens[k].text);
      if (n != k + 1) {
        ++outOfOrder;
        inOrder = false;
      }
      if (n >= 1 && n <= options.streamTokens && seen[n]++ > 0) ++duplicated;
    }
    for (std::size_t n = 1; n <= options.streamTokens; ++n) {
      if (seen[n] == 0) ++missing;
    }
    if (!s.record.failure.empty()) {
      ++failed;
      lastFailure = s.record.failure;
    }
    if (s.record.done && s.record.failure.empty() && inOrder) ++complete;
    if (!s.record.tokens.empty()) {
      firstToken.push_back(microseconds(s.record.tokens.front().at - s.record.started) / 1000);
    }
    if (s.finished != Clock::time_point{}) {
      duration.push_back(microseconds(s.finished - s.record.started) / 1000);
    }
  }
  const double elapsed = microseconds(ended - started) / 1e6;
  ordered_json out;
  out["streams"] = options.streams;
  out["tokensPerStream"] = options.streamTokens;
  out["standInTokenRate"] = options.streamRate;
  out["completeAndInOrder"] = complete;
  out["failedStreams"] = failed;
  if (!lastFailure.empty()) out["lastFailure"] = lastFailure;
  out["tokensReceived"] = received;
  out["tokensMissing"] = missing;
  out["tokensOutOfOrder"] = outOfOrder;
  out["tokensDuplicated"] = duplicated;
  out["seconds"] = elapsed;
  out["tokensPerSecond"] = static_cast<double>(received) / elapsed;
  out["firstTokenMilliseconds"] = percentiles(firstToken).toJSON();
  out["streamMilliseconds"] = percentiles(duration).toJSON();
  out["loadBefore"] = load;
  out["loadAfter"] = loadAverages();
  return out;
}

ordered_json memoryJSON(pid_t pid) {
  const Memory memory = readMemory(pid);
  return {{"vmRSSKiB", memory.rssKiB},
          {"vmHWMKiB", memory.hwmKiB},
          {"threads", threadCount(pid)},
          {"openFiles", openFileCount(pid)}};
}

// --- Start-up time ------------------------------------------------------------------------------

ordered_json runStartup(const Options& options, const fs::path& work, const std::string& baseURL) {
  OrinLinkProcess prepared(options.orinlink, work,
                           {{"ollamaBaseURL", baseURL}, {"activeModel", bulkModel}});
  std::vector<double> times;
  double firstStart = 0;
  const std::string load = loadAverages();
  // The first start also creates the control secret and other first-run files; it is reported
  // on its own.
  for (std::size_t i = 0; i <= options.starts; ++i) {
    const std::uint16_t port = freeLoopbackPort();
    const auto started = Clock::now();
    ChildProcess child(prepared.command(port), work / "start.out", work / "start.err",
                       prepared.environment());
    std::optional<double> took;
    while (Clock::now() - started < seconds(20)) {
      if (connectLoopback(port, milliseconds(100)).valid()) {
        took = microseconds(Clock::now() - started) / 1000;
        break;
      }
      if (!child.running()) break;
      std::this_thread::sleep_for(milliseconds(1));
    }
    child.stop();
    if (!took) fail("orinlink did not accept connections after start " + std::to_string(i));
    if (i == 0) {
      firstStart = *took;
    } else {
      times.push_back(*took);
    }
  }
  ordered_json out;
  out["starts"] = times.size();
  out["firstRunMilliseconds"] = firstStart;
  out["medianMilliseconds"] = median(times);
  out["milliseconds"] = percentiles(times).toJSON();
  out["min"] = times.empty() ? 0 : times.front();
  out["loadBefore"] = load;
  out["loadAfter"] = loadAverages();
  return out;
}

// --- GET /health against nginx ------------------------------------------------------------------

struct Nginx {
  ChildProcess process;
  std::uint16_t port = 0;
};

Nginx startNginx(const Options& options, const fs::path& prefix, const std::string& workers,
                 const std::string& body) {
  fs::remove_all(prefix);
  fs::create_directories(prefix / "temp");
  const std::uint16_t port = freeLoopbackPort();
  const std::string p = fs::absolute(prefix).string();
  std::ofstream conf(prefix / "nginx.conf");
  conf << "# Generated by orin_ai_bench: a static 200 on loopback, one reply per connection.\n"
       << "daemon off;\nmaster_process on;\nworker_processes " << workers << ";\n"
       << "pid " << p << "/nginx.pid;\nerror_log " << p << "/error.log warn;\n"
       << "events { worker_connections 4096; }\n"
       << "http {\n  access_log off;\n"
       << "  client_body_temp_path " << p << "/temp/body;\n"
       << "  proxy_temp_path " << p << "/temp/proxy;\n"
       << "  fastcgi_temp_path " << p << "/temp/fastcgi;\n"
       << "  uwsgi_temp_path " << p << "/temp/uwsgi;\n"
       << "  scgi_temp_path " << p << "/temp/scgi;\n"
       << "  keepalive_timeout 0;\n"
       << "  server {\n    listen 127.0.0.1:" << port << ";\n"
       << "    location = /health {\n      default_type \"application/json; charset=utf-8\";\n"
       << "      return 200 '" << body << "';\n    }\n  }\n}\n";
  conf.close();
  Nginx nginx{
      ChildProcess({options.nginx, "-p", p, "-c", p + "/nginx.conf", "-e", p + "/error.log"},
                   prefix / "nginx.out", prefix / "nginx.err"),
      port};
  const auto deadline = Clock::now() + seconds(10);
  while (Clock::now() < deadline) {
    if (httpGet(port, "/health", milliseconds(500)).status == 200) return nginx;
    if (!nginx.process.running()) break;
    std::this_thread::sleep_for(milliseconds(10));
  }
  fail("nginx did not start: " + readTextFile(prefix / "error.log") +
       readTextFile(prefix / "nginx.err"));
}

// CPU time of a process and its direct children (nginx's workers), in seconds.
double cpuSecondsWithChildren(pid_t pid) {
  const auto fields = [](pid_t p) -> std::vector<std::string> {
    const std::string stat = readTextFile("/proc/" + std::to_string(p) + "/stat");
    const std::size_t close = stat.rfind(')');
    if (close == std::string::npos) return {};
    std::istringstream rest(stat.substr(close + 2));
    std::vector<std::string> out;
    std::string field;
    while (rest >> field)
      out.push_back(field);
    return out;  // out[0] is field 3 (state)
  };
  const double tick = static_cast<double>(::sysconf(_SC_CLK_TCK));
  const auto cpu = [&](const std::vector<std::string>& f) {
    return f.size() > 12 ? (std::stod(f[11]) + std::stod(f[12])) / tick : 0.0;
  };
  double total = cpu(fields(pid));
  std::error_code ec;
  for (auto it = fs::directory_iterator("/proc", ec); !ec && it != fs::directory_iterator();
       it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (name.empty() || !std::isdigit(static_cast<unsigned char>(name[0]))) continue;
    const auto f = fields(static_cast<pid_t>(std::stol(name)));
    if (f.size() > 1 && f[1] == std::to_string(pid)) total += cpu(f);
  }
  return total;
}

ordered_json runWrk(const Options& options, std::uint16_t port, pid_t server, const fs::path& work,
                    const std::string& name) {
  const fs::path out = work / ("wrk-" + name + ".out");
  const std::string load = loadAverages();
  const double cpuBefore = cpuSecondsWithChildren(server);
  ChildProcess wrk({options.wrk, "-t" + options.wrkThreads, "-c" + options.wrkConnections,
                    "-d" + options.wrkDuration, "-H", "Connection: close",
                    "http://127.0.0.1:" + std::to_string(port) + "/health"},
                   out, work / ("wrk-" + name + ".err"));
  if (!wrk.wait(seconds(120))) fail("wrk did not finish");
  const double cpu = cpuSecondsWithChildren(server) - cpuBefore;
  const std::string text = readTextFile(out);
  ordered_json result;
  result["loadBefore"] = load;
  const auto number = [&](std::string_view marker) -> std::optional<double> {
    const std::size_t at = text.find(marker);
    if (at == std::string::npos) return std::nullopt;
    return std::stod(text.substr(at + marker.size()));
  };
  result["requestsPerSecond"] = number("Requests/sec:").value_or(0);
  const std::size_t requestsAt = text.find(" requests in ");
  double requests = 0;
  if (requestsAt != std::string::npos) {
    const std::size_t lineStart = text.rfind('\n', requestsAt) + 1;
    requests = std::stod(text.substr(lineStart, requestsAt - lineStart));
  }
  result["requests"] = requests;
  result["serverCPUSeconds"] = cpu;
  result["serverCPUMicrosecondsPerRequest"] = requests > 0 ? cpu * 1e6 / requests : 0;
  result["non2xx"] = number("Non-2xx or 3xx responses:").value_or(0);
  const std::size_t errors = text.find("Socket errors:");
  result["socketErrors"] =
      errors == std::string::npos ? "" : text.substr(errors, text.find('\n', errors) - errors);
  const std::size_t latency = text.find("Latency");
  if (latency != std::string::npos) {
    std::istringstream line(text.substr(latency + 7));
    std::string average;
    line >> average;
    result["latencyAverage"] = average;
  }
  if (!readTextFile(work / ("wrk-" + name + ".err")).empty()) {
    result["wrkErrors"] = readTextFile(work / ("wrk-" + name + ".err"));
  }
  return result;
}

ordered_json runHTTP(const Options& options, const std::string& baseURL, const fs::path& work) {
  fs::create_directories(work);
  const nlohmann::json settings{{"ollamaBaseURL", baseURL}, {"activeModel", bulkModel}};
  std::string body;
  {
    OrinLinkProcess probe(options.orinlink, work / "orinlink-probe", settings);
    probe.start();
    const PlainReply health = httpGet(probe.port(), "/health");
    if (health.status != 200) fail("orinlink's /health did not answer 200");
    body = health.body;
    probe.stop();
  }
  // nginx answers with the very bytes orinlink sends.
  Nginx one = startNginx(options, work / "nginx-1", "1", body);
  Nginx automatic = startNginx(options, work / "nginx-auto", "auto", body);
  struct Target {
    std::string name;
    std::vector<double> rates;
    std::vector<double> cpuPerRequest;
    ordered_json runs = ordered_json::array();
  };
  std::vector<Target> targets{
      {"orinlink", {}, {}}, {"nginx-1-worker", {}, {}}, {"nginx-auto-workers", {}, {}}};
  std::size_t orinlinkCrashes = 0;
  for (std::size_t r = 0; r < options.repetitions; ++r) {
    // Interleaved, so a change of machine load falls on every target alike.
    for (Target& target : targets) {
      std::this_thread::sleep_for(seconds(2));
      const std::string runName = target.name + "-" + std::to_string(r + 1);
      ordered_json run;
      if (target.name == "orinlink") {
        // A fresh process per run: one that died at the end of a run must not spoil the next.
        OrinLinkProcess orinlink(options.orinlink, work / runName, settings);
        orinlink.start();
        std::this_thread::sleep_for(seconds(1));
        run = runWrk(options, orinlink.port(), orinlink.pid(), work, runName);
        std::this_thread::sleep_for(milliseconds(500));
        const bool survived = orinlink.running();
        run["serverSurvived"] = survived;
        if (!survived) {
          ++orinlinkCrashes;
          const int status = orinlink.stop();
          run["serverExit"] = WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                                  : "exit " + std::to_string(WEXITSTATUS(status));
        } else {
          run["healthAfterwards"] = httpGet(orinlink.port(), "/health").status;
          orinlink.stop();
        }
      } else {
        const Nginx& nginx = target.name == "nginx-1-worker" ? one : automatic;
        run = runWrk(options, nginx.port, nginx.process.pid(), work, runName);
      }
      target.rates.push_back(run["requestsPerSecond"].get<double>());
      target.cpuPerRequest.push_back(run["serverCPUMicrosecondsPerRequest"].get<double>());
      target.runs.push_back(std::move(run));
    }
  }
  ordered_json out;
  out["wrk"] = "-t" + options.wrkThreads + " -c" + options.wrkConnections + " -d" +
               options.wrkDuration + " -H 'Connection: close'";
  out["body"] = body;
  for (Target& target : targets) {
    out[target.name] = {{"medianRequestsPerSecond", median(target.rates)},
                        {"medianCPUMicrosecondsPerRequest", median(target.cpuPerRequest)},
                        {"runs", target.runs}};
  }
  out["orinlinkRunsEndingInACrash"] = orinlinkCrashes;
  one.process.stop();
  automatic.process.stop();
  return out;
}

// --- Summary ------------------------------------------------------------------------------------

// Each figure beside its goal; ratio = measured / goal (at most 1 passes for the latencies, at
// least 1 for the throughput ratio).
ordered_json goals(const ordered_json& r) {
  ordered_json out = ordered_json::array();
  const auto add = [&](std::string name, double measured, double goal, bool atMost) {
    out.push_back({{"goal", std::move(name)},
                   {"measured", measured},
                   {"target", goal},
                   {"ratio", goal != 0 ? measured / goal : 0},
                   {"met", atMost ? measured <= goal : measured >= goal}});
  };
  if (r.contains("relay")) {
    for (const char* variant : {"paced", "fast"}) {
      if (!r["relay"].contains(variant)) continue;
      const auto& v = r["relay"][variant];
      add(std::string("first token p99 added, µs (") + variant + ")",
          v["addedFirstTokenMicroseconds"]["p99"].get<double>(), 1000, true);
      add(std::string("per-token relay p99 added, µs (") + variant + ")",
          v["addedRelayMicroseconds"]["p99"].get<double>(), 100, true);
      add(std::string("  the same through the relay floor, µs (") + variant + ")",
          v["floorAddedRelayMicroseconds"]["p99"].get<double>(), 100, true);
    }
  }
  if (r.contains("streams")) {
    const auto& s = r["streams"];
    add("tokens lost, out of order or duplicated in the concurrent streams",
        s["tokensMissing"].get<double>() + s["tokensOutOfOrder"].get<double>() +
            s["tokensDuplicated"].get<double>(),
        0, true);
  }
  if (r.contains("http")) {
    const auto& h = r["http"];
    const double n1 = h["nginx-1-worker"]["medianRequestsPerSecond"].get<double>();
    add("GET /health requests/s, orinlink / nginx (1 worker)",
        n1 > 0 ? h["orinlink"]["medianRequestsPerSecond"].get<double>() / n1 : 0, 1, false);
  }
  return out;
}

void printSummary(const ordered_json& r) {
  std::printf("\n%-46s %12s %12s %12s %12s %12s\n", "AI service (loopback)", "stand-in", "floor",
              "orinlink", "floor added", "added");
  for (const char* variant : {"paced", "fast"}) {
    if (!r.contains("relay") || !r["relay"].contains(variant)) continue;
    const auto& v = r["relay"][variant];
    const std::string label = std::string(variant) + " (" + v["model"].get<std::string>() + ")";
    for (const auto& [key, name] :
         std::vector<std::pair<const char*, const char*>>{{"firstTokenMicroseconds", "first token"},
                                                          {"relayMicroseconds", "token relay"},
                                                          {"gapMicroseconds", "token gap"}}) {
      for (const char* p : {"p50", "p99"}) {
        const double a = v["standIn"][key][p].get<double>();
        const double f = v["relayFloor"][key][p].get<double>();
        const double b = v["orinlink"][key][p].get<double>();
        std::printf("%-46s %9.1f µs %9.1f µs %9.1f µs %9.1f µs %9.1f µs\n",
                    (label + " " + name + " " + p).c_str(), a, f, b, f - a, b - a);
      }
    }
    const auto wrong = [&v](const char* path) {
      return v[path]["failures"].get<std::size_t>() + v[path]["wrongTokens"].get<std::size_t>();
    };
    std::printf("%-46s %12zu %12zu %12zu\n", (label + " failed or wrong streams").c_str(),
                wrong("standIn"), wrong("relayFloor"), wrong("orinlink"));
  }
  if (r.contains("streams")) {
    const auto& s = r["streams"];
    std::printf(
        "\n%zu streams x %zu tokens: %zu complete and in order, %zu missing, %zu out of "
        "order, %.2f s, %.0f tokens/s\n",
        s["streams"].get<std::size_t>(), s["tokensPerStream"].get<std::size_t>(),
        s["completeAndInOrder"].get<std::size_t>(), s["tokensMissing"].get<std::size_t>(),
        s["tokensOutOfOrder"].get<std::size_t>(), s["seconds"].get<double>(),
        s["tokensPerSecond"].get<double>());
  }
  if (r.contains("memory")) {
    for (const auto& [when, m] : r["memory"].items()) {
      std::printf("memory (%s): VmRSS %ld KiB, VmHWM %ld KiB, %d threads\n", when.c_str(),
                  m["vmRSSKiB"].get<long>(), m["vmHWMKiB"].get<long>(), m["threads"].get<int>());
    }
  }
  if (r.contains("startup")) {
    std::printf("exec to accepting connections: median %.2f ms of %zu starts\n",
                r["startup"]["medianMilliseconds"].get<double>(),
                r["startup"]["starts"].get<std::size_t>());
  }
  if (r.contains("http")) {
    const auto& h = r["http"];
    const double o = h["orinlink"]["medianRequestsPerSecond"].get<double>();
    const double n1 = h["nginx-1-worker"]["medianRequestsPerSecond"].get<double>();
    const double na = h["nginx-auto-workers"]["medianRequestsPerSecond"].get<double>();
    std::printf(
        "GET /health (%s): orinlink %.0f/s, nginx 1 worker %.0f/s, nginx auto %.0f/s; "
        "orinlink/nginx(1) = %.2f\n",
        h["wrk"].get<std::string>().c_str(), o, n1, na, n1 > 0 ? o / n1 : 0);
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Measures orinlink's AI service on loopback against the stand-in and nginx"};
  Options o;
  app.add_option("--orinlink", o.orinlink, "orinlink executable")->capture_default_str();
  app.add_option("--relay-floor", o.relayFloor, "orin_relay_floor executable")
      ->capture_default_str();
  app.add_option("--work-dir", o.workDirectory, "Scratch directory (replaced)")
      ->capture_default_str();
  app.add_option("--out", o.out, "JSON results file")->capture_default_str();
  app.add_option("--faults-results", o.faultsResults, "orin_ai_faults results to include");
  app.add_option("--nginx", o.nginx, "nginx executable")->capture_default_str();
  app.add_option("--wrk", o.wrk, "wrk executable")->capture_default_str();
  app.add_option("--sections", o.sections, "Any of: relay streams startup http")
      ->capture_default_str();
  app.add_option("--requests", o.requests, "Requests per path and rate")->capture_default_str();
  app.add_option("--tokens", o.tokens, "Tokens per relay request")->capture_default_str();
  app.add_option("--rate", o.rate, "Paced token rate (tokens/s)")->capture_default_str();
  app.add_option("--streams", o.streams, "Concurrent streams")->capture_default_str();
  app.add_option("--stream-tokens", o.streamTokens, "Tokens per concurrent stream")
      ->capture_default_str();
  app.add_option("--stream-rate", o.streamRate,
                 "Token rate of the concurrent streams (0: flat out)")
      ->capture_default_str();
  app.add_option("--starts", o.starts, "Measured starts")->capture_default_str();
  app.add_option("--wrk-duration", o.wrkDuration, "wrk -d")->capture_default_str();
  app.add_option("--wrk-connections", o.wrkConnections, "wrk -c")->capture_default_str();
  app.add_option("--wrk-threads", o.wrkThreads, "wrk -t")->capture_default_str();
  app.add_option("--repetitions", o.repetitions, "wrk runs per target")->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  if (o.tokens > 9999 || o.streamTokens > 9999) {
    std::cerr << "orin_ai_bench: at most 9999 tokens per stream\n";
    return 2;
  }

  try {
    const fs::path work = fs::absolute(o.workDirectory);
    fs::remove_all(work);
    fs::create_directories(work);
    ordered_json results;
    results["date"] = today();
    results["machine"] = machineDescription();
    results["loadAtStart"] = loadNow();

    nlohmann::json config;
    config["models"] = {
        {{"name", pacedModel}, {"reply", numberedWords(o.tokens)}, {"token_rate", o.rate}},
        {{"name", fastModel}, {"reply", numberedWords(o.tokens)}, {"token_rate", 0}},
        {{"name", bulkModel},
         {"reply", numberedWords(o.streamTokens)},
         {"token_rate", o.streamRate}}};
    auto standIn = orin::testing_support::StandInProcess::withConfig(config);

    if (wants(o, "relay")) {
      TokenTap tap(standIn.port(), std::max(o.tokens, o.streamTokens));
      const RelayFloor floor(o.relayFloor, tap.port(), work / "relay");
      OrinLinkProcess orinlink(o.orinlink, work / "relay",
                               {{"ollamaBaseURL", "http://127.0.0.1:" + std::to_string(tap.port())},
                                {"activeModel", pacedModel}});
      orinlink.start();
      const std::string token = orinlink.pairDevice("bench-relay", "Relay bench");
      std::cout << "relay: " << o.requests << " requests per path at " << o.rate << " tokens/s…"
                << std::endl;
      results["relay"]["paced"] = runRelay(o, tap, floor, orinlink, token, pacedModel);
      std::cout << "relay: " << o.requests << " requests per path at full speed…" << std::endl;
      results["relay"]["fast"] = runRelay(o, tap, floor, orinlink, token, fastModel);
      results["relay"]["paced"]["rate"] = o.rate;
      results["relay"]["fast"]["rate"] = 0;
      orinlink.stop();
    }

    if (wants(o, "streams")) {
      OrinLinkProcess orinlink(o.orinlink, work / "streams",
                               {{"ollamaBaseURL", standIn.baseURL()}, {"activeModel", bulkModel}});
      orinlink.start();
      // Start-up work (the model warm-up, the endpoint scan) settles before the reading.
      std::this_thread::sleep_for(seconds(2));
      results["memory"]["idle"] = memoryJSON(orinlink.pid());
      if (wants(o, "streams")) {
        const std::string token = orinlink.pairDevice("bench-streams", "Stream bench");
        std::cout << "streams: " << o.streams << " x " << o.streamTokens << " tokens…" << std::endl;
        results["streams"] = runStreams(o, orinlink, token);
        // Closed connections linger for at most a second.
        std::this_thread::sleep_for(seconds(2));
        results["memory"]["afterStreams"] = memoryJSON(orinlink.pid());
        results["streams"]["standInActiveAfterwards"] = standIn.stats()["active_generations"];
      }
      orinlink.stop();
    }
    if (wants(o, "http")) {
      std::cout << "http: wrk against orinlink and nginx…" << std::endl;
      results["http"] = runHTTP(o, standIn.baseURL(), work / "http");
    }

    if (wants(o, "startup")) {
      std::cout << "startup: " << o.starts << " starts…" << std::endl;
      results["startup"] = runStartup(o, work / "startup", standIn.baseURL());
    }

    if (!o.faultsResults.empty() && fs::exists(o.faultsResults)) {
      results["faults"] = nlohmann::json::parse(readTextFile(o.faultsResults));
    }
    results["loadAtEnd"] = loadNow();
    results["goals"] = goals(results);
    fs::create_directories(fs::absolute(o.out).parent_path());
    std::ofstream(o.out) << results.dump(2) << '\n';
    printSummary(results);
    std::printf("\n%-70s %12s %8s %8s\n", "goal", "measured", "target", "met");
    for (const auto& g : results["goals"]) {
      std::printf("%-70s %12.2f %8.0f %8s\n", g["goal"].get<std::string>().c_str(),
                  g["measured"].get<double>(), g["target"].get<double>(),
                  g["met"].get<bool>() ? "yes" : "no");
    }
    std::cout << "\nload average at start " << results["loadAtStart"].get<std::string>()
              << ", at end " << results["loadAtEnd"].get<std::string>() << "\nresults: " << o.out
              << std::endl;
  } catch (const std::exception& error) {
    std::cerr << "orin_ai_bench: " << error.what() << '\n';
    return 1;
  }
  return 0;
}
