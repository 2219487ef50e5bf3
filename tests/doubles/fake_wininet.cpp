// Test double of wininet.dll for the Wine runs: Wine refuses the refresh
// notification with a null handle that Windows accepts. Each call is recorded
// as one line "<option>" in C:\OrvelTest\wininet-calls.txt; while the file
// C:\OrvelTest\wininet-fail exists every call fails. Fixed paths, because the
// helper may run as a service that does not get the test's environment.
#include <windows.h>

#include <cstdio>

extern "C" __declspec(dllexport) BOOL WINAPI InternetSetOptionW(void*, DWORD option, void*, DWORD) {
  if (FILE* file = _wfopen(L"C:\\OrvelTest\\wininet-calls.txt", L"ab")) {
    std::fprintf(file, "%lu\n", static_cast<unsigned long>(option));
    std::fclose(file);
  }
  return GetFileAttributesW(L"C:\\OrvelTest\\wininet-fail") == INVALID_FILE_ATTRIBUTES;
}
