#pragma once

// Every child of the helper (the core, the URL test processes, the
// installer's system tools) starts and ends through these calls, on both
// systems. What a child may hold is decided here once: standard input is the
// null device, standard output and error go into a pipe of its own or to the
// null device (ChildOutput), and it inherits no other handle or descriptor of the helper
// (a client's socket or another child's pipe end would otherwise stay open
// for as long as it lives). Whatever the helper's own end, its children end
// with it: a death signal tied to the helper's one long-lived spawner thread
// on Linux, the helper's job object on Windows.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/system_error.h"

namespace orvel {

// How a child is asked to end. kTerminate lets it clean up first (SIGTERM:
// the core takes its TUN device and routes down); kKill ends it at once
// (SIGKILL). Windows has TerminateProcess for both.
enum class ChildSignal { kKill, kTerminate };

// Where the child's standard output and error go: the null device, or a pipe
// the helper reads (stdout and stderr both, or stdout alone with stderr
// dropped, for a tool whose printed value must not carry its warnings).
enum class ChildOutput { kDropped, kCaptured, kStdoutCaptured };

struct ChildLaunch {
  // A path, or a bare name looked up on PATH (Linux; the installer's tools).
  std::filesystem::path program = {};
  // UTF-8, after the program. Each reaches the child as one argument,
  // whatever quotes, spaces or backslashes it holds: client text (a node tag,
  // a test URL) can never add arguments of its own.
  std::vector<std::string> arguments = {};
  std::filesystem::path workingDirectory = {};  // empty: the helper's own
  ChildOutput output = ChildOutput::kDropped;
  // What the child gets when the helper dies (Linux; the Windows job ends
  // every child at once).
  ChildSignal onHelperDeath = ChildSignal::kKill;
};

// The system's own handle of a child or of a pipe end, as an integer: a
// pidfd or a descriptor on Linux, a HANDLE on Windows. A pidfd or a process
// handle always names the same process, whatever becomes of its pid, so a
// signal through one never reaches another process.
using ChildHandle = std::intptr_t;
constexpr ChildHandle kNoChildHandle = -1;

struct ChildExit {
  bool bySignal = false;  // Linux: `code` is the number of the signal that ended it
  std::uint32_t code = 0;
};

// A started child. Plain values: whoever holds the record calls ReleaseChild
// once, on every path.
struct ChildProcess {
  ChildHandle process = kNoChildHandle;
  ChildHandle output = kNoChildHandle;  // the pipe's read end, when captured
  bool ended = false;                   // waited for (and reaped on Linux)
  // How it ended; none when another holder of the same child reaped it first.
  std::optional<ChildExit> exit;
};

// The child has ended by itself with exit code 0.
inline bool ExitedWithZero(const ChildProcess& child) {
  return child.exit && !child.exit->bySignal && child.exit->code == 0;
}

// The call LaunchChild names when the output pipe could not be made ("pipe2",
// "CreatePipe"), before any child existed.
extern const std::string_view kOutputPipeCall;

// The three variables every core launch needs so that configurations using
// deprecated DNS features are still accepted. Set once on the helper's own
// environment at start-up, before any thread runs (setenv is not
// thread-safe), so every child inherits them.
void SetCoreEnvironmentVariables();

// A path as one of ChildLaunch::arguments: UTF-8 on both systems (Windows'
// narrow string() would go through the ANSI code page and lose characters).
inline std::string ChildArgument(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

// Starts the child. False with `error` naming the call that failed (pipe2,
// fork, pidfd_open, prctl, dup2, chdir or exec on Linux; CreatePipe, the
// attribute list or CreateProcessW on Windows): a missing working directory
// or a program that cannot run fail here, not later.
bool LaunchChild(const ChildLaunch& launch, ChildProcess& child, SystemError& error);

// Waits up to `timeoutMs` (0: only asks; -1: for ever) for the child to end,
// and reaps it once it has. True when it has ended; a failed wait is false.
bool WaitForChild(ChildProcess& child, int timeoutMs);

// Whether the child has ended, without reaping it: a reader that must leave
// the exit status to the child's one watcher asks this.
bool HasChildEnded(ChildHandle process);

// Harmless once the child has ended. Windows: TerminateProcess, exit code 1.
void SignalChild(ChildHandle process, ChildSignal signal);

// Ends a child that may still run: `first`, then kKill after `graceMs`, then
// waits for its end (Linux: as long as that takes, so no zombie is left;
// Windows: kKilledChildWaitMs more at most). Nothing when it has ended.
void StopChild(ChildProcess& child, ChildSignal first, int graceMs);
constexpr int kKilledChildWaitMs = 1000;

// A handle of its own to the same process (close-on-exec, not inherited),
// for a thread that must reach the child after its holder let go of it;
// kNoChildHandle when none could be had. Closed with CloseChildHandle.
ChildHandle DuplicateChildHandle(ChildHandle process);
void CloseChildHandle(ChildHandle handle);

// Blocks for the next piece of the child's output (up to 4096 bytes) into
// `chunk`. False once no more comes while the child runs: its pipe has ended,
// or (Linux) the child itself has ended and what it wrote before has been
// returned.
bool ReadChildOutput(ChildProcess& child, std::string& chunk);

// Whatever the pipe holds now, without ever blocking: chunks of up to 4096
// bytes, stopping once more than 4096 bytes are held (so at most 8192).
std::string DrainChildOutput(ChildProcess& child);

// Reads and drops the output until everything that holds the pipe's write
// end (the child's own children too) has let go of it, then closes the read
// end. Closing it sooner would make their next write a SIGPIPE, which ends a
// Go program writing to stderr.
void DiscardChildOutput(ChildProcess& child);

// Reaps the child if it has ended, closes what the record holds and clears it.
void ReleaseChild(ChildProcess& child);

// Milliseconds of the monotonic clock.
std::uint64_t MonotonicMs();

}  // namespace orvel
