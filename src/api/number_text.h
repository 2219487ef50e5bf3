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

// strtoul(text, nullptr, 10) as the Windows C runtime does it, where unsigned
// long is 32 bits wide: leading white space skipped, an optional sign ("-1"
// gives 4294967295), conversion stops at the first non-digit, no digits give 0
// and an out-of-range value gives 4294967295. Written out by hand because the
// native build's unsigned long is 64 bits and the results must not differ.
std::uint32_t ParseUnsignedLong32(std::string_view text);

}  // namespace orvel
