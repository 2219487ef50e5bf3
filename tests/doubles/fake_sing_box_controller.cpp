// The core's statistics controller, as the real core serves it on
// experimental.clash_api.external_controller. A test picks the behaviour and
// the figures through an object the real core never sees in these tests:
//
//   "x-test-controller":{"mode":"silent","up":-7,"down":12,
//                      "uploadTotal":123,"downloadTotal":456,"tick":1000}
//
// Every figure is echoed exactly as written there; the first of each name
// after the marker counts. The modes:
// - "stream" (the default): "/traffic" is the real core's endless chunked
//   stream, one sample per "tick" (default 1000 ms as the real core); other
//   paths get one document with its length, then the connection closes;
// - "silent": no answer at all, the connection held until the client closes;
// - "length-after-tab": the document, but a tab before the length's digits,
//   and the connection held.
// Any other path gets the real core's 404, in every mode.
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

ControllerPlan ReadPlan(const std::string& config) {
  ControllerPlan plan;
  const std::string address = ValueAfter(config, "external_controller", 0, "");
  const std::size_t colon = address.rfind(':');
  if (colon == std::string::npos) return plan;
  plan.host = address.substr(0, colon);
  plan.port = static_cast<unsigned short>(std::atoi(address.c_str() + colon + 1));
  const std::size_t marker = config.find("\"x-test-controller\"");
  if (marker != std::string::npos) {
    plan.mode = ValueAfter(config, "mode", marker, plan.mode);
    plan.up = ValueAfter(config, "up", marker, plan.up);
    plan.down = ValueAfter(config, "down", marker, plan.down);
    plan.uploadTotal = ValueAfter(config, "uploadTotal", marker, plan.uploadTotal);
    plan.downloadTotal = ValueAfter(config, "downloadTotal", marker, plan.downloadTotal);
    plan.tickMs = std::strtoul(ValueAfter(config, "tick", marker, "1000").c_str(), nullptr, 10);
  }
  return plan;
}

// A blocking send returns once all of it is on its way, or fails.
bool SendText(SOCKET s, const std::string& bytes) {
  return send(s, bytes.data(), static_cast<int>(bytes.size()), 0) == static_cast<int>(bytes.size());
}

std::string Head(const std::string& lengthLine) {
  return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nVary: Origin\r\n" + lengthLine +
         "\r\n\r\n";
}

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
  const std::string document =
      path == "/traffic" ? "{\"up\":" + plan.up + ",\"down\":" + plan.down + "}\n"
                         : "{\"connections\":[],\"downloadTotal\":" + plan.downloadTotal +
                               ",\"memory\":8388608,\"uploadTotal\":" + plan.uploadTotal + "}\n";
  if (path != "/traffic" && path != "/connections") {
    SendText(client,
             "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain; charset=utf-8\r\n"
             "Content-Length: 19\r\n\r\n404 page not found\n");
  } else if (plan.mode == "stream" && path == "/traffic") {
    // The real core writes nothing, not even the status line, before its
    // first tick; the stream never ends by itself.
    char size[16];
    std::snprintf(size, sizeof(size), "%zx\r\n", document.size());
    for (std::string bytes = Head("Transfer-Encoding: chunked");; bytes.clear()) {
      Sleep(plan.tickMs);
      if (!SendText(client, bytes + size + document + "\r\n")) break;
    }
  } else if (plan.mode != "silent") {
    const bool tab = plan.mode == "length-after-tab";
    SendText(client, Head(std::string("Content-Length:") + (tab ? "\t" : " ") +
                          std::to_string(document.size())) +
                         document);
  }
  // The other modes hold the connection until the client closes it.
  while (plan.mode != "stream" && recv(client, chunk, sizeof(chunk), 0) > 0) {
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
