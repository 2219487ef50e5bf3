// The core's statistics controller, as the real core serves it on
// experimental.clash_api.external_controller. A test picks the behaviour and
// the figures through an object the real core never sees in these tests:
//
//   "x-test-controller":{"mode":"silent","up":-7,"down":12,
//                      "uploadTotal":123,"downloadTotal":456,"tick":1000}
//
// Every figure is echoed exactly as written there; the first of each name
// after the marker counts. The modes are the table kBehaviours below ("tick",
// default 1000 ms as the real core, paces the "/traffic" stream of "stream");
// a non-empty "secret" in the configuration picks "secret" whatever the mode.
#include <winsock2.h>
#include <ws2tcpip.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "doubles/fake_sing_box.h"

namespace {

struct ControllerPlan {
  std::string host;
  unsigned short port = 0;
  std::string mode = "stream";
  std::string up = "0";
  std::string down = "0";
  std::string uploadTotal = "0";
  std::string downloadTotal = "0";
  DWORD tickMs = 1000;
};

// The string value after "key": at or after `from`, or "" when absent.
std::string StringAfter(const std::string& text, const std::string& key, std::size_t from = 0) {
  std::size_t at = text.find("\"" + key + "\"", from);
  if (at == std::string::npos) return {};
  at = text.find('"', text.find(':', at) + 1);
  if (at == std::string::npos) return {};
  const std::size_t end = text.find('"', at + 1);
  return end == std::string::npos ? std::string() : text.substr(at + 1, end - at - 1);
}

// The number text after "key": at or after `from`, or `fallback`.
std::string NumberAfter(const std::string& text, const std::string& key, std::size_t from,
                        const std::string& fallback) {
  std::size_t at = text.find("\"" + key + "\":", from);
  if (at == std::string::npos) return fallback;
  at += key.size() + 3;
  while (at < text.size() && text[at] == ' ') ++at;
  std::size_t end = at;
  while (end < text.size() && (text[end] == '-' || (text[end] >= '0' && text[end] <= '9'))) ++end;
  return end == at ? fallback : text.substr(at, end - at);
}

ControllerPlan ReadPlan(const std::string& config) {
  ControllerPlan plan;
  const std::string address = StringAfter(config, "external_controller");
  const std::size_t colon = address.rfind(':');
  if (colon == std::string::npos) return plan;
  plan.host = address.substr(0, colon);
  plan.port = static_cast<unsigned short>(std::atoi(address.c_str() + colon + 1));
  const std::size_t marker = config.find("\"x-test-controller\"");
  if (marker != std::string::npos) {
    const std::string mode = StringAfter(config, "mode", marker);
    if (!mode.empty()) plan.mode = mode;
    plan.up = NumberAfter(config, "up", marker, plan.up);
    plan.down = NumberAfter(config, "down", marker, plan.down);
    plan.uploadTotal = NumberAfter(config, "uploadTotal", marker, plan.uploadTotal);
    plan.downloadTotal = NumberAfter(config, "downloadTotal", marker, plan.downloadTotal);
    plan.tickMs = std::strtoul(NumberAfter(config, "tick", marker, "1000").c_str(), nullptr, 10);
  }
  const std::size_t api = config.find("\"clash_api\"");
  if (!StringAfter(config, "secret", api == std::string::npos ? 0 : api).empty()) {
    plan.mode = "secret";
  }
  return plan;
}

bool SendText(SOCKET s, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const int n = send(s, bytes.data() + sent, static_cast<int>(bytes.size() - sent), 0);
    if (n <= 0) return false;
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

// Until the client closes the connection (or it fails).
void WaitForClientClose(SOCKET s) {
  char sink[512];
  while (recv(s, sink, sizeof(sink), 0) > 0) {
  }
}

std::string Head(const std::string& status, const std::string& lengthLine) {
  return "HTTP/1.1 " + status + "\r\nContent-Type: application/json\r\nVary: Origin\r\n" +
         lengthLine + "\r\n";
}

std::string Document(const ControllerPlan& plan, const std::string& path) {
  if (path == "/traffic") return "{\"up\":" + plan.up + ",\"down\":" + plan.down + "}\n";
  return "{\"connections\":[],\"downloadTotal\":" + plan.downloadTotal +
         ",\"memory\":8388608,\"uploadTotal\":" + plan.uploadTotal + "}\n";
}

std::string Chunk(const std::string& data) {
  char size[16];
  std::snprintf(size, sizeof(size), "%zx\r\n", data.size());
  return size + data + "\r\n";
}

enum class Body { kNone, kDocument, kUnauthorized };

// What each mode answers, except the "/traffic" stream of "stream": one head
// whose length header starts with `length`, then the connection is held
// until the client closes it, or closed.
const struct {
  const char* mode;
  const char* status;  // nullptr: no answer at all
  const char* length;
  Body body;
  bool hold;
} kBehaviours[] = {
    {"stream", "200 OK", "Content-Length: ", Body::kDocument, false},  // the default
    {"silent", nullptr, nullptr, Body::kNone, true},
    {"length-zero", "200 OK", "Content-Length: ", Body::kNone, true},
    {"length-after-tab", "200 OK", "Content-Length:\t", Body::kDocument, true},
    {"secret", "401 Unauthorized", "Content-Length: ", Body::kUnauthorized, false},
};

void Serve(SOCKET client, const ControllerPlan& plan) {
  std::string request;
  char chunk[4096];
  while (request.find("\r\n\r\n") == std::string::npos) {
    const int got = recv(client, chunk, sizeof(chunk), 0);
    if (got <= 0) break;
    request.append(chunk, static_cast<std::size_t>(got));
  }
  const std::size_t pathStart = request.find(' ') + 1;
  const std::string path = request.substr(pathStart, request.find(' ', pathStart) - pathStart);
  if (plan.mode == "stream" && path == "/traffic") {
    // The real core writes nothing, not even the status line, before its
    // first tick; the stream never ends by itself.
    std::string bytes = Head("200 OK", "Transfer-Encoding: chunked") + "\r\n";
    for (;;) {
      Sleep(plan.tickMs);
      bytes += Chunk(Document(plan, path));
      if (!SendText(client, bytes)) break;
      bytes.clear();
    }
  }
  for (const auto& b : kBehaviours) {
    if (plan.mode != b.mode || (plan.mode == "stream" && path == "/traffic")) continue;
    const std::string body = b.body == Body::kDocument       ? Document(plan, path)
                             : b.body == Body::kUnauthorized ? "{\"message\":\"Unauthorized\"}\n"
                                                             : "";
    if (b.status != nullptr) {
      SendText(client, Head(b.status, b.length + std::to_string(body.size())) + "\r\n" + body);
    }
    if (b.hold) WaitForClientClose(client);
  }
  closesocket(client);
}

}  // namespace

void StartControllerIfConfigured(const std::string& configText) {
  const ControllerPlan plan = ReadPlan(configText);
  if (plan.port == 0) return;
  WSADATA data{};
  WSAStartup(MAKEWORD(2, 2), &data);
  SOCKET listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  // Tests start a core on this port again and again; without this a
  // connection of the previous core still in TIME_WAIT blocks the bind.
  const BOOL reuse = TRUE;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&reuse),
             sizeof(reuse));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(plan.port);
  inet_pton(AF_INET, plan.host.c_str(), &address.sin_addr);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener, SOMAXCONN) != 0) {
    closesocket(listener);  // no controller, as no test needs the core's refusal
    return;
  }
  std::thread([listener, plan] {
    for (;;) {
      SOCKET client = accept(listener, nullptr, nullptr);
      if (client == INVALID_SOCKET) continue;
      std::thread(Serve, client, plan).detach();
    }
  }).detach();
}
