// Request framing: the bytes are fed in pieces whose sizes come from the input
// itself, and every split must give the same outcome as one whole read.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "api/http_request.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  orvel::RequestFrame whole;
  const orvel::FrameStatus wholeStatus = orvel::FeedRequestBytes(whole, input);

  orvel::RequestFrame split;
  orvel::FrameStatus splitStatus = orvel::FrameStatus::kNeedMore;
  std::size_t at = 0;
  while (at < size && splitStatus == orvel::FrameStatus::kNeedMore) {
    const std::size_t piece = 1 + data[at] % 7;
    splitStatus = orvel::FeedRequestBytes(split, input.substr(at, piece));
    at += piece;
  }
  if (wholeStatus == orvel::FrameStatus::kComplete) {
    if (splitStatus != orvel::FrameStatus::kComplete) std::abort();
    const orvel::HttpRequest a = orvel::FinishRequest(whole);
    const orvel::HttpRequest b = orvel::FinishRequest(split);
    if (a.method != b.method || a.path != b.path || a.body != b.body) std::abort();
    if (a.body.size() > whole.contentLength) std::abort();
  }
  orvel::GetHeaderValue(input, "Content-Length");
  return 0;
}
