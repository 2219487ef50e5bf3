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
//   gather-N   first wait (up to 5 s) until N fetches have run at the same moment
//   (none)     answer at once, exit 0
//
// Every fetch leaves a record for the tests in C:\OrvelTest\fetch\<pid>-<k>.txt
// ("key=value" lines: pid, startTick, runningAtStart, tag, url, config, the
// invocation as DescribeInvocation gives it, then configText= and the
// configuration's bytes to the end of the file).
//
// runningAtStart counts the fetches running at once, this one included, in a
// named shared memory block that lives while any fetch runs: a fetch adds one
// at its start and takes it off when it ends by itself. A terminated fetch
// cannot take it off, so the count is exact only for fetches that all end by
// themselves; the block is gone, and the count starts from 0 again, once no
// fetch runs.

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

struct RunningCounters {
  volatile LONG running;
  volatile LONG most;  // only grows while the block lives
};

RunningCounters* OpenRunningCounters() {
  HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                      sizeof(RunningCounters), L"Local\\OrvelTestFetchCounters");
  if (mapping == nullptr) return nullptr;
  // The mapping handle stays open for the life of the process on purpose.
  return static_cast<RunningCounters*>(
      MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(RunningCounters)));
}

LONG EnterRunning(RunningCounters* counters) {
  const LONG now = InterlockedIncrement(&counters->running);
  for (LONG most = counters->most; most < now;) {
    const LONG seen = InterlockedCompareExchange(&counters->most, now, most);
    if (seen == most) break;
    most = seen;
  }
  return now;
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

  RunningCounters* counters = OpenRunningCounters();
  const LONG runningAtStart = counters != nullptr ? EnterRunning(counters) : 0;
  std::string record = "pid=" + std::to_string(GetCurrentProcessId()) + "\n";
  record += "startTick=" + std::to_string(GetTickCount64()) + "\n";
  record += "runningAtStart=" + std::to_string(runningAtStart) + "\n";
  record += "tag=" + WideToUtf8(tag) + "\nurl=" + WideToUtf8(url) + "\n";
  record += "config=" + WideToUtf8(configPath) + "\n";
  record += DescribeInvocation();
  record += "configText=" + ReadWholeFile(configPath);
  WriteRecord(record);

  const long gather = TokenValue(tag, L"gather-");
  for (int waited = 0;
       counters != nullptr && gather > 0 && counters->most < gather && waited < 5000;
       waited += 10) {
    Sleep(10);
  }
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
  // Taken off before the helper can see this process end.
  if (counters != nullptr) InterlockedDecrement(&counters->running);
  return exitCode;
}
