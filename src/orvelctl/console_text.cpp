#include "orvelctl/console_text.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace orvel::orvelctl {

namespace {

// Characters, not bytes: a UTF-8 tag must not push its column out of line.
std::size_t CountDisplayWidth(std::string_view text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

std::string PadRight(std::string_view text, std::size_t width) {
  std::string out(text);
  const std::size_t shown = CountDisplayWidth(text);
  if (shown < width) out.append(width - shown, ' ');
  return out;
}

std::string PadLeft(std::string_view text, std::size_t width) {
  const std::size_t shown = CountDisplayWidth(text);
  return std::string(shown < width ? width - shown : 0, ' ') + std::string(text);
}

std::string FormatDelay(std::int64_t delayMs) {
  return delayMs == 0 ? "failed" : std::to_string(delayMs) + " ms";
}

bool IsFaster(const client::UrlTestResult& a, const client::UrlTestResult& b) {
  if ((a.delayMs == 0) != (b.delayMs == 0)) return b.delayMs == 0;
  if (a.delayMs != b.delayMs) return a.delayMs < b.delayMs;
  return a.nodeTag < b.nodeTag;
}

// The longest prefix of `pattern` that `text` ends with (Knuth-Morris-Pratt,
// linear in both: the log is up to 64 KiB and is compared once a second).
std::size_t FindLongestOverlap(std::string_view text, std::string_view pattern) {
  if (pattern.empty()) return 0;
  std::vector<std::size_t> fail(pattern.size(), 0);
  for (std::size_t i = 1, k = 0; i < pattern.size(); ++i) {
    while (k > 0 && pattern[i] != pattern[k]) k = fail[k - 1];
    if (pattern[i] == pattern[k]) ++k;
    fail[i] = k;
  }
  std::size_t matched = 0;
  for (char c : text) {
    if (matched == pattern.size()) matched = fail[matched - 1];
    while (matched > 0 && c != pattern[matched]) matched = fail[matched - 1];
    if (c == pattern[matched]) ++matched;
  }
  return matched;
}

}  // namespace

std::string EscapeForTerminal(std::string_view text, bool keepLineEnds) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool lineEnd =
        byte == '\n' || (byte == '\r' && i + 1 < text.size() && text[i + 1] == '\n');
    if ((byte >= 0x20 && byte != 0x7F) || (keepLineEnds && lineEnd)) {
      out += text[i];
    } else {
      out += "\\x";
      out += kHex[byte >> 4];
      out += kHex[byte & 0xF];
    }
  }
  return out;
}

std::string FormatBytes(std::int64_t bytes) {
  static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  const bool negative = bytes < 0;
  // The magnitude of INT64_MIN does not fit an int64; it does fit a uint64.
  const std::uint64_t magnitude =
      negative ? ~static_cast<std::uint64_t>(bytes) + 1 : static_cast<std::uint64_t>(bytes);
  std::string out = negative ? "-" : "";
  if (magnitude < 1024) return out + std::to_string(magnitude) + " B";
  std::size_t unit = 1;
  std::uint64_t scale = 1024;
  while (unit + 1 < std::size(kUnits) && magnitude / scale >= 1024) {
    scale *= 1024;
    ++unit;
  }
  const std::uint64_t whole = magnitude / scale;
  // The remainder is below 2^60, so ten times it still fits.
  const std::uint64_t tenths = (magnitude % scale) * 10 / scale;
  return out + std::to_string(whole) + "." + std::to_string(tenths) + " " + kUnits[unit];
}

std::string FormatRate(std::int64_t bytesPerSecond) { return FormatBytes(bytesPerSecond) + "/s"; }

