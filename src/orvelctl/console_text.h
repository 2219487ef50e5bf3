#pragma once

// What orvelctl prints, as pure text: human units, the sparkline, the
// snapshot view, the URL test progress and table, and the new part of the log.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "client/answer_text.h"

namespace orvel::orvelctl {

// Helper text as it may reach a terminal: each byte 0x00-0x1F and 0x7F
// written as "\xNN" (upper-case hex), so that a core's output, a process name
// or a node tag can neither move the cursor nor send an escape sequence.
// `keepLineEnds` keeps "\r\n" and "\n" as line breaks (the log reads one
// line per event); a lone "\r" is still escaped.
std::string EscapeForTerminal(std::string_view text, bool keepLineEnds);

// "0 B", "1023 B", "1.0 KiB", "12.3 MiB": binary units, one decimal, rounded
// down so 1023.99 KiB never shows as "1024.0 KiB".
std::string FormatBytes(std::int64_t bytes);
std::string FormatRate(std::int64_t bytesPerSecond);  // FormatBytes + "/s"

// One block character per value ("▁" to "█"), scaled to the largest value.
std::string Sparkline(const std::deque<std::int64_t>& values);

struct Endpoint {
  std::string method;  // HTTPS, HTTP, TCP or UDP
  std::string host;
};
struct ProcessEndpoints {
  std::string processName;
  std::vector<Endpoint> endpoints;
};
struct SnapshotView {
  std::int64_t upRate = 0, downRate = 0, upTotal = 0, downTotal = 0;
  std::size_t endpointCount = 0;
  std::vector<ProcessEndpoints> processes;  // in order of first appearance
};

// The "/traffic-snapshot" document; false when it is not one.
bool ParseSnapshot(std::string_view document, SnapshotView& view);
// Rates and totals, then the endpoints grouped by process (their text
// escaped). Every line ends in "\n".
std::string FormatSnapshot(const SnapshotView& view);
// One line for output that is not a terminal.
std::string FormatSnapshotLine(const SnapshotView& view);

// "12/48 done, 2 failed, fastest jp-02 (112 ms)"; tags escaped here and in
// the table.
std::string FormatUrlTestProgress(const std::vector<client::UrlTestResult>& results,
                                  std::size_t total);
// Sorted by delay, failures (delay 0) last, then by tag; a summary line.
std::string FormatUrlTestTable(std::vector<client::UrlTestResult> results, std::size_t total);

// The helper's log keeps its newest 64 KiB and drops the oldest bytes, so a
// later copy is a tail of the earlier one with new lines after it. Returns
// what `current` adds to `previous`; a copy that starts inside a line (the
// ring has wrapped past everything seen) starts at its first whole line.
std::string_view NewLogText(std::string_view previous, std::string_view current);
constexpr std::size_t kHelperLogCapacity = 65536;

}  // namespace orvel::orvelctl
