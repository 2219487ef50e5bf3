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
// could be neither created nor opened.
int InstallService();

// The service entry handed to the dispatcher.
void WINAPI ServiceMain(DWORD argc, LPWSTR* argv);

}  // namespace orvel
