// The port read out of a configuration is always a usable port.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/mixed_port.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const int port =
      orvel::FindMixedInboundPort(std::string_view(reinterpret_cast<const char*>(data), size));
  if (port < 1 || port > 65535) std::abort();
  return 0;
}
