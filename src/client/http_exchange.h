#pragma once

// The HTTP side of talking to the helper, as pure text: where to connect, the
// request bytes, and the answer read back. The helper answers one request per
// connection and closes it, so an answer ends at Content-Length or, for the
// streamed URL test, at the close.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace orvel::client {

constexpr std::string_view kDefaultAddress = "127.0.0.1:17891";
// A head longer than this is not the helper's.
constexpr std::size_t kMaxAnswerHeadBytes = 64 * 1024;

struct ClientAddress {
  std::string host;  // as given, without the brackets of an IPv6 literal
  std::uint16_t port = 0;
  std::string text;  // HOST:PORT as given, for messages and the Host header
};

// "HOST:PORT" or "[IPV6]:PORT", port 1..65535. False with a message otherwise.
bool ParseAddress(std::string_view text, ClientAddress& address, std::string& error);

// One complete request. Host carries the address as given; a body is sent
// with Content-Length even when empty for POST, since the helper reads
// exactly that many bytes.
std::string BuildHttpRequest(std::string_view method, std::string_view path, std::string_view body,
                             const ClientAddress& address);

struct HttpAnswer {
  int status = 0;
  std::string reason;
  std::string contentType;
  bool hasLength = false;
  std::uint64_t contentLength = 0;
  std::string body;
  // Not from the answer: the account that held the port when no request
  // was sent (ExchangeResult::kStrangerHolder).
  std::uint32_t strangerUid = 0;
};

enum class HeadState { kIncomplete, kComplete, kMalformed };

// Reads the status line and headers at the front of `bytes`. kComplete sets
// `headBytes` to the length up to and including the blank line. kMalformed:
// no "HTTP/1.x NNN" status line, a header line without a colon, a
// Content-Length that is not plain digits, or no end within
// kMaxAnswerHeadBytes.
HeadState ReadAnswerHead(std::string_view bytes, HttpAnswer& answer, std::size_t& headBytes);

// The whole answer once the helper has closed the connection: head and body
// (cut to Content-Length when given). False when the head is malformed or
// incomplete, or the body is shorter than its Content-Length.
bool ReadWholeAnswer(std::string_view bytes, HttpAnswer& answer);

}  // namespace orvel::client
