#include "api/request_guard.h"

#include "api/control_server.h"
#include "text/json_text.h"
#include "text/number_text.h"

namespace orvel {

namespace {

bool IsApplicationOrigin(std::string_view origin) {
  return origin == "tauri://localhost" || origin == "http://tauri.localhost" ||
         origin == "https://tauri.localhost";
}

bool IsLoopbackHost(std::string_view host) {
  std::string_view name = host;
  std::string_view port;
  const std::size_t colon = host.find(':', host.starts_with('[') ? host.find(']') : 0);
  if (colon != std::string_view::npos) {
    name = host.substr(0, colon);
    port = host.substr(colon + 1);
    if (port != std::to_string(kControlPort)) return false;
  }
  return EqualsIgnoringCase(name, "127.0.0.1") || EqualsIgnoringCase(name, "localhost") ||
         name == "[::1]";
}

}  // namespace

HeadRefusal FindHeadRefusal(std::string_view head) {
  std::size_t lineStart = head.find("\r\n");  // the request line is no header
  while (lineStart != std::string_view::npos) {
    lineStart += 2;
    const std::size_t lineEnd = head.find("\r\n", lineStart);
    const std::string_view line = head.substr(lineStart, lineEnd - lineStart);
    lineStart = lineEnd;
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = TrimBlanks(line.substr(colon + 1));
    bool refused = false;
    std::string_view header;
    if (EqualsIgnoringCase(name, header = "Sec-Fetch-Site")) {
      refused = value != "none";
    } else if (EqualsIgnoringCase(name, header = "Origin")) {
      refused = !IsApplicationOrigin(value);
    } else if (EqualsIgnoringCase(name, header = "Host")) {
      refused = !IsLoopbackHost(value);
    }
    if (refused) return {header, std::string(value)};
  }
  return {};
}

std::string DescribeRefusal(std::string_view method, std::string_view path,
                            const HeadRefusal& refusal) {
  return "Refused " + JsonEscape(method) + " " + JsonEscape(path) + ": " +
         std::string(refusal.header) + " \"" + JsonEscape(refusal.value) + "\"";
}

}  // namespace orvel
