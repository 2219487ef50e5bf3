#include "client/helper_client.h"

namespace orvel::client {

namespace {

constexpr int kReceiveChunk = 16 * 1024;

// kAnswered when connected: nothing has been sent yet.
ExchangeResult Connect(const ClientAddress& address, ClientSocket& socket,
                       std::uint32_t& strangerUid) {
  switch (ConnectToTrustedListener(address, socket, strangerUid)) {
    case ConnectResult::kConnected:
      return ExchangeResult::kAnswered;
    case ConnectResult::kStrangerHolder:
      return ExchangeResult::kStrangerHolder;
    case ConnectResult::kUnknownHolder:
      return ExchangeResult::kUnknownHolder;
    case ConnectResult::kRefused:
      break;
  }
  return ExchangeResult::kNoHelper;
}

}  // namespace

ExchangeResult Exchange(const ClientAddress& address, std::string_view method,
                        std::string_view path, std::string_view body, HttpAnswer& answer,
                        int timeoutMs) {
  ClientSocket socket;
  if (const ExchangeResult connected = Connect(address, socket, answer.strangerUid);
      connected != ExchangeResult::kAnswered) {
    return connected;
  }
  if (!SendAllBytes(socket, BuildHttpRequest(method, path, body, address))) {
    return ExchangeResult::kBrokenAnswer;
  }
  std::string raw;
  char chunk[kReceiveChunk];
  for (;;) {
    const int received = ReceiveSome(socket, chunk, kReceiveChunk, timeoutMs);
    if (received == kReceiveClosed) break;
    if (received < 0) return ExchangeResult::kBrokenAnswer;
    raw.append(chunk, static_cast<std::size_t>(received));
    // The helper's largest answer is the 64 KiB log; far more is not it.
    if (raw.size() > 16 * 1024 * 1024) return ExchangeResult::kBrokenAnswer;
  }
  return ReadWholeAnswer(raw, answer) ? ExchangeResult::kAnswered : ExchangeResult::kBrokenAnswer;
}

ExchangeResult OpenStream(const ClientAddress& address, std::string_view method,
                          std::string_view path, std::string_view body, AnswerStream& stream) {
  if (const ExchangeResult connected = Connect(address, stream.socket, stream.head.strangerUid);
      connected != ExchangeResult::kAnswered) {
    return connected;
  }
  if (!SendAllBytes(stream.socket, BuildHttpRequest(method, path, body, address))) {
    return ExchangeResult::kBrokenAnswer;
  }
  return ExchangeResult::kAnswered;
}

StreamStep ReadStream(AnswerStream& stream, int waitMs, std::vector<std::string>& lines) {
  char chunk[kReceiveChunk];
  const int received = ReceiveSome(stream.socket, chunk, kReceiveChunk, waitMs);
  if (received == kReceiveTimedOut) return StreamStep::kIdle;
  if (received == kReceiveError) return StreamStep::kBroken;
  if (received == kReceiveClosed) {
    return stream.headDone && stream.lines.pending.empty() ? StreamStep::kClosed
                                                           : StreamStep::kBroken;
  }
  std::string_view bytes(chunk, static_cast<std::size_t>(received));
  if (!stream.headDone) {
    stream.headBuffer.append(bytes);
    std::size_t headBytes = 0;
    const HeadState state = ReadAnswerHead(stream.headBuffer, stream.head, headBytes);
    if (state == HeadState::kMalformed) return StreamStep::kBroken;
    if (state == HeadState::kIncomplete) return StreamStep::kData;
    stream.headDone = true;
    bytes = std::string_view(stream.headBuffer).substr(headBytes);
  }
  return FeedLines(stream.lines, bytes, lines) ? StreamStep::kData : StreamStep::kBroken;
}

}  // namespace orvel::client
