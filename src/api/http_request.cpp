#include "api/http_request.h"

#include "text/number_text.h"

namespace orvel {

namespace {

constexpr std::string_view kHeadTerminator = "\r\n\r\n";

std::string Lowered(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = ToLowerAscii(c);
  return out;
}

}  // namespace

std::string GetHeaderValue(std::string_view head, std::string_view name) {
  const std::string lowerHead = Lowered(head);
  const std::string needle = Lowered(name) + ":";
  const std::size_t at = lowerHead.find(needle);
  if (at == std::string::npos) return {};
  std::size_t start = at + needle.size();
  while (start < head.size() && head[start] == ' ') ++start;
  std::size_t end = head.find("\r\n", start);
  if (end == std::string_view::npos) end = head.size();
  return std::string(head.substr(start, end - start));
}

RequestLine SplitRequestLine(std::string_view head) {
  std::string_view line = head.substr(0, head.find("\r\n"));
  RequestLine result;
  std::string* words[] = {&result.method, &result.path};
  std::size_t pos = 0;
  for (std::string* word : words) {
    while (pos < line.size() && IsCSpace(line[pos])) ++pos;
    const std::size_t begin = pos;
    while (pos < line.size() && !IsCSpace(line[pos])) ++pos;
    *word = std::string(line.substr(begin, pos - begin));
  }
  return result;
}

FrameStatus FeedRequestBytes(RequestFrame& frame, std::string_view bytes) {
  frame.buffer.append(bytes);
  if (!frame.headSeen) {
    if (frame.buffer.size() > kMaxRequestHeadBytes) return FrameStatus::kHeadTooLarge;
    const std::size_t at = frame.buffer.find(kHeadTerminator, frame.searchFrom);
    if (at == std::string::npos) {
      // The terminator may straddle this chunk and the next one.
      frame.searchFrom = frame.buffer.size() >= 3 ? frame.buffer.size() - 3 : 0;
      return FrameStatus::kNeedMore;
    }
    frame.headSeen = true;
    frame.headerEnd = at;
    const std::string value =
        GetHeaderValue(std::string_view(frame.buffer).substr(0, at), "Content-Length");
    frame.contentLength = value.empty() ? 0 : ParseUnsignedLong32(value);
  }
  const std::uint64_t needed =
      static_cast<std::uint64_t>(frame.headerEnd) + kHeadTerminator.size() + frame.contentLength;
  return frame.buffer.size() >= needed ? FrameStatus::kComplete : FrameStatus::kNeedMore;
}

HttpRequest FinishRequest(const RequestFrame& frame) {
  const std::string_view head = std::string_view(frame.buffer).substr(0, frame.headerEnd);
  RequestLine line = SplitRequestLine(head);
  HttpRequest request;
  request.method = std::move(line.method);
  request.path = std::move(line.path);
  const std::size_t bodyStart = frame.headerEnd + kHeadTerminator.size();
  if (bodyStart < frame.buffer.size()) {
    request.body = frame.buffer.substr(bodyStart, frame.contentLength);
  }
  return request;
}

std::string BuildResponse(std::string_view contentType, std::string_view body, int status,
                          std::string_view reason) {
  std::string response = "HTTP/1.1 ";
  response += std::to_string(status);
  response += ' ';
  response += reason;
  response += "\r\nContent-Type: ";
  response += contentType;
  response += "\r\nContent-Length: ";
  response += std::to_string(body.size());
  response += "\r\nConnection: close\r\n\r\n";
  response += body;
  return response;
}

}  // namespace orvel
