// Test double of sing-box (sing-box.exe on Windows). The test picks its
// behaviour: in run mode through the configuration file the helper wrote (the
// request body), in tools mode through the node tag. Records go to the
// records directory (fake_sing_box.h): C:\OrvelTest on Windows, because the
// helper may run as a service that does not get the test's environment.
//
// sing-box run -c FILE
//   "x-test-double":"..."   behaviour
//   (absent)                 serve the controller if configured, stay up
//   "fatal3"                 three coloured FATAL lines ("\n" ends), exit 1
//   "silent"                 no output, exit 1
//   "die-after-N"            as absent for N ms, then exit 1 (N decimal)
//   "exit3-after-N"          two lines on stderr at once, exit 3 after N ms
//   "ignore-term"            as absent, but deaf to SIGTERM (Linux)
//   "relay-N"                as absent, and relays every connection to
//                            127.0.0.1:N on to the helper's port, as the real
//                            core's mixed inbound does for a CONNECT
// Every run first records its invocation (DescribeInvocation) in
// core-run.txt, whatever the behaviour.
//
// sing-box --disable-color -c FILE tools -o TAG fetch URL
//   Tokens anywhere in TAG, so that one test gives every node its own
//   behaviour (e.g. "hk-01-delay-200", "東京-exit-2"):
//   delay-N    answer after N ms: a small body on stdout, exit 0
//   exit-N     a FATAL line on stderr like a failed fetch, exit N
//   hang       does not end by itself within any test (see kLongestLifeMs)
//   flood-N    write N bytes to stdout (more than a pipe holds blocks), then exit 0
//   (none)     answer at once, exit 0
// Every fetch leaves fetch/<pid>-<counter>.txt: "key=value" lines
// (pid, startTick, tag, url, config, the invocation), then configText= and
// the configuration's bytes to the end of the file.
//
// The controller, as the real core serves it on
// experimental.clash_api.external_controller, configured through an object
// the real core never sees in these tests:
//   "x-test-controller":{"mode":"silent","up":-7,"down":12,
//                      "uploadTotal":123,"downloadTotal":456,"tick":1000}
// Every figure is echoed exactly as written; the first of each name after
// the marker counts. The modes:
//   "stream" (default)   "/traffic" is the real core's endless chunked stream,
//                        one sample per "tick" ms; other paths get one
//                        document with its length, then the close
//   "silent"             no answer, the connection held until the client closes
// A "secret" in the configuration is asked for as the real core asks for it
// ("Authorization: Bearer <secret>"), else 401.
#include "doubles/fake_sing_box.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace fake {

