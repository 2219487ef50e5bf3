#pragma once

#include <string>

namespace orvel {

// The "ProxyServer" text that sends http, https and socks (in that order) to
// the core's local mixed inbound on the IPv4 loopback address. A port outside
// 1..65535 is replaced by kDefaultMixedPort.
std::wstring BuildProxyServerValue(int port);

}  // namespace orvel
