#pragma once

// Starts the real OrvelVpnHelper.exe for an end-to-end test in a folder of its
// own and a clean data directory, and always ends it together with every
// process it started (they share one job object).

#include <windows.h>

#include <string>

namespace orvel::test {

enum class CorePlacement { kNone, kBesideExe, kDataSubfolder };

struct HelperOptions {
  CorePlacement core = CorePlacement::kBesideExe;
  // Prepended to PATH for the helper (discovery through the system search).
  std::wstring extraPath;
  // Leave the data directory as it is instead of deleting it first.
  bool keepDataDirectory = false;
};

// build/bin, where the test executables and OrvelVpnHelper.exe are.
std::wstring BinDirectory();
// build/bin/doubles: sing-box.exe and wininet.dll test doubles.
std::wstring DoublesDirectory();
// %APPDATA%\OrvelVPN of the account the tests run as.
std::wstring HelperDataDirectory();
// C:\OrvelTest: files that doubles write for the tests to read.
std::wstring TestRecordDirectory();

std::string ToUtf8(const std::wstring& text);
std::wstring FromUtf8(const std::string& text);
std::string ReadFileBytes(const std::wstring& path);
bool WriteFileText(const std::wstring& path, const std::string& bytes);

// Number of running processes whose image is named `exeName` (e.g. "sing-box.exe").
int CountProcessesNamed(const wchar_t* exeName);
// Ends every process named `exeName`; used to clear leftovers of a failed test.
void KillProcessesNamed(const wchar_t* exeName);

struct ScopedHelper {
  PROCESS_INFORMATION process{};
  HANDLE job = nullptr;
  std::wstring directory;  // folder holding this helper's exe
  std::string error;       // why Start failed

  ScopedHelper() = default;
  ScopedHelper(const ScopedHelper&) = delete;
  ScopedHelper& operator=(const ScopedHelper&) = delete;
  ~ScopedHelper() { Stop(); }

  // Copies the helper (and the core double as asked) into a fresh folder
  // named after the test, starts it and waits until "/ping" answers.
  bool Start(const HelperOptions& options = {});
  bool Start(CorePlacement core) {
    HelperOptions options;
    options.core = core;
    return Start(options);
  }
  // Ends the helper and every process in its job; safe to call twice.
  void Stop();
  // Ends the helper process alone, as a crash or "End task" would, and waits
  // for it; the processes it started are left to the helper's own job.
  void Kill();
  bool Running() const;
  // Exit code once the helper has ended (waits up to timeoutMs), or 259.
  DWORD WaitExit(DWORD timeoutMs);
  std::wstring ExePath() const { return directory + L"\\OrvelVpnHelper.exe"; }
};

// Makes a stand-alone helper start as fast under Wine as on Windows (see the
// definition); call before starting the helper outside ScopedHelper.
void ForgetLastStartedService();

// Launches `exePath` with `arguments` and waits for it; the exit code, or
// 0xFFFFFFFF when it could not be started or did not end within timeoutMs.
DWORD RunAndWait(const std::wstring& exePath, const std::wstring& arguments, DWORD timeoutMs);

}  // namespace orvel::test
