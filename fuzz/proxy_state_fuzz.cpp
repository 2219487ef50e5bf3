// Any bytes in a proxy state file (the Windows one and the Linux desktop's):
// parsing never crashes, never reads past the input, and whatever it accepts,
// once written again, reads back as the very same values.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "sysproxy/desktop_proxy_state.h"
#include "sysproxy/proxy_state.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  orvel::DesktopProxyState desktop;
  if (orvel::ParseDesktopProxyState(bytes, desktop)) {
    orvel::DesktopProxyState read;
    if (!orvel::ParseDesktopProxyState(orvel::EncodeDesktopProxyState(desktop), read) ||
        !(read == desktop)) {
      std::abort();
    }
  }
  orvel::SavedProxyState state;
  if (!orvel::ParseProxyState(bytes, state)) return 0;
  orvel::SavedProxyState again;
  if (!orvel::ParseProxyState(orvel::EncodeProxyState(state), again) || !(again == state)) {
    std::abort();
  }
  return 0;
}
