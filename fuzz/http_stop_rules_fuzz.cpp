// When a controller answer may be ended. Checked against the rules written
// out the plain way (lower-cased copy of the head, strtoul), and for the
// property the receive loop relies on: once complete, more bytes never make
// an answer incomplete again.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "traffic/core_stats_client.h"

namespace {

bool Expected(const std::string& response) {
  if (response.find("\"up\":") != std::string::npos &&
      response.find("\"down\":") != std::string::npos) {
    return true;
  }
  const std::size_t headEnd = response.find("\r\n\r\n");
  if (headEnd == std::string::npos) return false;
  std::string head = response.substr(0, headEnd);
  for (char& c : head) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  if (head.size() < 15) return false;
  std::size_t at = head.find("content-length:");
  if (at == std::string::npos) return false;
  at += 15;
  while (at < head.size() && head[at] == ' ') ++at;
  std::size_t end = at;
  while (end < head.size() && head[end] >= '0' && head[end] <= '9') ++end;
  if (end == at) return false;
  // The helper's C runtime has a 32-bit unsigned long: out-of-range values
  // become its largest value.
  unsigned long long declared = std::strtoull(head.substr(at, end - at).c_str(), nullptr, 10);
  if (declared > 4294967295ull) declared = 4294967295ull;
  return response.size() >= headEnd + 4 + declared;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string response(reinterpret_cast<const char*>(data), size);
  const bool complete = orvel::IsCoreResponseComplete(response);
  if (complete != Expected(response)) std::abort();
  // Prefixes at receive-sized steps taken from the input itself.
  std::size_t at = 0;
  bool seen = false;
  while (at < size) {
    at += 1 + data[at] % 64;
    if (at > size) at = size;
    const bool prefixComplete = orvel::IsCoreResponseComplete(response.substr(0, at));
    if (seen && !prefixComplete) std::abort();
    seen = seen || prefixComplete;
  }
  if (seen && !complete) std::abort();
  return 0;
}
