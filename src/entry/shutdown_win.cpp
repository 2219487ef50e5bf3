#include "entry/service_host.h"

namespace orvel {

void RestoreProxyThenStopCore() {
  // The system proxy and the core arrive with the VPN commands; until then
  // there is nothing to put back.
}

}  // namespace orvel
