#include "core/host_platform.h"

namespace orvel {

const HostPlatform& ThisPlatform() {
  static constexpr HostPlatform kLinux{
      "linux",
      "Linux helper connected",
      "Linux TUN helper connected",
      "Linux helper disconnected",
      "Linux helper running",
      "Linux helper idle",
      "TUN VPN started through orvel-vpn-helper.service",
      "sing-box not found; place it next to the helper or in the data directory",
      "Failed to start sing-box: ",
      "sing-box exited immediately: ",
      "sing-box exited unexpectedly ",
      "Failed to watch sing-box",
      PathRules::kLinux,
  };
  return kLinux;
}

}  // namespace orvel
