#include "client/http_exchange.h"

#include "text/number_text.h"

namespace orvel::client {

namespace {

bool IsAllDigits(std::string_view text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

// "HTTP/1.0 200 OK" or "HTTP/1.1 404 Not Found"; the reason may be empty.
bool ReadStatusLine(std::string_view line, HttpAnswer& answer) {
  if (line.size() < 12 || !line.starts_with("HTTP/1.") || line[8] != ' ') return false;
  const std::string_view code = line.substr(9, 3);
  if (!IsAllDigits(code) || (line.size() > 12 && line[12] != ' ')) return false;
  answer.status = (code[0] - '0') * 100 + (code[1] - '0') * 10 + (code[2] - '0');
  answer.reason = line.size() > 13 ? std::string(line.substr(13)) : std::string();
  return true;
}

bool ReadHeaderLine(std::string_view line, HttpAnswer& answer) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = TrimBlanks(line.substr(colon + 1));
  if (EqualsIgnoringCase(name, "Content-Length")) {
    // Twenty digits can pass 2^64; no answer of the helper comes near that.
    if (!IsAllDigits(value) || value.size() > 18) return false;
    std::uint64_t length = 0;
    for (char c : value) length = length * 10 + static_cast<std::uint64_t>(c - '0');
    answer.hasLength = true;
    answer.contentLength = length;
  } else if (EqualsIgnoringCase(name, "Content-Type")) {
    answer.contentType = std::string(value);
  }
  return true;
}

}  // namespace

bool ParseAddress(std::string_view text, ClientAddress& address, std::string& error) {
  error = "address must be HOST:PORT, for example " + std::string(kDefaultAddress);
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  std::string_view host = text.substr(0, colon);
  const std::string_view port = text.substr(colon + 1);
  if (host.front() == '[') {
    if (host.size() < 3 || host.back() != ']') return false;
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string_view::npos) {
    return false;  // an IPv6 literal needs its brackets
  }
  if (!IsAllDigits(port) || port.size() > 5) return false;
  const std::uint32_t value = ParseUnsignedLong32(port);
  if (value == 0 || value > 65535) return false;
  address.host = std::string(host);
  address.port = static_cast<std::uint16_t>(value);
  address.text = std::string(text);
  error.clear();
  return true;
}

std::string BuildHttpRequest(std::string_view method, std::string_view path, std::string_view body,
                             const ClientAddress& address) {
  std::string request;
  request.reserve(128 + body.size());
  request.append(method).append(" ").append(path).append(" HTTP/1.1\r\n");
  request.append("Host: ").append(address.text).append("\r\n");
  request.append("User-Agent: orvelctl\r\nConnection: close\r\n");
  if (method == "POST" || !body.empty()) {
    request.append("Content-Length: ").append(std::to_string(body.size())).append("\r\n");
  }
  request.append("\r\n").append(body);
  return request;
}

HeadState ReadAnswerHead(std::string_view bytes, HttpAnswer& answer, std::size_t& headBytes) {
  const std::size_t end = bytes.substr(0, kMaxAnswerHeadBytes).find("\r\n\r\n");
  if (end == std::string_view::npos) {
    return bytes.size() >= kMaxAnswerHeadBytes ? HeadState::kMalformed : HeadState::kIncomplete;
  }
  answer = HttpAnswer{};
  std::string_view head = bytes.substr(0, end + 2);  // every line with its "\r\n"
  bool first = true;
  while (!head.empty()) {
    const std::size_t lineEnd = head.find("\r\n");
    const std::string_view line = head.substr(0, lineEnd);
    head.remove_prefix(lineEnd + 2);
    const bool good = first ? ReadStatusLine(line, answer) : ReadHeaderLine(line, answer);
    if (!good) return HeadState::kMalformed;
    first = false;
  }
  headBytes = end + 4;
  return HeadState::kComplete;
}

bool ReadWholeAnswer(std::string_view bytes, HttpAnswer& answer) {
  std::size_t headBytes = 0;
  if (ReadAnswerHead(bytes, answer, headBytes) != HeadState::kComplete) return false;
  std::string_view body = bytes.substr(headBytes);
  if (answer.hasLength) {
    if (body.size() < answer.contentLength) return false;
    body = body.substr(0, static_cast<std::size_t>(answer.contentLength));
  }
  answer.body = std::string(body);
  return true;
}

}  // namespace orvel::client
