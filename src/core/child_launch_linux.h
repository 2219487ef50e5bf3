#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace orvel {

// A child of the helper: its pid and a pidfd (close-on-exec). Every signal
// goes through the pidfd, and every reap names it, so a pid that the system
// has reused for another process is never touched.
struct ChildProcess {
  pid_t pid = -1;
  int pidfd = -1;
  int exitCode = -1;  // once reaped: the exit status, or 128 + the signal that ended it
  bool reaped = false;
};

struct ChildLaunch {
  std::filesystem::path program;
  std::vector<std::string> arguments;  // after argv[0], which is `program`; nothing is quoted
  std::filesystem::path workingDirectory;
  int output = -1;  // becomes the child's stdout and stderr; stdin is /dev/null
  int deathSignal;  // what the child gets when the helper dies
};

// The three variables every core launch needs so that configurations using
// deprecated DNS features are still accepted. Set once on the helper's own
// environment at start-up, before any thread runs (setenv is not
// thread-safe), so every child inherits them.
void SetCoreEnvironmentVariables();

// A pipe for a child's output, both ends close-on-exec (the child gets its
// copy through dup2, which clears the flag on the copy alone).
bool CreateOutputPipe(int& readEnd, int& writeEnd);

// Starts the child from the helper's one long-lived spawner thread: the
// death signal (PR_SET_PDEATHSIG) is tied to the thread that forked, so a
// child forked by a connection thread would get it the moment that request
// ended. The caller waits for the spawner's answer. On failure `error` holds
// the errno of the step that failed (fork, chdir or exec; a missing working
// directory or a program that cannot run fail here, not later).
bool LaunchChild(const ChildLaunch& launch, ChildProcess& child, int& error);

// Waits up to `timeoutMs` (0: only asks; -1: for ever) for the child to end,
// and reaps it once it has. True when it has ended.
bool WaitForChildExit(ChildProcess& child, int timeoutMs);

// Sends `signal` through the pidfd; harmless once the child has ended.
void SignalPidfd(int pidfd, int signal);
void SignalChild(const ChildProcess& child, int signal);

// Reaps the child if it has ended, then closes the pidfd and forgets it.
void ReleaseChild(ChildProcess& child);

// Whatever the (non-blocking) read end holds now: chunks of up to 4096
// bytes, stopping once more than 4096 bytes are held (so at most 8192).
std::string DrainPipeOutput(int readEnd);

// Milliseconds of the monotonic clock.
std::uint64_t MonotonicMs();

}  // namespace orvel
