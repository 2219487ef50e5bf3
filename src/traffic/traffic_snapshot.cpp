#include "traffic/traffic_snapshot.h"

#include <limits>

#include "text/json_text.h"
#include "text/number_text.h"

namespace orvel {

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// strtoll over a run of digits and minus signs: one optional leading minus,
// then digits up to the first other character; saturates on overflow.
std::int64_t ParseSignedRun(std::string_view run) {
  std::size_t pos = 0;
  const bool negative = !run.empty() && run[0] == '-';
  if (negative) ++pos;
  // Accumulate as a negative number: its range is one larger.
  std::int64_t value = 0;
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  for (; pos < run.size() && IsDigit(run[pos]); ++pos) {
    const int digit = run[pos] - '0';
    if (value < (kMin + digit) / 10) {
      return negative ? kMin : std::numeric_limits<std::int64_t>::max();
    }
    value = value * 10 - digit;
  }
  if (negative) return value;
  return value == kMin ? std::numeric_limits<std::int64_t>::max() : -value;
}

bool IsDroppedAddress(std::string_view address) {
  return address.empty() || address == "0.0.0.0" || address == "::" || address == "127.0.0.1" ||
         address == "::1";
}

std::string_view MethodForPort(std::uint16_t port, std::string_view protocol) {
  if (port == 443) return "HTTPS";
  if (port == 80) return "HTTP";
  return protocol;
}

}  // namespace

std::int64_t FindJsonNumber(std::string_view text, std::string_view key) {
  std::string needle = "\"";
  needle += key;
  needle += "\":";
  const std::size_t found = text.find(needle);
  if (found == std::string_view::npos) return 0;
  std::size_t start = found + needle.size();
  while (start < text.size() && IsCSpace(text[start])) ++start;
  std::size_t end = start;
  while (end < text.size() && (IsDigit(text[end]) || text[end] == '-')) ++end;
  return ParseSignedRun(text.substr(start, end - start));
}

void AppendProcessEntry(ProcessEntryList& list, const SocketObservation& observation) {
  if (list.count >= kMaxProcessEntries) return;
  if (IsDroppedAddress(observation.address)) return;
  std::string host(observation.address);
  host += ':';
  host += std::to_string(observation.port);
  std::string key = std::to_string(observation.pid);
  key += '|';
  key += observation.protocol;
  key += '|';
  key += host;
  if (!list.keys.insert(std::move(key)).second) return;

  if (list.count > 0) list.text += ',';
  // The per-entry figures, policy and status are fixed placeholders: the
  // helper counts no bytes per process. An IPv6 host keeps no brackets.
  list.text += "{\"processName\":\"";
  list.text += JsonEscape(list.nameForPid(observation.pid));
  list.text +=
      "\",\"policy\":\"Proxy\",\"totalBytes\":0,\"uploadBytesPerSecond\":0,"
      "\"downloadBytesPerSecond\":0,\"durationSeconds\":0,\"status\":\"Active\",\"method\":\"";
  list.text += MethodForPort(observation.port, observation.protocol);
  list.text += "\",\"host\":\"";
  list.text += JsonEscape(host);
  list.text += "\"}";
  ++list.count;
}

CoreFigures ReadCoreFigures(std::string_view trafficText, std::string_view connectionsText) {
  CoreFigures figures;
  figures.up = FindJsonNumber(trafficText, "up");
  figures.down = FindJsonNumber(trafficText, "down");
  figures.uploadTotal = FindJsonNumber(connectionsText, "uploadTotal");
  figures.downloadTotal = FindJsonNumber(connectionsText, "downloadTotal");
  return figures;
}

std::string FormatTrafficSnapshot(const CoreFigures& figures, std::string_view processes) {
  std::string text = "{\"uploadBytesPerSecond\":";
  text += std::to_string(figures.up);
  text += ",\"downloadBytesPerSecond\":";
  text += std::to_string(figures.down);
  text += ",\"uploadTotalBytes\":";
  text += std::to_string(figures.uploadTotal);
  text += ",\"downloadTotalBytes\":";
  text += std::to_string(figures.downloadTotal);
  text += ",\"processes\":";
  text += processes;
  text += '}';
  return text;
}

}  // namespace orvel
