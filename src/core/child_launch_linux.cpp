#include "core/child_launch_linux.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>

namespace orvel {

namespace {

// One request handed to the spawner thread, answered in place.
struct SpawnRequest {
  const ChildLaunch* launch = nullptr;
  ChildProcess child;
  int error = 0;
  bool done = false;
};

struct Spawner {
  std::mutex lock;
  std::condition_variable changed;
  std::deque<SpawnRequest*> queue;
  int devNull = -1;
};

// Runs in the forked child until exec: only async-signal-safe calls, and
// nothing allocated. On failure the errno goes up the report pipe.
[[noreturn]] void RunChild(const ChildLaunch& launch, char* const* argv, int devNull, int report,
                           pid_t parent) {
  int failed = 0;
  sigset_t none;
  sigemptyset(&none);
  // The helper blocks its termination signals for its signal thread; a child
  // must not inherit that, or a SIGTERM could never stop the core.
  sigprocmask(SIG_SETMASK, &none, nullptr);
  if (prctl(PR_SET_PDEATHSIG, launch.deathSignal) != 0) failed = errno;
  // The helper may have died between the fork and the prctl: then nobody
  // would ever send the signal.
  if (failed == 0 && getppid() != parent) _exit(127);
  if (failed == 0 && (dup2(devNull, STDIN_FILENO) < 0 || dup2(launch.output, STDOUT_FILENO) < 0 ||
                      dup2(launch.output, STDERR_FILENO) < 0)) {
    failed = errno;
  }
  if (failed == 0 && chdir(launch.workingDirectory.c_str()) != 0) failed = errno;
  if (failed == 0) {
    // Every descriptor is opened close-on-exec already; this is the belt on
    // top, for one a library opened without the flag. The report pipe must
    // live until the exec, so the range is marked, not closed.
    syscall(SYS_close_range, 3U, ~0U, 4U /* CLOSE_RANGE_CLOEXEC */);
    execv(launch.program.c_str(), argv);
    failed = errno;
  }
  while (write(report, &failed, sizeof(failed)) < 0 && errno == EINTR) {
  }
  _exit(127);
}

void Spawn(SpawnRequest& request, int devNull) {
  const ChildLaunch& launch = *request.launch;
  std::vector<std::string> strings;
  strings.reserve(launch.arguments.size() + 1);
  strings.push_back(launch.program.string());
  strings.insert(strings.end(), launch.arguments.begin(), launch.arguments.end());
  std::vector<char*> argv;
  for (std::string& s : strings) argv.push_back(s.data());
  argv.push_back(nullptr);

  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) {
    request.error = errno;
    return;
  }
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) RunChild(launch, argv.data(), devNull, report[1], parent);
  close(report[1]);
  if (pid < 0) {
    request.error = errno;
    close(report[0]);
    return;
  }
  ChildProcess child;
  child.pid = pid;
  // Before anything can reap it: until then the pid is certainly ours.
  child.pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  int childError = 0;
  ssize_t got;
  while ((got = read(report[0], &childError, sizeof(childError))) < 0 && errno == EINTR) {
  }
  close(report[0]);
  if (got == 0 && child.pidfd >= 0) {  // the exec closed the report pipe
    request.child = child;
    return;
  }
  request.error = got > 0 ? childError : errno;
  if (request.error == 0) request.error = ECHILD;
  if (child.pidfd < 0) {
    // The child exists, so reap it by pid: nothing else can have.
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  } else {
    SignalChild(child, SIGKILL);
    WaitForChildExit(child, -1);
    ReleaseChild(child);
  }
}

// The thread lives for the life of the process and is never joined: its end
// is the helper's end, which is what the children's death signal tracks.
void RunSpawner(Spawner& spawner) {
  std::unique_lock<std::mutex> hold(spawner.lock);
  for (;;) {
    spawner.changed.wait(hold, [&] { return !spawner.queue.empty(); });
    SpawnRequest* request = spawner.queue.front();
    spawner.queue.pop_front();
    hold.unlock();
    Spawn(*request, spawner.devNull);
    hold.lock();
    request->done = true;
    spawner.changed.notify_all();
  }
}

Spawner& TheSpawner() {
  static Spawner* spawner = [] {
    auto* created = new Spawner;
    created->devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    std::thread(RunSpawner, std::ref(*created)).detach();
    return created;
  }();
  return *spawner;
}

}  // namespace

void SetCoreEnvironmentVariables() {
  setenv("ENABLE_DEPRECATED_LEGACY_DNS_SERVERS", "true", 1);
  setenv("ENABLE_DEPRECATED_OUTBOUND_DNS_RULE_ITEM", "true", 1);
  setenv("ENABLE_DEPRECATED_MISSING_DOMAIN_RESOLVER", "true", 1);
}

bool CreateOutputPipe(int& readEnd, int& writeEnd) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  readEnd = ends[0];
  writeEnd = ends[1];
  return true;
}

bool LaunchChild(const ChildLaunch& launch, ChildProcess& child, int& error) {
  Spawner& spawner = TheSpawner();
  if (spawner.devNull < 0) {
    error = EBADF;
    return false;
  }
  SpawnRequest request;
  request.launch = &launch;
  std::unique_lock<std::mutex> hold(spawner.lock);
  spawner.queue.push_back(&request);
  spawner.changed.notify_all();
  spawner.changed.wait(hold, [&] { return request.done; });
  error = request.error;
  child = request.child;
  return error == 0;
}

bool WaitForChildExit(ChildProcess& child, int timeoutMs) {
  if (child.pidfd < 0) return true;
  if (!child.reaped) {
    pollfd ended{child.pidfd, POLLIN, 0};
    const std::uint64_t deadline =
        MonotonicMs() + static_cast<std::uint64_t>(std::max(timeoutMs, 0));
    for (;;) {
      const int wait =
          timeoutMs < 0 ? -1 : static_cast<int>(deadline - std::min(deadline, MonotonicMs()));
      const int ready = poll(&ended, 1, wait);
      if (ready > 0) break;
      if (ready == 0 || errno != EINTR) return false;
    }
    siginfo_t info{};
    // P_PIDFD: only this child, never another that took over its pid. A
    // reader of the same core may have reaped it first (ECHILD).
    if (waitid(P_PIDFD, static_cast<id_t>(child.pidfd), &info, WEXITED | WNOHANG) == 0 &&
        info.si_pid != 0) {
      child.exitCode = info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
    }
    child.reaped = true;
  }
  return true;
}

void SignalPidfd(int pidfd, int signal) {
  // Through syscall(): Debian 12's <sys/pidfd.h> declares the wrappers
  // without C linkage, so C++ cannot link them.
  if (pidfd >= 0) syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0);
}

void SignalChild(const ChildProcess& child, int signal) { SignalPidfd(child.pidfd, signal); }

void ReleaseChild(ChildProcess& child) {
  if (child.pidfd >= 0) {
    WaitForChildExit(child, 0);
    close(child.pidfd);
  }
  child = ChildProcess{};
}

std::string DrainPipeOutput(int readEnd) {
  constexpr std::size_t kChunkBytes = 4096;
  std::string output;
  char buffer[kChunkBytes];
  while (output.size() <= kChunkBytes) {
    const ssize_t got = read(readEnd, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    output.append(buffer, static_cast<std::size_t>(got));
  }
  return output;
}

std::uint64_t MonotonicMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000u +
         static_cast<std::uint64_t>(now.tv_nsec) / 1000000u;
}

}  // namespace orvel
