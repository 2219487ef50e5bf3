#pragma once

#include <windows.h>

namespace orvel {

constexpr const wchar_t* kServiceName = L"OrvelVpnHelperService";
// LocalSystem and Administrators: full control. Interactive users (those
// at the machine, locally or over remote desktop): query status, start and
// stop only, so an unelevated client can switch TUN mode. Not authenticated
// users: that takes in network logons and service accounts, which have no
// client to switch for.
constexpr const wchar_t* kServiceSecurityDescriptor =
    L"D:(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;SY)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)(A;;LCRPWP;;;IU)";

// Installs or updates the service registration for this executable's current
// path. 0 done, 1 no module path, 2 no Service Control Manager, 3 the service
// could be neither created nor opened, 4 registered but its failure actions
// (restart after a crash) were refused.
int InstallService();

// Stops the service if it runs, waits up to 30 s until it has stopped, then
// deletes its registration. 0 done (also when there is no such service), 2 no
// Service Control Manager, 3 the service could not be stopped or deleted.
int UninstallService();

// The service entry handed to the dispatcher.
void WINAPI ServiceMain(DWORD argc, LPWSTR* argv);

}  // namespace orvel
