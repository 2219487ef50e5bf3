#pragma once

// The Windows part of the harness (included by harness.h): a real
// OrvelVpnHelper.exe in a job object of the test's own, processes by image
// name, the per-user proxy values as raw registry data, and the records the
// doubles leave in C:\OrvelTest.

#include <windows.h>
// After windows.h, which these depend on.
#include <tlhelp32.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include <ostream>
#include <tuple>

namespace orvel::test {

struct RegValue {
  DWORD type = REG_NONE;  // REG_NONE: absent
  std::string bytes;
  bool operator==(const RegValue&) const = default;
};

struct ProxyValues {
  RegValue proxyEnable, proxyServer, proxyOverride;
  bool operator==(const ProxyValues&) const = default;
};

struct ScopedHelper {
  PROCESS_INFORMATION process{};
  HANDLE job = nullptr;
  std::wstring directory;  // the folder of this helper's exe
  std::string error;       // why Start failed

  ScopedHelper() = default;
  ScopedHelper(const ScopedHelper&) = delete;
  ScopedHelper& operator=(const ScopedHelper&) = delete;
  ~ScopedHelper() { Stop(); }

  // Copies the helper (and the core double as asked) into a fresh folder,
  // starts it and waits until "/ping" answers.
  bool Start(const HelperOptions& options = {});
  // Ends the helper and every process in its job; safe to call twice.
  void Stop();
  // Ends the helper process alone, as a crash would; its children are left
  // to the helper's own job.
  void Kill();
  bool Running() const;
  fs::path ExePath() const { return directory + L"\\OrvelVpnHelper.exe"; }
  std::uint32_t Pid() const { return process.dwProcessId; }
};

inline constexpr const wchar_t* kInternetSettings =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Internet Settings";

template <typename Visit>
void ForEachProcessNamed(const wchar_t* exeName, Visit visit) {
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return;
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof(entry);
  for (BOOL more = Process32FirstW(snapshot, &entry); more;
       more = Process32NextW(snapshot, &entry)) {
    if (_wcsicmp(entry.szExeFile, exeName) == 0) visit(entry.th32ProcessID);
  }
  CloseHandle(snapshot);
}

inline void WriteValue(const wchar_t* name, const RegValue& value) {
  if (value.type == REG_NONE) {
    RegDeleteKeyValueW(HKEY_CURRENT_USER, kInternetSettings, name);
  } else {
    RegSetKeyValueW(HKEY_CURRENT_USER, kInternetSettings, name, value.type, value.bytes.data(),
                    static_cast<DWORD>(value.bytes.size()));
  }
}

// build/bin: the tests and OrvelVpnHelper.exe
inline std::wstring BinDirectory() {
  wchar_t buffer[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, buffer, MAX_PATH);
  return fs::path(buffer).parent_path().wstring();
}

// build/bin/doubles: sing-box.exe and wininet.dll
inline std::wstring DoublesDirectory() { return BinDirectory() + L"\\doubles"; }

// %APPDATA%\OrvelVPN
inline std::wstring HelperDataDirectory() {
  return std::wstring(_wgetenv(L"APPDATA")) + L"\\OrvelVPN";
}

// C:\OrvelTest\<name>
inline fs::path RecordPath(std::string_view name) {
  return fs::path(L"C:\\OrvelTest\\") / fs::u8path(name);
}

inline std::string ToUtf8(const std::wstring& text);
inline std::string PathText(const fs::path& path) { return ToUtf8(path.wstring()); }

inline std::string ToUtf8(const std::wstring& text) {
  const int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr,
                                    0, nullptr, nullptr);
  std::string out(static_cast<std::size_t>(n), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n,
                      nullptr, nullptr);
  return out;
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

inline RegValue Absent() { return RegValue{}; }

inline RegValue Dword(DWORD number) {
  return RegValue{REG_DWORD, std::string(reinterpret_cast<const char*>(&number), sizeof(number))};
}

// one terminating zero
inline RegValue Text(std::wstring_view text, DWORD type = REG_SZ) {
  std::wstring terminated(text);
  terminated.push_back(L'\0');
  return RegValue{type, std::string(reinterpret_cast<const char*>(terminated.data()),
                                    terminated.size() * sizeof(wchar_t))};
}

inline void PrintTo(const ProxyValues& values, std::ostream* out) {
  for (const RegValue* value : {&values.proxyEnable, &values.proxyServer, &values.proxyOverride}) {
    *out << "{type " << value->type << ":";
    for (unsigned char c : value->bytes) *out << (c >= 0x20 && c < 0x7F ? char(c) : '.');
    *out << "} ";
  }
}

inline ProxyValues ReadProxyValues() {
  // RegQueryValueExW, not RegGetValueW: the bytes exactly as stored, with no
  // terminating zero added to a string that lacks one.
  ProxyValues values;
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_CURRENT_USER, kInternetSettings, 0, KEY_QUERY_VALUE, &key) != 0) {
    return values;
  }
  for (const auto& [name, value] : {std::pair{L"ProxyEnable", &values.proxyEnable},
                                    {L"ProxyServer", &values.proxyServer},
                                    {L"ProxyOverride", &values.proxyOverride}}) {
    DWORD size = 0;
    if (RegQueryValueExW(key, name, nullptr, &value->type, nullptr, &size) != ERROR_SUCCESS) {
      *value = Absent();
      continue;
    }
    value->bytes.resize(size);
    RegQueryValueExW(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(value->bytes.data()),
                     &size);
  }
  RegCloseKey(key);
  return values;
}

