#pragma once

#include <string>
#include <string_view>

namespace orvel {

// Escapes exactly line feed, carriage return, double quote and backslash.
// Every other byte (tab, other control bytes, UTF-8) passes unchanged; the
// client application expects this narrow form.
std::string JsonEscape(std::string_view text);

// {"status":"…","platform":"<windows or linux>","message":"…"} with no white
// space.
std::string BuildStatusBody(std::string_view status, std::string_view message);

}  // namespace orvel
