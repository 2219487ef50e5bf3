// sing-box --disable-color -c FILE tools -o TAG fetch URL
//
// Behaviour is chosen by tokens anywhere in TAG, so one test can give every
// node its own behaviour (e.g. "hk-01-delay-200", "東京-exit-2"):
//
//   token      behaviour
//   delay-N    answer after N ms: a small body on stdout, exit 0
//   exit-N     a FATAL line on stderr like a failed fetch, exit N
//   hang       never ends by itself (only termination ends it)
//   flood-N    write N bytes to stdout (more than a pipe holds blocks), then exit 0
//   (none)     answer at once, exit 0
//
// Every fetch leaves a record for the tests in C:\OrvelTest\fetch\<pid>-<k>.txt
// ("key=value" lines: pid, startTick, tag, url, config, the
// invocation as DescribeInvocation gives it, then configText= and the
// configuration's bytes to the end of the file).
//
#include <windows.h>

#include <cstdlib>
#include <string>

#include "doubles/fake_sing_box.h"

namespace {

const std::wstring kRecordDirectory = L"C:\\OrvelTest\\fetch";

std::wstring ArgumentAfter(const std::vector<std::wstring>& args, const wchar_t* name) {
  for (std::size_t i = 0; i + 1 < args.size(); ++i) {
    if (args[i] == name) return args[i + 1];
  }
  return {};
}

// The number after `token` in `tag`, or -1 when the token is absent.
long TokenValue(const std::wstring& tag, const std::wstring& token) {
  const std::size_t at = tag.find(token);
  if (at == std::wstring::npos) return -1;
  return std::wcstol(tag.c_str() + at + token.size(), nullptr, 10);
}

// A fresh file per fetch: process ids are reused, so a counter decides.
void WriteRecord(const std::string& text) {
  CreateDirectoryW(kRecordDirectory.c_str(), nullptr);
  const std::wstring stem = kRecordDirectory + L"\\" + std::to_wstring(GetCurrentProcessId());
  for (int k = 0; k < 1000; ++k) {
    const std::wstring path = stem + L"-" + std::to_wstring(k) + L".txt";
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) continue;
    DWORD written = 0;
    WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    CloseHandle(file);
    return;
  }
}

void WriteOut(DWORD which, const std::string& bytes) {
  DWORD written = 0;
  WriteFile(GetStdHandle(which), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

}  // namespace

int RunToolsMode(const std::vector<std::wstring>& args) {
  const std::wstring configPath = ArgumentAfter(args, L"-c");
  const std::wstring tag = ArgumentAfter(args, L"-o");
  const std::wstring url = ArgumentAfter(args, L"fetch");

  std::string record = "pid=" + std::to_string(GetCurrentProcessId()) + "\n";
  record += "startTick=" + std::to_string(GetTickCount64()) + "\n";
  record += "tag=" + WideToUtf8(tag) + "\nurl=" + WideToUtf8(url) + "\n";
  record += "config=" + WideToUtf8(configPath) + "\n";
  record += DescribeInvocation();
  record += "configText=" + ReadWholeFile(configPath);
  WriteRecord(record);

  if (tag.find(L"hang") != std::wstring::npos) {
    for (;;) Sleep(INFINITE);
  }
  const long delay = TokenValue(tag, L"delay-");
  if (delay > 0) Sleep(static_cast<DWORD>(delay));

  int exitCode = 0;
  const long flood = TokenValue(tag, L"flood-");
  const long exitWith = TokenValue(tag, L"exit-");
  if (flood > 0) {
    WriteOut(STD_OUTPUT_HANDLE, std::string(static_cast<std::size_t>(flood), 'x'));
  } else if (exitWith >= 0) {
    WriteOut(STD_ERROR_HANDLE, "FATAL[0000] Get \"" + WideToUtf8(url) +
                                   "\": outbound not found: " + WideToUtf8(tag) + "\n");
    exitCode = static_cast<int>(exitWith);
  } else {
    WriteOut(STD_OUTPUT_HANDLE, "<html>ok</html>\n");
  }
  return exitCode;
}
