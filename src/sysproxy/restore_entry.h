#pragma once

#include <string>

namespace orvel {

// The run-at-logon entry: exists exactly while the helper's own proxy values
// may be in place (from a successful enable until the user's values are back
// or the proxy state file is dropped), so that a logon after a crash, a power
// cut or a logoff puts the user's values back even when nothing starts the
// helper. It runs "<helper> --restore-proxy", which removes it again.
//
// Windows: the value kRestoreRunValueName under HKCU\...\CurrentVersion\Run.
// Linux: $XDG_CONFIG_HOME/autostart/<kRestoreDesktopFileName> (~/.config
// when unset or not absolute); never written by the service, which has no
// user session.

constexpr const char* kRestoreProxySwitch = "--restore-proxy";
constexpr const wchar_t* kRestoreRunValueName = L"OrvelVpnHelperRestoreProxy";
constexpr const char* kRestoreDesktopFileName = "orvel-vpn-helper-restore-proxy.desktop";

// The Run value's data: the quoted path, then the switch. Windows paths hold
// no '"', so the quotes cannot be closed early.
std::wstring BuildRestoreRunCommand(const std::wstring& executablePath);

// The autostart file's text, its Exec line quoted as desktop entries require
// (reserved characters inside double quotes, '"', '`', '$' and '\' escaped,
// then every '\' doubled for the string value, '%' doubled for the field
// codes). False when the path is not absolute or holds a control character,
// which no desktop entry line can carry.
bool BuildRestoreDesktopEntry(const std::string& executablePath, std::string& text);

// Platform parts (restore_entry_win.cpp, restore_entry_linux.cpp). Both are
// best effort: a missing entry costs only the recovery at the next logon,
// which the next helper start still does.
void CreateRestoreEntry();
void RemoveRestoreEntry();

}  // namespace orvel
