#pragma once

// The proxy state file: what the helper keeps on disk while it has the system
// proxy pointed at the core, so that a helper started after a crash, an "End
// task" or a power cut can put the user's own settings back.
//
// The file is ASCII text, lines ended by a line feed alone, in exactly this
// order and with nothing after the last line:
//
//   orvel-proxy-state 1
//   ProxyEnable=<decimal, 0 to 4294967295>
//   ProxyServer=<text>
//   ProxyOverride=<text>
//   HelperProxyServer=<text, never empty>
//   end
//
// <text> is a registry string as UTF-16 code units: each of 0x20 to 0x7E
// except '%' stands for itself; any other unit (and '%') is written as '%'
// and four upper-case hex digits ("%0025" is '%', "%00E9" is 'é'). An empty
// text means the value was absent or not a string. The file is treated as
// untrusted: anything that is not exactly this shape, or is larger than
// kMaxProxyStateBytes, is refused as a whole.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace orvel {

constexpr std::size_t kMaxProxyStateBytes = 1024 * 1024;

struct SavedProxyState {
  std::uint32_t proxyEnable = 0;  // 0 when the value was absent
  std::wstring proxyServer;       // "" when absent or not a string
  std::wstring proxyOverride;     // "" when absent or not a string
  // The "ProxyServer" value the helper wrote. After a crash the user's values
  // go back only while the registry still holds exactly this.
  std::wstring helperProxyServer;

  bool operator==(const SavedProxyState&) const = default;
};

std::string EncodeProxyState(const SavedProxyState& state);
// True and `state` filled when `bytes` is a complete, well-formed file;
// otherwise false and `state` untouched.
bool ParseProxyState(std::string_view bytes, SavedProxyState& state);

}  // namespace orvel
