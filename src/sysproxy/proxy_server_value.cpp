#include "sysproxy/proxy_server_value.h"

#include "core/mixed_port.h"

namespace orvel {

std::wstring BuildProxyServerValue(int port) {
  const std::wstring p = std::to_wstring(port >= 1 && port <= 65535 ? port : kDefaultMixedPort);
  return L"http=127.0.0.1:" + p + L";https=127.0.0.1:" + p + L";socks=127.0.0.1:" + p;
}

}  // namespace orvel
