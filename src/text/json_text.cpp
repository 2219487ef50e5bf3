#include "text/json_text.h"

#include "core/host_platform.h"

namespace orvel {

std::string JsonEscape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      default:
        out += c;
        break;
    }
  }
  return out;
}

std::string BuildStatusBody(std::string_view status, std::string_view message) {
  std::string body = "{\"status\":\"";
  body += JsonEscape(status);
  body += "\",\"platform\":\"";
  body += ThisPlatform().name;
  body += "\",\"message\":\"";
  body += JsonEscape(message);
  body += "\"}";
  return body;
}

}  // namespace orvel