std::string Sparkline(const std::deque<std::int64_t>& values) {
  static const char* const kBlocks[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  std::int64_t most = 0;
  for (std::int64_t v : values) most = std::max(most, v);
  std::string out;
  for (std::int64_t v : values) {
    const std::int64_t level = (most <= 0 || v <= 0) ? 0 : (v * 7 + most - 1) / most;
    out += kBlocks[std::clamp<std::int64_t>(level, 0, 7)];
  }
  return out;
}

bool ParseSnapshot(std::string_view document, SnapshotView& view) {
  using nlohmann::json;
  const json parsed = json::parse(document.begin(), document.end(), nullptr, false);
  if (!parsed.is_object()) return false;
  view = SnapshotView{};
  const std::pair<const char*, std::int64_t*> figures[] = {
      {"uploadBytesPerSecond", &view.upRate},
      {"downloadBytesPerSecond", &view.downRate},
      {"uploadTotalBytes", &view.upTotal},
      {"downloadTotalBytes", &view.downTotal}};
  for (const auto& [key, target] : figures) {
    const auto found = parsed.find(key);
    if (found == parsed.end() || !found->is_number_integer()) return false;
    *target = found->get<std::int64_t>();
  }
  const auto processes = parsed.find("processes");
  if (processes == parsed.end() || !processes->is_array()) return false;
  for (const json& entry : *processes) {
    if (!entry.is_object()) return false;
    const auto name = entry.find("processName");
    const auto method = entry.find("method");
    const auto host = entry.find("host");
    if (name == entry.end() || !name->is_string() || method == entry.end() ||
        !method->is_string() || host == entry.end() || !host->is_string()) {
      return false;
    }
    const std::string& processName = name->get_ref<const std::string&>();
    auto group = std::ranges::find(view.processes, processName, &ProcessEndpoints::processName);
    if (group == view.processes.end()) {
      view.processes.push_back({processName, {}});
      group = view.processes.end() - 1;
    }
    group->endpoints.push_back({method->get<std::string>(), host->get<std::string>()});
    ++view.endpointCount;
  }
  return true;
}

std::string FormatSnapshot(const SnapshotView& view) {
  std::string out;
  out += "upload    " + PadRight(FormatRate(view.upRate), 14) + "total " +
         FormatBytes(view.upTotal) + "\n";
  out += "download  " + PadRight(FormatRate(view.downRate), 14) + "total " +
         FormatBytes(view.downTotal) + "\n";
  if (view.processes.empty()) return out + "no process endpoints\n";
  out += std::to_string(view.endpointCount) + " endpoints in " +
         std::to_string(view.processes.size()) + " processes\n";
  for (const ProcessEndpoints& process : view.processes) {
    out += "  " + EscapeForTerminal(process.processName, false) + " (" +
           std::to_string(process.endpoints.size()) + ")\n";
    for (const Endpoint& endpoint : process.endpoints) {
      out += "    " + PadRight(EscapeForTerminal(endpoint.method, false), 6) +
             EscapeForTerminal(endpoint.host, false) + "\n";
    }
  }
  return out;
}

std::string FormatSnapshotLine(const SnapshotView& view) {
  return "up " + FormatRate(view.upRate) + " down " + FormatRate(view.downRate) + " total up " +
         FormatBytes(view.upTotal) + " down " + FormatBytes(view.downTotal) + " endpoints " +
         std::to_string(view.endpointCount) + "\n";
}

std::string FormatUrlTestProgress(const std::vector<client::UrlTestResult>& results,
                                  std::size_t total) {
  std::size_t failed = 0;
  const client::UrlTestResult* fastest = nullptr;
  for (const client::UrlTestResult& result : results) {
    if (result.delayMs == 0) {
      ++failed;
    } else if (fastest == nullptr || IsFaster(result, *fastest)) {
      fastest = &result;
    }
  }
  std::string out = std::to_string(results.size()) + "/" + std::to_string(total) + " done, " +
                    std::to_string(failed) + " failed";
  if (fastest != nullptr) {
    out += ", fastest " + EscapeForTerminal(fastest->nodeTag, false) + " (" +
           FormatDelay(fastest->delayMs) + ")";
  }
  return out;
}

std::string FormatUrlTestTable(std::vector<client::UrlTestResult> results, std::size_t total) {
  std::ranges::stable_sort(results, IsFaster);
  for (client::UrlTestResult& result : results) {
    result.nodeTag = EscapeForTerminal(result.nodeTag, false);
  }
  std::size_t tagWidth = 4;
  for (const client::UrlTestResult& result : results) {
    tagWidth = std::max(tagWidth, CountDisplayWidth(result.nodeTag));
  }
  const std::size_t rankWidth = std::max<std::size_t>(2, std::to_string(results.size()).size());
  std::string out = PadLeft("#", rankWidth) + "  " + PadRight("node", tagWidth) + "  delay\n";
  std::size_t failed = 0;
  for (std::size_t i = 0; i < results.size(); ++i) {
    if (results[i].delayMs == 0) ++failed;
    out += PadLeft(std::to_string(i + 1), rankWidth) + "  " +
           PadRight(results[i].nodeTag, tagWidth) + "  " +
           PadLeft(FormatDelay(results[i].delayMs), 6) + "\n";
  }
  out += std::to_string(results.size()) + " of " + std::to_string(total) + " nodes reported, " +
         std::to_string(failed) + " failed\n";
  return out;
}

std::string_view NewLogText(std::string_view previous, std::string_view current) {
  const std::size_t overlap = FindLongestOverlap(previous, current);
  std::string_view added = current.substr(overlap);
  if (overlap == 0 && current.size() >= kHelperLogCapacity) {
    const std::size_t firstEnd = added.find("\r\n");
    added = firstEnd == std::string_view::npos ? std::string_view() : added.substr(firstEnd + 2);
  }
  return added;
}

}  // namespace orvel::orvelctl
