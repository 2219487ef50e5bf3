// orvelctl.exe against the real helper and the core double: what each command
// prints and its exit code, a whole URL test, and Ctrl-C during one.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "support/harness.h"

namespace orvel::test {
namespace {

struct OrvelctlRun {
  DWORD exitCode = 0xFFFFFFFF;
  std::string out, err;
};

// Runs orvelctl.exe with `arguments`, its output in files. With
// `interruptAfterFetches`, presses Ctrl-C once that many test processes have
// started: the program runs in a process group of its own on this process's
// private console, the way a person's Ctrl-C reaches it.
OrvelctlRun RunOrvelctl(const std::wstring& arguments, std::size_t interruptAfterFetches = 0) {
  const std::wstring outPath = BinDirectory() + L"\\orvelctl-out.txt";
  const std::wstring errPath = BinDirectory() + L"\\orvelctl-err.txt";
  SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = CreateFileW(outPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inheritable,
                                   CREATE_ALWAYS, 0, nullptr);
  startup.hStdError = CreateFileW(errPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inheritable,
                                  CREATE_ALWAYS, 0, nullptr);
  std::wstring commandLine = L"\"" + BinDirectory() + L"\\orvelctl.exe\" " + arguments;
  PROCESS_INFORMATION info{};
  OrvelctlRun run;
  if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_NEW_PROCESS_GROUP,
                     nullptr, nullptr, &startup, &info)) {
    if (interruptAfterFetches > 0) {
      WaitForFetchRecords(interruptAfterFetches, 15000);
      // Wine delivers Ctrl-C to a named group (Ctrl-Break ends the thread
      // instead of calling the handler), and Windows does for a group that
      // has taken Ctrl-C back, as orvelctl does.
      GenerateConsoleCtrlEvent(CTRL_C_EVENT, info.dwProcessId);
    }
    if (WaitForSingleObject(info.hProcess, 30000) != WAIT_OBJECT_0)
      TerminateProcess(info.hProcess, 99);
    GetExitCodeProcess(info.hProcess, &run.exitCode);
    CloseHandle(info.hProcess);
    CloseHandle(info.hThread);
  }
  CloseHandle(startup.hStdOutput);
  CloseHandle(startup.hStdError);
  run.out = ReadFileBytes(outPath);
  run.err = ReadFileBytes(errPath);
  return run;
}

// True when `text` is `pattern` with each '*' standing for any run of bytes.
bool Matches(std::string_view text, std::string_view pattern) {
  const std::size_t star = pattern.find('*');
  if (star == std::string_view::npos) return text == pattern;
  if (!text.starts_with(pattern.substr(0, star))) return false;
  for (std::size_t at = star; at <= text.size(); ++at) {
    if (Matches(text.substr(at), pattern.substr(star + 1))) return true;
  }
  return false;
}

// Gives `answer` to the first caller on `port`, as a peer that is no helper
// would; closing `listener` ends the wait for one.
std::thread AnswerOnce(unsigned short port, std::string answer, SOCKET& listener) {
  EnsureWinsock();
  listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address{AF_INET, htons(port), {}, {}};
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  listen(listener, 1);
  return std::thread([socket = listener, answer] {
    const SOCKET peer = accept(socket, nullptr, nullptr);
    char request[4096];
    if (peer == INVALID_SOCKET || recv(peer, request, sizeof(request), 0) <= 0) return;
    SendAll(peer, answer);
    closesocket(peer);
  });
}

const char kConfig[] = R"({// test nodes; the tags tell the core double how to answer
  "inbounds":[{"type":"mixed","tag":"orvel-vpn-mixed","listen":"127.0.0.1","listen_port":2080}],
  "outbounds":[{"type":"selector","tag":"select","outbounds":["hk-01-delay-600"]},
               {"type":"vless","tag":"hk-01-delay-600"},{"type":"trojan","tag":"jp-02-delay-10"},
               {"type":"vmess","tag":"sg-03-exit-1"},{"type":"direct","tag":"direct"}],
  "experimental":{"clash_api":{"external_controller":"127.0.0.1:19090"}},
  "x-test-controller":{"up":1536,"down":2048,"uploadTotal":123,"downloadTotal":456}})";

