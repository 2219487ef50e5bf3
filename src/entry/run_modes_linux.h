#pragma once

namespace orvel {

// Installer mode, as root: writes the systemd unit for this executable and
// the polkit rule, makes the group orvel-vpn (adding the user behind sudo or
// pkexec) and enables the unit for boot; never starts or stops it. Running it
// again from elsewhere points the unit at the new place. 0 when done,
// otherwise one of these.
constexpr int kInstallNoExecutable = 1;
constexpr int kInstallNotRoot = 2;
constexpr int kInstallNotWritten = 3;  // the unit, the rule or their directory
constexpr int kInstallNoGroup = 4;     // the group or the user's membership
constexpr int kInstallNotEnabled = 5;
// The executable, the core beside it (or in "data") or a folder above them
// is not root's alone; nothing is written.
constexpr int kInstallNotRootsAlone = 6;
int InstallService();

// Uninstaller mode, as root: stops and disables the unit the installer wrote
// (`systemctl disable --now` where systemd runs, otherwise the boot link
// goes), removes the unit and the polkit rule, and removes the service's
// state directory (the last configuration, with servers' credentials). The
// group stays: it may have members. 0 when done, also when nothing was
// installed, otherwise one of these (kInstallNotRoot when not root).
constexpr int kUninstallNotRemoved = 3;  // a file or the state directory
constexpr int kUninstallNotStopped = 5;  // not stopped, disabled or reloaded
int UninstallService();

// Service mode: every log line also goes to standard error, without its
// timestamp, for the journal. Call before the first thread that logs.
void SendLogToStandardError();

// The service tells systemd it is ready once it accepts connections
// (Type=notify); nothing without NOTIFY_SOCKET or outside service mode.
void NotifyServiceReady();

// Opens whatever of descriptors 0, 1 and 2 is closed on /dev/null, so that
// no socket or pipe of the helper's ever takes their numbers (a child gets
// its own on those numbers, and 0 stands for "none" among process handles).
void OpenStandardDescriptors();

// The stand-alone instance lock: an exclusive, non-blocking flock on
// $XDG_RUNTIME_DIR/orvel-vpn-helper.lock (when that is set and absolute),
// else on orvel-vpn-helper.lock in the data directory (made, 0700, when
// missing); never through a link. True when taken: the lock goes with the
// process, however it ends. False with `exitCode` 0 when this user's own
// helper holds it, 1 (after one line on standard error naming the path) when
// it cannot be opened or is not a regular file of this user's.
bool TakeInstanceLock(int& exitCode);

// SIGTERM, SIGINT and SIGHUP are blocked in every thread (call before the
// first thread starts) and taken by one thread of their own, which puts the
// user's proxy back, stops the core and ends the helper with exit code 0.
void BlockTerminationSignals();
void StartTerminationWatcher();

}  // namespace orvel
