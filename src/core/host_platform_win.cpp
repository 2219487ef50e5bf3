#include "core/host_platform.h"

namespace orvel {

const HostPlatform& ThisPlatform() {
  static constexpr HostPlatform kWindows{
      "windows",
      "Windows helper connected",
      "Windows TUN helper connected",
      "Windows helper disconnected",
      "Windows helper running",
      "Windows helper idle",
      "TUN VPN started through OrvelVpnHelperService",
      "sing-box.exe not found; place it next to the app exe or in the data directory",
      "Failed to start sing-box.exe: ",
      "sing-box.exe exited immediately: ",
      "sing-box.exe exited unexpectedly ",
      "Failed to watch sing-box.exe",
      PathRules::kWindows,
  };
  return kWindows;
}

}  // namespace orvel
