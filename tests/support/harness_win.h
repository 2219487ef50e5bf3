#pragma once

// The Windows part of the harness (included by harness.h): where things lie,
// other programs run with their own console group, processes by image name, the per-user
// proxy values as raw registry data, and the records the doubles leave in
// C:\OrvelTest.

#include <windows.h>
// After windows.h, which these depend on.
#include <tlhelp32.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include <array>
#include <tuple>

namespace orvel::test {

// A registry value: its type (REG_NONE: absent) and its bytes as stored.
using RegValue = std::pair<DWORD, std::string>;
// ProxyEnable, ProxyServer and ProxyOverride of the per-user settings.
using ProxyValues = std::array<RegValue, 3>;

inline constexpr const wchar_t* kInternetSettings =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Internet Settings";
inline constexpr const wchar_t* kProxyValueNames[] = {L"ProxyEnable", L"ProxyServer",
                                                      L"ProxyOverride"};

template <typename Visit>
void ForEachProcessNamed(const wchar_t* exeName, Visit visit) {
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof(entry);
  for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry))
    if (_wcsicmp(entry.szExeFile, exeName) == 0) visit(entry.th32ProcessID);
  CloseHandle(snapshot);
}

// This test program's own exe, in build/bin beside OrvelVpnHelper.exe.
inline fs::path SelfPath() {
  wchar_t buffer[MAX_PATH] = {};
  return std::wstring(buffer, GetModuleFileNameW(nullptr, buffer, MAX_PATH));
}
inline fs::path BinDirectory() { return SelfPath().parent_path(); }
// build/bin/doubles: sing-box.exe and wininet.dll
inline fs::path DoublesDirectory() { return BinDirectory() / L"doubles"; }
inline fs::path WorkDirectory() { return BinDirectory() / L"e2e-work"; }
// %APPDATA%\OrvelVPN
inline fs::path HelperDataDirectory() { return fs::path(_wgetenv(L"APPDATA")) / L"OrvelVPN"; }
// C:\OrvelTest\<name>
inline fs::path RecordPath(std::string_view name) {
  return fs::path(L"C:\\OrvelTest\\") / fs::u8path(name);
}

inline std::string PathText(const fs::path& path) { return ChildArgument(path); }
inline std::string PathVariable() { return PathText(_wgetenv(L"PATH")); }
inline void SetPathVariable(const std::string& value) {
  SetEnvironmentVariableW(L"PATH", fs::u8path(value).c_str());
}
constexpr char kPathListSeparator = ';';
inline std::uint32_t ChildPid(ChildHandle process) {
  return GetProcessId(reinterpret_cast<HANDLE>(process));
}

inline int CountProcessesNamed(const wchar_t* exeName) {
  int count = 0;
  ForEachProcessNamed(exeName, [&](DWORD) { ++count; });
  return count;
}
inline int CountCores() { return CountProcessesNamed(L"sing-box.exe"); }

inline void KillProcessesNamed(const wchar_t* exeName) {
  ForEachProcessNamed(exeName, [](DWORD pid) {
    if (HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid)) {
      TerminateProcess(process, 1);
      WaitForSingleObject(process, 5000);
      CloseHandle(process);
    }
  });
}

// Ends every core double from outside, as a task manager would; the helper
// reports such an end as kKilledCoreEnd.
inline void KillCores() { KillProcessesNamed(L"sing-box.exe"); }
inline constexpr std::string_view kKilledCoreEnd = "(exit code 1)";

inline RegValue Absent() { return {}; }
inline RegValue Dword(DWORD number) {
  return {REG_DWORD, std::string(reinterpret_cast<const char*>(&number), sizeof(number))};
}
// one terminating zero
inline RegValue Text(std::wstring_view text, DWORD type = REG_SZ) {
  return {type,
          std::string(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t))
              .append(sizeof(wchar_t), '\0')};
}

// RegQueryValueExW, not RegGetValueW: the bytes exactly as stored, with no
// terminating zero added to a string that lacks one.
inline ProxyValues ReadProxyValues() {
  ProxyValues values{};
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_CURRENT_USER, kInternetSettings, 0, KEY_QUERY_VALUE, &key) != 0)
    return values;
  for (std::size_t i = 0; i < values.size(); ++i) {
    BYTE data[1024];  // more than any value of the tests
    DWORD type = REG_NONE, size = sizeof(data);
    if (RegQueryValueExW(key, kProxyValueNames[i], nullptr, &type, data, &size) == 0)
      values[i] = {type, std::string(reinterpret_cast<const char*>(data), size)};
  }
  RegCloseKey(key);
  return values;
}

// an absent value is deleted
inline void WriteProxyValues(const ProxyValues& values) {
  for (std::size_t i = 0; i < values.size(); ++i) {
    const auto& [type, bytes] = values[i];
    if (type == REG_NONE) {
      RegDeleteKeyValueW(HKEY_CURRENT_USER, kInternetSettings, kProxyValueNames[i]);
    } else {
      RegSetKeyValueW(HKEY_CURRENT_USER, kInternetSettings, kProxyValueNames[i], type, bytes.data(),
                      static_cast<DWORD>(bytes.size()));
    }
  }
}

