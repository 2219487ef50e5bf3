#pragma once

// One request to the helper over its own connection: the whole answer, or
// the answer read piece by piece as lines (the URL test stream).

#include <string>
#include <string_view>
#include <vector>

#include "client/answer_text.h"
#include "client/client_socket.h"
#include "client/http_exchange.h"

namespace orvel::client {

enum class ExchangeResult {
  kAnswered,        // an HTTP answer arrived whole (any status)
  kNoHelper,        // nothing accepted the connection
  kBrokenAnswer,    // not HTTP, cut short, or silent past the time-out
  kStrangerHolder,  // another account listens on the port; nothing was sent
  kUnknownHolder    // who listens could not be told; nothing was sent
};

// Connects (to a listener of root's or the caller's only, see
// ConnectToTrustedListener), sends the request and reads until the helper
// closes. kStrangerHolder sets answer.strangerUid.
ExchangeResult Exchange(const ClientAddress& address, std::string_view method,
                        std::string_view path, std::string_view body, HttpAnswer& answer,
                        int timeoutMs = 30000);

// A streamed answer: the head first, then the body as lines.
struct AnswerStream {
  ClientSocket socket;
  std::string headBuffer;
  bool headDone = false;
  HttpAnswer head;  // status, reason and headers once headDone
  LineReader lines;
};

// Connects as Exchange does (kStrangerHolder sets head.strangerUid) and sends
// the request; kAnswered means "sent, ready to read".
ExchangeResult OpenStream(const ClientAddress& address, std::string_view method,
                          std::string_view path, std::string_view body, AnswerStream& stream);

enum class StreamStep { kData, kIdle, kClosed, kBroken };

// Waits up to `waitMs` for bytes and adds the body's complete lines to
// `lines`. kIdle: nothing arrived in time. kClosed: the helper ended the
// answer cleanly (a whole head, no half line left). kBroken: anything else.
StreamStep ReadStream(AnswerStream& stream, int waitMs, std::vector<std::string>& lines);

}  // namespace orvel::client