namespace {

// What "stay up" and "hang" mean: longer than any case waits for them, short
// enough that a core a faulty helper left behind does not outlive the run.
constexpr unsigned long kLongestLifeMs = 300000;

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(std::filesystem::u8path(path), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string ArgumentAfter(const std::vector<std::string>& args, const char* name) {
  for (std::size_t i = 0; i + 1 < args.size(); ++i)
    if (args[i] == name) return args[i + 1];
  return {};
}

// Command line, working directory and the three core variables.
std::string DescribeInvocation() {
  std::string text = "commandLine=" + CommandLine() + "\nworkingDirectory=" + CurrentDirectory();
  for (const char* name :
       {"ENABLE_DEPRECATED_LEGACY_DNS_SERVERS", "ENABLE_DEPRECATED_OUTBOUND_DNS_RULE_ITEM",
        "ENABLE_DEPRECATED_MISSING_DOMAIN_RESOLVER"})
    text.append("\n").append(name).append("=").append(Variable(name));
  return text + "\n";
}

// The number after `token` in `text`, or -1 when the token is absent.
long NumberAfter(const std::string& text, const std::string& token) {
  const std::size_t at = text.find(token);
  return at == std::string::npos ? -1 : std::strtol(text.c_str() + at + token.size(), nullptr, 10);
}

// Accepts connections on `listener` for ever, each served on a thread of its own.
template <typename Handler>
void ServeForever(Socket listener, Handler handle) {
  if (listener == kNoSocket) return;
  std::thread([listener, handle] {
    for (;;) {
      const Socket client = Accept(listener);
      if (client != kNoSocket) std::thread(handle, client).detach();
    }
  }).detach();
}

// --- The controller ----------------------------------------------------------

// The value after "key": at or after `from`, without quotes and up to the
// next comma, brace or quote; `fallback` when absent or empty.
std::string ValueAfter(const std::string& text, const std::string& key, std::size_t from,
                       const std::string& fallback) {
  std::size_t at = text.find("\"" + key + "\":", from);
  if (at == std::string::npos) return fallback;
  at = text.find_first_not_of(" \"", at + key.size() + 3);
  const std::size_t end = text.find_first_of(",}\"", at);
  return at == std::string::npos || end == at ? fallback : text.substr(at, end - at);
}

using ControllerPlan = std::map<std::string, std::string>;

void Serve(Socket client, ControllerPlan plan) {
  std::string request;
  char chunk[4096];
  for (long got; request.find("\r\n\r\n") == std::string::npos &&
                 (got = Receive(client, chunk, sizeof(chunk))) > 0;)
    request.append(chunk, static_cast<std::size_t>(got));
  const std::size_t pathStart = request.find(' ') + 1;
  const std::string path = request.substr(pathStart, request.find(' ', pathStart) - pathStart);
  const std::string& mode = plan["mode"];
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nVary: Origin\r\n";
  const std::string document =
      path == "/traffic" ? "{\"up\":" + plan["up"] + ",\"down\":" + plan["down"] + "}\n"
                         : "{\"connections\":[],\"downloadTotal\":" + plan["downloadTotal"] +
                               ",\"memory\":8388608,\"uploadTotal\":" + plan["uploadTotal"] + "}\n";
  if (!plan["secret"].empty() &&
      request.find("\r\nAuthorization: Bearer " + plan["secret"] + "\r\n") == std::string::npos) {
    SendText(client,
             "HTTP/1.1 401 Unauthorized\r\nContent-Length: 27\r\n\r\n"
             "{\"message\":\"Unauthorized\"}\n");
  } else if (mode == "stream" && path == "/traffic") {
    // The real core writes nothing, not even the status line, before its
    // first tick; the stream never ends by itself.
    char size[16];
    std::snprintf(size, sizeof(size), "%zx\r\n", document.size());
    for (std::string bytes = head + "Transfer-Encoding: chunked\r\n\r\n";; bytes.clear()) {
      SleepMs(std::strtoul(plan["tick"].c_str(), nullptr, 10));
      if (!SendText(client, bytes + size + document + "\r\n")) break;
    }
  } else if (mode != "silent") {
    SendText(client,
             head + "Content-Length: " + std::to_string(document.size()) + "\r\n\r\n" + document);
  } else {
    while (Receive(client, chunk, sizeof(chunk)) > 0) {  // held until the client closes it
    }
  }
  CloseSocket(client);
}

// Serves the controller that the configuration names, on background threads;
// nothing when it names none (no test needs the core's refusal to start).
void StartControllerIfConfigured(const std::string& config) {
  const std::string address = ValueAfter(config, "external_controller", 0, "");
  const std::size_t colon = address.rfind(':');
  if (colon == std::string::npos) return;
  ControllerPlan plan{{"mode", "stream"},     {"up", "0"},     {"down", "0"}, {"uploadTotal", "0"},
                      {"downloadTotal", "0"}, {"tick", "1000"}};
  const std::size_t marker = config.find("\"x-test-controller\"");
  for (auto& [key, value] : plan)
    if (marker != std::string::npos) value = ValueAfter(config, key, marker, value);
  plan["secret"] = ValueAfter(config, "secret", 0, "");
  const auto port = static_cast<unsigned short>(std::atoi(address.c_str() + colon + 1));
  ServeForever(OpenTcp(address.substr(0, colon), port, true),
               [plan](Socket client) { Serve(client, plan); });
}

// Copies one direction until its sender ends it, then passes the end on.
void Pump(Socket from, Socket to) {
  char chunk[4096];
  for (long got; (got = Receive(from, chunk, sizeof(chunk))) > 0;)
    if (!SendText(to, std::string(chunk, static_cast<std::size_t>(got)))) break;
  ShutdownSend(to);
}

void Relay(Socket client) {
  const Socket helper = OpenTcp("127.0.0.1", 17891, false);
  if (helper != kNoSocket) {
    std::thread up(Pump, client, helper);
    Pump(helper, client);
    up.join();
    CloseSocket(helper);
  }
  CloseSocket(client);
}

// --- sing-box run -c FILE ----------------------------------------------------

int RunCoreMode(const std::vector<std::string>& args) {
  std::ofstream(RecordsDirectory() / "core-run.txt", std::ios::binary) << DescribeInvocation();
  const std::string config = ReadWholeFile(ArgumentAfter(args, "-c"));
  const std::string behaviour = ValueAfter(config, "x-test-double", 0, "");
  if (behaviour == "fatal3") {
    // What a configuration with an unknown member gets, in the colour-wrapped
    // form the real core writes even into a pipe.
    std::string text;
    for (const char* line :
         {"[0000] decode config: json: unknown field \"x-test-double\"",
          "[0000] start service: start inbound/mixed[mixed-in]: listen tcp 127.0.0.1:2080",
          "[0000] exit status 1"})
      text += "\x1b[31mFATAL\x1b[0m" + std::string(line) + "\n";
    WriteStderr(text);
    return 1;
  }
  if (behaviour == "silent") return 1;
  if (behaviour.starts_with("exit3-after-")) {
    WriteStderr("FATAL[0001] out of memory\nFATAL[0001] runtime: cannot allocate\n");
    SleepMs(NumberAfter(behaviour, "after-"));
    return 3;
  }
  StartControllerIfConfigured(config);
  if (behaviour.starts_with("relay-"))
    ServeForever(OpenTcp("127.0.0.1", NumberAfter(behaviour, "relay-"), true), Relay);
  StayingUp(behaviour != "ignore-term");
  const long dieAfter = NumberAfter(behaviour, "die-after-");
  SleepMs(dieAfter >= 0 ? dieAfter : kLongestLifeMs);
  return dieAfter >= 0 ? 1 : 0;
}

// --- sing-box --disable-color -c FILE tools -o TAG fetch URL -----------------

int RunToolsMode(const std::vector<std::string>& args) {
  const std::string configPath = ArgumentAfter(args, "-c"), tag = ArgumentAfter(args, "-o"),
                    url = ArgumentAfter(args, "fetch");
  // Named by process id and a steady clock: an id is reused only after its
  // process has ended, and the clock has long moved on by then.
  const std::filesystem::path records = RecordsDirectory() / "fetch";
  std::error_code ignored;
  std::filesystem::create_directories(records, ignored);
  const std::string pid = ProcessId();
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  const auto tick = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
  std::ofstream(records / (pid + "-" + std::to_string(now.count()) + ".txt"), std::ios::binary)
      << "pid=" + pid + "\nstartTick=" + std::to_string(tick) + "\ntag=" + tag + "\nurl=" + url +
             "\nconfig=" + configPath + "\n" + DescribeInvocation() +
             "configText=" + ReadWholeFile(configPath);
  if (tag.find("hang") != std::string::npos) SleepMs(kLongestLifeMs);
  SleepMs(std::max(0L, NumberAfter(tag, "delay-")));
  const long flood = NumberAfter(tag, "flood-"), exitWith = NumberAfter(tag, "exit-");
  if (exitWith >= 0 && flood <= 0) {
    WriteStderr("FATAL[0000] Get \"" + url + "\": outbound not found: " + tag + "\n");
    return static_cast<int>(exitWith);
  }
  WriteStdout(flood > 0 ? std::string(static_cast<std::size_t>(flood), 'x') : "<html>ok</html>\n");
  return 0;
}

}  // namespace

int RunFakeCore(const std::vector<std::string>& args) {
  for (const std::string& arg : args) {
    if (arg == "run") return RunCoreMode(args);
    if (arg == "tools") return RunToolsMode(args);
  }
  WriteStderr("FATAL[0000] unknown command\n");
  return 1;
}

}  // namespace fake
