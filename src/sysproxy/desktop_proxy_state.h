#pragma once

// The Linux proxy state file: what the helper keeps on disk while the
// desktop's proxy settings point at the core, so that a helper started after
// a crash can put the user's own values back.
//
// ASCII lines ended by a line feed, in this order and nothing after "end":
//
//   orvel-desktop-proxy-state 1
//   helper=<text>             what the helper set (its http proxy, host:port)
//   <key>=<text>              one line per saved setting, any number
//   <key>!                    a setting that was at its default (GSettings) or absent (KDE)
//   end
//
// A key is "gsettings:<schema>:<key>" or "kde:<key>"; its text is the
// GVariant text of the user's value or the KDE string. Every byte outside 0x20
// to 0x7E, and '%', is written as '%' and two upper-case hex digits. Anything
// that is not exactly this shape, or larger than kMaxProxyStateBytes, is
// refused as a whole.

#include <string>
#include <string_view>
#include <vector>

namespace orvel {

struct DesktopProxySetting {
  std::string key;
  bool isDefault = false;  // nothing of the user's: reset to the default, or deleted
  std::string text;        // the value when not isDefault
  bool operator==(const DesktopProxySetting&) const = default;
};

struct DesktopProxyState {
  std::string helper;
  std::vector<DesktopProxySetting> settings;
  bool operator==(const DesktopProxyState&) const = default;
};

std::string EncodeDesktopProxyState(const DesktopProxyState& state);
// True and `state` filled when `bytes` is a complete, well-formed file;
// otherwise false and `state` untouched.
bool ParseDesktopProxyState(std::string_view bytes, DesktopProxyState& state);

}  // namespace orvel
