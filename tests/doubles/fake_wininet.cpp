// Test double of wininet.dll for the Wine runs: Wine refuses the refresh
// notification with a null handle that Windows accepts. Each call is recorded
// as one line "<option>" in C:\OrvelTest\wininet-calls.txt, and the number of
// sing-box.exe processes running at that moment as one line in
// C:\OrvelTest\wininet-cores.txt (so a test can tell whether the proxy was
// restored before or after the core was stopped). While the file
// C:\OrvelTest\wininet-fail exists every call fails. Fixed paths, because the
// helper may run as a service that does not get the test's environment.
#include <windows.h>
// windows.h first: tlhelp32.h depends on it.
#include <tlhelp32.h>

#include <cstdio>

namespace {

int CountCoreProcesses() {
  int count = 0;
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return -1;
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof(entry);
  for (BOOL more = Process32FirstW(snapshot, &entry); more;
       more = Process32NextW(snapshot, &entry)) {
    if (_wcsicmp(entry.szExeFile, L"sing-box.exe") == 0) ++count;
  }
  CloseHandle(snapshot);
  return count;
}

void AppendLine(const wchar_t* path, unsigned long value) {
  if (FILE* file = _wfopen(path, L"ab")) {
    std::fprintf(file, "%lu\n", value);
    std::fclose(file);
  }
}

}  // namespace

extern "C" __declspec(dllexport) BOOL WINAPI InternetSetOptionW(void*, DWORD option, void*, DWORD) {
  AppendLine(L"C:\\OrvelTest\\wininet-calls.txt", option);
  AppendLine(L"C:\\OrvelTest\\wininet-cores.txt", static_cast<unsigned long>(CountCoreProcesses()));
  return GetFileAttributesW(L"C:\\OrvelTest\\wininet-fail") == INVALID_FILE_ATTRIBUTES;
}
