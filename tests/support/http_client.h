#pragma once

// A raw HTTP client for the end-to-end tests and the benchmarks: it sends the
// exact bytes given and reads the answer to end-of-stream, so framing faults
// (extra bytes, missing close) show up instead of being smoothed over.

#include <winsock2.h>

#include <string>
#include <string_view>

namespace orvel::test {

constexpr unsigned short kHelperPort = 17891;

// Starts Winsock once for the process.
void EnsureWinsock();

// Connects to 127.0.0.1:port with a receive time-out; INVALID_SOCKET on failure.
SOCKET ConnectLoopback(unsigned short port, unsigned timeoutMs = 30000);
// Sends all bytes (several send calls when needed). False on a send error.
bool SendAll(SOCKET socket, std::string_view bytes);
// Reads until the peer closes, an error, or the receive time-out.
// `closedByPeer` tells whether end-of-stream was seen (a time-out is not one).
std::string ReadToEnd(SOCKET socket, bool* closedByPeer = nullptr);

struct HttpAnswer {
  bool connected = false;
  std::string raw;  // everything received
  int status = 0;
  std::string reason;
  std::string headers;  // header lines, "\r\n" separated, without the blank line
  std::string body;
};

// Splits the raw bytes of one answer into status, reason, headers and body.
HttpAnswer SplitHttpAnswer(std::string raw);

// Connects, sends `request` byte for byte, reads to end-of-stream.
HttpAnswer ExchangeRaw(std::string_view request, unsigned short port = kHelperPort,
                       unsigned timeoutMs = 30000);

// A well-formed request with Content-Length (when the body is not empty).
std::string BuildRequest(std::string_view method, std::string_view path,
                         std::string_view body = {});
HttpAnswer Request(std::string_view method, std::string_view path, std::string_view body = {},
                   unsigned timeoutMs = 30000);

}  // namespace orvel::test
