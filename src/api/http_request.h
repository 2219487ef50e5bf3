#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace orvel {

constexpr std::size_t kReceiveChunkBytes = 4096;
constexpr std::size_t kMaxRequestHeadBytes = 1048576;

// Value of the first header whose name matches `name` in any letter case, or
// "". The search is a plain substring search over the whole head (not anchored
// to a line start), so "X-Content-Length:" also matches "Content-Length"; the
// client application never sends such headers and the behaviour is kept.
std::string GetHeaderValue(std::string_view head, std::string_view name);

// First and second white-space separated words of the request line.
struct RequestLine {
  std::string method;
  std::string path;
};
RequestLine SplitRequestLine(std::string_view head);

enum class FrameStatus { kNeedMore, kComplete, kHeadTooLarge };

// Accumulates the bytes of one request as they arrive, in any split.
struct RequestFrame {
  std::string buffer;
  bool headSeen = false;
  std::size_t headerEnd = 0;        // index of the first "\r\n\r\n"
  std::uint32_t contentLength = 0;  // declared body length
  std::size_t searchFrom = 0;       // where the next terminator search starts
};

// Adds received bytes. kHeadTooLarge when the buffer passes the head limit
// before a blank line was seen (the read that would complete the head counts
// too); kComplete once the head and the declared body are in.
FrameStatus FeedRequestBytes(RequestFrame& frame, std::string_view bytes);

struct HttpRequest {
  std::string method;
  std::string path;
  std::string body;  // at most contentLength bytes; anything beyond is dropped
};
HttpRequest FinishRequest(const RequestFrame& frame);

// One complete HTTP/1.1 response: status line, Content-Type, Content-Length,
// Connection: close, blank line, body. No other header is ever written.
std::string BuildResponse(std::string_view contentType, std::string_view body, int status,
                          std::string_view reason);

}  // namespace orvel
