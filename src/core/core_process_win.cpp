#include "core/core_process_win.h"

#include <algorithm>
#include <mutex>
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

bool StartCore(const std::filesystem::path& config, std::string& errorMessage) {
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
    // Nobody reads the core's output from here on; the pipe exists only to
    // explain a core that dies at once.
    CloseHandle(readEnd);
    std::lock_guard<std::mutex> hold(RecordLock);
    MainCore = core;
    return true;
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
