#include "orvelctl/orvelctl.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <string_view>
#include <thread>

#include "client/answer_text.h"
#include "client/helper_client.h"
#include "client/urltest_request.h"
#include "orvelctl/console_text.h"
#include "orvelctl/terminal.h"
#include "version.h"

namespace orvel::orvelctl {

namespace {

using client::ClientAddress;
using client::ExchangeResult;
using client::HttpAnswer;

constexpr std::string_view kDefaultTestUrl = "https://www.gstatic.com/generate_204";
// How long a stream may stay silent. A node's test ends within 3 s, so a
// helper that says nothing for this long is not running the test any more.
constexpr int kStreamSilenceMs = 30000;
// After a cancel the helper ends the running test processes at once; a
// process it started a moment before the cancel ends within its 3 s limit.
constexpr int kCancelWaitMs = 10000;
constexpr int kStepMs = 200;
constexpr std::size_t kSparklineSamples = 60;

constexpr std::string_view kUsage = R"(usage: orvelctl [--address HOST:PORT] COMMAND [options]

Drives OrvelVpnHelper over its local HTTP API.

commands:
  status                     is a core running?
  start CONFIG [--tun]       start the VPN with the sing-box configuration CONFIG
  stop                       stop the VPN and put the user's proxy settings back
  ping                       does the helper answer?
  logs [--follow]            the helper's log
  snapshot [--watch] [--json]
                             traffic rates and totals, endpoints by process
  urltest CONFIG [--url URL] [--tag TAG]... [--json]
                             latency of the configuration's proxy nodes

options:
  --address HOST:PORT        where the helper listens (default 127.0.0.1:17891)
  --version                  print the version
  --help                     this text; COMMAND --help for one command

exit codes:
  0    done; status and start: "connected"
  1    status and start: the helper answered "disconnected"
  2    wrong command line
  3    no helper answers on the address
  4    the configuration cannot be read or is not JSON
  5    urltest: the configuration has no proxy outbounds
  6    the helper refused the request (HTTP 403)
  7    an answer the helper does not give (other status, broken, cut short)
  8    another account's program (not root's, not yours) listens on the
       address, or its owner cannot be told; nothing was sent
  130  interrupted (Ctrl-C)
)";

struct Options {
  std::string command;
  std::vector<std::string> positionals;
  std::vector<std::string> flags;  // as given, for the per-command check
  std::vector<std::string> tags;
  std::string url{kDefaultTestUrl};
  std::string address{client::kDefaultAddress};
  bool tun = false, follow = false, watch = false, json = false;
  bool help = false, version = false;
};

