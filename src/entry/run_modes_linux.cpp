#include "entry/run_modes_linux.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "api/caller_policy.h"
#include "commands/vpn_commands.h"
#include "core/child_process.h"
#include "core/data_files.h"
#include "core/paths.h"
#include "core/root_only.h"
#include "core/run_mode.h"
#include "entry/service_unit.h"
#include "log/log_buffer.h"

namespace orvel {

namespace {

sigset_t TerminationSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGHUP);
  return signals;
}

// The work a signal asks for happens here, on an ordinary thread, never in a
// signal handler: restoring the proxy and stopping the core take locks,
// allocate and wait.
void WatchTerminationSignals() {
  const sigset_t signals = TerminationSignals();
  int received = 0;
  while (sigwait(&signals, &received) != 0) {
  }
  if (IsRunningAsService()) sd_notify(0, "STOPPING=1");
  RestoreProxyThenStopCore();
  // Not exit(): other threads may still be serving, and the static objects
  // they use must not be destroyed under them.
  _exit(0);
}

// Runs a program of the system (looked up on PATH) with its output dropped;
// true when it exited 0.
bool RunQuietly(const char* program, std::vector<std::string> arguments) {
  const ChildLaunch launch{.program = program, .arguments = std::move(arguments)};
  ChildProcess child;
  SystemError ignored;  // the installer's answer names the step, not the call
  if (!LaunchChild(launch, child, ignored)) return false;
  WaitForChild(child, -1);
  const bool exitedZero = ExitedWithZero(child);
  ReleaseChild(child);
  return exitedZero;
}

// Removes `path` (a file or a link, never followed); true when it is gone,
// also when it was never there.
bool RemoveIfPresent(const char* path) { return unlink(path) == 0 || errno == ENOENT; }

// The log's mirror in service mode. A journal that has gone away costs the
// line, never the helper: SIGPIPE is held back for this one write (and
// taken if it came), since the helper ignores no signal and its children
// must inherit none ignored.
void WriteLineToStandardError(std::string_view line) {
  sigset_t pipe, old;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, &old);
  bool broken = false;
  while (!line.empty()) {
    const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
    if (written < 0 && errno == EINTR) continue;
    broken = written < 0 && errno == EPIPE;
    if (written <= 0) break;
    line.remove_prefix(static_cast<std::size_t>(written));
  }
  if (broken && !sigismember(&old, SIGPIPE)) {
    const timespec now{};
    while (sigtimedwait(&pipe, nullptr, &now) < 0 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

// Written whole and readable by all: polkit reads its rules as its own user.
// AT_SYMLINK_NOFOLLOW: the mode goes to the file just written, never through
// a link.
bool WritePublicFile(const char* path, const std::string& text) {
  return WriteWholeFile(path, text) && fchmodat(AT_FDCWD, path, 0644, AT_SYMLINK_NOFOLLOW) == 0;
}

// The service runs this executable and the core beside it (or in its "data"
// folder; a missing core is no offence here) as root: each, and every folder
// above them, must be root's alone. Each offence is one line on standard
// error, then where to install instead; true when there was none.
bool ProgramsAreRootsAlone(const std::filesystem::path& executable) {
  std::vector<RootOnlyOffence> offences;
  std::filesystem::path resolved;
  if (!CheckRootOnlyPath(executable, resolved, offences) && offences.empty()) {
    offences.push_back({executable, 0, 0, "cannot be examined"});
  }
  const std::filesystem::path directory = executable.parent_path();
  for (const std::filesystem::path& core :
       {directory / "sing-box", directory / "data" / "sing-box"}) {
    struct stat info {};
    if (lstat(core.c_str(), &info) != 0) continue;
    CheckRootOnlyPath(core, resolved, offences);
    break;  // the one the service would run
  }
  for (const RootOnlyOffence& offence : offences) {
    std::fprintf(stderr, "refusing to install: %s %s\n", offence.path.c_str(),
                 offence.reason.c_str());
  }
  if (!offences.empty()) {
    std::fprintf(stderr,
                 "install orvel-vpn-helper (and sing-box beside it) in a folder only root can "
                 "write to, such as /usr/local/lib/orvel-vpn-helper, or from the package\n");
  }
  return offences.empty();
}

// The user who asked for the installation through sudo or pkexec, if any
// but root.
std::string InvokingUser() {
  for (const char* variable : {"SUDO_UID", "PKEXEC_UID"}) {
    const char* value = std::getenv(variable);
    char* end = nullptr;
    const unsigned long uid = value != nullptr ? std::strtoul(value, &end, 10) : 0;
    if (uid == 0 || end == value || *end != '\0') continue;
    if (const passwd* entry = getpwuid(static_cast<uid_t>(uid))) return entry->pw_name;
  }
  return {};
}

}  // namespace

int InstallService() {
  if (geteuid() != 0) return kInstallNotRoot;
  const std::filesystem::path executable = GetExecutablePath();
  if (executable.empty()) return kInstallNoExecutable;
  if (!ProgramsAreRootsAlone(executable)) return kInstallNotRootsAlone;
  std::error_code ec;
  std::filesystem::create_directories(kPolkitRuleDirectory, ec);
  if (!WritePublicFile(kServiceUnitPath, BuildServiceUnit(executable.string())) ||
      !WritePublicFile(kPolkitRulePath, BuildPolkitRule())) {
    return kInstallNotWritten;
  }
  if (getgrnam(kServiceGroupName) == nullptr &&
      !RunQuietly("groupadd", {"--system", kServiceGroupName})) {
    return kInstallNoGroup;
  }
  const std::string user = InvokingUser();
  if (!user.empty() && !RunQuietly("usermod", {"--append", "--groups", kServiceGroupName, user})) {
    return kInstallNoGroup;
  }
  // Enabled for boot, never started or stopped here. Without a running
  // systemd, the link that `systemctl enable` would make.
  if (std::filesystem::exists("/run/systemd/system", ec)) {
    return RunQuietly("systemctl", {"daemon-reload"}) &&
                   RunQuietly("systemctl", {"enable", kServiceUnitName})
               ? 0
               : kInstallNotEnabled;
  }
  const std::filesystem::path link = kServiceWantsLink;
  std::filesystem::create_directories(link.parent_path(), ec);
  std::filesystem::remove(link, ec);
  std::filesystem::create_symlink(kServiceUnitPath, link, ec);
  return ec ? kInstallNotEnabled : 0;
}

int UninstallService() {
  if (geteuid() != 0) return kInstallNotRoot;
  std::error_code ec;
  const bool systemdRuns = std::filesystem::exists("/run/systemd/system", ec);
  struct stat info {};
  const bool installed =
      lstat(kServiceUnitPath, &info) == 0 || lstat(kServiceWantsLink, &info) == 0;
  // Only a unit the installer wrote is stopped: where nothing is installed
  // there is nothing to stop, and systemctl would fail on an unknown unit.
  if (installed && systemdRuns &&
      !RunQuietly("systemctl", {"disable", "--now", kServiceUnitName})) {
    return kUninstallNotStopped;
  }
  if (!RemoveIfPresent(kServiceWantsLink) || !RemoveIfPresent(kServiceUnitPath) ||
      !RemoveIfPresent(kPolkitRulePath)) {
    return kUninstallNotRemoved;
  }
  if (installed && systemdRuns && !RunQuietly("systemctl", {"daemon-reload"})) {
    return kUninstallNotStopped;
  }
  // Links inside are removed, never followed.
  std::filesystem::remove_all(kServiceStateDirectory, ec);
  return ec ? kUninstallNotRemoved : 0;
}

void SendLogToStandardError() { HelperLog().mirror = WriteLineToStandardError; }

void NotifyServiceReady() {
  if (IsRunningAsService()) sd_notify(0, "READY=1");
}

void OpenStandardDescriptors() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0) continue;
    const int opened = open("/dev/null", O_RDWR);
    if (opened >= 0 && opened != fd) {
      dup2(opened, fd);
      close(opened);
    }
  }
}