// what a start on `port` writes
inline ProxyValues HelperProxyValues(unsigned port) {
  const std::wstring p = L"127.0.0.1:" + std::to_wstring(port);
  return {Dword(1), Text(L"http=" + p + L";https=" + p + L";socks=" + p),
          Text(L"localhost;127.0.0.1;<local>")};
}

// wininet-calls.txt: one option number per line, e.g. "39\n37\n".
inline std::string ReadWininetCalls() { return ReadFileBytes(RecordPath("wininet-calls.txt")); }

// While it exists, every call of the wininet double fails.
inline const fs::path kWininetFail = RecordPath("wininet-fail");

// --- The helper ---------------------------------------------------------------

// Wine's StartServiceCtrlDispatcherW opens the control pipe of the service
// named by this volatile value (the last one Wine started) and, finding that
// pipe busy, waits 10 s before failing with 1063; Windows fails at once.
// Pointing the value at a pipe that does not exist gives the Windows timing.
// The key itself must stay: services.exe keeps it open and writes the value
// anew for every service it starts.
// Makes a stand-alone helper start as fast under Wine as on Windows.
inline void ForgetLastStartedService() {
  const DWORD unused = 0xFFFFFFF0;
  RegSetKeyValueW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Control\\ServiceCurrent",
                  nullptr, REG_DWORD, &unused, sizeof(unused));
}
inline void PrepareHelperStart() { ForgetLastStartedService(); }

// Runs `exePath` with `arguments` (joined by spaces, as a person types them)
// and waits up to 60 s: its exit code (0xFFFFFFFF when it did not start),
// stdout and stderr. With `interruptAfterFetches`, presses Ctrl-C once that
// many test processes have started: the program runs in a process group of
// its own on this process's console, the way a person's Ctrl-C reaches it.
// Without `handOutput` it gets no handle of this process (an installer: the
// first window in the prefix starts Wine's desktop process, which would keep
// for ever the output files handed to it) and its output is not read.
inline std::tuple<std::uint32_t, std::string, std::string> RunProgram(
    const fs::path& exePath, const std::vector<std::string>& arguments,
    std::size_t interruptAfterFetches = 0, bool handOutput = true) {
  SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  const auto create = [&](const wchar_t* name) {
    return CreateFileW((BinDirectory() / name).c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                       &inheritable, CREATE_ALWAYS, 0, nullptr);
  };
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = handOutput ? STARTF_USESTDHANDLES : 0;
  startup.hStdOutput = create(L"run-out.txt");
  startup.hStdError = create(L"run-err.txt");
  std::wstring commandLine = L"\"" + exePath.wstring() + L"\"";
  for (const std::string& argument : arguments)
    commandLine += L" " + fs::u8path(argument).wstring();
  PROCESS_INFORMATION info{};
  DWORD exitCode = 0xFFFFFFFF;
  if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, handOutput,
                     CREATE_NEW_PROCESS_GROUP, nullptr, nullptr, &startup, &info)) {
    // Wine delivers Ctrl-C to a named group (Ctrl-Break ends the thread
    // instead of calling the handler), and Windows does for a group that
    // has taken Ctrl-C back, as orvelctl does.
    if (interruptAfterFetches > 0 && WaitForFetchRecords(interruptAfterFetches, 15000).size() > 0)
      GenerateConsoleCtrlEvent(CTRL_C_EVENT, info.dwProcessId);
    if (WaitForSingleObject(info.hProcess, 60000) != WAIT_OBJECT_0) {
      TerminateProcess(info.hProcess, 99);
      WaitForSingleObject(info.hProcess, 10000);
    }
    GetExitCodeProcess(info.hProcess, &exitCode);
  }
  for (HANDLE handle : {startup.hStdOutput, startup.hStdError, info.hProcess, info.hThread})
    CloseHandle(handle);
  return {exitCode, ReadFileBytes(BinDirectory() / L"run-out.txt"),
          ReadFileBytes(BinDirectory() / L"run-err.txt")};
}

// How many threads `processId` has now.
inline int CountThreads(std::uint32_t processId) {
  int count = 0;
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry{};
  entry.dwSize = sizeof(entry);
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry))
    count += entry.th32OwnerProcessID == processId;
  CloseHandle(snapshot);
  return count;
}

// The command lines the helper gives the core: every argument quoted (these
// values hold no quote and end in no backslash, so nothing is escaped).
inline std::string CoreRunCommandLine(const fs::path& exe, const fs::path& config) {
  return "\"" + PathText(exe) + "\" \"run\" \"-c\" \"" + PathText(config) + "\"";
}
inline std::string FetchCommandLine(const fs::path& exe, const std::string& config,
                                    const std::string& tag, std::string_view url) {
  return "\"" + PathText(exe) + "\" \"--disable-color\" \"-c\" \"" + config +
         "\" \"tools\" \"-o\" \"" + tag + "\" \"fetch\" \"" + std::string(url) + "\"";
}

constexpr const char* kHelperFileName = "OrvelVpnHelper.exe";
constexpr const char* kCoreFileName = "sing-box.exe";
constexpr const char* kOrvelctlFileName = "orvelctl.exe";
// The system's code for a core that is a directory, and for a file that
// cannot be created because a directory has its name.
constexpr const char* kCoreIsDirectoryError = "5";
constexpr const char* kFileIsDirectoryError = "5";
// The call that fails then, as the log names it.
constexpr const char* kWriteFileCall = "CreateFile";

}  // namespace orvel::test
