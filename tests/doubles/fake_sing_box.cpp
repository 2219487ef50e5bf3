// Test double of sing-box.exe. The test picks its behaviour: in run mode
// through the configuration file the helper wrote (the request body), in
// tools mode through the node tag. Fixed record paths under C:\OrvelTest,
// because the helper may run as a service that does not get the test's
// environment.
//
// sing-box run -c FILE
//   "x-test-double":"..."   behaviour
//   (absent)                 serve the controller if configured, stay up
//   "fatal3"                 three coloured FATAL lines ("\n" ends), exit 1
//   "silent"                 no output, exit 1
//   "die-after-N"            as absent for N ms, then exit 1 (N decimal)
// Every run first records its invocation (DescribeInvocation) in
// C:\OrvelTest\core-run.txt, whatever the behaviour.
//
// sing-box --disable-color -c FILE tools -o TAG fetch URL
//   Tokens anywhere in TAG, so that one test gives every node its own
//   behaviour (e.g. "hk-01-delay-200", "東京-exit-2"):
//   delay-N    answer after N ms: a small body on stdout, exit 0
//   exit-N     a FATAL line on stderr like a failed fetch, exit N
//   hang       never ends by itself (only termination ends it)
//   flood-N    write N bytes to stdout (more than a pipe holds blocks), then exit 0
//   (none)     answer at once, exit 0
// Every fetch leaves C:\OrvelTest\fetch\<pid>-<counter>.txt: "key=value" lines
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
#include <winsock2.h>
#include <ws2tcpip.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string WideToUtf8(const std::wstring& text) {
  const int length = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                         nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<std::size_t>(length), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), length,
                      nullptr, nullptr);
  return out;
}

std::string ReadWholeFile(const std::wstring& path) {
  std::ifstream in(std::filesystem::path(path), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Unbuffered and in one call, so nothing is lost when the process exits.
void WriteOut(DWORD which, const std::string& bytes) {
  DWORD written = 0;
  WriteFile(GetStdHandle(which), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

std::wstring ArgumentAfter(const std::vector<std::wstring>& args, const wchar_t* name) {
  for (std::size_t i = 0; i + 1 < args.size(); ++i) {
    if (args[i] == name) return args[i + 1];
  }
  return {};
}

// Command line, working directory and the three core variables.
std::string DescribeInvocation() {
  wchar_t directory[MAX_PATH] = {};
  GetCurrentDirectoryW(MAX_PATH, directory);
  std::string text = "commandLine=" + WideToUtf8(GetCommandLineW()) + "\n";
  text += "workingDirectory=" + WideToUtf8(directory) + "\n";
  for (const wchar_t* name :
       {L"ENABLE_DEPRECATED_LEGACY_DNS_SERVERS", L"ENABLE_DEPRECATED_OUTBOUND_DNS_RULE_ITEM",
        L"ENABLE_DEPRECATED_MISSING_DOMAIN_RESOLVER"}) {
    wchar_t value[64] = {};
    GetEnvironmentVariableW(name, value, 64);
    text += WideToUtf8(name) + "=" + WideToUtf8(value) + "\n";
  }
  return text;
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

// A blocking send returns once all of it is on its way, or fails.
bool SendText(SOCKET s, const std::string& bytes) {
  return send(s, bytes.data(), static_cast<int>(bytes.size()), 0) == static_cast<int>(bytes.size());
}

std::string Head(const std::string& lengthLine) {
  return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nVary: Origin\r\n" + lengthLine +
         "\r\n\r\n";
}

void Serve(SOCKET client, ControllerPlan plan) {
  std::string request;
  char chunk[4096];
  while (request.find("\r\n\r\n") == std::string::npos) {
    const int got = recv(client, chunk, sizeof(chunk), 0);
    if (got <= 0) break;
    request.append(chunk, static_cast<std::size_t>(got));
  }
  const std::size_t pathStart = request.find(' ') + 1;
  const std::string path = request.substr(pathStart, request.find(' ', pathStart) - pathStart);
  const std::string& mode = plan["mode"];
  const std::string document =
      path == "/traffic" ? "{\"up\":" + plan["up"] + ",\"down\":" + plan["down"] + "}\n"
                         : "{\"connections\":[],\"downloadTotal\":" + plan["downloadTotal"] +
                               ",\"memory\":8388608,\"uploadTotal\":" + plan["uploadTotal"] + "}\n";
  if (mode == "stream" && path == "/traffic") {
    // The real core writes nothing, not even the status line, before its
    // first tick; the stream never ends by itself.
    char size[16];
    std::snprintf(size, sizeof(size), "%zx\r\n", document.size());
    for (std::string bytes = Head("Transfer-Encoding: chunked");; bytes.clear()) {
      Sleep(std::strtoul(plan["tick"].c_str(), nullptr, 10));
      if (!SendText(client, bytes + size + document + "\r\n")) break;
    }
  } else if (mode != "silent") {
    SendText(client, Head("Content-Length: " + std::to_string(document.size())) + document);
  }
  // The other modes hold the connection until the client closes it.
  while (mode != "stream" && recv(client, chunk, sizeof(chunk), 0) > 0) {
  }
  closesocket(client);
}

// Serves the controller that the configuration names, on background threads;
// nothing when it names none.
void StartControllerIfConfigured(const std::string& config) {
  const std::string address = ValueAfter(config, "external_controller", 0, "");
  const std::size_t colon = address.rfind(':');
  if (colon == std::string::npos) return;
  ControllerPlan plan{{"mode", "stream"},     {"up", "0"},     {"down", "0"}, {"uploadTotal", "0"},
                      {"downloadTotal", "0"}, {"tick", "1000"}};
  const std::size_t marker = config.find("\"x-test-controller\"");
  for (auto& [key, value] : plan) {
    if (marker != std::string::npos) value = ValueAfter(config, key, marker, value);
  }
  WSADATA data{};
  WSAStartup(MAKEWORD(2, 2), &data);
  SOCKET listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  // Tests start a core on this port again and again; without this a
  // connection of the previous core still in TIME_WAIT blocks the bind.
  const BOOL reuse = TRUE;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&reuse),
             sizeof(reuse));
  sockaddr_in bound{};
  bound.sin_family = AF_INET;
  bound.sin_port = htons(static_cast<unsigned short>(std::atoi(address.c_str() + colon + 1)));
  inet_pton(AF_INET, address.substr(0, colon).c_str(), &bound.sin_addr);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&bound), sizeof(bound)) != 0 ||
      listen(listener, SOMAXCONN) != 0) {
    closesocket(listener);  // no controller, as no test needs the core's refusal
    return;
  }
  std::thread([listener, plan] {
    for (;;) {
      SOCKET client = accept(listener, nullptr, nullptr);
      if (client != INVALID_SOCKET) std::thread(Serve, client, plan).detach();
    }
  }).detach();
}

