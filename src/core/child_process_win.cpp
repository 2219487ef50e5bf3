#include <windows.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "core/child_process.h"
#include "core/command_line.h"
#include "core/unique_handle_win.h"

namespace orvel {

const std::string_view kOutputPipeCall = "CreatePipe";

namespace {

constexpr DWORD kPipeChunkBytes = 4096;

// The job every child of the helper runs in. Its only handle is this one,
// never closed and never inherited: however the helper ends (a stop, a crash,
// "End task", TerminateProcess), the system closes it with the process, and
// KILL_ON_JOB_CLOSE then ends every process still in the job, the main core,
// the URL test processes and whatever they started themselves. Null when the
// job cannot be made; children then start without it.
HANDLE ChildJob() {
  static const HANDLE job = []() -> HANDLE {
    HANDLE created = CreateJobObjectW(nullptr, nullptr);
    if (created == nullptr) return nullptr;
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    if (!SetInformationJobObject(created, JobObjectExtendedLimitInformation, &limits,
                                 sizeof(limits))) {
      CloseHandle(created);
      return nullptr;
    }
    return created;
  }();
  return job;
}

HANDLE AsHandle(ChildHandle handle) { return reinterpret_cast<HANDLE>(handle); }
ChildHandle FromHandle(HANDLE handle) {
  return handle == nullptr ? kNoChildHandle : reinterpret_cast<ChildHandle>(handle);
}

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

// The one command line the child's C runtime (or Go's) splits back into
// exactly these arguments.
std::wstring CommandLineOf(const ChildLaunch& launch) {
  std::wstring line = BuildCommandLine(launch.program.native(), {});
  for (const std::string& argument : launch.arguments) {
    line += L' ';
    line += QuoteCommandLineArgument(Utf8ToWide(argument));
  }
  return line;
}

// The attribute list of a child: its only inheritable handle (when it gets
// one) and the job. Without the handle list a child would inherit every
// inheritable handle of the helper: another child's pipe end or a client's
// socket, which would keep that pipe or connection open for as long as the
// child lives. The job goes in at creation, so the child is in it before it
// runs any code: there is no moment at which it exists outside the job (as
// there would be between CREATE_SUSPENDED and AssignProcessToJobObject, were
// the helper to die in between). Inside a job of its own the helper's job
// becomes a nested one.
bool BuildAttributeList(HANDLE* inherited, std::vector<unsigned char>& storage,
                        SystemError& error) {
  static HANDLE jobs[] = {ChildJob()};
  const DWORD count = (inherited != nullptr ? 1 : 0) + (jobs[0] != nullptr ? 1 : 0);
  SIZE_T listBytes = 0;
  InitializeProcThreadAttributeList(nullptr, std::max<DWORD>(count, 1), 0, &listBytes);
  storage.resize(listBytes);
  auto* list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage.data());
  if (!InitializeProcThreadAttributeList(list, std::max<DWORD>(count, 1), 0, &listBytes)) {
    error = LastSystemError("InitializeProcThreadAttributeList");
    return false;
  }
  if ((inherited != nullptr &&
       !UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherited,
                                  sizeof(HANDLE), nullptr, nullptr)) ||
      (jobs[0] != nullptr && !UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_JOB_LIST,
                                                        jobs, sizeof(jobs), nullptr, nullptr))) {
    error = LastSystemError("UpdateProcThreadAttribute");
    DeleteProcThreadAttributeList(list);
    return false;
  }
  return true;
}

// CreateProcessW with no window, standard input absent and the output (or
// nothing) as standard output and error.
bool CreateChild(const ChildLaunch& launch, HANDLE outputWrite, ChildProcess& child,
                 SystemError& error) {
  HANDLE inherited = outputWrite;
  std::vector<unsigned char> storage;
  if (!BuildAttributeList(outputWrite != nullptr ? &inherited : nullptr, storage, error)) {
    return false;
  }
  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof(startup);
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
  startup.StartupInfo.wShowWindow = SW_HIDE;
  startup.StartupInfo.hStdOutput = outputWrite;
  startup.StartupInfo.hStdError =
      launch.output == ChildOutput::kStdoutCaptured ? nullptr : outputWrite;
  startup.lpAttributeList = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage.data());

  std::wstring line = CommandLineOf(launch);
  const std::wstring& directory = launch.workingDirectory.native();
  PROCESS_INFORMATION info{};
  const BOOL created =
      CreateProcessW(nullptr, line.data(), nullptr, nullptr, outputWrite != nullptr,
                     CREATE_NO_WINDOW | EXTENDED_STARTUPINFO_PRESENT, nullptr,
                     directory.empty() ? nullptr : directory.c_str(), &startup.StartupInfo, &info);
  if (!created) {
    error = LastSystemError("CreateProcessW");  // before anything can overwrite the code
    error.path = ChildArgument(launch.program);
  }
  DeleteProcThreadAttributeList(startup.lpAttributeList);
  if (!created) return false;
  CloseHandle(info.hThread);
  child.process = FromHandle(info.hProcess);
  return true;
}