void Out(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

int Fail(int code, std::string_view message) {
  std::string line = "orvelctl: ";
  line.append(message).append("\n");
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
  return code;
}

// Up to 120 bytes of an answer, control bytes shown as \xNN.
std::string QuoteExcerpt(std::string_view text) {
  std::string out = EscapeForTerminal(text.substr(0, 120), false);
  if (text.size() > 120) out += "...";
  return out.empty() ? "(empty)" : "\"" + out + "\"";
}

int FailNoHelper(const ClientAddress& address) {
  return Fail(kExitNoHelper,
              "no helper answers on " + address.text + " — is OrvelVpnHelper running?");
}

int FailUnexpected(const ClientAddress& address, std::string_view request, std::string_view what) {
  return Fail(kExitUnexpected, "unexpected answer from " + address.text + " to " +
                                   std::string(request) + ": " + std::string(what));
}

// kExitOk for a whole 200 answer; otherwise the message and the exit code.
int CheckAnswer(ExchangeResult result, const HttpAnswer& answer, const ClientAddress& address,
                std::string_view request) {
  if (result == ExchangeResult::kNoHelper) return FailNoHelper(address);
  if (result == ExchangeResult::kStrangerHolder) {
    return Fail(kExitPortTaken, address.text + " is held by uid " +
                                    std::to_string(answer.strangerUid) +
                                    ", not by the helper or the service; nothing was sent");
  }
  if (result == ExchangeResult::kUnknownHolder) {
    return Fail(kExitPortTaken, "cannot tell who listens on " + address.text +
                                    " (the kernel's socket table could not be read); "
                                    "nothing was sent");
  }
  if (result == ExchangeResult::kBrokenAnswer) {
    return FailUnexpected(address, request, "no complete HTTP answer");
  }
  if (answer.status == 403) {
    return Fail(kExitRefused, "the helper on " + address.text + " refused " + std::string(request) +
                                  " (403 " + EscapeForTerminal(answer.reason, false) + ")");
  }
  if (answer.status != 200) {
    return FailUnexpected(
        address, request,
        "HTTP " + std::to_string(answer.status) + " " + EscapeForTerminal(answer.reason, false));
  }
  return kExitOk;
}

int Request(const ClientAddress& address, std::string_view method, std::string_view path,
            std::string_view body, HttpAnswer& answer) {
  const std::string request = std::string(method) + " " + std::string(path);
  return CheckAnswer(client::Exchange(address, method, path, body, answer), answer, address,
                     request);
}

// Sleeps `ms` in short steps; true when Ctrl-C came meanwhile.
bool WaitOrInterrupt(int ms) {
  for (int waited = 0; waited < ms; waited += 50) {
    if (InterruptRequested()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(std::min(50, ms - waited)));
  }
  return InterruptRequested();
}

int ReadConfig(const std::string& path, std::string& config) {
  std::string error;
  if (!ReadFileBytes(path, config, error)) {
    return Fail(kExitBadConfig, "cannot read the configuration " + path + ": " + error);
  }
  return kExitOk;
}

int FailNotJson(const std::string& path, const std::string& error) {
  return Fail(kExitBadConfig, path + " is not JSON: " + error);
}

// status, start and stop: one status document, printed as "status: message".
int RunStatusRequest(const ClientAddress& address, std::string_view method, std::string_view path,
                     std::string_view body, bool disconnectedIsDone) {
  HttpAnswer answer;
  if (const int code = Request(address, method, path, body, answer); code != kExitOk) return code;
  client::StatusAnswer status;
  if (!client::ParseStatusBody(answer.body, status) ||
      (status.status != "connected" && status.status != "disconnected")) {
    return FailUnexpected(address, std::string(method) + " " + std::string(path),
                          QuoteExcerpt(answer.body));
  }
  Out(status.status + ": " + EscapeForTerminal(status.message, false) + "\n");
  if (status.status == "connected" || disconnectedIsDone) return kExitOk;
  return kExitDisconnected;
}

int RunStatus(const ClientAddress& address, const Options&) {
  return RunStatusRequest(address, "GET", "/status", "", false);
}

// The helper always answers "disconnected" to a stop: that is success.
int RunStop(const ClientAddress& address, const Options&) {
  return RunStatusRequest(address, "POST", "/stop", "", true);
}

int RunPing(const ClientAddress& address, const Options&) {
  HttpAnswer answer;
  if (const int code = Request(address, "GET", "/ping", "", answer); code != kExitOk) return code;
  if (answer.body != "pong") return FailUnexpected(address, "GET /ping", QuoteExcerpt(answer.body));
  Out("pong\n");
  return kExitOk;
}

int RunStart(const ClientAddress& address, const Options& options) {
  std::string config;
  if (const int code = ReadConfig(options.positionals[0], config); code != kExitOk) return code;
  std::string error;
  if (client::CheckConfigJson(config, error) != client::ConfigCheck::kGood) {
    return FailNotJson(options.positionals[0], error);
  }
  return RunStatusRequest(address, "POST", options.tun ? "/start-tun" : "/start", config, false);
}

int RunLogs(const ClientAddress& address, const Options& options) {
  std::string previous;
  for (;;) {
    HttpAnswer answer;
    if (const int code = Request(address, "GET", "/logs", "", answer); code != kExitOk) {
      return code;
    }
    if (!options.follow) {
      Out(EscapeForTerminal(answer.body, true));
      return kExitOk;
    }
    Out(EscapeForTerminal(NewLogText(previous, answer.body), true));
    previous = std::move(answer.body);
    if (WaitOrInterrupt(1000)) return kExitInterrupted;
  }
}

void PushSample(std::deque<std::int64_t>& samples, std::int64_t value) {
  samples.push_back(value);
  if (samples.size() > kSparklineSamples) samples.pop_front();
}

int RunSnapshot(const ClientAddress& address, const Options& options) {
  const bool terminal = StdoutIsTerminal();
  std::deque<std::int64_t> ups, downs;
  std::size_t drawnLines = 0;
  for (;;) {
    const auto started = std::chrono::steady_clock::now();
    HttpAnswer answer;
    if (const int code = Request(address, "GET", "/traffic-snapshot", "", answer);
        code != kExitOk) {
      return code;
    }
    SnapshotView view;
    if (!ParseSnapshot(answer.body, view)) {
      return FailUnexpected(address, "GET /traffic-snapshot", QuoteExcerpt(answer.body));
    }
    if (options.json) {
      Out(EscapeForTerminal(answer.body, false) + "\n");
    } else if (!options.watch) {
      Out(FormatSnapshot(view));
    } else if (!terminal) {
      Out(FormatSnapshotLine(view));
    } else {
      PushSample(ups, view.upRate);
      PushSample(downs, view.downRate);
      std::string text = FormatSnapshot(view);
      text += "last minute  up   " + Sparkline(ups) + "\n";
      text += "             down " + Sparkline(downs) + "\n";
      // Back to the first line of the previous view, and clear from there.
      if (drawnLines > 0) Out("\x1b[" + std::to_string(drawnLines) + "F\x1b[J");
      Out(text);
      drawnLines = static_cast<std::size_t>(std::ranges::count(text, '\n'));
    }
    if (!options.watch) return kExitOk;
    const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::steady_clock::now() - started)
                           .count();
    if (WaitOrInterrupt(static_cast<int>(std::max<std::int64_t>(0, 1000 - spent)))) {
      return kExitInterrupted;
    }
  }
}

