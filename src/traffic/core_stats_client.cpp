#include "traffic/core_stats_client.h"

#include <mutex>
#include <nlohmann/json.hpp>

#include "text/number_text.h"

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

bool TakeLatestTrafficSample(std::string& pending, std::string& sample) {
  const std::size_t lastEnd = pending.rfind('\n');
  if (lastEnd == std::string::npos) {
    if (pending.size() > kCoreResponseCapBytes) pending.clear();
    return false;
  }
  bool found = false;
  const std::string_view lines(pending.data(), lastEnd + 1);
  for (std::size_t start = 0; start < lines.size();) {
    const std::size_t end = lines.find('\n', start);
    const std::string_view line = lines.substr(start, end - start);
    if (HoldsTrafficSample(line)) {
      sample.assign(line);
      found = true;
    }
    start = end + 1;
  }
  pending.erase(0, lastEnd + 1);
  return found;
}

namespace {

std::mutex secretLock;
std::string controllerSecret;

}  // namespace

std::string FindControllerSecret(std::string_view config) {
  const nlohmann::json parsed = nlohmann::json::parse(config, nullptr, false, true);
  if (parsed.is_discarded()) return {};
  const nlohmann::json::json_pointer where("/experimental/clash_api/secret");
  if (!parsed.contains(where) || !parsed.at(where).is_string()) return {};
  const std::string secret = parsed.at(where).get<std::string>();
  for (const char c : secret) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return {};
  }
  return secret;
}

void SetControllerSecret(std::string secret) {
  std::lock_guard<std::mutex> hold(secretLock);
  controllerSecret = std::move(secret);
}

std::string BuildControllerRequest(std::string_view path) {
  std::string request = "GET ";
  request += path;
  request += " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
  {
    std::lock_guard<std::mutex> hold(secretLock);
    if (!controllerSecret.empty()) request += "Authorization: Bearer " + controllerSecret + "\r\n";
  }
  request += "Connection: close\r\n\r\n";
  return request;
}

}  // namespace orvel
