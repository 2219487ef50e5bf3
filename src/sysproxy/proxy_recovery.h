#pragma once

// The proxy state file on disk and the start-up recovery built on it, one
// policy for both builds (proxy_recovery.cpp). The file's text is the
// platform's own: sysproxy/proxy_state.h on Windows, desktop_proxy_state.h on
// Linux; only the platform parts below read or make it.

#include <filesystem>
#include <string>
#include <string_view>

namespace orvel {

constexpr const char* kChangedSinceSet =
    "System proxy changed since the helper last set it; kept it and removed the saved proxy "
    "settings";

// <data directory>/proxy-state.txt.
std::filesystem::path ProxyStatePath();
// Replaces the file with `bytes` (sysproxy/system_proxy.h says when). One
// that cannot be written costs only the crash recovery of this start: the
// values are still held in memory and go back at the stop, and the client
// could do nothing about a refusal. Logged (kCrashRecoveryOff, then why).
void KeepProxyStateFile(const std::string& bytes);
// Deletes the file and the run-at-logon entry: the user's values are back,
// or are no longer the helper's to put back.
void DropProxyStateFile();

// Platform parts (system_proxy_win.cpp, system_proxy_linux.cpp).
// False where the helper never touches a user's proxy (the Linux service).
bool ProxyRecoveryApplies();
enum class SavedProxyVerdict { kUnreadable, kChangedSinceSet, kTakenOver };
// Judges a state file left by the last helper: kUnreadable when it is not
// exactly the helper's shape; kChangedSinceSet when the settings no longer
// hold what that helper set; otherwise the saved values become this helper's
// snapshot, for RestoreSystemProxy to write back (kTakenOver).
SavedProxyVerdict TakeOverSavedProxy(std::string_view bytes);

}  // namespace orvel
