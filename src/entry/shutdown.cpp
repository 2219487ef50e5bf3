#include "entry/shutdown.h"

#include "core/core_process.h"
#include "sysproxy/system_proxy.h"

namespace orvel {

void RestoreProxyThenStopCore() {
  // Nobody is left to tell about a failed restore.
  std::string ignored;
  RestoreSystemProxy(ignored);
  StopCore();
}

}  // namespace orvel
