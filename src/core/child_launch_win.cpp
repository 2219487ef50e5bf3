#include "core/child_launch_win.h"

#include <vector>

namespace orvel {

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

  SIZE_T listBytes = 0;
  InitializeProcThreadAttributeList(nullptr, 1, 0, &listBytes);
  std::vector<unsigned char> listStorage(listBytes);
  auto* list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(listStorage.data());
  if (!InitializeProcThreadAttributeList(list, 1, 0, &listBytes)) {
    error = GetLastError();
    return false;
  }
  if (!UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherited.data(),
                                 inherited.size() * sizeof(HANDLE), nullptr, nullptr)) {
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