// Asks the helper to end the run; false when it did not confirm.
bool CancelUrlTest(const ClientAddress& address, const std::string& requestId) {
  HttpAnswer answer;
  return client::Exchange(address, "POST", "/cancel-urltest", requestId, answer) ==
             ExchangeResult::kAnswered &&
         answer.status == 200 && answer.body == "{\"status\":\"canceled\"}";
}

constexpr std::string_view kUrlTestRequest = "POST /urltest";

// One URL test while its answer streams in.
struct UrlTestRun {
  std::string requestId;
  std::vector<std::string> tags;  // the nodes asked for
  client::AnswerStream stream;
  std::vector<client::UrlTestResult> results;
  bool cancelled = false;
  std::string fault;  // set when the answer stops making sense
};

// The nodes to test: those --tag names, else the configuration's proxy
// outbounds. kExitOk, or the message and the exit code.
int ReadUrlTestNodes(const Options& options, std::string& config, std::vector<std::string>& tags) {
  const std::string& path = options.positionals[0];
  if (const int code = ReadConfig(path, config); code != kExitOk) return code;
  tags = options.tags;
  std::string error;
  const client::ConfigCheck check = tags.empty()
                                        ? client::ListProxyOutboundTags(config, tags, error)
                                        : client::CheckConfigJson(config, error);
  if (check == client::ConfigCheck::kNotJson) return FailNotJson(path, error);
  if (check == client::ConfigCheck::kNoProxyOutbounds)
    return Fail(kExitNoNodes, path + ": " + error);
  return kExitOk;
}

// Takes one read's result lines; a line that is not one sets the run's fault.
void TakeUrlTestLines(const std::vector<std::string>& lines, const Options& options, bool progress,
                      UrlTestRun& run) {
  for (const std::string& line : lines) {
    client::UrlTestResult result;
    if (!client::ParseUrlTestResultLine(line, result)) {
      run.fault = "not a result line: " + QuoteExcerpt(line);
      return;
    }
    if (options.json) Out(EscapeForTerminal(line, false) + "\n");
    run.results.push_back(std::move(result));
    if (progress) Out("\r\x1b[K" + FormatUrlTestProgress(run.results, run.tags.size()));
  }
}

// Reads the stream until it ends, breaks, falls silent or stops making sense
// (kExitOk, the run says how it went), or the helper answers other than 200.
int ReadUrlTestStream(const ClientAddress& address, const Options& options, bool progress,
                      UrlTestRun& run) {
  std::vector<std::string> lines;
  client::StreamStep step = client::StreamStep::kData;
  for (int silentMs = 0;;) {
    // The helper forgets a cancel that arrives before its test has started,
    // and the head is sent only once it has: so cancel after the head.
    if (!run.cancelled && run.stream.headDone && InterruptRequested()) {
      run.cancelled = true;
      silentMs = 0;
      if (!CancelUrlTest(address, run.requestId)) {
        Fail(kExitUnexpected, "the helper did not confirm the cancel of " + run.requestId);
      }
    }
    lines.clear();
    step = client::ReadStream(run.stream, kStepMs, lines);
    if (step == client::StreamStep::kIdle) {
      silentMs += kStepMs;
      if (silentMs >= (run.cancelled ? kCancelWaitMs : kStreamSilenceMs)) {
        run.fault = "silent for " + std::to_string(silentMs / 1000) + " s";
        return kExitOk;
      }
      continue;
    }
    silentMs = 0;
    if (run.stream.headDone && run.stream.head.status != 200) {
      return CheckAnswer(ExchangeResult::kAnswered, run.stream.head, address, kUrlTestRequest);
    }
    TakeUrlTestLines(lines, options, progress, run);
    if (!run.fault.empty() || step != client::StreamStep::kData) break;
  }
  if (step == client::StreamStep::kBroken && run.fault.empty()) run.fault = "the stream broke off";
  return kExitOk;
}

