#include <malloc.h>

#include <cstdio>

#include "api/control_server.h"
#include "commands/vpn_commands.h"
#include "core/child_process.h"
#include "core/run_mode.h"
#include "entry/run_mode_arguments.h"
#include "entry/run_modes_linux.h"
#include "version.h"

int main(int argc, char** argv) {
  // Every request buffer over 256 KiB is mapped on its own and unmapped when
  // freed. With glibc's default the threshold climbs after each large free,
  // so a caller's megabyte bodies would stay resident in the heap for good.
  mallopt(M_MMAP_THRESHOLD, 256 * 1024);
  const orvel::HelperMode mode = orvel::ChooseHelperMode({argv + 1, argv + argc});
  switch (mode) {
    case orvel::HelperMode::kInstall:
      return orvel::InstallService();
    case orvel::HelperMode::kUninstall:
      return orvel::UninstallService();
    case orvel::HelperMode::kVersion:
      std::printf("orvel-vpn-helper %s\n", orvel::kProductVersion);
      return 0;
    case orvel::HelperMode::kHelp:
      std::fputs(orvel::kHelperUsage, stdout);
      return 0;
    case orvel::HelperMode::kWrongArguments:
      std::fputs(orvel::kHelperUsage, stderr);
      return 2;
    case orvel::HelperMode::kService:
    case orvel::HelperMode::kStandAlone:
    case orvel::HelperMode::kRestoreProxy:
      break;
  }
  const bool service = mode == orvel::HelperMode::kService;
  orvel::OpenStandardDescriptors();
  if (mode == orvel::HelperMode::kRestoreProxy) {
    // Under the instance lock: a running helper owns the saved values (and
    // may have set them a moment ago), so nothing is touched then.
    int exitCode = 0;
    if (!orvel::TakeInstanceLock(exitCode)) return exitCode;
    orvel::RecoverProxyAtStartup();
    return 0;
  }
  // Before the first thread: setenv is not thread-safe, and every thread
  // must inherit the blocked signals.
  orvel::SetCoreEnvironmentVariables();
  orvel::BlockTerminationSignals();
  if (service) {
    orvel::MarkRunningAsService();
    orvel::SendLogToStandardError();
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
