#pragma once

// What the end-to-end tests and the benchmarks share on both systems: a real
// helper started in a folder of its own (ended with everything it started),
// exact request and answer bytes through the client library, the helper's
// log, and the records the core double leaves. The system's own part (how a
// helper is started and killed, where things lie, how processes are counted)
// is in harness_win.h and harness_linux.h.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "client/answer_text.h"
#include "client/helper_client.h"
#include "client/http_exchange.h"
#include "core/child_process.h"
#include "core/data_files.h"
#include "core/host_platform.h"

namespace orvel::test {

namespace fs = std::filesystem;

constexpr unsigned short kHelperPort = 17891;

// Milliseconds of a steady clock, for ordering and spacing events.
inline std::uint64_t NowMs() {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now().time_since_epoch())
                                        .count());
}

// The "/urltest" stream with the time each line was complete (NowMs).
struct UrlTestStream {
  std::string head;
  std::vector<std::pair<std::string, std::uint64_t>> lines;  // without "\n"
  std::string rest;                                          // bytes after the last line feed
  bool closedByPeer = false;
  std::uint64_t sentTick = 0;
  std::uint64_t closedTick = 0;
};

// One record per "tools fetch" run of the core double (<records>/fetch).
// "configText" holds the configuration file as the run read it.
using FetchRecord = std::map<std::string, std::string>;

enum class CorePlacement { kNone, kBesideExe };
struct HelperOptions {
  CorePlacement core = CorePlacement::kBesideExe;
  fs::path extraPath;              // put before PATH for the helper
  bool keepDataDirectory = false;  // instead of deleting it first
  std::vector<std::string> arguments;
};

inline client::ClientAddress HelperAddress(std::string_view text = client::kDefaultAddress) {
  client::ClientAddress address;
  std::string unused;
  client::ParseAddress(text, address, unused);
  return address;
}

inline std::string ReadFileBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// --- HTTP -------------------------------------------------------------------
// Raw bytes go through the client library's socket, which closes itself.

inline bool ConnectToHelper(client::ClientSocket& socket) {
  return client::ConnectTo(HelperAddress(), socket);
}

// Reads until the peer closes, an error or `timeoutMs` without a byte;
// closedByPeer tells whether end-of-stream was seen.
inline std::string ReadToEnd(const client::ClientSocket& socket, bool* closedByPeer = nullptr,
                             int timeoutMs = 30000) {
  std::string data;
  char chunk[8192];
  int got;
  while ((got = client::ReceiveSome(socket, chunk, sizeof(chunk), timeoutMs)) > 0)
    data.append(chunk, static_cast<std::size_t>(got));
  if (closedByPeer != nullptr) *closedByPeer = got == client::kReceiveClosed;
  return data;
}

// Sends `request` byte for byte (to the helper unless told) and returns every
// byte of the answer.
inline std::string ExchangeRaw(std::string_view request,
                               std::string_view where = client::kDefaultAddress) {
  client::ClientSocket socket;
  if (!client::ConnectTo(HelperAddress(where), socket) || !client::SendAllBytes(socket, request))
    return {};
  return ReadToEnd(socket);
}

// A well-formed request as the client library writes it.
inline std::string BuildRequest(std::string_view method, std::string_view path,
                                std::string_view body = {}) {
  return client::BuildHttpRequest(method, path, body, HelperAddress());
}

// The answer read by the client library; status 0 when none or not HTTP.
inline client::HttpAnswer Request(std::string_view method, std::string_view path,
                                  std::string_view body = {}, unsigned timeoutMs = 30000) {
  client::HttpAnswer answer;
  if (client::Exchange(HelperAddress(), method, path, body, answer, static_cast<int>(timeoutMs)) !=
      client::ExchangeResult::kAnswered)
    answer = {};
  return answer;
}

// An answer (200 unless told) with the helper's fixed headers around `body`.
inline std::string OkAnswer(std::string_view contentType, std::string_view body,
                            std::string_view status = "200 OK") {
  return "HTTP/1.1 " + std::string(status) + "\r\nContent-Type: " + std::string(contentType) +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
         std::string(body);
}

inline std::string Logs() { return Request("GET", "/logs").body; }