// The table of what arrived, then why the run fell short, if it did.
int FinishUrlTest(const ClientAddress& address, const Options& options, bool progress,
                  const UrlTestRun& run) {
  if (progress && !run.results.empty()) Out("\r\x1b[K");
  // Whatever went wrong, the helper must not go on testing for nobody.
  if (!run.fault.empty() && !run.cancelled) CancelUrlTest(address, run.requestId);

  if (!options.json && !run.results.empty()) Out(FormatUrlTestTable(run.results, run.tags.size()));
  const std::string reported =
      std::to_string(run.results.size()) + " of " + std::to_string(run.tags.size()) + " nodes";
  if (run.cancelled) {
    return Fail(kExitInterrupted, "cancelled test " + run.requestId + " after " + reported);
  }
  if (!run.fault.empty()) return FailUnexpected(address, kUrlTestRequest, run.fault);
  if (run.results.size() != run.tags.size()) {
    return FailUnexpected(address, kUrlTestRequest, "it reported " + reported);
  }
  return kExitOk;
}

int RunUrlTest(const ClientAddress& address, const Options& options) {
  UrlTestRun run;
  std::string config;
  if (const int code = ReadUrlTestNodes(options, config, run.tags); code != kExitOk) return code;
  run.requestId = client::NewUrlTestRequestId();
  const ExchangeResult opened = client::OpenStream(
      address, "POST", "/urltest",
      client::BuildUrlTestRequestBody(run.requestId, options.url, run.tags, config), run.stream);
  if (opened == ExchangeResult::kBrokenAnswer) {
    return FailUnexpected(address, kUrlTestRequest, "the connection broke while sending");
  }
  if (opened != ExchangeResult::kAnswered) {
    return CheckAnswer(opened, run.stream.head, address, kUrlTestRequest);
  }
  const bool progress = StdoutIsTerminal() && !options.json;
  if (const int code = ReadUrlTestStream(address, options, progress, run); code != kExitOk) {
    return code;
  }
  return FinishUrlTest(address, options, progress, run);
}

bool TakeValue(const std::vector<std::string>& args, std::size_t& i, std::string_view name,
               std::string& value, bool& taken, std::string& error) {
  const std::string& arg = args[i];
  if (arg == name) {
    if (i + 1 >= args.size()) {
      error = std::string(name) + " needs a value";
      return false;
    }
    value = args[++i];
    taken = true;
  } else if (arg.starts_with(std::string(name) + "=")) {
    value = arg.substr(name.size() + 1);
    taken = true;
  }
  return true;
}

bool ParseOptions(const std::vector<std::string>& args, Options& options, std::string& error) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    bool taken = false;
    std::string value;
    if (!TakeValue(args, i, "--address", options.address, taken, error)) return false;
    if (taken) continue;
    if (!TakeValue(args, i, "--url", options.url, taken, error)) return false;
    if (taken) {
      options.flags.push_back("--url");
      continue;
    }
    if (!TakeValue(args, i, "--tag", value, taken, error)) return false;
    if (taken) {
      options.flags.push_back("--tag");
      if (value.empty()) {
        error = "--tag needs a node tag";
        return false;
      }
      options.tags.push_back(value);
      continue;
    }
    const std::pair<std::string_view, bool*> switches[] = {
        {"--tun", &options.tun},        {"--follow", &options.follow}, {"--watch", &options.watch},
        {"--json", &options.json},      {"--help", &options.help},     {"-h", &options.help},
        {"--version", &options.version}};
    const auto found = std::ranges::find(switches, arg, &std::pair<std::string_view, bool*>::first);
    if (found != std::end(switches)) {
      *found->second = true;
      if (arg != "--help" && arg != "-h" && arg != "--version") options.flags.push_back(arg);
    } else if (arg.size() > 1 && arg[0] == '-') {
      error = "unknown option " + arg;
      return false;
    } else if (options.command.empty()) {
      options.command = arg;
    } else {
      options.positionals.push_back(arg);
    }
  }
  return true;
}

