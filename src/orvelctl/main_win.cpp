#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "orvelctl/orvelctl.h"
#include "orvelctl/terminal.h"

namespace orvel::orvelctl {

namespace {

volatile LONG gInterrupted = 0;

BOOL WINAPI OnConsoleControl(DWORD event) {
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) return FALSE;
  InterlockedExchange(&gInterrupted, 1);
  return TRUE;
}

std::string ToUtf8(const wchar_t* text) {
  const int n = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
  if (n <= 1) return {};
  std::string out(static_cast<std::size_t>(n), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text, -1, out.data(), n, nullptr, nullptr);
  out.pop_back();  // the terminating zero
  return out;
}

std::wstring FromUtf8(const std::string& text) {
  if (text.empty()) return {};
  const int n =
      MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring out(static_cast<std::size_t>(n), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n);
  return out;
}

// Output is UTF-8 bytes with "\n" line ends, the same on both systems: the
// console is told to show UTF-8 and to honour the escape sequences of the
// in-place views, and the C runtime must not turn "\n" into "\r\n".
void PrepareConsole() {
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stderr), _O_BINARY);
  SetConsoleOutputCP(CP_UTF8);
  HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD mode = 0;
  if (GetConsoleMode(out, &mode)) {
    SetConsoleMode(out, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING | ENABLE_PROCESSED_OUTPUT);
  }
}

}  // namespace

bool StdoutIsTerminal() {
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != 0;
}

void WatchForInterrupt() {
  // A process started in a new process group begins with Ctrl-C ignored;
  // taking it back lets such a caller stop a run the way a person does.
  SetConsoleCtrlHandler(nullptr, FALSE);
  SetConsoleCtrlHandler(OnConsoleControl, TRUE);
}

bool InterruptRequested() { return InterlockedCompareExchange(&gInterrupted, 0, 0) != 0; }

bool ReadFileBytes(const std::string& pathUtf8, std::string& bytes, std::string& error) {
  FILE* file = _wfopen(FromUtf8(pathUtf8).c_str(), L"rb");
  if (file == nullptr) {
    error = std::strerror(errno);
    return false;
  }
  bytes.clear();
  char chunk[64 * 1024];
  std::size_t got = 0;
  while ((got = std::fread(chunk, 1, sizeof(chunk), file)) > 0) bytes.append(chunk, got);
  const bool failed = std::ferror(file) != 0;
  std::fclose(file);
  if (failed) error = "read failed";
  return !failed;
}

}  // namespace orvel::orvelctl

int wmain(int argc, wchar_t** argv) {
  orvel::orvelctl::PrepareConsole();
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) args.push_back(orvel::orvelctl::ToUtf8(argv[i]));
  return orvel::orvelctl::RunOrvelctl(args);
}