// an absent value is deleted
inline void WriteProxyValues(const ProxyValues& values) {
  WriteValue(L"ProxyEnable", values.proxyEnable);
  WriteValue(L"ProxyServer", values.proxyServer);
  WriteValue(L"ProxyOverride", values.proxyOverride);
}

// what a start on `port` writes
inline ProxyValues HelperProxyValues(unsigned port) {
  const std::wstring p = L"127.0.0.1:" + std::to_wstring(port);
  return ProxyValues{Dword(1), Text(L"http=" + p + L";https=" + p + L";socks=" + p),
                     Text(L"localhost;127.0.0.1;<local>")};
}

// wininet-calls.txt: one option number per line, e.g. "39\n37\n".
inline std::string ReadWininetCalls() { return ReadFileBytes(RecordPath("wininet-calls.txt")); }

inline void SetWininetFailing(bool failing) {
  if (!failing || !WriteWholeFile(RecordPath("wininet-fail"), "fail")) {
    DeleteFileW(RecordPath("wininet-fail").c_str());
  }
}

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

inline bool ScopedHelper::Start(const HelperOptions& options) {
  KillProcessesNamed(L"sing-box.exe");
  ForgetLastStartedService();
  if (client::ClientSocket taken; ConnectToHelper(taken)) {
    error = "port 17891 is already in use by another process; end it before running this test";
    return false;
  }
  wchar_t self[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, self, MAX_PATH);
  directory = BinDirectory() + L"\\e2e-work\\" + fs::path(self).stem().wstring();
  std::error_code ec;
  fs::remove_all(directory, ec);
  fs::create_directories(directory);
  fs::copy_file(BinDirectory() + L"\\OrvelVpnHelper.exe", ExePath());
  if (options.core == CorePlacement::kBesideExe) {
    fs::copy_file(DoublesDirectory() + L"\\sing-box.exe", directory + L"\\sing-box.exe");
  }
  if (!options.keepDataDirectory) fs::remove_all(HelperDataDirectory(), ec);
  fs::create_directories(RecordPath(""), ec);

  // The helper inherits our environment; PATH decides the system search.
  wchar_t oldPath[32767] = {};
  GetEnvironmentVariableW(L"PATH", oldPath, 32767);
  if (!options.extraPath.empty()) {
    SetEnvironmentVariableW(L"PATH", (options.extraPath.wstring() + L";" + oldPath).c_str());
  }
  job = CreateJobObjectW(nullptr, nullptr);
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
  limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof(limits));
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  std::wstring commandLine = L"\"" + ExePath().wstring() + L"\"";
  // Wine has been seen to fail a start once with ERROR_INTERNAL_ERROR right
  // after another test's processes ended; a second try succeeds.
  BOOL created = FALSE;
  for (int attempt = 0; attempt < 3 && !created; ++attempt) {
    if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(500));
    created = CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, CREATE_SUSPENDED,
                             nullptr, directory.c_str(), &startup, &process);
  }
  SetEnvironmentVariableW(L"PATH", oldPath);
  if (!created) {
    error = "CreateProcessW of the helper failed: " + std::to_string(GetLastError());
    return false;
  }
  AssignProcessToJobObject(job, process.hProcess);
  ResumeThread(process.hThread);
  return WaitForFirstPong([this] { return Running(); }, error);
}

inline void ScopedHelper::Stop() {
  if (job != nullptr) TerminateJobObject(job, 1);
  if (process.hProcess != nullptr) {
    Kill();
    CloseHandle(process.hProcess);
    CloseHandle(process.hThread);
    process = PROCESS_INFORMATION{};
  }
  if (job != nullptr) CloseHandle(job);
  job = nullptr;
  // Belt and braces where job objects are not fully honoured.
  KillProcessesNamed(L"sing-box.exe");
}

