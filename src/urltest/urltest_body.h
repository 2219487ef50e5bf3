#pragma once

// The "/urltest" request body and the text of the streamed answer. The body is
// a byte format of its own (not JSON):
//
//   "ORVELVPN_URLTEST_V2\n" | "ORVELVPN_URLTEST_V1\n"
//   field: request id        (version 2 only)
//   field: test URL
//   node count               decimal digits, then "\n" (no length prefix)
//   field: node tag          node count times
//   field: configuration     the whole core configuration text
//
// A field is its byte length in decimal, "\n", exactly that many bytes (line
// feeds allowed), then one optional "\n". Bytes after the configuration are
// ignored.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace orvel {

constexpr std::string_view kUrlTestMagicV1 = "ORVELVPN_URLTEST_V1\n";
constexpr std::string_view kUrlTestMagicV2 = "ORVELVPN_URLTEST_V2\n";

// Sent as it stands before the first result line; the stream has no length
// and ends when the connection is closed.
constexpr std::string_view kUrlTestStreamHead =
    "HTTP/1.1 200 OK\r\nContent-Type: application/x-ndjson\r\nConnection: close\r\n\r\n";

struct UrlTestRequest {
  std::string requestId;              // empty for version 1: such a test cannot be cancelled
  std::string url;                    // fetched by every test process
  std::vector<std::string> nodeTags;  // in body order, empty tags dropped
  std::string config;                 // written unchanged to the temporary file
};

// Fills `request` (empty on entry). False for an unknown magic line, a
// truncated field, a missing count line or fewer node fields than counted.
// Counts and lengths are read like the C runtime's strtoul with a 32-bit
// unsigned long: no leading digits give 0, "-1" gives 4294967295.
bool ParseUrlTestBody(std::string_view body, UrlTestRequest& request);

// Whether the service may run this test: false, with a fixed text naming what
// is wrong, when the URL is not an http:// or https:// address (any case) or
// when the URL or a node tag holds a control byte (0x00 to 0x1F, 0x7F). Both
// reach the core's command line and the log as they are. The refusal names a
// node by its number in `nodeTags` (from 1) and the byte by its code, never by
// the client's text.
bool CheckServiceUrlTest(const UrlTestRequest& request, std::string& refusal);

// Reads one field at `pos` and moves `pos` past it (and past one line feed
// after it, when there is one). False when `pos` is at the end, the length
// line has no line feed, or the field runs past the end.
bool ReadLengthPrefixedField(std::string_view body, std::size_t& pos, std::string& out);

// The body that ParseUrlTestBody reads back as `request` (version 1 ignores
// the request id). Used by tests, benchmarks and the fuzzer.
std::string EncodeUrlTestBody(const UrlTestRequest& request, int version);

// {"nodeTag":"<escaped tag>","delayMs":<delay>} and a line feed.
std::string BuildUrlTestResultLine(std::string_view nodeTag, std::int32_t delayMs);

}  // namespace orvel
