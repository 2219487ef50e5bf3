#include "core/mixed_port.h"

#include <cstdint>

#include "text/number_text.h"

namespace orvel {

namespace {

constexpr std::string_view kSpacedTagNeedle = "\"tag\": \"orvel-vpn-mixed\"";
constexpr std::string_view kCompactTagNeedle = "\"tag\":\"orvel-vpn-mixed\"";
constexpr std::string_view kPortKeyNeedle = "\"listen_port\"";

}  // namespace

int FindMixedInboundPort(std::string_view config) {
  std::size_t start = config.find(kSpacedTagNeedle);
  if (start == std::string_view::npos) start = config.find(kCompactTagNeedle);
  if (start == std::string_view::npos) start = 0;
  if (config.size() < kPortKeyNeedle.size() || start > config.size() - kPortKeyNeedle.size()) {
    return kDefaultMixedPort;
  }
  const std::size_t key = config.find(kPortKeyNeedle, start);
  if (key == std::string_view::npos) return kDefaultMixedPort;
  std::size_t pos = config.find(':', key + kPortKeyNeedle.size());
  if (pos == std::string_view::npos) return kDefaultMixedPort;
  ++pos;
  while (pos < config.size() && IsCSpace(config[pos])) ++pos;
  if (pos >= config.size()) return kDefaultMixedPort;
  // atoi on the digit run. Values past 65535 are refused anyway, so the sum
  // only has to saturate instead of overflowing.
  std::int64_t value = 0;
  const std::size_t digitsStart = pos;
  for (; pos < config.size() && config[pos] >= '0' && config[pos] <= '9'; ++pos) {
    if (value <= 65535) value = value * 10 + (config[pos] - '0');
  }
  if (pos == digitsStart) return kDefaultMixedPort;
  return (value >= 1 && value <= 65535) ? static_cast<int>(value) : kDefaultMixedPort;
}

}  // namespace orvel