inline bool LogHasLine(std::string_view message) {
  return Logs().find("] " + std::string(message) + "\r\n") != std::string::npos;
}

inline bool StartUrlTest(const std::string& body, client::ClientSocket& socket) {
  return ConnectToHelper(socket) &&
         client::SendAllBytes(socket, BuildRequest("POST", "/urltest", body));
}

inline UrlTestStream ReadUrlTestStream(const client::ClientSocket& socket) {
  UrlTestStream stream;
  std::string pending;
  char chunk[8192];
  int got;
  while ((got = client::ReceiveSome(socket, chunk, sizeof(chunk), 30000)) > 0) {
    pending.append(chunk, static_cast<std::size_t>(got));
    if (stream.head.empty()) {
      const std::size_t headEnd = pending.find("\r\n\r\n");
      if (headEnd == std::string::npos) continue;
      stream.head = pending.substr(0, headEnd + 4);
      pending.erase(0, headEnd + 4);
    }
    for (std::size_t end; (end = pending.find('\n')) != std::string::npos;
         pending.erase(0, end + 1))
      stream.lines.emplace_back(pending.substr(0, end), NowMs());
  }
  stream.closedByPeer = got == client::kReceiveClosed;
  stream.closedTick = NowMs();
  (stream.head.empty() ? stream.head : stream.rest) = pending;
  return stream;
}

inline UrlTestStream RunUrlTest(const std::string& body) {
  const std::uint64_t sent = NowMs();
  client::ClientSocket socket;
  if (!StartUrlTest(body, socket)) return {};
  UrlTestStream stream = ReadUrlTestStream(socket);
  stream.sentTick = sent;
  return stream;
}

inline std::vector<FetchRecord> WaitForFetchRecords(std::size_t count, unsigned timeoutMs);

// Waits up to 15 s for a freshly started helper's first "pong"; `running`
// tells whether its process still lives, so a helper that ends at once fails
// at once.
template <typename StillRunning>
bool WaitForFirstPong(StillRunning running, std::string& error) {
  const std::uint64_t deadline = NowMs() + 15000;
  while (NowMs() < deadline) {
    if (!running()) {
      error = "helper ended during start-up";
      return false;
    }
    if (Request("GET", "/ping", {}, 2000).body == "pong") return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  error = "helper did not answer /ping within 15 s";
  return false;
}

}  // namespace orvel::test

// The system's own part, which uses the HTTP helpers above.
#ifdef _WIN32
#include "support/harness_win.h"
#else
#include "support/harness_linux.h"
#endif

namespace orvel::test {

// A real helper, copied with the core double (as asked) into a folder of its
// own and started through the helper's own child interface, so it dies with
// this process however that ends (Linux: the launcher's death signal;
// Windows: this process's job of children): a failed run must never leave a
// helper holding port 17891, which fails every later run.
struct ScopedHelper {
  ChildProcess child;
  fs::path directory;  // the folder of this helper's executable
  std::string error;   // why Start failed

  ScopedHelper() = default;
  ScopedHelper(const ScopedHelper&) = delete;
  ScopedHelper& operator=(const ScopedHelper&) = delete;
  ~ScopedHelper() { Stop(); }

  fs::path ExePath() const { return directory / kHelperFileName; }
  std::uint32_t Pid() const { return ChildPid(child.process); }
  bool Running() const { return !HasChildEnded(child.process); }