bool TakeInstanceLock(int& exitCode) {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  // Never in /tmp, where any account could take the name first (and hold
  // the lock, or make it unopenable) and so keep this user's helper from
  // ever starting: the user's runtime directory, else the data directory.
  exitCode = 1;
  const bool inRuntime = runtime != nullptr && runtime[0] == '/';
  const std::filesystem::path directory = inRuntime ? runtime : GetDataDirectory();
  if (std::string error; !inRuntime && !CreateDirectoryTree(directory, error)) {
    std::fprintf(stderr, "orvel-vpn-helper: cannot create %s for the instance lock: %s\n",
                 directory.c_str(), error.c_str());
    return false;
  }
  const std::filesystem::path path = directory / "orvel-vpn-helper.lock";
  // O_NONBLOCK: a FIFO in the lock's place must not hold the start up.
  const int lock = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
  struct stat info {};
  std::string refusal;
  if (lock < 0 || fstat(lock, &info) != 0) {
    refusal = std::strerror(errno);
  } else if (!S_ISREG(info.st_mode)) {
    refusal = "not a regular file";
  } else if (info.st_uid != getuid()) {
    refusal = "owned by uid " + std::to_string(info.st_uid);
  } else if (flock(lock, LOCK_EX | LOCK_NB) == 0) {
    return true;  // held, open, until the process ends
  } else if (errno == EWOULDBLOCK) {
    exitCode = 0;  // a 0600 file of this user's: only this user's helper (or root) holds it
  } else {
    refusal = std::strerror(errno);
  }
  if (lock >= 0) close(lock);
  if (!refusal.empty()) {
    std::fprintf(stderr, "orvel-vpn-helper: cannot use the instance lock %s: %s\n", path.c_str(),
                 refusal.c_str());
  }
  return false;
}

void BlockTerminationSignals() {
  const sigset_t signals = TerminationSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void StartTerminationWatcher() { std::thread(WatchTerminationSignals).detach(); }

}  // namespace orvel
