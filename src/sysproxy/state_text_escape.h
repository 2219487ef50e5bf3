#pragma once

// The one escape both proxy state files write their text in: a unit from
// 0x20 to 0x7E other than '%' stands for itself; any other unit, and '%', is
// '%' and `digits` upper-case hex digits. The Windows file escapes UTF-16
// units (4 digits, sysproxy/proxy_state.h), the Linux file bytes (2 digits,
// sysproxy/desktop_proxy_state.h).

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace orvel {

// `unit` must fit in `digits` hex digits.
void AppendEscapedUnit(std::string& out, std::uint32_t unit, int digits);
// The unit that starts at text[at], `at` moved past it. False for a byte
// outside 0x20 to 0x7E, and for a '%' not followed by `digits` upper-case hex
// digits.
bool TakeEscapedUnit(std::string_view text, std::size_t& at, int digits, std::uint32_t& unit);

}  // namespace orvel