// One row per command, and the only place that names one: the argument
// checks, the per-command help and the dispatch all read it.
struct CommandInfo {
  std::string_view name;
  std::size_t positionals;  // how many plain arguments it takes
  std::string_view flags;   // the options it accepts, each between spaces
  std::string_view help;
  int (*run)(const ClientAddress& address, const Options& options);
};

constexpr CommandInfo kCommands[] = {
    {"status", 0, "", R"(usage: orvelctl status

Prints the helper's answer: "connected" while a core runs (exit 0),
"disconnected" when none does (exit 1).
)",
     RunStatus},
    {"start", 1, " --tun ", R"(usage: orvelctl start CONFIG [--tun]

Sends the file CONFIG unchanged as the core's whole configuration; the helper
starts sing-box with it and points the user's system proxy at its mixed inbound
(the inbound tagged "orvel-vpn-mixed"). With --tun the system proxy is left
alone (TUN mode; the helper must run as the service for the TUN device).
The file must be JSON (comments allowed) and is checked before it is sent.
Exit 0 when the helper answers "connected", 1 with its reason when not.
)",
     RunStart},
    {"stop", 0, "", R"(usage: orvelctl stop

Puts the user's proxy settings back and stops the core. The helper always
answers "disconnected"; that is success (exit 0).
)",
     RunStop},
    {"ping", 0, "", R"(usage: orvelctl ping

Exit 0 when the helper answers "pong".
)",
     RunPing},
    {"logs", 0, " --follow ", R"(usage: orvelctl logs [--follow]

Prints the helper's log (its newest 64 KiB). --follow then asks once a second
and prints each new line once, until Ctrl-C.
)",
     RunLogs},
    {"snapshot", 0, " --watch --json ", R"(usage: orvelctl snapshot [--watch] [--json]

Upload and download rates and totals of the running core, then the local
process endpoints grouped by process. --watch refreshes once a second until
Ctrl-C: in place with a sparkline of the last minute on a terminal, one line
per second otherwise. --json prints the helper's document as it is (one per
line with --watch).
)",
     RunSnapshot},
    {"urltest", 1, " --url --tag --json ",
     R"(usage: orvelctl urltest CONFIG [--url URL] [--tag TAG]... [--json]

Measures the latency of proxy nodes through the helper: each node is fetched
once through its outbound of CONFIG. The nodes are the proxy outbounds of
CONFIG (every type but direct, block, dns, selector and urltest) unless --tag
names them. --url sets what is fetched (default
https://www.gstatic.com/generate_204). On a terminal a progress line follows
the test, then a table sorted by delay, failures last. --json prints the
helper's result lines as they arrive. Ctrl-C cancels the test on the helper,
prints what arrived and exits 130.
)",
     RunUrlTest},
};

}  // namespace

int RunOrvelctl(const std::vector<std::string>& args) {
  WatchForInterrupt();
  Options options;
  std::string error;
  if (!ParseOptions(args, options, error)) {
    return Fail(kExitUsage, error + " (orvelctl --help)");
  }
  if (options.version) {
    Out(std::string("orvelctl ") + kProductVersion + "\n");
    return kExitOk;
  }
  if (options.command.empty()) {
    if (options.help) {
      Out(kUsage);
      return kExitOk;
    }
    return Fail(kExitUsage, "no command given (orvelctl --help)");
  }
  const auto command = std::ranges::find(kCommands, options.command, &CommandInfo::name);
  if (command == std::end(kCommands)) {
    return Fail(kExitUsage, "unknown command \"" + options.command + "\" (orvelctl --help)");
  }
  if (options.help) {
    Out(command->help);
    return kExitOk;
  }
  for (const std::string& flag : options.flags) {
    if (command->flags.find(" " + flag + " ") == std::string_view::npos) {
      return Fail(kExitUsage, options.command + " does not take " + flag + " (orvelctl " +
                                  options.command + " --help)");
    }
  }
  if (options.positionals.size() != command->positionals) {
    return Fail(kExitUsage,
                "usage: " + std::string(command->help.substr(7, command->help.find('\n') - 7)));
  }
  ClientAddress address;
  if (!client::ParseAddress(options.address, address, error)) return Fail(kExitUsage, error);

  return command->run(address, options);
}

}  // namespace orvel::orvelctl