// A pipe for the child's output: the write end inheritable (the handle list
// gives it to this child alone), the read end not.
bool CreateOutputPipe(UniqueHandle& readEnd, UniqueHandle& writeEnd, SystemError& error) {
  SECURITY_ATTRIBUTES attributes{};
  attributes.nLength = sizeof(attributes);
  attributes.bInheritHandle = TRUE;
  if (!CreatePipe(&readEnd.h, &writeEnd.h, &attributes, 0)) {
    error = LastSystemError(kOutputPipeCall);
    return false;
  }
  SetHandleInformation(readEnd.h, HANDLE_FLAG_INHERIT, 0);
  return true;
}

}  // namespace

void SetCoreEnvironmentVariables() {
  SetEnvironmentVariableW(L"ENABLE_DEPRECATED_LEGACY_DNS_SERVERS", L"true");
  SetEnvironmentVariableW(L"ENABLE_DEPRECATED_OUTBOUND_DNS_RULE_ITEM", L"true");
  SetEnvironmentVariableW(L"ENABLE_DEPRECATED_MISSING_DOMAIN_RESOLVER", L"true");
}

bool LaunchChild(const ChildLaunch& launch, ChildProcess& child, SystemError& error) {
  UniqueHandle readEnd;
  UniqueHandle writeEnd;
  if (launch.output != ChildOutput::kDropped && !CreateOutputPipe(readEnd, writeEnd, error)) {
    return false;
  }
  child = ChildProcess{};
  // Our copy of the write end goes when this returns: the pipe reports its
  // end only when the child's copy (and its own children's) are the last.
  if (!CreateChild(launch, writeEnd.h, child, error)) return false;
  child.output = FromHandle(readEnd.Release());
  return true;
}

bool WaitForChild(ChildProcess& child, int timeoutMs) {
  if (child.process == kNoChildHandle || child.ended) return true;
  const DWORD wait = timeoutMs < 0 ? INFINITE : static_cast<DWORD>(timeoutMs);
  if (WaitForSingleObject(AsHandle(child.process), wait) != WAIT_OBJECT_0) return false;
  DWORD code = 0;
  if (GetExitCodeProcess(AsHandle(child.process), &code)) child.exit = ChildExit{false, code};
  child.ended = true;
  return true;
}

bool HasChildEnded(ChildHandle process) {
  return process == kNoChildHandle || WaitForSingleObject(AsHandle(process), 0) == WAIT_OBJECT_0;
}

void SignalChild(ChildHandle process, ChildSignal) {
  if (process != kNoChildHandle) TerminateProcess(AsHandle(process), 1);
}

void StopChild(ChildProcess& child, ChildSignal first, int graceMs) {
  if (WaitForChild(child, 0)) return;
  SignalChild(child.process, first);
  if (WaitForChild(child, graceMs)) return;
  SignalChild(child.process, ChildSignal::kKill);
  // A process that a driver holds may not end at all: the stop goes on.
  WaitForChild(child, kKilledChildWaitMs);
}

ChildHandle DuplicateChildHandle(ChildHandle process) {
  HANDLE copy = nullptr;
  if (process == kNoChildHandle ||
      !DuplicateHandle(GetCurrentProcess(), AsHandle(process), GetCurrentProcess(), &copy, 0, FALSE,
                       DUPLICATE_SAME_ACCESS)) {
    return kNoChildHandle;
  }
  return FromHandle(copy);
}

void CloseChildHandle(ChildHandle handle) {
  if (handle != kNoChildHandle) CloseHandle(AsHandle(handle));
}

bool ReadChildOutput(ChildProcess& child, std::string& chunk) {
  char buffer[kPipeChunkBytes];
  DWORD got = 0;
  // Fails (ERROR_BROKEN_PIPE) once the child and whatever it started have let
  // go of the write end.
  if (child.output == kNoChildHandle ||
      !ReadFile(AsHandle(child.output), buffer, sizeof(buffer), &got, nullptr)) {
    return false;
  }
  chunk.assign(buffer, got);
  return true;
}

std::string DrainChildOutput(ChildProcess& child) {
  std::string output;
  const HANDLE readEnd = AsHandle(child.output);
  DWORD available = 0;
  if (child.output == kNoChildHandle ||
      !PeekNamedPipe(readEnd, nullptr, 0, nullptr, &available, nullptr)) {
    return output;
  }
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

void DiscardChildOutput(ChildProcess& child) {
  std::string ignored;
  while (ReadChildOutput(child, ignored)) {
  }
  CloseChildHandle(child.output);
  child.output = kNoChildHandle;
}

void ReleaseChild(ChildProcess& child) {
  CloseChildHandle(child.process);
  CloseChildHandle(child.output);
  child = ChildProcess{};
}

std::uint64_t MonotonicMs() { return GetTickCount64(); }

}  // namespace orvel
