// The client's answer reader on any bytes: no fault; the head reader agrees
// with itself on every prefix (incomplete until the blank line, then the same
// head), and a whole answer's body is exactly its Content-Length; its result
// line and status readers take any body without a fault.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "client/answer_text.h"
#include "client/http_exchange.h"

using namespace orvel::client;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view raw(reinterpret_cast<const char*>(data), size);
  HttpAnswer whole;
  std::size_t headBytes = 0;
  const HeadState state = ReadAnswerHead(raw, whole, headBytes);
  if (state == HeadState::kComplete) {
    if (headBytes > raw.size() || raw.substr(headBytes - 4, 4) != "\r\n\r\n") std::abort();
    // Every shorter prefix that still holds the blank line reads the same.
    HttpAnswer again;
    std::size_t againBytes = 0;
    if (ReadAnswerHead(raw.substr(0, headBytes), again, againBytes) != HeadState::kComplete ||
        againBytes != headBytes || again.status != whole.status ||
        again.contentLength != whole.contentLength || again.reason != whole.reason) {
      std::abort();
    }
    if (headBytes > 1 &&
        ReadAnswerHead(raw.substr(0, headBytes - 1), again, againBytes) == HeadState::kComplete) {
      std::abort();
    }
    if (whole.status < 0 || whole.status > 999) std::abort();
  }
  HttpAnswer answer;
  if (ReadWholeAnswer(raw, answer)) {
    if (state != HeadState::kComplete) std::abort();
    if (answer.hasLength && answer.body.size() != answer.contentLength) std::abort();
    if (!answer.hasLength && answer.body.size() != raw.size() - headBytes) std::abort();
  }
  StatusAnswer status;
  ParseStatusBody(raw, status);
  UrlTestResult result;
  ParseUrlTestResultLine(raw, result);
  return 0;
}
