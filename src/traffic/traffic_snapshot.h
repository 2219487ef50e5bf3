#pragma once

// GET /traffic-snapshot: the core's own rates and totals plus an inventory of
// local socket endpoints and their owning processes.

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>

#include "traffic/socket_tables.h"

namespace orvel {

// At most this many process entries are written, whatever the machine holds.
constexpr std::uint64_t kMaxProcessEntries = 80;

// The whole answer while no core runs (112 bytes).
constexpr std::string_view kEmptyTrafficSnapshot =
    "{\"uploadBytesPerSecond\":0,\"downloadBytesPerSecond\":0,\"uploadTotalBytes\":0,"
    "\"downloadTotalBytes\":0,\"processes\":[]}";

// The number after the first `"key":` in `text` (the raw HTTP answer, headers
// included): white space after the colon is skipped, then the longest run of
// digits and minus signs is read as a signed decimal ("12-3" gives 12, "-"
// gives 0, out-of-range values stop at the 64-bit limits). 0 when the key is
// missing.
std::int64_t FindJsonNumber(std::string_view text, std::string_view key);

// Working state of one snapshot's "processes" array.
struct ProcessEntryList {
  // Names the process of each entry actually written (injected so that the
  // entry logic can be tried with made-up observations).
  std::string (*nameForPid)(std::uint32_t pid) = nullptr;
  std::string text = "[";
  // "pid|protocol|address:port" of every entry written.
  std::unordered_set<std::string> keys;
  std::uint64_t count = 0;
};

// The sink of the socket scans. Drops the observation once the list is full,
// when its address is empty or exactly "0.0.0.0", "::", "127.0.0.1" or "::1"
// (other loopback addresses stay), or when its key was written before;
// otherwise appends one entry object (comma-separated). Method: "HTTPS" on
// port 443, "HTTP" on 80, else the protocol, for UDP's local port too.
void AppendProcessEntry(ProcessEntryList& list, const SocketObservation& observation);

// The core's four figures, read from the raw "/traffic" and "/connections"
// answers (0 for whatever is missing).
struct CoreFigures {
  std::int64_t up = 0;
  std::int64_t down = 0;
  std::int64_t uploadTotal = 0;
  std::int64_t downloadTotal = 0;
};
CoreFigures ReadCoreFigures(std::string_view trafficText, std::string_view connectionsText);

// The snapshot document; `processes` is the finished array text.
std::string FormatTrafficSnapshot(const CoreFigures& figures, std::string_view processes);

// Never fails: kEmptyTrafficSnapshot when no core runs, otherwise the core's
// figures (0 when its controller is off, silent or refuses) and the process
// list from the socket tables.
std::string BuildTrafficSnapshot();
// The "processes" array of a snapshot, "[" to "]", from the four socket table
// scans: the part of a snapshot that the system's tables decide alone.
std::string BuildProcessEntries();

}  // namespace orvel
