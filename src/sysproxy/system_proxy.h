#pragma once

#include <string>

namespace orvel {

// The user's own proxy settings are saved before the helper first points the
// system proxy at the core, held in memory (SystemProxySettings in the
// platform header), and also on disk for as long as the helper's own values
// may be in place, so that a helper started after a crash can put them back.
//
// All of these work on the per-user settings of the account the helper runs
// as (Windows: the Internet Settings key; Linux: the desktop's proxy
// settings). Failures return false with a fixed message in `errorMessage`,
// which is left untouched on success. No lock: commands are expected one at
// a time.

// The log line's start when the proxy state file cannot be written; the
// reason follows. The start goes on without crash recovery.
constexpr const char* kCrashRecoveryOff =
    "Crash recovery is off for this start: the saved proxy settings could not be written: ";

// Takes the snapshot unless one is already held (so repeated enables keep the
// user's values, never the helper's own).
bool SaveSystemProxy(std::string& errorMessage);
// Snapshot, then the proxy state file (logged and passed over when it cannot
// be written), then ProxyEnable=1, ProxyServer at 127.0.0.1:port, the loopback
// bypass list, the change notification, and (only once all of that worked)
// the run-at-logon entry (sysproxy/restore_entry.h). Writes made before a
// failure are not undone here: the caller restores.
bool EnableSystemProxy(int port, std::string& errorMessage);
// Writes the snapshot back (ProxyEnable always; the strings deleted when they
// were empty), drops it and deletes the proxy state file and the run-at-logon
// entry. True at once when nothing is saved. On failure the snapshot, the file
// and the entry stay so that the next restore tries again.
bool RestoreSystemProxy(std::string& errorMessage);
// Start-up, before the listener opens: a proxy state file means the last
// helper ended while its values were in the registry. The user's values go
// back (and WinINet is told) only while ProxyServer still holds the helper's
// value; a user who changed the settings since keeps them. A file that cannot
// be read is ignored. The file and the run-at-logon entry are removed once
// dealt with, and one log line says what happened; without a file only the
// entry goes, and nothing is logged. When the restore itself fails, the
// values stay saved (in memory and on disk, the entry with them) for the next
// stop, start, helper start or logon to try again.
void RecoverSystemProxyAtStartup();

}  // namespace orvel
