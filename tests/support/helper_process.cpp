#include "support/helper_process.h"

#include <knownfolders.h>
#include <shlobj.h>
#include <tlhelp32.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "support/http_client.h"

namespace fs = std::filesystem;

namespace orvel::test {

std::string ToUtf8(const std::wstring& text) {
  if (text.empty()) return {};
  const int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr,
                                    0, nullptr, nullptr);
  std::string out(static_cast<std::size_t>(n), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n,
                      nullptr, nullptr);
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

std::string ReadFileBytes(const std::wstring& path) {
  std::ifstream in(fs::path(path), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool WriteFileText(const std::wstring& path, const std::string& bytes) {
  std::ofstream out(fs::path(path), std::ios::binary | std::ios::trunc);
  out << bytes;
  return static_cast<bool>(out);
}

std::wstring BinDirectory() {
  wchar_t buffer[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, buffer, MAX_PATH);
  return fs::path(buffer).parent_path().wstring();
}

std::wstring DoublesDirectory() { return BinDirectory() + L"\\doubles"; }

std::wstring HelperDataDirectory() {
  PWSTR roaming = nullptr;
  std::wstring result;
  if (SUCCEEDED(SHGetKnownFolderPath(FOLDERID_RoamingAppData, 0, nullptr, &roaming))) {
    result = std::wstring(roaming) + L"\\OrvelVPN";
    CoTaskMemFree(roaming);
  }
  return result;
}

std::wstring TestRecordDirectory() { return L"C:\\OrvelTest"; }

namespace {

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

std::wstring CurrentTestName() {
  wchar_t buffer[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, buffer, MAX_PATH);
  return fs::path(buffer).stem().wstring();
}

bool PortTaken(unsigned short port) {
  SOCKET s = ConnectLoopback(port, 1000);
  if (s == INVALID_SOCKET) return false;
  closesocket(s);
  return true;
}

}  // namespace

int CountProcessesNamed(const wchar_t* exeName) {
  int count = 0;
  ForEachProcessNamed(exeName, [&](DWORD) { ++count; });
  return count;
}

void KillProcessesNamed(const wchar_t* exeName) {
  ForEachProcessNamed(exeName, [](DWORD pid) {
    if (HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid)) {
      TerminateProcess(process, 1);
      WaitForSingleObject(process, 5000);
      CloseHandle(process);
    }
  });
}

// Wine's StartServiceCtrlDispatcherW opens the control pipe of the service
// named by this volatile value (the last one Wine started) and, finding that
// pipe busy, waits 10 s before failing with 1063; Windows fails at once.
// Pointing the value at a pipe that does not exist gives the Windows timing.
// The key itself must stay: services.exe keeps it open and writes the value
// anew for every service it starts.
void ForgetLastStartedService() {
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Control\\ServiceCurrent", 0,
                    KEY_SET_VALUE, &key) != ERROR_SUCCESS) {
    return;
  }
  const DWORD unused = 0xFFFFFFF0;
  RegSetValueExW(key, nullptr, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&unused),
                 sizeof(unused));
  RegCloseKey(key);
}

bool ScopedHelper::Start(const HelperOptions& options) {
  KillProcessesNamed(L"sing-box.exe");
  ForgetLastStartedService();
  if (PortTaken(kHelperPort)) {
    error = "port 17891 is already in use by another process; end it before running this test";
    return false;
  }
  directory = BinDirectory() + L"\\e2e-work\\" + CurrentTestName();
  std::error_code ec;
  fs::remove_all(directory, ec);
  fs::create_directories(directory);
  fs::copy_file(BinDirectory() + L"\\OrvelVpnHelper.exe", ExePath(),
                fs::copy_options::overwrite_existing);
  const std::wstring core = DoublesDirectory() + L"\\sing-box.exe";
  if (options.core == CorePlacement::kBesideExe) {
    fs::copy_file(core, directory + L"\\sing-box.exe");
  } else if (options.core == CorePlacement::kDataSubfolder) {
    fs::create_directories(directory + L"\\data");
    fs::copy_file(core, directory + L"\\data\\sing-box.exe");
  }
  if (!options.keepDataDirectory) fs::remove_all(HelperDataDirectory(), ec);
  fs::create_directories(TestRecordDirectory(), ec);

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
  const BOOL created =
      CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, CREATE_SUSPENDED,
                     nullptr, directory.c_str(), &startup, &process);
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
      error = "helper ended during start-up with exit code " + std::to_string(WaitExit(0));
      return false;
    }
    HttpAnswer answer = Request("GET", "/ping", {}, 2000);
    if (answer.body == "pong") return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  error = "helper did not answer /ping within 15 s";
  return false;
}

void ScopedHelper::Stop() {
  if (job != nullptr) {
    TerminateJobObject(job, 1);
  }
  if (process.hProcess != nullptr) {
    TerminateProcess(process.hProcess, 1);
    WaitForSingleObject(process.hProcess, 10000);
    CloseHandle(process.hProcess);
    CloseHandle(process.hThread);
    process = PROCESS_INFORMATION{};
  }
  if (job != nullptr) {
    CloseHandle(job);
    job = nullptr;
  }
  // Belt and braces where job objects are not fully honoured.
  KillProcessesNamed(L"sing-box.exe");
}

void ScopedHelper::Kill() {
  TerminateProcess(process.hProcess, 1);
  WaitForSingleObject(process.hProcess, 10000);
}

bool ScopedHelper::Running() const {
  return process.hProcess != nullptr && WaitForSingleObject(process.hProcess, 0) == WAIT_TIMEOUT;
}

DWORD ScopedHelper::WaitExit(DWORD timeoutMs) {
  if (process.hProcess == nullptr) return STILL_ACTIVE;
  WaitForSingleObject(process.hProcess, timeoutMs);
  DWORD code = STILL_ACTIVE;
  GetExitCodeProcess(process.hProcess, &code);
  return code;
}

DWORD RunAndWait(const std::wstring& exePath, const std::wstring& arguments, DWORD timeoutMs) {
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION info{};
  std::wstring commandLine = L"\"" + exePath + L"\"" + (arguments.empty() ? L"" : L" " + arguments);
  if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                      &startup, &info)) {
    return 0xFFFFFFFF;
  }
  DWORD code = 0xFFFFFFFF;
  if (WaitForSingleObject(info.hProcess, timeoutMs) == WAIT_OBJECT_0) {
    GetExitCodeProcess(info.hProcess, &code);
  } else {
    TerminateProcess(info.hProcess, 1);
  }
  CloseHandle(info.hProcess);
  CloseHandle(info.hThread);
  return code;
}

}  // namespace orvel::test
