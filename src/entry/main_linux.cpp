#include <malloc.h>

#include <cstring>
#include <string_view>

#include "api/control_server.h"
#include "core/child_launch_linux.h"
#include "core/run_mode.h"
#include "entry/run_modes_linux.h"
#include "commands/vpn_commands.h"

int main(int argc, char** argv) {
  // Every request buffer over 256 KiB is mapped on its own and unmapped when
  // freed. With glibc's default the threshold climbs after each large free,
  // so a caller's megabyte bodies would stay resident in the heap for good.
  mallopt(M_MMAP_THRESHOLD, 256 * 1024);
  bool service = false;
  for (int i = 1; i < argc; ++i) {
    // A plain substring search, as on Windows: "--install-service" anywhere
    // selects installer mode, and nothing else runs then.
    if (std::strstr(argv[i], "--install-service") != nullptr) return orvel::InstallService();
    service = service || std::string_view(argv[i]) == "--service";
  }
  orvel::OpenStandardDescriptors();
  // Before the first thread: setenv is not thread-safe, and every thread
  // must inherit the blocked signals.
  orvel::SetCoreEnvironmentVariables();
  orvel::BlockTerminationSignals();
  if (service) {
    orvel::MarkRunningAsService();
  } else if (int exitCode = 0; !orvel::TakeInstanceLock(exitCode)) {
    return exitCode;  // 0: this user's helper already runs
  }
  // After the lock: a second instance must not touch the proxy.
  orvel::RecoverProxyAtStartup();
  orvel::StartTerminationWatcher();
  const int result = orvel::RunControlServer(orvel::NotifyServiceReady);
  // Reached only when the listener could not be set up.
  orvel::RestoreProxyThenStopCore();
  return result;
}
