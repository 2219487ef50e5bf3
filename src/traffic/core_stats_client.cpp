#include "traffic/core_stats_client.h"

#include "api/number_text.h"

namespace orvel {

namespace {

constexpr std::string_view kLengthHeader = "content-length:";

// First position of `lowerNeedle` in `text` compared in lower case, or npos.
// Searching in place instead of lower-casing a copy of the head keeps each
// check linear without an allocation; the answer is the same.
std::size_t FindIgnoringCase(std::string_view text, std::string_view lowerNeedle) {
  if (text.size() < lowerNeedle.size()) return std::string_view::npos;
  for (std::size_t at = 0; at + lowerNeedle.size() <= text.size(); ++at) {
    std::size_t i = 0;
    while (i < lowerNeedle.size() && ToLowerAscii(text[at + i]) == lowerNeedle[i]) ++i;
    if (i == lowerNeedle.size()) return at;
  }
  return std::string_view::npos;
}

bool DeclaredLengthArrived(std::string_view response) {
  const std::size_t headEnd = response.find("\r\n\r\n");
  if (headEnd == std::string_view::npos) return false;
  const std::string_view head = response.substr(0, headEnd);
  const std::size_t name = FindIgnoringCase(head, kLengthHeader);
  if (name == std::string_view::npos) return false;
  std::size_t digits = name + kLengthHeader.size();
  // Spaces only: a tab before the value makes the header count as absent.
  while (digits < head.size() && head[digits] == ' ') ++digits;
  std::size_t digitsEnd = digits;
  while (digitsEnd < head.size() && head[digitsEnd] >= '0' && head[digitsEnd] <= '9') ++digitsEnd;
  if (digitsEnd == digits) return false;
  const std::uint64_t declared = ParseUnsignedLong32(head.substr(digits, digitsEnd - digits));
  return response.size() >= headEnd + 4 + declared;
}

bool HoldsTrafficSample(std::string_view response) {
  return response.find("\"up\":") != std::string_view::npos &&
         response.find("\"down\":") != std::string_view::npos;
}

}  // namespace

bool IsCoreResponseComplete(std::string_view response) {
  return DeclaredLengthArrived(response) || HoldsTrafficSample(response);
}

}  // namespace orvel