// One helper for the whole run; the Ctrl-C comes last, as it changes this
// process's console.
TEST(Orvelctl, PrintsTheHelpersAnswersWithItsExitCodesAndCancelsOnCtrlC) {
  ScopedHelper helper;
  ASSERT_TRUE(helper.Start()) << helper.error;
  ResetTestRecords();
  const auto file = [&](const wchar_t* name, const std::string& text) {
    WriteFileText(helper.directory + L"\\" + name, text);
    return L"\"" + helper.directory + L"\\" + name + L"\"";
  };
  const std::wstring config = file(L"config.json", kConfig);
  SOCKET listener = INVALID_SOCKET;
  std::thread stranger =
      AnswerOnce(17998, "HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\npo ng\x01\x7F~", listener);
  const struct {
    std::wstring arguments;
    DWORD exitCode;
    std::string out, err;  // '*': any bytes
  } steps[] = {
      {L"ping", 0, "pong\n", ""},
      {L"status", 1, "disconnected: Windows helper idle\n", ""},
      {L"start missing.json", 4, "", "orvelctl: cannot read the configuration missing.json: *\n"},
      {L"start " + file(L"broken.json", "{\"outbounds\":[}"), 4, "",
       "orvelctl: *broken.json is not JSON: *\n"},
      {L"start " + config, 0, "connected: Windows helper connected\n", ""},
      // The snapshot's endpoints are the machine's own; its figures are exact.
      {L"snapshot", 0,
       "upload    1.5 KiB/s     total 123 B\ndownload  2.0 KiB/s     total 456 B\n*", ""},
      {L"snapshot --json", 0,
       "{\"uploadBytesPerSecond\":1536,\"downloadBytesPerSecond\":2048,\"uploadTotalBytes\":123,"
       "\"downloadTotalBytes\":456,\"processes\":[*]}\n",
       ""},
      // The core double's controller is no helper: it answers 404.
      {L"--address 127.0.0.1:19090 status", 7, "",
       "orvelctl: unexpected answer from 127.0.0.1:19090 to GET /status: HTTP 404 Not Found\n"},
      {L"--address 127.0.0.1:17998 ping", 7, "",
       "orvelctl: unexpected answer from 127.0.0.1:17998 to GET /ping: \"po ng\\x01\\x7f~\"\n"},
      {L"stop", 0, "disconnected: Windows helper disconnected\n", ""},
      // Sorted by delay, the failure last.
      {L"urltest " + config, 0,
       " #  node             delay\n*\n 3  sg-03-exit-1     failed\n"
       "3 of 3 nodes reported, 1 failed\n",
       ""},
      {L"urltest " + config +
           L" --json --url http://cp.example.test/ --tag jp-02-delay-10 --tag sg-03-exit-1",
       0, "{\"nodeTag\":\"*\",\"delayMs\":*}\n{\"nodeTag\":\"*\",\"delayMs\":*}\n", ""},
      {L"urltest " + file(L"direct.json", R"({"outbounds":[{"type":"direct"}]})"), 5, "",
       "orvelctl: *direct.json: *\n"},
      {L"--address 127.0.0.1:17999 status", 3, "",
       "orvelctl: no helper answers on 127.0.0.1:17999 \xE2\x80\x94 is OrvelVpnHelper running?\n"},
      {L"logs --tun", 2, "", "orvelctl: logs does not take --tun (orvelctl logs --help)\n"},
      // logs prints the helper's log as it is.
      {L"logs", 0, "*] OrvelVpnHelper started\r\n*", ""},
      {L"frobnicate", 2, "", "orvelctl: unknown command \"frobnicate\" (orvelctl --help)\n"},
  };
  for (const auto& step : steps) {
    const OrvelctlRun run = RunOrvelctl(step.arguments);
    SCOPED_TRACE(ToUtf8(step.arguments) + "\nstdout: " + run.out + "\nstderr: " + run.err);
    EXPECT_EQ(run.exitCode, step.exitCode);
    EXPECT_TRUE(Matches(run.out, step.out));
    EXPECT_TRUE(Matches(run.err, step.err));
  }
  closesocket(listener);
  stranger.join();
  // Three nodes, then the two asked for with the URL given.
  const std::vector<FetchRecord> records = ReadFetchRecords();
  EXPECT_EQ(records.size(), 5u);
  EXPECT_EQ(std::ranges::count(records, "http://cp.example.test/",
                               [](const FetchRecord& record) { return record.at("url"); }),
            2);

  // Ctrl-C on a private console: it must reach orvelctl only, never the test
  // runner that shares ours; this process ignores it.
  FreeConsole();
  AllocConsole();
  SetConsoleCtrlHandler(nullptr, TRUE);
  ResetTestRecords();
  std::wstring tags = L" --tag a-delay-1 --tag b-delay-1";
  for (int i = 1; i <= 12; ++i) tags += L" --tag " + std::to_wstring(i) + L"-hang";
  const OrvelctlRun run = RunOrvelctl(L"urltest " + config + tags, 14);
  EXPECT_EQ(run.exitCode, 130u);
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);
  // What arrived is printed: the two quick nodes at least. On a loaded
  // machine a hanging node may reach its 3 s limit before the cancel.
  EXPECT_TRUE(Matches(run.out, "*  a-delay-1 *")) << run.out;
  EXPECT_TRUE(Matches(run.out, "*  b-delay-1 *")) << run.out;
  const std::size_t rows = std::ranges::count(run.out, '\n') - 2;
  const std::string cancelled = "orvelctl: cancelled test ";
  EXPECT_TRUE(
      Matches(run.err, cancelled + "orvelctl-* after " + std::to_string(rows) + " of 14 nodes\n"))
      << run.err;
  const std::string id =
      run.err.substr(cancelled.size(), run.err.find(" after ") - cancelled.size());
  EXPECT_TRUE(Matches(Logs(), "*] URLTest stream started for 14 nodes, requestId=" + id +
                                  "\r\n*] URLTest cancel requested: " + id + ", processes=*"));
}

}  // namespace
}  // namespace orvel::test
