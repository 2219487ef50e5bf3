// Any bytes parse without a fault, and a parsed body written out again reads
// back as the same request.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "urltest/urltest_body.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  orvel::UrlTestRequest request;
  if (!orvel::ParseUrlTestBody(body, request)) return 0;
  for (const std::string& tag : request.nodeTags) {
    if (tag.empty()) std::abort();
  }
  const int version = body.starts_with(orvel::kUrlTestMagicV1) ? 1 : 2;
  if (version == 1 && !request.requestId.empty()) std::abort();
  orvel::UrlTestRequest again;
  if (!orvel::ParseUrlTestBody(orvel::EncodeUrlTestBody(request, version), again)) std::abort();
  if (again.requestId != request.requestId || again.url != request.url ||
      again.nodeTags != request.nodeTags || again.config != request.config) {
    std::abort();
  }
  return 0;
}
