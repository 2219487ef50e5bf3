#include "api/routes.h"

#include <string>

#include "commands/vpn_commands.h"
#include "log/log_buffer.h"
#include "traffic/traffic_snapshot.h"
#include "urltest/urltest_registry.h"
#include "urltest/urltest_stream.h"

namespace orvel {

namespace {

// A route either returns the body of an ordinary 200 answer (`answer`) or
// writes its whole response itself on the socket (`stream`).
struct Route {
  std::string_view method;
  std::string_view path;
  std::string_view contentType;
  std::string (*answer)(const std::string& body);
  void (*stream)(SocketHandle socket, const std::string& body);
};

const Route kRoutes[] = {
    {"GET", "/ping", "text/plain", [](const std::string&) { return std::string("pong"); }, nullptr},
    {"GET", "/status", "application/json", [](const std::string&) { return HandleStatus(); },
     nullptr},
    {"GET", "/traffic-snapshot", "application/json",
     [](const std::string&) { return BuildTrafficSnapshot(); }, nullptr},
    {"POST", "/start", "application/json", HandleStart, nullptr},
    {"POST", "/start-tun", "application/json", HandleStartTun, nullptr},
    {"POST", "/stop", "application/json", [](const std::string&) { return HandleStop(); }, nullptr},
    {"POST", "/urltest", "application/x-ndjson", nullptr, HandleUrlTest},
    {"POST", "/cancel-urltest", "application/json", HandleCancelUrlTest, nullptr},
    {"GET", "/logs", "text/plain", [](const std::string&) { return HelperLog().Snapshot(); },
     nullptr},
};

}  // namespace

void DispatchRequest(SocketHandle socket, const HttpRequest& request) {
  for (const Route& route : kRoutes) {
    if (request.method != route.method || request.path != route.path) continue;
    if (route.stream != nullptr) {
      route.stream(socket, request.body);
    } else {
      SendResponse(socket, route.contentType, route.answer(request.body), 200, "OK");
    }
    return;
  }
  SendResponse(socket, "text/plain", "not found", 404, "Not Found");
}

}  // namespace orvel
