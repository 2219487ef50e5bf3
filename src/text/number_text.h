#pragma once

#include <cstdint>
#include <string_view>

namespace orvel {

// The C locale's isspace set: space, tab, line feed, vertical tab, form feed,
// carriage return. Written out so the answer never depends on a locale.
inline bool IsCSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

inline char ToLowerAscii(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

inline bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (ToLowerAscii(a[i]) != ToLowerAscii(b[i])) return false;
  }
  return true;
}

// A header value without the spaces and tabs around it.
inline std::string_view TrimBlanks(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// strtoul(text, nullptr, 10) as the Windows C runtime does it, where unsigned
// long is 32 bits wide: leading white space skipped, an optional sign ("-1"
// gives 4294967295), conversion stops at the first non-digit, no digits give 0
// and an out-of-range value gives 4294967295. Written out by hand because the
// native build's unsigned long is 64 bits and the results must not differ.
std::uint32_t ParseUnsignedLong32(std::string_view text);

}  // namespace orvel
