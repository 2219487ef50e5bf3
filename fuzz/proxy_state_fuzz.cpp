// Any bytes in the proxy state file: parsing never crashes, never reads past
// the input, and whatever it accepts, once written again, reads back as the
// very same values.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "sysproxy/proxy_state.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  orvel::SavedProxyState state;
  if (!orvel::ParseProxyState(std::string_view(reinterpret_cast<const char*>(data), size), state)) {
    return 0;
  }
  orvel::SavedProxyState again;
  if (!orvel::ParseProxyState(orvel::EncodeProxyState(state), again) || !(again == state)) {
    std::abort();
  }
  return 0;
}
