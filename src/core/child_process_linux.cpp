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
#include <system_error>
#include <thread>

#include "core/child_process.h"

namespace orvel {

const std::string_view kOutputPipeCall = "pipe2";

namespace {

// The steps of the forked child that can fail, in the order it takes them;
// the failed one goes up the report pipe with its errno.
enum ChildStep : int { kStepPrctl, kStepDup2, kStepChdir, kStepExec };

struct ChildReport {
  int step = 0;
  int code = 0;
};

// One request handed to the spawner thread, answered in place.
struct SpawnRequest {
  const ChildLaunch* launch = nullptr;
  ChildProcess child;
  SystemError error;
  bool failed = false;
  bool done = false;
};

struct Spawner {
  std::mutex lock;
  std::condition_variable changed;
  std::deque<SpawnRequest*> queue;
  int devNull = -1;
};

// What the forked child gets, prepared before the fork: after it only
// async-signal-safe calls may run, and nothing may be allocated.
struct ChildPlan {
  char* const* argv;
  const char* workingDirectory;  // null: stays in the helper's
  int output;                    // stdout
  int errors;                    // stderr
  int devNull;
  int deathSignal;
  int report;
  pid_t parent;
};

[[noreturn]] void Report(int report, int step, int code) {
  const ChildReport failed{step, code};
  while (write(report, &failed, sizeof(failed)) < 0 && errno == EINTR) {
  }
  _exit(127);
}

// Runs in the forked child until exec.
[[noreturn]] void RunChild(const ChildPlan& plan) {
  sigset_t none;
  sigemptyset(&none);
  // The helper blocks its termination signals for its signal thread; a child
  // must not inherit that, or a SIGTERM could never stop the core.
  sigprocmask(SIG_SETMASK, &none, nullptr);
  if (prctl(PR_SET_PDEATHSIG, plan.deathSignal) != 0) Report(plan.report, kStepPrctl, errno);
  // The helper may have died between the fork and the prctl: then nobody
  // would ever send the signal.
  if (getppid() != plan.parent) _exit(127);
  if (dup2(plan.devNull, STDIN_FILENO) < 0 || dup2(plan.output, STDOUT_FILENO) < 0 ||
      dup2(plan.errors, STDERR_FILENO) < 0) {
    Report(plan.report, kStepDup2, errno);
  }
  if (plan.workingDirectory != nullptr && chdir(plan.workingDirectory) != 0) {
    Report(plan.report, kStepChdir, errno);
  }
  // Every descriptor is opened close-on-exec already; this is the belt on
  // top, for one a library opened without the flag. The report pipe must
  // live until the exec, so the range is marked, not closed.
  syscall(SYS_close_range, 3U, ~0U, 4U /* CLOSE_RANGE_CLOEXEC */);
  // glibc's execvp searches PATH with buffers on the stack, nothing allocated.
  execvp(plan.argv[0], plan.argv);
  Report(plan.report, kStepExec, errno);
}

SystemError DescribeChildReport(const ChildLaunch& launch, const ChildReport& report) {
  switch (report.step) {
    case kStepPrctl:
      return {"prctl", "", static_cast<std::uint32_t>(report.code)};
    case kStepDup2:
      return {"dup2", "", static_cast<std::uint32_t>(report.code)};
    case kStepChdir:
      return {"chdir", launch.workingDirectory.string(), static_cast<std::uint32_t>(report.code)};
    default:
      return {"exec", launch.program.string(), static_cast<std::uint32_t>(report.code)};
  }
}

// Reads the forked child's report: true when the exec closed the report pipe,
// with the child's pidfd in `request.child`. Otherwise `request.error` names
// the step that failed, and what was forked is ended and reaped.
bool AwaitExec(SpawnRequest& request, pid_t pid, int report) {
  // Before anything can reap it: until then the pid is certainly ours.
  const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (pidfd < 0) request.error = LastSystemError("pidfd_open");
  ChildReport childReport;
  ssize_t got;
  while ((got = read(report, &childReport, sizeof(childReport))) < 0 && errno == EINTR) {
  }
  if (got == 0 && pidfd >= 0) {
    request.child.process = pidfd;
    return true;
  }
  if (got > 0) {
    request.error = DescribeChildReport(*request.launch, childReport);
  } else if (pidfd >= 0) {
    request.error = LastSystemError("read");
  }
  if (pidfd < 0) {
    // The child exists, so reap it by pid: nothing else can have.
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return false;
  }
  ChildProcess child;
  child.process = pidfd;
  StopChild(child, ChildSignal::kKill, 0);
  ReleaseChild(child);
  return false;
}

void Spawn(SpawnRequest& request, int devNull) {
  const ChildLaunch& launch = *request.launch;
  std::vector<std::string> strings{launch.program.string()};
  strings.insert(strings.end(), launch.arguments.begin(), launch.arguments.end());
  std::vector<char*> argv;
  for (std::string& s : strings) argv.push_back(s.data());
  argv.push_back(nullptr);

  request.failed = true;
  int output[2] = {-1, devNull};
  if (launch.output != ChildOutput::kDropped && pipe2(output, O_CLOEXEC) != 0) {
    request.error = LastSystemError(kOutputPipeCall);
    return;
  }
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) {
    request.error = LastSystemError("pipe2");
    if (output[0] >= 0) {
      close(output[0]);
      close(output[1]);
    }
    return;
  }
  const bool errorsDropped = launch.output == ChildOutput::kStdoutCaptured;
  const ChildPlan plan{
      .argv = argv.data(),
      .workingDirectory =
          launch.workingDirectory.empty() ? nullptr : launch.workingDirectory.c_str(),
      .output = output[1],
      .errors = errorsDropped ? devNull : output[1],
      .devNull = devNull,
      .deathSignal = launch.onHelperDeath == ChildSignal::kTerminate ? SIGTERM : SIGKILL,
      .report = report[1],
      .parent = getpid()};
  const pid_t pid = fork();
  if (pid == 0) RunChild(plan);
  if (pid < 0) request.error = LastSystemError("fork");
  close(report[1]);
  // Our copy of the write end goes at once: the pipe reports its end only
  // when the child's copies (and its own children's) are the last ones.
  if (output[0] >= 0) close(output[1]);
  request.failed = pid < 0 || !AwaitExec(request, pid, report[0]);
  close(report[0]);
  if (output[0] < 0) return;
  if (request.failed) {
    close(output[0]);
    return;
  }
  // Read without blocking: a watcher polls it, and a drain takes what is there.
  fcntl(output[0], F_SETFL, O_NONBLOCK);
  request.child.output = output[0];
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

// Starts the child from the helper's one long-lived spawner thread: the
// death signal (PR_SET_PDEATHSIG) is tied to the thread that forked, so a
// child forked by a connection thread would get it the moment that request
// ended. The caller waits for the spawner's answer.
bool LaunchChild(const ChildLaunch& launch, ChildProcess& child, SystemError& error) {
  Spawner& spawner = TheSpawner();
  if (spawner.devNull < 0) {
    error = {"open", "/dev/null", EBADF};
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
  return !request.failed;
}

bool WaitForChild(ChildProcess& child, int timeoutMs) {
  if (child.process < 0 || child.ended) return true;
  const int pidfd = static_cast<int>(child.process);
  pollfd ended{pidfd, POLLIN, 0};
  const std::uint64_t deadline = MonotonicMs() + static_cast<std::uint64_t>(std::max(timeoutMs, 0));
  for (;;) {
    const int wait =
        timeoutMs < 0 ? -1 : static_cast<int>(deadline - std::min(deadline, MonotonicMs()));
    const int ready = poll(&ended, 1, wait);
    if (ready > 0) break;
    if (ready == 0 || errno != EINTR) return false;
  }
  siginfo_t info{};
  // P_PIDFD: only this child, never another that took over its pid. Another
  // holder of the same child may have reaped it first (ECHILD).
  if (waitid(P_PIDFD, static_cast<id_t>(pidfd), &info, WEXITED | WNOHANG) == 0 &&
      info.si_pid != 0) {
    child.exit = ChildExit{info.si_code != CLD_EXITED, static_cast<std::uint32_t>(info.si_status)};
  }
  child.ended = true;
  return true;
}

bool HasChildEnded(ChildHandle process) {
  pollfd ended{static_cast<int>(process), POLLIN, 0};
  return process < 0 || poll(&ended, 1, 0) != 0;
}

void SignalChild(ChildHandle process, ChildSignal signal) {
  // Through syscall(): Debian 12's <sys/pidfd.h> declares the wrappers
  // without C linkage, so C++ cannot link them.
  if (process >= 0) {
    syscall(SYS_pidfd_send_signal, static_cast<int>(process),
            signal == ChildSignal::kTerminate ? SIGTERM : SIGKILL, nullptr, 0);
  }
}

void StopChild(ChildProcess& child, ChildSignal first, int graceMs) {
  if (WaitForChild(child, 0)) return;
  SignalChild(child.process, first);
  if (WaitForChild(child, graceMs)) return;
  SignalChild(child.process, ChildSignal::kKill);
  // SIGKILL ends a process within moments unless the kernel holds it; it is
  // reaped here whatever that takes.
  WaitForChild(child, -1);
}

ChildHandle DuplicateChildHandle(ChildHandle process) {
  const int copy = process < 0 ? -1 : fcntl(static_cast<int>(process), F_DUPFD_CLOEXEC, 0);
  return copy < 0 ? kNoChildHandle : copy;
}

void CloseChildHandle(ChildHandle handle) {
  if (handle >= 0) close(static_cast<int>(handle));
}

bool ReadChildOutput(ChildProcess& child, std::string& chunk) {
  const int output = static_cast<int>(child.output);
  pollfd watched[2] = {{static_cast<int>(child.process), POLLIN, 0}, {output, POLLIN, 0}};
  char buffer[4096];
  for (;;) {
    // What is in the pipe comes first, also once the child has ended: what it
    // wrote just before its end is there now.
    if (watched[1].fd >= 0) {
      const ssize_t got = read(output, buffer, sizeof(buffer));
      if (got > 0) {
        chunk.assign(buffer, static_cast<std::size_t>(got));
        return true;
      }
      if (got < 0 && errno == EINTR) continue;
      // A pipe that has ended leaves the set; the pidfd alone is waited for.
      if (got == 0 || errno != EAGAIN) watched[1].fd = -1;
    }
    if ((watched[0].revents & POLLIN) != 0 || watched[0].fd < 0) return false;
    if (poll(watched, 2, -1) < 0 && errno != EINTR) return false;
  }
}

std::string DrainChildOutput(ChildProcess& child) {
  constexpr std::size_t kChunkBytes = 4096;
  std::string output;
  char buffer[kChunkBytes];
  while (child.output >= 0 && output.size() <= kChunkBytes) {
    const ssize_t got = read(static_cast<int>(child.output), buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    output.append(buffer, static_cast<std::size_t>(got));
  }
  return output;
}

void DiscardChildOutput(ChildProcess& child) {
  if (child.output < 0) return;
  const int output = static_cast<int>(child.output);
  const int flags = fcntl(output, F_GETFL);
  if (flags >= 0) fcntl(output, F_SETFL, flags & ~O_NONBLOCK);
  char buffer[4096];
  for (;;) {
    const ssize_t got = read(output, buffer, sizeof(buffer));
    if (got == 0 || (got < 0 && errno != EINTR)) break;
  }
  close(output);
  child.output = kNoChildHandle;
}

void ReleaseChild(ChildProcess& child) {
  if (child.process >= 0) {
    WaitForChild(child, 0);
    close(static_cast<int>(child.process));
  }
  CloseChildHandle(child.output);
  child = ChildProcess{};
}

std::uint64_t MonotonicMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000u +
         static_cast<std::uint64_t>(now.tv_nsec) / 1000000u;
}

}  // namespace orvel
