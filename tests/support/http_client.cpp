#include "support/http_client.h"

#include <ws2tcpip.h>

#include <mutex>

namespace orvel::test {

void EnsureWinsock() {
  static std::once_flag once;
  std::call_once(once, [] {
    WSADATA data{};
    WSAStartup(MAKEWORD(2, 2), &data);
  });
}

SOCKET ConnectLoopback(unsigned short port, unsigned timeoutMs) {
  EnsureWinsock();
  SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (s == INVALID_SOCKET) return s;
  const DWORD timeout = timeoutMs;
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout), sizeof(timeout));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
  if (connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    closesocket(s);
    return INVALID_SOCKET;
  }
  return s;
}

bool SendAll(SOCKET socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const int chunk = bytes.size() > 65536 ? 65536 : static_cast<int>(bytes.size());
    const int sent = send(socket, bytes.data(), chunk, 0);
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

std::string ReadToEnd(SOCKET socket, bool* closedByPeer) {
  std::string data;
  char chunk[8192];
  for (;;) {
    const int got = recv(socket, chunk, sizeof(chunk), 0);
    if (got > 0) {
      data.append(chunk, static_cast<std::size_t>(got));
      continue;
    }
    if (closedByPeer != nullptr) *closedByPeer = got == 0;
    return data;
  }
}

HttpAnswer SplitHttpAnswer(std::string raw) {
  HttpAnswer answer;
  answer.connected = true;
  answer.raw = std::move(raw);
  const std::size_t headEnd = answer.raw.find("\r\n\r\n");
  const std::string head = answer.raw.substr(0, headEnd);
  if (headEnd != std::string::npos) answer.body = answer.raw.substr(headEnd + 4);
  const std::size_t lineEnd = head.find("\r\n");
  const std::string statusLine = head.substr(0, lineEnd);
  if (lineEnd != std::string::npos) answer.headers = head.substr(lineEnd + 2);
  // "HTTP/1.1 200 OK"
  const std::size_t firstSpace = statusLine.find(' ');
  if (firstSpace != std::string::npos) {
    answer.status = std::atoi(statusLine.c_str() + firstSpace + 1);
    const std::size_t secondSpace = statusLine.find(' ', firstSpace + 1);
    if (secondSpace != std::string::npos) answer.reason = statusLine.substr(secondSpace + 1);
  }
  return answer;
}

HttpAnswer ExchangeRaw(std::string_view request, unsigned short port, unsigned timeoutMs) {
  SOCKET s = ConnectLoopback(port, timeoutMs);
  if (s == INVALID_SOCKET) return HttpAnswer{};
  SendAll(s, request);
  HttpAnswer answer = SplitHttpAnswer(ReadToEnd(s));
  closesocket(s);
  return answer;
}

std::string BuildRequest(std::string_view method, std::string_view path, std::string_view body) {
  std::string request(method);
  request += ' ';
  request += path;
  request += " HTTP/1.1\r\nHost: 127.0.0.1:17891\r\n";
  if (!body.empty()) request += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  request += "\r\n";
  request += body;
  return request;
}

HttpAnswer Request(std::string_view method, std::string_view path, std::string_view body,
                   unsigned timeoutMs) {
  return ExchangeRaw(BuildRequest(method, path, body), kHelperPort, timeoutMs);
}

}  // namespace orvel::test
