#include "core/core_process_win.h"

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <string_view>
#include <utility>

#include "core/child_launch_win.h"
#include "core/command_line.h"
#include "core/core_output.h"
#include "core/core_process.h"
#include "core/host_platform.h"
#include "core/paths.h"

namespace orvel {

namespace {

constexpr DWORD kSurvivalWaitMs = 800;
constexpr DWORD kExitSettleWaitMs = 100;
constexpr DWORD kStopWaitMs = 3000;
constexpr DWORD kPipeChunkBytes = 4096;

// The record of the running core. A status or snapshot reads it from its own
// thread while a command may be starting or stopping a core, so it is read
// and changed under RecordLock only, and never held while waiting on a core:
// a stop takes the core out of the record first, a start puts it in once it
// has survived its first 800 ms.
std::mutex RecordLock;
CoreProcess MainCore;
// Counts the cores that entered the record; the watcher of a core knows its
// own, so that it never mistakes a later core for the one it watched.
std::uint64_t MainGeneration = 0;

bool IsRecordedCore(std::uint64_t generation) {
  std::lock_guard<std::mutex> hold(RecordLock);
  return MainCore.process != nullptr && MainGeneration == generation;
}

// What the core's watcher owns: a process handle and the pipe's read end of
// its own.
struct WatchedCore {
  HANDLE process;
  HANDLE output;
  std::uint64_t generation;
  CoreEndedHandler onEnd;
};

// The core's own thread: reads the core's output for as long as anything
// holds the pipe, keeping the last of it (a pipe nobody reads would block the
// core's next line once full), then waits for the process itself and tells
// `onEnd` unless the core has left the record (a stop).
DWORD WINAPI WatchCore(LPVOID parameter) {
  const WatchedCore core = *static_cast<WatchedCore*>(parameter);
  delete static_cast<WatchedCore*>(parameter);
  CoreEnd end;
  char buffer[kPipeChunkBytes];
  DWORD got = 0;
  // Fails (ERROR_BROKEN_PIPE) once the core and whatever it started have let
  // go of the write end.
  while (ReadFile(core.output, buffer, sizeof(buffer), &got, nullptr)) {
    KeepCoreOutputTail(end.lastOutput, std::string_view(buffer, got));
  }
  CloseHandle(core.output);
  WaitForSingleObject(core.process, INFINITE);
  DWORD exitCode = 0;
  GetExitCodeProcess(core.process, &exitCode);
  CloseHandle(core.process);
  end.code = exitCode;
  if (IsRecordedCore(core.generation)) core.onEnd(core.generation, end);
  return 0;
}

// Starts the watcher of the core just recorded as `generation`; it takes
// `output` in every case. False when it could not start.
bool StartWatcher(HANDLE process, HANDLE output, std::uint64_t generation, CoreEndedHandler onEnd) {
  HANDLE own = nullptr;
  if (!DuplicateHandle(GetCurrentProcess(), process, GetCurrentProcess(), &own, 0, FALSE,
                       DUPLICATE_SAME_ACCESS)) {
    CloseHandle(output);
    return false;
  }
  // A plain Windows thread, not a detached std::thread: the MinGW threads
  // library races when it recycles a detached thread's record. Nothing joins
  // it; it ends after its core. It needs little stack.
  constexpr SIZE_T kWatcherStackBytes = 64 * 1024;
  auto* watched = new WatchedCore{own, output, generation, onEnd};
  HANDLE thread = CreateThread(nullptr, kWatcherStackBytes, WatchCore, watched,
                               STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  if (thread == nullptr) {
    delete watched;
    CloseHandle(own);
    CloseHandle(output);
    return false;
  }
  CloseHandle(thread);
  return true;
}

bool IsStillActive(HANDLE process) {
  DWORD exitCode = 0;
  // A core that itself exits with 259 counts as running; accepted.
  return process != nullptr && GetExitCodeProcess(process, &exitCode) && exitCode == STILL_ACTIVE;
}

// Terminates `core` if it runs, waits for it (the stop goes on after the
// time-out regardless) and closes its handles.
void StopProcess(CoreProcess& core) {
  if (core.process != nullptr) {
    if (IsStillActive(core.process)) {
      TerminateProcess(core.process, 0);
      WaitForSingleObject(core.process, kStopWaitMs);
    }
    CloseHandle(core.process);
    core.process = nullptr;
  }
  if (core.thread != nullptr) {
    CloseHandle(core.thread);
    core.thread = nullptr;
  }
}

}  // namespace

std::string DrainPipeOutput(HANDLE readEnd) {
  std::string output;
  DWORD available = 0;
  if (!PeekNamedPipe(readEnd, nullptr, 0, nullptr, &available, nullptr)) return output;
  char buffer[kPipeChunkBytes];
  while (available > 0) {
    DWORD got = 0;
    if (!ReadFile(readEnd, buffer, std::min(available, kPipeChunkBytes), &got, nullptr) ||
        got == 0) {
      break;
    }
    output.append(buffer, got);
    if (output.size() > kPipeChunkBytes) break;
    if (!PeekNamedPipe(readEnd, nullptr, 0, nullptr, &available, nullptr)) break;
  }
  return output;
}

bool IsCoreRunning() {
  std::lock_guard<std::mutex> hold(RecordLock);
  return IsStillActive(MainCore.process);
}

HANDLE DuplicateCoreProcessHandle() {
  std::lock_guard<std::mutex> hold(RecordLock);
  HANDLE copy = nullptr;
  if (MainCore.process == nullptr ||
      !DuplicateHandle(GetCurrentProcess(), MainCore.process, GetCurrentProcess(), &copy,
                       SYNCHRONIZE, FALSE, 0)) {
    return nullptr;
  }
  return copy;
}

void StopCore() {
  CoreProcess core;
  {
    std::lock_guard<std::mutex> hold(RecordLock);
    std::swap(core, MainCore);
  }
  StopProcess(core);
}

bool ReleaseEndedCore(std::uint64_t generation) {
  CoreProcess core;
  {
    std::lock_guard<std::mutex> hold(RecordLock);
    if (MainCore.process == nullptr || MainGeneration != generation) return false;
    std::swap(core, MainCore);
  }
  StopProcess(core);
  return true;
}

bool StartCore(const std::filesystem::path& config, CoreEndedHandler onEnd,
               std::string& errorMessage) {
  const std::wstring exe = FindCoreExecutable().wstring();
  const std::wstring& configPath = config.native();
  if (exe.empty()) {
    errorMessage = ThisPlatform().coreNotFound;
    return false;
  }
  const std::wstring commandLine = BuildCommandLine(exe, {L"run", L"-c", configPath});

  HANDLE readEnd = nullptr;
  HANDLE writeEnd = nullptr;
  if (!CreateOutputPipe(readEnd, writeEnd)) {
    errorMessage = "Failed to create sing-box output pipe";
    return false;
  }
  SetCoreEnvironmentVariables();
  PROCESS_INFORMATION info{};
  DWORD launchError = 0;
  if (!LaunchChild(commandLine, GetStdHandle(STD_INPUT_HANDLE), writeEnd,
                   GetDataDirectory().wstring(), info, launchError)) {
    CloseHandle(readEnd);
    CloseHandle(writeEnd);
    errorMessage = std::string(ThisPlatform().coreLaunchFailed) + std::to_string(launchError);
    return false;
  }
  // Our copy of the write end must go at once: the pipe reports its end only
  // when the core's copy is the last one.
  CloseHandle(writeEnd);
  CoreProcess core{info.hProcess, info.hThread, info.dwProcessId, info.dwThreadId};
  Sleep(kSurvivalWaitMs);

  if (IsStillActive(core.process)) {
    std::uint64_t generation = 0;
    {
      std::lock_guard<std::mutex> hold(RecordLock);
      MainCore = core;
      generation = ++MainGeneration;
    }
    if (StartWatcher(core.process, readEnd, generation, onEnd)) return true;
    // A core nobody watches would leave the user's proxy on a dead port.
    StopCore();
    errorMessage = "Failed to watch sing-box.exe";
    return false;
  }
  WaitForSingleObject(core.process, kExitSettleWaitMs);
  const std::string output = DrainPipeOutput(readEnd);
  StopProcess(core);
  CloseHandle(readEnd);
  errorMessage = std::string(ThisPlatform().coreExitedImmediately) +
                 SummarizeCoreOutput(output, kCoreOutputSummaryLimit);
  return false;
}

}  // namespace orvel
