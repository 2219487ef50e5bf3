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
#include <utility>

extern "C" __declspec(dllexport) BOOL WINAPI InternetSetOptionW(void*, DWORD option, void*, DWORD) {
  DWORD cores = 0;
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof(entry);
  for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry))
    cores += _wcsicmp(entry.szExeFile, L"sing-box.exe") == 0;
  CloseHandle(snapshot);
  for (const auto& [path, value] : {std::pair{L"C:\\OrvelTest\\wininet-calls.txt", option},
                                    {L"C:\\OrvelTest\\wininet-cores.txt", cores}}) {
    if (FILE* file = _wfopen(path, L"ab")) {
      std::fprintf(file, "%lu\n", value);
      std::fclose(file);
    }
  }
  return GetFileAttributesW(L"C:\\OrvelTest\\wininet-fail") == INVALID_FILE_ATTRIBUTES;
}