inline void ScopedHelper::Kill() {
  TerminateProcess(process.hProcess, 1);
  WaitForSingleObject(process.hProcess, 10000);
}

inline bool ScopedHelper::Running() const {
  return process.hProcess != nullptr && WaitForSingleObject(process.hProcess, 0) == WAIT_TIMEOUT;
}

// Runs `exePath` with `arguments` (joined by spaces, as a person types them) and waits up to 30 s:
// its exit code (0xFFFFFFFF when it did not start), stdout and stderr. With
// `interruptAfterFetches`, presses Ctrl-C once that many test processes have started: the program
// runs in a process group of its own on this process's console, the way a person's Ctrl-C reaches
// it.
inline std::tuple<std::uint32_t, std::string, std::string> RunProgram(
    const fs::path& exePath, const std::vector<std::string>& arguments,
    std::size_t interruptAfterFetches = 0) {
  SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  const auto create = [&](const wchar_t* name) {
    return CreateFileW((BinDirectory() + name).c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                       &inheritable, CREATE_ALWAYS, 0, nullptr);
  };
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = create(L"\\run-out.txt");
  startup.hStdError = create(L"\\run-err.txt");
  std::wstring commandLine = L"\"" + exePath.wstring() + L"\"";
  for (const std::string& argument : arguments)
    commandLine += L" " + fs::u8path(argument).wstring();
  PROCESS_INFORMATION info{};
  DWORD exitCode = 0xFFFFFFFF;
  if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_NEW_PROCESS_GROUP,
                     nullptr, nullptr, &startup, &info)) {
    // Wine delivers Ctrl-C to a named group (Ctrl-Break ends the thread
    // instead of calling the handler), and Windows does for a group that
    // has taken Ctrl-C back, as orvelctl does.
    if (interruptAfterFetches > 0 && WaitForFetchRecords(interruptAfterFetches, 15000).size() > 0)
      GenerateConsoleCtrlEvent(CTRL_C_EVENT, info.dwProcessId);
    if (WaitForSingleObject(info.hProcess, 30000) != WAIT_OBJECT_0) {
      TerminateProcess(info.hProcess, 99);
      WaitForSingleObject(info.hProcess, 10000);
    }
    GetExitCodeProcess(info.hProcess, &exitCode);
  }
  for (HANDLE handle : {startup.hStdOutput, startup.hStdError, info.hProcess, info.hThread})
    CloseHandle(handle);
  return std::tuple{exitCode, ReadFileBytes(BinDirectory() + L"\\run-out.txt"),
                    ReadFileBytes(BinDirectory() + L"\\run-err.txt")};
}

// Connects from 127.0.0.2, so that the helper's end of the connection is an
// established endpoint that a snapshot lists (127.0.0.1 is left out).
inline bool ConnectToHelperFrom127002(client::ClientSocket& s) {
  s.handle = static_cast<client::SocketHandle>(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  sockaddr_in address{AF_INET, 0, {}, {}};
  address.sin_addr.s_addr = htonl(0x7F000002);
  auto* peer = reinterpret_cast<sockaddr*>(&address);
  const bool bound = bind(static_cast<SOCKET>(s.handle), peer, sizeof(address)) == 0;
  address.sin_port = htons(kHelperPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return bound && connect(static_cast<SOCKET>(s.handle), peer, sizeof(address)) == 0;
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
  return "\"" + ToUtf8(exe.wstring()) + "\" \"run\" \"-c\" \"" + ToUtf8(config.wstring()) + "\"";
}
inline std::string FetchCommandLine(const fs::path& exe, const std::string& config,
                                    const std::string& tag, std::string_view url) {
  return "\"" + ToUtf8(exe.wstring()) + "\" \"--disable-color\" \"-c\" \"" + config +
         "\" \"tools\" \"-o\" \"" + tag + "\" \"fetch\" \"" + std::string(url) + "\"";
}

constexpr const char* kCoreFileName = "sing-box.exe";
constexpr const char* kOrvelctlFileName = "orvelctl.exe";
// The system's code for a core that is a directory, and for a file that
// cannot be created because a directory has its name.
constexpr const char* kCoreIsDirectoryError = "5";
constexpr const char* kFileIsDirectoryError = "5";
// The call that fails then, as the log names it.
constexpr const char* kWriteFileCall = "CreateFile";

}  // namespace orvel::test
