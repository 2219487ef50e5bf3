#include "sysproxy/state_text_escape.h"

namespace orvel {

namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

void AppendEscapedUnit(std::string& out, std::uint32_t unit, int digits) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  if (unit >= 0x20 && unit <= 0x7E && unit != '%') {
    out.push_back(static_cast<char>(unit));
    return;
  }
  out.push_back('%');
  for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
    out.push_back(kHex[(unit >> shift) & 0xF]);
}

bool TakeEscapedUnit(std::string_view text, std::size_t& at, int digits, std::uint32_t& unit) {
  const auto byte = static_cast<unsigned char>(text[at]);
  if (byte < 0x20 || byte > 0x7E) return false;
  if (byte != '%') {
    unit = byte;
    ++at;
    return true;
  }
  const std::size_t count = static_cast<std::size_t>(digits);
  if (text.size() - at <= count) return false;
  unit = 0;
  for (std::size_t k = 1; k <= count; ++k) {
    const int digit = HexDigit(text[at + k]);
    if (digit < 0) return false;
    unit = unit * 16 + static_cast<std::uint32_t>(digit);
  }
  at += count + 1;
  return true;
}

}  // namespace orvel
