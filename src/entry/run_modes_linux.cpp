#include "entry/run_modes_linux.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "api/caller_policy.h"
#include "core/data_files.h"
#include "core/paths.h"
#include "core/run_mode.h"
#include "entry/service_unit.h"
#include "entry/shutdown.h"

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

// Runs a program of the system with its output dropped; true when it exited 0.
bool RunQuietly(std::vector<std::string> arguments) {
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int null = open("/dev/null", O_RDWR);
    if (null >= 0) {
      dup2(null, STDIN_FILENO);
      dup2(null, STDOUT_FILENO);
      dup2(null, STDERR_FILENO);
    }
    execvp(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

// Written whole and readable by all: polkit reads its rules as its own user.
bool WritePublicFile(const char* path, const std::string& text) {
  return WriteWholeFile(path, text) && chmod(path, 0644) == 0;
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
  std::error_code ec;
  std::filesystem::create_directories(kPolkitRuleDirectory, ec);
  if (!WritePublicFile(kServiceUnitPath, BuildServiceUnit(executable.string())) ||
      !WritePublicFile(kPolkitRulePath, BuildPolkitRule())) {
    return kInstallNotWritten;
  }
  if (getgrnam(kServiceGroupName) == nullptr &&
      !RunQuietly({"groupadd", "--system", kServiceGroupName})) {
    return kInstallNoGroup;
  }
  const std::string user = InvokingUser();
  if (!user.empty() && !RunQuietly({"usermod", "--append", "--groups", kServiceGroupName, user})) {
    return kInstallNoGroup;
  }
  // Enabled for boot, never started or stopped here. Without a running
  // systemd, the link that `systemctl enable` would make.
  if (std::filesystem::exists("/run/systemd/system", ec)) {
    return RunQuietly({"systemctl", "daemon-reload"}) &&
                   RunQuietly({"systemctl", "enable", kServiceUnitName})
               ? 0
               : kInstallNotEnabled;
  }
  const std::filesystem::path link = kServiceWantsLink;
  std::filesystem::create_directories(link.parent_path(), ec);
  std::filesystem::remove(link, ec);
  std::filesystem::create_symlink(kServiceUnitPath, link, ec);
  return ec ? kInstallNotEnabled : 0;
}

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

bool TakeInstanceLock() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  const std::string path = runtime != nullptr && runtime[0] == '/'
                               ? std::string(runtime) + "/orvel-vpn-helper.lock"
                               : "/tmp/orvel-vpn-helper-" + std::to_string(getuid()) + ".lock";
  // O_NOFOLLOW: in /tmp another user could have put a link in our name's place.
  const int lock = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (lock < 0) return false;
  if (flock(lock, LOCK_EX | LOCK_NB) != 0) {
    close(lock);
    return false;
  }
  return true;  // held, open, until the process ends
}

void BlockTerminationSignals() {
  const sigset_t signals = TerminationSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void StartTerminationWatcher() { std::thread(WatchTerminationSignals).detach(); }

}  // namespace orvel
