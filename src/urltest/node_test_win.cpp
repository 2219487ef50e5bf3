#include <windows.h>

#include "core/child_launch_win.h"
#include "core/command_line.h"
#include "core/host_platform.h"
#include "core/paths.h"
#include "core/win_handle.h"
#include "urltest/node_test.h"
#include "urltest/urltest_registry.h"

namespace orvel {

namespace {

// UTF-8 to UTF-16; "" for empty input or when the conversion reports no length.
std::wstring Utf8ToWide(const std::string& text) {
  if (text.empty()) return {};
  const int length =
      MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  if (length <= 0) return {};
  std::wstring wide(static_cast<std::size_t>(length), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), length);
  return wide;
}

}  // namespace

bool RunNodeTest(const std::filesystem::path& config, const UrlTestRequest& request,
                 const std::string& nodeTag, const std::string& url, NodeTestResult& result) {
  const std::string& requestId = request.requestId;
  if (IsUrlTestCanceled(requestId)) {
    result.output = "URLTest canceled before start";
    result.waitResult = kWaitSkippedForCancel;
    return false;
  }
  const std::wstring exe = FindCoreExecutable().wstring();
  const std::wstring& configPath = config.native();
  if (exe.empty()) {
    result.output = ThisPlatform().testCoreNotFound;
    return false;
  }

  HANDLE readEnd = nullptr;
  HANDLE writeEnd = nullptr;
  if (!CreateOutputPipe(readEnd, writeEnd)) {
    result.lastError = GetLastError();
    result.output = "CreatePipe failed";
    return false;
  }
  UniqueHandle outputRead(readEnd);
  UniqueHandle outputWrite(writeEnd);

  // The tag and URL are the client's text: each stays one argument of the
  // core, whatever quotes or backslashes it holds.
  const std::wstring commandLine =
      BuildCommandLine(exe, {L"--disable-color", L"-c", configPath, L"tools", L"-o",
                             Utf8ToWide(nodeTag), L"fetch", Utf8ToWide(url)});
  const std::wstring workingDirectory = GetDataDirectory().wstring();
  SetCoreEnvironmentVariables();

  const ULONGLONG startTick = GetTickCount64();
  PROCESS_INFORMATION info{};
  DWORD launchError = 0;
  // Standard input is null; the child inherits only its own pipe end, so the
  // other workers' pipes close as soon as their own processes end.
  const bool launched =
      LaunchChild(commandLine, nullptr, outputWrite.h, workingDirectory, info, launchError);
  outputWrite.Close();
  if (!launched) {
    result.lastError = launchError;
    result.output = "CreateProcessW failed";
    return false;
  }
  UniqueHandle process(info.hProcess);
  UniqueHandle thread(info.hThread);

  const auto registered = reinterpret_cast<TestProcessHandle>(process.h);
  if (!requestId.empty()) RegisterTestProcess(requestId, registered);
  result.waitResult = WaitForSingleObject(process.h, kNodeTestTimeoutMs);
  result.elapsedMs = GetTickCount64() - startTick;
  // A cancel that came between creation and registration found nothing to
  // terminate; this is where such a process ends. A failed wait is treated
  // like a time-out so that no test process outlives its runner.
  if (result.waitResult != WAIT_OBJECT_0 || IsUrlTestCanceled(requestId)) {
    TerminateProcess(process.h, 1);
    WaitForSingleObject(process.h, kTerminateWaitMs);
  }
  DWORD exitCode = 1;
  if (GetExitCodeProcess(process.h, &exitCode)) result.exitCode = exitCode;
  // Unregister before closing: a cancel copies the handle under the registry
  // lock, so it never sees one that is already closed.
  UnregisterTestProcess(requestId, registered);
  thread.Close();
  process.Close();

  // The process has ended, so its end of the pipe is closed and these reads
  // finish at what it left in the pipe.
  char chunk[1024];
  DWORD got = 0;
  while (ReadFile(outputRead.h, chunk, sizeof(chunk), &got, nullptr) && got > 0) {
    AppendCapped(result.output, std::string_view(chunk, got), kMaxTestOutputBytes);
  }
  outputRead.Close();

  if (result.waitResult == WAIT_OBJECT_0 && result.exitCode == 0) {
    result.delayMs = static_cast<std::int32_t>(static_cast<std::uint32_t>(result.elapsedMs));
    return true;
  }
  result.delayMs = 0;
  return false;
}

}  // namespace orvel