  // Starts it and waits until "/ping" answers.
  bool Start(const HelperOptions& options = {}) {
    KillCores();
    PrepareHelperStart();
    if (client::ClientSocket taken; ConnectToHelper(taken)) {
      error = "port 17891 is already in use by another process; end it before running this test";
      return false;
    }
    directory = WorkDirectory() / SelfPath().stem();
    std::error_code ec;
    fs::remove_all(directory, ec);
    fs::create_directories(directory);
    fs::copy_file(BinDirectory() / kHelperFileName, ExePath());
    if (options.core == CorePlacement::kBesideExe)
      fs::copy_file(DoublesDirectory() / kCoreFileName, directory / kCoreFileName);
    if (!options.keepDataDirectory) fs::remove_all(HelperDataDirectory(), ec);
    fs::create_directories(RecordPath(""), ec);
    // The helper inherits our environment; PATH decides the last search step.
    const std::string path = PathVariable();
    if (!options.extraPath.empty())
      SetPathVariable(PathText(options.extraPath) + kPathListSeparator + path);
    // Wine has been seen to fail a start once with ERROR_INTERNAL_ERROR right
    // after another test's processes ended; a second try succeeds.
    SystemError launchError;
    bool launched = false;
    for (int attempt = 0; attempt < 3 && !launched; ++attempt) {
      if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(500));
      launched = LaunchChild({ExePath(), options.arguments, directory}, child, launchError);
    }
    SetPathVariable(path);
    if (!launched) error = "the helper did not start: " + DescribeSystemError(launchError);
    return launched && WaitForFirstPong([this] { return Running(); }, error);
  }
  // Ends the helper and every core double; safe to call twice.
  void Stop() {
    Kill();
    ReleaseChild(child);
    KillCores();  // belt and braces where job objects are not fully honoured
  }
  // Ends the helper process alone, as a crash would: its children are left
  // to what the helper arranged for them.
  void Kill() {
    SignalChild(child.process, ChildSignal::kKill);
    WaitForChild(child, 10000);
  }
};

// Connects from 127.0.0.2, so that the helper's end of the connection is an
// established endpoint that a snapshot lists (127.0.0.1 is left out).
inline bool ConnectToHelperFrom127002(client::ClientSocket& s) {
  const auto own = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  s.handle = static_cast<client::SocketHandle>(own);
  sockaddr_in from{}, to{};
  from.sin_family = to.sin_family = AF_INET;
  from.sin_addr.s_addr = htonl(0x7F000002);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  to.sin_port = htons(kHelperPort);
  return bind(own, reinterpret_cast<const sockaddr*>(&from), sizeof(from)) == 0 &&
         connect(own, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) == 0;
}

// Waits up to timeoutMs for no running core double to be left; the count left.
inline int WaitUntilNoCore(unsigned timeoutMs) {
  const std::uint64_t deadline = NowMs() + timeoutMs;
  int left = CountCores();
  for (; left > 0 && NowMs() < deadline; left = CountCores())
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  return left;
}

// --- Records -------------------------------------------------------------------

// A file of key=value lines (core-run.txt from the core double).
inline std::map<std::string, std::string> ReadKeyValues(const fs::path& path) {
  std::map<std::string, std::string> fields;
  std::istringstream lines(ReadFileBytes(path));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    std::string& value = fields[line.substr(0, equals)] = line.substr(equals + 1);
    // The configuration comes last and keeps its line feeds.
    if (line.starts_with("configText=")) {
      value.append(lines.eof() ? "" : "\n").append(std::istreambuf_iterator<char>(lines), {});
      break;
    }
  }
  return fields;
}

// Clears the doubles' records, the failure switch and the fetch records.
inline void ResetTestRecords() {
  std::error_code ec;
  fs::remove_all(RecordPath(""), ec);
  fs::create_directories(RecordPath(""), ec);
}

// Waits up to timeoutMs for `count` complete records.
inline std::vector<FetchRecord> WaitForFetchRecords(std::size_t count, unsigned timeoutMs) {
  const std::uint64_t deadline = NowMs() + timeoutMs;
  for (;; std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
    std::vector<FetchRecord> records;
    std::error_code ec;
    std::size_t complete = 0;
    for (const auto& entry : fs::directory_iterator(RecordPath("fetch"), ec)) {
      records.push_back(ReadKeyValues(entry.path()));
      complete += records.back().contains("configText");
    }
    if (complete >= count || NowMs() > deadline) return records;
  }
}
inline std::vector<FetchRecord> ReadFetchRecords() { return WaitForFetchRecords(0, 0); }

// What the core double was started with; it writes that once it runs, which
// on a loaded machine can come after the helper's answer.
inline std::map<std::string, std::string> CoreRun() {
  for (int i = 0; i < 200 && !fs::exists(RecordPath("core-run.txt")); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  return ReadKeyValues(RecordPath("core-run.txt"));
}

}  // namespace orvel::test
