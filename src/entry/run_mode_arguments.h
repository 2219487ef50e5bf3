#pragma once

// What the Linux helper's command line asks for. The Windows build keeps its
// own rule: it has no console and knows only "--install-service".

#include <span>
#include <string_view>

namespace orvel {

enum class HelperMode {
  kStandAlone,
  kService,
  kInstall,
  kUninstall,
  kVersion,
  kHelp,
  kRestoreProxy,    // the start-up recovery alone, then exit 0 (the run-at-logon entry)
  kWrongArguments,  // the usage on standard error, exit 2, nothing served
};

// "--install-service" anywhere inside an argument installs, whatever else is
// there (as on Windows). Otherwise every argument must be one of
// "--service", "--uninstall-service", "--restore-proxy", "--version" and
// "--help" exactly; the first of the last four decides, and "--service" alone serves as the
// service. No argument: the stand-alone helper.
HelperMode ChooseHelperMode(std::span<const char* const> arguments);

// Printed for "--help" (to standard output) and for a wrong command line (to
// standard error): each run mode and switch on one line.
constexpr const char* kHelperUsage =
    "usage: orvel-vpn-helper [--service | --install-service | --uninstall-service | "
    "--restore-proxy | --version | --help]\n"
    "  (no argument)        this user's helper on 127.0.0.1:17891, until SIGTERM\n"
    "  --service            the systemd service (root): TUN mode for members of orvel-vpn\n"
    "  --install-service    install the service for this executable and enable it (root)\n"
    "  --uninstall-service  stop, disable and remove the service and its state (root)\n"
    "  --restore-proxy      put back the proxy settings a helper that ended left set, then exit\n"
    "  --version            print the version\n"
    "  --help               print this text\n";

}  // namespace orvel
