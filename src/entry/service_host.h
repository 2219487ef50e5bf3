#pragma once

#include <windows.h>

namespace orvel {

constexpr const wchar_t* kServiceName = L"OrvelVpnHelperService";
// LocalSystem and Administrators: full control. Authenticated users: query
// status, start and stop only, so an unelevated client can switch TUN mode.
constexpr const wchar_t* kServiceSecurityDescriptor =
    L"D:(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;SY)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)(A;;LCRPWP;;;AU)";

// Installs or updates the service registration for this executable's current
// path. 0 done, 1 no module path, 2 no Service Control Manager, 3 the service
// could be neither created nor opened.
int InstallService();

// The service entry handed to the dispatcher.
void WINAPI ServiceMain(DWORD argc, LPWSTR* argv);

}  // namespace orvel
