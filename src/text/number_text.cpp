#include "text/number_text.h"

namespace orvel {

std::uint32_t ParseUnsignedLong32(std::string_view text) {
  std::size_t pos = 0;
  while (pos < text.size() && IsCSpace(text[pos])) ++pos;
  bool negative = false;
  if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
    negative = text[pos] == '-';
    ++pos;
  }
  std::uint64_t value = 0;
  bool overflow = false;
  for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos) {
    if (!overflow) {
      value = value * 10 + static_cast<std::uint64_t>(text[pos] - '0');
      if (value > UINT32_MAX) overflow = true;
    }
  }
  if (overflow) return UINT32_MAX;
  std::uint32_t result = static_cast<std::uint32_t>(value);
  return negative ? static_cast<std::uint32_t>(0u - result) : result;
}

}  // namespace orvel
