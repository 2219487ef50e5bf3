#pragma once

// What the Windows tests and the benchmarks share: a real OrvelVpnHelper.exe
// started in a folder of its own (ended with everything it started), exact
// request and answer bytes, the per-user proxy values as raw registry data,
// and the records the test doubles leave in C:\OrvelTest.

#include <windows.h>
// After windows.h, which these depend on.
#include <tlhelp32.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "client/answer_text.h"
#include "client/helper_client.h"
#include "client/http_exchange.h"
#include "core/data_files.h"

namespace orvel::test {

constexpr unsigned short kHelperPort = 17891;

// The "/urltest" stream with the time each line was complete (GetTickCount64).
struct UrlTestStream {
  std::string head;
  std::vector<std::pair<std::string, std::uint64_t>> lines;  // without "\n"
  std::string rest;                                          // bytes after the last line feed
  bool closedByPeer = false;
  std::uint64_t sentTick = 0;
  std::uint64_t closedTick = 0;
};

struct RegValue {
  DWORD type = REG_NONE;  // REG_NONE: absent
  std::string bytes;
  bool operator==(const RegValue&) const = default;
};

struct ProxyValues {
  RegValue proxyEnable, proxyServer, proxyOverride;
  bool operator==(const ProxyValues&) const = default;
};

// One record per "tools fetch" run of the core double (C:\OrvelTest\fetch).
// "configText" holds the configuration file as the run read it.
using FetchRecord = std::map<std::string, std::string>;

enum class CorePlacement { kNone, kBesideExe };
struct HelperOptions {
  CorePlacement core = CorePlacement::kBesideExe;
  std::wstring extraPath;          // put before PATH for the helper
  bool keepDataDirectory = false;  // instead of deleting it first
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
  std::wstring ExePath() const { return directory + L"\\OrvelVpnHelper.exe"; }
};

namespace fs = std::filesystem;

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

inline client::ClientAddress HelperAddress() {
  client::ClientAddress address;
  std::string unused;
  client::ParseAddress(client::kDefaultAddress, address, unused);
  return address;
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
inline std::wstring RecordPath(std::wstring_view name) {
  return L"C:\\OrvelTest\\" + std::wstring(name);
}

inline std::string ToUtf8(const std::wstring& text) {
  const int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr,
                                    0, nullptr, nullptr);
  std::string out(static_cast<std::size_t>(n), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n,
                      nullptr, nullptr);
  return out;
}

inline std::string ReadFileBytes(const std::wstring& path) {
  std::ifstream in(fs::path(path), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline int CountProcessesNamed(const wchar_t* exeName) {
  int count = 0;
  ForEachProcessNamed(exeName, [&](DWORD) { ++count; });
  return count;
}

inline void KillProcessesNamed(const wchar_t* exeName) {
  ForEachProcessNamed(exeName, [](DWORD pid) {
    if (HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid)) {
      TerminateProcess(process, 1);
      WaitForSingleObject(process, 5000);
      CloseHandle(process);
    }
  });
}

// Waits up to timeoutMs for no process named exeName to be left; the count left.
inline int WaitUntilNoProcessNamed(const wchar_t* exeName, unsigned timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  int left = CountProcessesNamed(exeName);
  for (; left > 0 && std::chrono::steady_clock::now() < deadline;
       left = CountProcessesNamed(exeName)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  return left;
}

// --- HTTP -------------------------------------------------------------------
// Raw bytes go through the client library's socket, which closes itself.

inline bool ConnectToHelper(client::ClientSocket& socket) {
  return client::ConnectTo(HelperAddress(), socket);
}

// Reads until the peer closes, an error or `timeoutMs` without a byte;
// closedByPeer tells whether end-of-stream was seen.
inline std::string ReadToEnd(const client::ClientSocket& socket, bool* closedByPeer = nullptr,
                             int timeoutMs = 30000) {
  std::string data;
  char chunk[8192];
  int got;
  while ((got = client::ReceiveSome(socket, chunk, sizeof(chunk), timeoutMs)) > 0) {
    data.append(chunk, static_cast<std::size_t>(got));
  }
  if (closedByPeer != nullptr) *closedByPeer = got == client::kReceiveClosed;
  return data;
}

// Sends `request` byte for byte and returns every byte of the answer.
inline std::string ExchangeRaw(std::string_view request) {
  client::ClientSocket socket;
  if (!ConnectToHelper(socket) || !client::SendAllBytes(socket, request)) return {};
  return ReadToEnd(socket);
}

// A well-formed request as the client library writes it.
inline std::string BuildRequest(std::string_view method, std::string_view path,
                                std::string_view body = {}) {
  return client::BuildHttpRequest(method, path, body, HelperAddress());
}

// The answer read by the client library; status 0 when none or not HTTP.
inline client::HttpAnswer Request(std::string_view method, std::string_view path,
                                  std::string_view body = {}, unsigned timeoutMs = 30000) {
  client::HttpAnswer answer;
  if (client::Exchange(HelperAddress(), method, path, body, answer, static_cast<int>(timeoutMs)) !=
      client::ExchangeResult::kAnswered) {
    answer = {};
  }
  return answer;
}

// A 200 answer with the helper's fixed headers around `body`.
inline std::string OkAnswer(std::string_view contentType, std::string_view body) {
  return "HTTP/1.1 200 OK\r\nContent-Type: " + std::string(contentType) +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
         std::string(body);
}

inline std::string Logs() { return Request("GET", "/logs").body; }

inline bool LogHasLine(std::string_view message) {
  return Logs().find("] " + std::string(message) + "\r\n") != std::string::npos;
}

inline bool StartUrlTest(const std::string& body, client::ClientSocket& socket) {
  return ConnectToHelper(socket) &&
         client::SendAllBytes(socket, BuildRequest("POST", "/urltest", body));
}

inline UrlTestStream ReadUrlTestStream(const client::ClientSocket& socket) {
  UrlTestStream stream;
  std::string pending;
  bool inHead = true;
  char chunk[8192];
  int got;
  while ((got = client::ReceiveSome(socket, chunk, sizeof(chunk), 30000)) > 0) {
    pending.append(chunk, static_cast<std::size_t>(got));
    const std::size_t headEnd = inHead ? pending.find("\r\n\r\n") : 0;
    if (headEnd == std::string::npos) continue;
    if (inHead) {
      stream.head = pending.substr(0, headEnd + 4);
      pending.erase(0, headEnd + 4);
      inHead = false;
    }
    for (std::size_t end; (end = pending.find('\n')) != std::string::npos;
         pending.erase(0, end + 1)) {
      stream.lines.emplace_back(pending.substr(0, end), GetTickCount64());
    }
  }
  stream.closedByPeer = got == client::kReceiveClosed;
  stream.closedTick = GetTickCount64();
  (inHead ? stream.head : stream.rest) = pending;
  return stream;
}

inline UrlTestStream RunUrlTest(const std::string& body) {
  const std::uint64_t sent = GetTickCount64();
  client::ClientSocket socket;
  if (!StartUrlTest(body, socket)) return {};
  UrlTestStream stream = ReadUrlTestStream(socket);
  stream.sentTick = sent;
  return stream;
}

// --- Registry and records -----------------------------------------------------

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
inline std::string ReadWininetCalls() { return ReadFileBytes(RecordPath(L"wininet-calls.txt")); }

inline void SetWininetFailing(bool failing) {
  if (!failing || !WriteWholeFile(RecordPath(L"wininet-fail"), "fail")) {
    DeleteFileW(RecordPath(L"wininet-fail").c_str());
  }
}

// A file of key=value lines (core-run.txt from the core double).
inline std::map<std::string, std::string> ReadKeyValues(const std::wstring& path) {
  std::map<std::string, std::string> fields;
  std::istringstream lines(ReadFileBytes(path));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    std::string& value = fields[line.substr(0, equals)] = line.substr(equals + 1);
    // The configuration comes last and keeps its line feeds.
    if (line.starts_with("configText=")) {
      value.append(lines.eof() ? "" : "\n").append(std::istreambuf_iterator<char>(lines), {});
      break;
    }
  }
  return fields;
}

// Clears the doubles' records, the failure switch and the fetch records.
inline void ResetTestRecords() {
  std::error_code ec;
  fs::remove_all(fs::path(RecordPath(L"")), ec);
  fs::create_directories(fs::path(RecordPath(L"")), ec);
}

inline std::vector<FetchRecord> ReadFetchRecords() {
  std::vector<FetchRecord> records;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(fs::path(RecordPath(L"fetch")), ec)) {
    records.push_back(ReadKeyValues(entry.path().wstring()));
  }
  return records;
}

// Waits up to timeoutMs for `count` complete records.
inline std::vector<FetchRecord> WaitForFetchRecords(std::size_t count, unsigned timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    std::vector<FetchRecord> records = ReadFetchRecords();
    const auto complete = std::count_if(records.begin(), records.end(), [](const FetchRecord& r) {
      return r.contains("configText");
    });
    if (static_cast<std::size_t>(complete) >= count ||
        std::chrono::steady_clock::now() > deadline) {
      return records;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
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
  fs::create_directories(RecordPath(L""), ec);

  // The helper inherits our environment; PATH decides the system search.
  wchar_t oldPath[32767] = {};
  GetEnvironmentVariableW(L"PATH", oldPath, 32767);
  if (!options.extraPath.empty()) {
    SetEnvironmentVariableW(L"PATH", (options.extraPath + L";" + oldPath).c_str());
  }
  job = CreateJobObjectW(nullptr, nullptr);
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
  limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof(limits));
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  std::wstring commandLine = L"\"" + ExePath() + L"\"";
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

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  while (std::chrono::steady_clock::now() < deadline) {
    if (!Running()) {
      error = "helper ended during start-up";
      return false;
    }
    if (Request("GET", "/ping", {}, 2000).body == "pong") return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  error = "helper did not answer /ping within 15 s";
  return false;
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

}  // namespace orvel::test
