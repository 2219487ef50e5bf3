#include "core/child_launch_win.h"

#include <vector>

namespace orvel {

namespace {

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

}  // namespace

void SetCoreEnvironmentVariables() {
  SetEnvironmentVariableW(L"ENABLE_DEPRECATED_LEGACY_DNS_SERVERS", L"true");
  SetEnvironmentVariableW(L"ENABLE_DEPRECATED_OUTBOUND_DNS_RULE_ITEM", L"true");
  SetEnvironmentVariableW(L"ENABLE_DEPRECATED_MISSING_DOMAIN_RESOLVER", L"true");
}

bool CreateOutputPipe(HANDLE& readEnd, HANDLE& writeEnd) {
  SECURITY_ATTRIBUTES attributes{};
  attributes.nLength = sizeof(attributes);
  attributes.bInheritHandle = TRUE;
  if (!CreatePipe(&readEnd, &writeEnd, &attributes, 0)) return false;
  SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
  return true;
}

bool LaunchChild(const std::wstring& commandLine, HANDLE standardInput, HANDLE outputWrite,
                 const std::wstring& workingDirectory, PROCESS_INFORMATION& process, DWORD& error) {
  std::vector<HANDLE> inherited{outputWrite};
  DWORD inputFlags = 0;
  if (standardInput != nullptr && standardInput != INVALID_HANDLE_VALUE &&
      standardInput != outputWrite && GetHandleInformation(standardInput, &inputFlags) &&
      (inputFlags & HANDLE_FLAG_INHERIT) != 0) {
    inherited.push_back(standardInput);
  }

  // The job goes in through the attribute list, so the child is in it from
  // its creation, before it runs any code: there is no moment at which it
  // exists outside the job (as there would be between CREATE_SUSPENDED and
  // AssignProcessToJobObject, were the helper to die in between). Inside a
  // job of its own the helper's job becomes a nested one.
  HANDLE jobs[] = {ChildJob()};
  const DWORD attributeCount = jobs[0] != nullptr ? 2 : 1;
  SIZE_T listBytes = 0;
  InitializeProcThreadAttributeList(nullptr, attributeCount, 0, &listBytes);
  std::vector<unsigned char> listStorage(listBytes);
  auto* list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(listStorage.data());
  if (!InitializeProcThreadAttributeList(list, attributeCount, 0, &listBytes)) {
    error = GetLastError();
    return false;
  }
  if (!UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherited.data(),
                                 inherited.size() * sizeof(HANDLE), nullptr, nullptr) ||
      (attributeCount == 2 && !UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_JOB_LIST,
                                                         jobs, sizeof(jobs), nullptr, nullptr))) {
    error = GetLastError();
    DeleteProcThreadAttributeList(list);
    return false;
  }

  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof(startup);
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
  startup.StartupInfo.wShowWindow = SW_HIDE;
  startup.StartupInfo.hStdInput = standardInput;
  startup.StartupInfo.hStdOutput = outputWrite;
  startup.StartupInfo.hStdError = outputWrite;
  startup.lpAttributeList = list;

  std::vector<wchar_t> writableLine(commandLine.begin(), commandLine.end());
  writableLine.push_back(L'\0');
  const BOOL created = CreateProcessW(nullptr, writableLine.data(), nullptr, nullptr, TRUE,
                                      CREATE_NO_WINDOW | EXTENDED_STARTUPINFO_PRESENT, nullptr,
                                      workingDirectory.c_str(), &startup.StartupInfo, &process);
  error = created ? 0 : GetLastError();
  DeleteProcThreadAttributeList(list);
  return created != FALSE;
}

}  // namespace orvel
