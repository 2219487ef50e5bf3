#include "core/core_process_win.h"

#include <algorithm>

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

CoreProcess MainCore;

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
  if (MainCore.process == nullptr) return false;
  DWORD exitCode = 0;
  // A core that itself exits with 259 counts as running; accepted.
  return GetExitCodeProcess(MainCore.process, &exitCode) && exitCode == STILL_ACTIVE;
}

HANDLE DuplicateCoreProcessHandle() {
  HANDLE copy = nullptr;
  if (MainCore.process == nullptr ||
      !DuplicateHandle(GetCurrentProcess(), MainCore.process, GetCurrentProcess(), &copy,
                       SYNCHRONIZE, FALSE, 0)) {
    return nullptr;
  }
  return copy;
}

void StopCore() {
  if (MainCore.process != nullptr) {
    DWORD exitCode = 0;
    if (GetExitCodeProcess(MainCore.process, &exitCode) && exitCode == STILL_ACTIVE) {
      TerminateProcess(MainCore.process, 0);
      // After the time-out the stop goes on regardless.
      WaitForSingleObject(MainCore.process, kStopWaitMs);
    }
    CloseHandle(MainCore.process);
    MainCore.process = nullptr;
  }
  if (MainCore.thread != nullptr) {
    CloseHandle(MainCore.thread);
    MainCore.thread = nullptr;
  }
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
  MainCore.process = info.hProcess;
  MainCore.thread = info.hThread;
  MainCore.processId = info.dwProcessId;
  MainCore.threadId = info.dwThreadId;
  Sleep(kSurvivalWaitMs);

  if (IsCoreRunning()) {
    // Nobody reads the core's output from here on; the pipe exists only to
    // explain a core that dies at once.
    CloseHandle(readEnd);
    return true;
  }
  WaitForSingleObject(MainCore.process, kExitSettleWaitMs);
  const std::string output = DrainPipeOutput(readEnd);
  StopCore();
  CloseHandle(readEnd);
  errorMessage = std::string(ThisPlatform().coreExitedImmediately) +
                 SummarizeCoreOutput(output, kCoreOutputSummaryLimit);
  return false;
}

}  // namespace orvel
