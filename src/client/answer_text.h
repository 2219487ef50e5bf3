#pragma once

// Readers for the helper's answer bodies. The helper writes its JSON by hand
// and escapes only line feed, carriage return, double quote and backslash, so
// a message may carry raw control bytes (a core's coloured output) that a
// strict JSON parser refuses. These readers take exactly the shapes the
// helper writes and accept any bytes inside the strings.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace orvel::client {

struct StatusAnswer {
  std::string status;  // "connected" or "disconnected"
  std::string platform;
  std::string message;
};

// {"status":"…","platform":"…","message":"…"}, nothing before or after.
bool ParseStatusBody(std::string_view body, StatusAnswer& answer);

struct UrlTestResult {
  std::string nodeTag;
  std::int64_t delayMs = 0;  // 0: the node failed, timed out or could not run
};

// {"nodeTag":"…","delayMs":N} without its line feed.
bool ParseUrlTestResultLine(std::string_view line, UrlTestResult& result);

// Splits a byte stream into lines at "\n", whatever the chunks it arrives in.
struct LineReader {
  std::string pending;  // bytes after the last line feed
  std::size_t maxLineBytes = 1024 * 1024;
};

// Appends `chunk` and moves every complete line (without its "\n") to
// `lines`. False when a line grows past maxLineBytes: the stream is not the
// helper's and the reader keeps nothing more.
bool FeedLines(LineReader& reader, std::string_view chunk, std::vector<std::string>& lines);

}  // namespace orvel::client
