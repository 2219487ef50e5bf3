// The browser and rebinding refusal over any head: it never refuses a head
// that has no Sec-Fetch-Site, Origin or Host header line (checked the plain
// way on a lower-cased copy), names one of those three when it refuses, and
// its log message never holds a line break of the sender's.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "api/request_guard.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string head(reinterpret_cast<const char*>(data), size);
  std::string lowered = head;
  for (char& c : lowered) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  const bool marked = lowered.find("\r\nsec-fetch-site:") != std::string::npos ||
                      lowered.find("\r\norigin:") != std::string::npos ||
                      lowered.find("\r\nhost:") != std::string::npos;
  const orvel::HeadRefusal refusal = orvel::FindHeadRefusal(head);
  if (refusal.header.empty()) return 0;
  if (!marked) std::abort();
  if (refusal.header != "Sec-Fetch-Site" && refusal.header != "Origin" &&
      refusal.header != "Host") {
    std::abort();
  }
  const std::string message = orvel::DescribeRefusal(head.substr(0, 8), head, refusal);
  if (message.find_first_of("\r\n") != std::string::npos) std::abort();
  return 0;
}
