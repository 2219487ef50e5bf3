// orvelctl.exe against the real helper and the core double: what each command
// prints and its exit code, a whole URL test, and Ctrl-C during one.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <tuple>

#include "support/harness.h"

namespace orvel::test {
namespace {

// Runs orvelctl.exe with `arguments`: its exit code, stdout and stderr. With
// `interruptAfterFetches`, presses Ctrl-C once that many test processes have
// started: the program runs in a process group of its own on this process's
// private console, the way a person's Ctrl-C reaches it.
auto RunOrvelctl(const std::wstring& arguments, std::size_t interruptAfterFetches = 0) {
  SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  const auto create = [&](const wchar_t* name) {
    return CreateFileW((BinDirectory() + name).c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                       &inheritable, CREATE_ALWAYS, 0, nullptr);
  };
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = create(L"\\orvelctl-out.txt");
  startup.hStdError = create(L"\\orvelctl-err.txt");
  std::wstring commandLine = L"\"" + BinDirectory() + L"\\orvelctl.exe\" " + arguments;
  PROCESS_INFORMATION info{};
  DWORD exitCode = 0xFFFFFFFF;
  if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_NEW_PROCESS_GROUP,
                     nullptr, nullptr, &startup, &info)) {
    // Wine delivers Ctrl-C to a named group (Ctrl-Break ends the thread
    // instead of calling the handler), and Windows does for a group that
    // has taken Ctrl-C back, as orvelctl does.
    if (interruptAfterFetches > 0 && WaitForFetchRecords(interruptAfterFetches, 15000).size() > 0)
      GenerateConsoleCtrlEvent(CTRL_C_EVENT, info.dwProcessId);
    if (WaitForSingleObject(info.hProcess, 30000) != WAIT_OBJECT_0)
      TerminateProcess(info.hProcess, 99);
    GetExitCodeProcess(info.hProcess, &exitCode);
  }
  for (HANDLE handle : {startup.hStdOutput, startup.hStdError, info.hProcess, info.hThread})
    CloseHandle(handle);
  return std::tuple{exitCode, ReadFileBytes(BinDirectory() + L"\\orvelctl-out.txt"),
                    ReadFileBytes(BinDirectory() + L"\\orvelctl-err.txt")};
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

const char kConfig[] = R"({// test nodes; the tags tell the core double how to answer
  "inbounds":[{"type":"mixed","tag":"orvel-vpn-mixed","listen":"127.0.0.1","listen_port":2080}],
  "outbounds":[{"type":"trojan","tag":"jp-02-delay-10"},{"type":"vmess","tag":"sg-03-exit-1"}],
  "experimental":{"clash_api":{"external_controller":"127.0.0.1:19090"}},
  "x-test-controller":{"up":1536,"down":2048,"uploadTotal":123,"downloadTotal":456}})";

// One helper for the whole run; the Ctrl-C comes last, as it changes this
// process's console.
TEST(Orvelctl, PrintsTheHelpersAnswersWithItsExitCodesAndCancelsOnCtrlC) {
  ScopedHelper helper;
  ASSERT_TRUE(helper.Start()) << helper.error;
  ResetTestRecords();
  // orvelctl runs in this process's current directory.
  SetCurrentDirectoryW(helper.directory.c_str());
  WriteFileText(L"config.json", kConfig);
  WriteFileText(L"direct.json", R"({"outbounds":[{"type":"direct"}]})");
  // A peer that is no helper, for the one answer only it gives: a 200 whose
  // body has a space and control bytes. helper.Start has started Winsock.
  const SOCKET listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  const sockaddr_in address{AF_INET, htons(17998), {}, {}};
  bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  listen(listener, 1);
  std::thread stranger([listener] {
    const SOCKET peer = accept(listener, nullptr, nullptr);
    char request[4096];
    recv(peer, request, sizeof(request), 0);
    SendAll(peer, "HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\npo ng\x01\x7F~");
    closesocket(peer);
  });
  // Arguments, exit code, stdout and stderr ('*': any bytes).
  const std::tuple<std::wstring, DWORD, std::string, std::string> steps[] = {
      {L"ping", 0, "pong\n", ""},
      {L"status", 1, "disconnected: Windows helper idle\n", ""},
      {L"start missing.json", 4, "", "orvelctl: cannot read the configuration missing.json: *\n"},
      {L"start config.json", 0, "connected: Windows helper connected\n", ""},
      // The snapshot's endpoints are the machine's own; its figures are exact.
      {L"snapshot", 0,
       "upload    1.5 KiB/s     total 123 B\ndownload  2.0 KiB/s     total 456 B\n*", ""},
      {L"--address 127.0.0.1:17998 ping", 7, "",
       "orvelctl: unexpected answer from 127.0.0.1:17998 to GET /ping: \"po ng\\x01\\x7f~\"\n"},
      {L"stop", 0, "disconnected: Windows helper disconnected\n", ""},
      // The nodes are the configuration's proxies, the failure last.
      {L"urltest --url=http://cp.example.test/ config.json", 0,
       " #  node *\n 1  jp-02-delay-10 * ms\n 2  sg-03-exit-1 * failed\n"
       "2 of 2 nodes reported, 1 failed\n",
       ""},
      {L"urltest direct.json", 5, "", "orvelctl: direct.json: *\n"},
      {L"--address 127.0.0.1:17999 status", 3, "",
       "orvelctl: no helper answers on 127.0.0.1:17999 \xE2\x80\x94 is OrvelVpnHelper running?\n"},
      {L"logs --tun", 2, "", "orvelctl: logs does not take --tun (orvelctl logs --help)\n"},
      // logs prints the helper's log as it is.
      {L"logs", 0, "*] OrvelVpnHelper started\r\n*", ""},
  };
  for (const auto& [arguments, wantedCode, wantedOut, wantedErr] : steps) {
    const auto [exitCode, out, err] = RunOrvelctl(arguments);
    EXPECT_TRUE(exitCode == wantedCode && Matches(out, wantedOut) && Matches(err, wantedErr))
        << ToUtf8(arguments) << " -> " << exitCode << "\n"
        << out << err;
  }
  closesocket(listener);
  stranger.join();
  EXPECT_EQ(ReadFetchRecords().at(0).at("url"), "http://cp.example.test/");

  // Ctrl-C on a private console: it must reach orvelctl only, never the test
  // runner that shares ours; this process ignores it.
  FreeConsole();
  AllocConsole();
  SetConsoleCtrlHandler(nullptr, TRUE);
  ResetTestRecords();
  // The quick nodes' results arrive while the hanging ones are started.
  std::wstring tags = L" --tag a-delay-1 --tag b-delay-1";
  for (int i = 1; i <= 12; ++i) tags += L" --tag " + std::to_wstring(i) + L"-hang";
  const auto [exitCode, out, err] = RunOrvelctl(L"urltest config.json" + tags, 14);
  EXPECT_EQ(exitCode, 130u);
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);
  // What arrived is printed as a table and counted in the message (on a
  // loaded machine a hanging node may reach its 3 s limit before the cancel).
  const auto rows = std::to_string(std::ranges::count(out, '\n') - 2);
  EXPECT_TRUE(Matches(err, "orvelctl: cancelled test orvelctl-* after " + rows + " of 14 nodes\n"))
      << out << err;
}

}  // namespace
}  // namespace orvel::test
