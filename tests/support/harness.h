#pragma once

// What the Windows tests and the benchmarks share: a real OrvelVpnHelper.exe
// started in a folder of its own (ended with everything it started), exact
// request and answer bytes, the per-user proxy values as raw registry data,
// and the records the test doubles leave in C:\OrvelTest.

#include <windows.h>
#include <winsock2.h>

#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "client/answer_text.h"
#include "client/http_exchange.h"

namespace orvel::test {

constexpr unsigned short kHelperPort = 17891;

std::wstring BinDirectory();                      // build/bin: the tests and OrvelVpnHelper.exe
std::wstring DoublesDirectory();                  // build/bin/doubles: sing-box.exe and wininet.dll
std::wstring HelperDataDirectory();               // %APPDATA%\OrvelVPN
std::wstring RecordPath(std::wstring_view name);  // C:\OrvelTest\<name>

std::string ToUtf8(const std::wstring& text);
std::string ReadFileBytes(const std::wstring& path);
bool WriteFileText(const std::wstring& path, const std::string& bytes);

int CountProcessesNamed(const wchar_t* exeName);
void KillProcessesNamed(const wchar_t* exeName);
// Waits up to timeoutMs for no process named exeName to be left; the count left.
int WaitUntilNoProcessNamed(const wchar_t* exeName, unsigned timeoutMs);

// --- HTTP -------------------------------------------------------------------
void EnsureWinsock();
SOCKET ConnectLoopback(unsigned short port, unsigned timeoutMs = 30000);
bool SendAll(SOCKET socket, std::string_view bytes);
// Reads until the peer closes, an error or the receive time-out; closedByPeer
// tells whether end-of-stream was seen.
std::string ReadToEnd(SOCKET socket, bool* closedByPeer = nullptr);
// Sends `request` byte for byte and returns every byte of the answer.
std::string ExchangeRaw(std::string_view request, unsigned timeoutMs = 30000);
// A well-formed request as the client library writes it.
std::string BuildRequest(std::string_view method, std::string_view path,
                         std::string_view body = {});
// The answer read by the client library; status 0 when none or not HTTP.
client::HttpAnswer Request(std::string_view method, std::string_view path,
                           std::string_view body = {}, unsigned timeoutMs = 30000);
// A 200 answer with the helper's fixed headers around `body`.
std::string OkAnswer(std::string_view contentType, std::string_view body);
std::string Logs();
bool LogHasLine(std::string_view message);

// The "/urltest" stream with the time each line was complete (GetTickCount64).
struct UrlTestStream {
  std::string head;
  std::vector<std::pair<std::string, std::uint64_t>> lines;  // without "\n"
  std::string rest;                                          // bytes after the last line feed
  bool closedByPeer = false;
  std::uint64_t sentTick = 0;
  std::uint64_t closedTick = 0;
};
SOCKET StartUrlTest(const std::string& body);
UrlTestStream ReadUrlTestStream(SOCKET socket);
UrlTestStream RunUrlTest(const std::string& body);

// --- Registry and records -----------------------------------------------------
struct RegValue {
  DWORD type = REG_NONE;  // REG_NONE: absent
  std::string bytes;
  bool operator==(const RegValue&) const = default;
};
RegValue Absent();
RegValue Dword(DWORD number);
RegValue Text(std::wstring_view text, DWORD type = REG_SZ);  // one terminating zero

struct ProxyValues {
  RegValue proxyEnable, proxyServer, proxyOverride;
  bool operator==(const ProxyValues&) const = default;
};
void PrintTo(const ProxyValues& values, std::ostream* out);
ProxyValues ReadProxyValues();
void WriteProxyValues(const ProxyValues& values);  // an absent value is deleted
ProxyValues HelperProxyValues(unsigned port);      // what a start on `port` writes

// wininet-calls.txt: one option number per line, e.g. "39\n37\n".
std::string ReadWininetCalls();
void SetWininetFailing(bool failing);
// A file of key=value lines (core-run.txt from the core double).
std::map<std::string, std::string> ReadKeyValues(const std::wstring& path);
// Clears the doubles' records, the failure switch and the fetch records.
void ResetTestRecords();

// One record per "tools fetch" run of the core double (C:\OrvelTest\fetch).
// "configText" holds the configuration file as the run read it.
using FetchRecord = std::map<std::string, std::string>;
std::vector<FetchRecord> ReadFetchRecords();
// Waits up to timeoutMs for `count` complete records.
std::vector<FetchRecord> WaitForFetchRecords(std::size_t count, unsigned timeoutMs);
// sing-box-urltest-*.json files in the data directory.
std::vector<std::wstring> UrlTestConfigFiles();

// --- The helper ---------------------------------------------------------------
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

// Makes a stand-alone helper start as fast under Wine as on Windows.
void ForgetLastStartedService();
// Runs `exePath arguments` and waits; its exit code, or 0xFFFFFFFF.
DWORD RunAndWait(const std::wstring& exePath, const std::wstring& arguments, DWORD timeoutMs);

}  // namespace orvel::test