// --- sing-box run -c FILE ----------------------------------------------------

int RunCoreMode(const std::vector<std::wstring>& args) {
  std::ofstream(std::filesystem::path(L"C:\\OrvelTest\\core-run.txt"), std::ios::binary)
      << DescribeInvocation();
  const std::string config = ReadWholeFile(ArgumentAfter(args, L"-c"));
  const std::string key = "\"x-test-double\":\"";
  const std::size_t start = config.find(key);
  const std::string behaviour =
      start == std::string::npos
          ? ""
          : config.substr(start + key.size(),
                          config.find('"', start + key.size()) - start - key.size());
  if (behaviour == "fatal3") {
    // What a configuration with an unknown member gets, in the colour-wrapped
    // form the real core writes even into a pipe.
    std::string text;
    for (const char* line :
         {"[0000] decode config: json: unknown field \"x-test-double\"",
          "[0000] start service: start inbound/mixed[mixed-in]: listen tcp 127.0.0.1:2080",
          "[0000] exit status 1"}) {
      text += "\x1b[31mFATAL\x1b[0m" + std::string(line) + "\n";
    }
    WriteOut(STD_ERROR_HANDLE, text);
    return 1;
  }
  if (behaviour == "silent") return 1;
  StartControllerIfConfigured(config);
  if (behaviour.starts_with("die-after-")) {
    Sleep(static_cast<DWORD>(std::strtoul(behaviour.c_str() + 10, nullptr, 10)));
    return 1;
  }
  for (;;) Sleep(INFINITE);
}

// --- sing-box --disable-color -c FILE tools -o TAG fetch URL -----------------

// The number after `token` in `tag`, or -1 when the token is absent.
long TokenValue(const std::wstring& tag, const std::wstring& token) {
  const std::size_t at = tag.find(token);
  if (at == std::wstring::npos) return -1;
  return std::wcstol(tag.c_str() + at + token.size(), nullptr, 10);
}

int RunToolsMode(const std::vector<std::wstring>& args) {
  const std::wstring configPath = ArgumentAfter(args, L"-c");
  const std::wstring tag = ArgumentAfter(args, L"-o");
  const std::wstring url = ArgumentAfter(args, L"fetch");
  // Named by process id and performance counter: an id is reused only after
  // its process has ended, and the counter has long moved on by then.
  CreateDirectoryW(L"C:\\OrvelTest\\fetch", nullptr);
  const std::string pid = std::to_string(GetCurrentProcessId());
  const std::string tick = std::to_string(GetTickCount64());
  LARGE_INTEGER now{};
  QueryPerformanceCounter(&now);
  std::ofstream(std::filesystem::path("C:\\OrvelTest\\fetch\\" + pid + "-" +
                                      std::to_string(now.QuadPart) + ".txt"),
                std::ios::binary)
      << "pid=" + pid + "\nstartTick=" + tick + "\ntag=" + WideToUtf8(tag) +
             "\nurl=" + WideToUtf8(url) + "\nconfig=" + WideToUtf8(configPath) + "\n" +
             DescribeInvocation() + "configText=" + ReadWholeFile(configPath);
  if (tag.find(L"hang") != std::wstring::npos) {
    for (;;) Sleep(INFINITE);
  }
  const long delay = TokenValue(tag, L"delay-");
  if (delay > 0) Sleep(static_cast<DWORD>(delay));
  const long flood = TokenValue(tag, L"flood-");
  const long exitWith = TokenValue(tag, L"exit-");
  if (flood > 0) {
    WriteOut(STD_OUTPUT_HANDLE, std::string(static_cast<std::size_t>(flood), 'x'));
  } else if (exitWith >= 0) {
    WriteOut(STD_ERROR_HANDLE, "FATAL[0000] Get \"" + WideToUtf8(url) +
                                   "\": outbound not found: " + WideToUtf8(tag) + "\n");
    return static_cast<int>(exitWith);
  } else {
    WriteOut(STD_OUTPUT_HANDLE, "<html>ok</html>\n");
  }
  return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  std::vector<std::wstring> args(argv + 1, argv + argc);
  for (const std::wstring& arg : args) {
    if (arg == L"run") return RunCoreMode(args);
    if (arg == L"tools") return RunToolsMode(args);
  }
  std::fputs("FATAL[0000] unknown command\n", stderr);
  return 1;
}
