// orvelctl.exe against the real helper and the core double: what each command
// prints and its exit code, a whole URL test, and Ctrl-C during one.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "support/helper_process.h"
#include "support/http_client.h"
#include "support/urltest_client.h"

namespace orvel::test {
namespace {

struct OrvelctlRun {
  DWORD exitCode = 0xFFFFFFFF;
  std::string out;
  std::string err;
};

std::string ReadPipeToEnd(HANDLE pipe) {
  std::string text;
  char chunk[4096];
  DWORD got = 0;
  while (ReadFile(pipe, chunk, sizeof(chunk), &got, nullptr) && got > 0) text.append(chunk, got);
  return text;
}

// Runs orvelctl.exe with `arguments` and its output in pipes. With
// `interruptAfterFetches`, presses Ctrl-C once that many test processes have
// started: the program runs in a process group of its own on this process's
// private console, the way a person's Ctrl-C reaches it.
OrvelctlRun RunOrvelctl(const std::wstring& arguments, std::size_t interruptAfterFetches = 0) {
  SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  HANDLE outRead = nullptr, outWrite = nullptr, errRead = nullptr, errWrite = nullptr;
  CreatePipe(&outRead, &outWrite, &inheritable, 0);
  CreatePipe(&errRead, &errWrite, &inheritable, 0);
  SetHandleInformation(outRead, HANDLE_FLAG_INHERIT, 0);
  SetHandleInformation(errRead, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = outWrite;
  startup.hStdError = errWrite;
  std::wstring commandLine = L"\"" + BinDirectory() + L"\\orvelctl.exe\" " + arguments;
  PROCESS_INFORMATION info{};
  const BOOL started = CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE,
                                      CREATE_NEW_PROCESS_GROUP, nullptr, nullptr, &startup, &info);
  CloseHandle(outWrite);
  CloseHandle(errWrite);
  OrvelctlRun run;
  if (started) {
    std::thread errReader([&] { run.err = ReadPipeToEnd(errRead); });
    if (interruptAfterFetches > 0) {
      WaitForFetchRecords(interruptAfterFetches, 15000);
      // Wine delivers Ctrl-C to a named group (Ctrl-Break ends the thread
      // instead of calling the handler), and Windows does for a group that
      // has taken Ctrl-C back, as orvelctl does.
      GenerateConsoleCtrlEvent(CTRL_C_EVENT, info.dwProcessId);
    }
    run.out = ReadPipeToEnd(outRead);
    errReader.join();
    if (WaitForSingleObject(info.hProcess, 30000) != WAIT_OBJECT_0)
      TerminateProcess(info.hProcess, 99);
    GetExitCodeProcess(info.hProcess, &run.exitCode);
    CloseHandle(info.hProcess);
    CloseHandle(info.hThread);
  }
  CloseHandle(outRead);
  CloseHandle(errRead);
  return run;
}

std::string HelperLog() { return Request("GET", "/logs").body; }

const char kConfig[] = R"({// test nodes; the tags tell the core double how to answer
  "inbounds":[{"type":"mixed","tag":"orvel-vpn-mixed","listen":"127.0.0.1","listen_port":2080}],
  "outbounds":[{"type":"selector","tag":"select","outbounds":["hk-01-delay-600"]},
               {"type":"vless","tag":"hk-01-delay-600"},{"type":"trojan","tag":"jp-02-delay-10"},
               {"type":"vmess","tag":"sg-03-exit-1"},{"type":"direct","tag":"direct"}],
  "experimental":{"clash_api":{"external_controller":"127.0.0.1:19090"}},
  "x-test-controller":{"up":1536,"down":2048,"uploadTotal":123,"downloadTotal":456}})";

class Orvelctl : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    helper = new ScopedHelper;
    started = helper->Start();
    config = helper->directory + L"\\config.json";
    WriteFileText(config, kConfig);
    WriteFileText(helper->directory + L"\\broken.json", "{\"outbounds\":[}");
    WriteFileText(helper->directory + L"\\direct.json", R"({"outbounds":[{"type":"direct"}]})");
  }
  static void TearDownTestSuite() { delete helper; }
  void SetUp() override { ASSERT_TRUE(started) << helper->error; }
  static std::wstring File(const wchar_t* name) {
    return L"\"" + helper->directory + L"\\" + name + L"\"";
  }

  static inline ScopedHelper* helper = nullptr;
  static inline bool started = false;
  static inline std::wstring config;
};

TEST_F(Orvelctl, CommandsPrintTheHelpersAnswerWithTheirExitCodes) {
  struct Step {
    std::wstring arguments;
    DWORD exitCode;
    std::string out;  // exact
    std::string err;  // what stderr starts with
  } steps[] = {
      {L"ping", 0, "pong\n", ""},
      {L"status", 1, "disconnected: Windows helper idle\n", ""},
      {L"start " + File(L"missing.json"), 4, "", "orvelctl: cannot read the configuration "},
      {L"start " + File(L"broken.json"), 4, "", "orvelctl: "},
      {L"start " + File(L"config.json"), 0, "connected: Windows helper connected\n", ""},
      {L"status", 0, "connected: Windows helper running\n", ""},
      {L"snapshot", 0, "upload    1.5 KiB/s     total 123 B\ndownload  2.0 KiB/s     total 456 B\n",
       ""},
      // The core double's controller is no helper: it answers 404.
      {L"--address 127.0.0.1:19090 status", 7, "",
       "orvelctl: unexpected answer from 127.0.0.1:19090 to GET /status: HTTP 404 Not Found\n"},
      {L"stop", 0, "disconnected: Windows helper disconnected\n", ""},
      {L"urltest " + File(L"direct.json"), 5, "", "orvelctl: "},
      {L"--address 127.0.0.1:17999 status", 3, "",
       "orvelctl: no helper answers on 127.0.0.1:17999 \xE2\x80\x94 is OrvelVpnHelper running?\n"},
      {L"logs --tun", 2, "", "orvelctl: logs does not take --tun"},
      {L"frobnicate", 2, "", "orvelctl: unknown command \"frobnicate\""},
  };
  for (const Step& step : steps) {
    const OrvelctlRun run = RunOrvelctl(step.arguments);
    SCOPED_TRACE(ToUtf8(step.arguments) + "\nstdout: " + run.out + "\nstderr: " + run.err);
    EXPECT_EQ(run.exitCode, step.exitCode);
    // The snapshot's endpoints are the machine's own; its figures are exact.
    const bool head = step.arguments == L"snapshot";
    EXPECT_EQ(head ? run.out.substr(0, step.out.size()) : run.out, step.out);
    EXPECT_EQ(step.err.empty() ? run.err : run.err.substr(0, step.err.size()), step.err);
  }
  const std::string log = HelperLog();
  EXPECT_NE(log.find("] VPN started through OrvelVpnHelper\r\n"), std::string::npos);
  EXPECT_NE(log.find("] VPN stopped through OrvelVpnHelper\r\n"), std::string::npos);
  // logs prints the helper's log as it is.
  const OrvelctlRun logs = RunOrvelctl(L"logs");
  EXPECT_EQ(logs.exitCode, 0u);
  EXPECT_EQ(logs.out.substr(0, log.size()), log);
}

TEST_F(Orvelctl, SnapshotJsonIsTheHelpersDocument) {
  ASSERT_EQ(RunOrvelctl(L"start " + File(L"config.json")).exitCode, 0u);
  const OrvelctlRun run = RunOrvelctl(L"snapshot --json");
  EXPECT_EQ(run.exitCode, 0u);
  const std::string figures =
      "{\"uploadBytesPerSecond\":1536,\"downloadBytesPerSecond\":2048,\"uploadTotalBytes\":123,"
      "\"downloadTotalBytes\":456,\"processes\":[";
  EXPECT_EQ(run.out.substr(0, figures.size()), figures);
  EXPECT_EQ(run.out.substr(run.out.size() - 3), "]}\n");
  EXPECT_EQ(RunOrvelctl(L"stop").exitCode, 0u);
}

TEST_F(Orvelctl, UrlTestReportsEveryProxyNode) {
  ClearFetchRecords();
  const OrvelctlRun table = RunOrvelctl(L"urltest " + File(L"config.json"));
  EXPECT_EQ(table.exitCode, 0u) << table.err;
  // Sorted by delay, the failure last.
  EXPECT_NE(table.out.find("  node             delay\n"), std::string::npos) << table.out;
  EXPECT_NE(table.out.find(" 3  sg-03-exit-1     failed\n3 of 3 nodes reported, 1 failed\n"),
            std::string::npos)
      << table.out;

  const OrvelctlRun json =
      RunOrvelctl(L"urltest " + File(L"config.json") +
                  L" --json --url http://cp.example.test/ --tag jp-02-delay-10 "
                  L"--tag sg-03-exit-1");
  EXPECT_EQ(json.exitCode, 0u) << json.err;
  EXPECT_EQ(std::count(json.out.begin(), json.out.end(), '\n'), 2) << json.out;
  EXPECT_NE(json.out.find("{\"nodeTag\":\"sg-03-exit-1\",\"delayMs\":0}\n"), std::string::npos);
  const std::vector<FetchRecord> records = ReadFetchRecords();
  ASSERT_EQ(records.size(), 5u);
  int customUrl = 0;
  for (const FetchRecord& record : records)
    customUrl += record.Get("url") == "http://cp.example.test/";
  EXPECT_EQ(customUrl, 2);
}

TEST_F(Orvelctl, CtrlCCancelsTheRunOnTheHelper) {
  // A private console: the Ctrl-C must reach orvelctl only, never the test
  // runner that shares ours; this process ignores it.
  FreeConsole();
  AllocConsole();
  SetConsoleCtrlHandler(nullptr, TRUE);
  ClearFetchRecords();
  std::wstring tags;
  for (int i = 1; i <= 12; ++i) tags += L" --tag " + std::to_wstring(i) + L"-hang";
  const OrvelctlRun run = RunOrvelctl(
      L"urltest " + File(L"config.json") + L" --tag a-delay-1 --tag b-delay-1" + tags, 14);
  EXPECT_EQ(run.exitCode, 130u);
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);
  // What arrived is printed: the two quick nodes at least. On a loaded
  // machine a hanging node may reach its 3 s limit before the cancel.
  EXPECT_NE(run.out.find("  a-delay-1 "), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("  b-delay-1 "), std::string::npos) << run.out;
  const std::size_t rows = std::count(run.out.begin(), run.out.end(), '\n') - 2;

  const std::string log = HelperLog();
  const std::string started = "URLTest stream started for 14 nodes, requestId=";
  const std::size_t at = log.find(started);
  ASSERT_NE(at, std::string::npos) << log;
  const std::string id =
      log.substr(at + started.size(), log.find("\r\n", at) - at - started.size());
  EXPECT_EQ(id.substr(0, 9), "orvelctl-");
  EXPECT_NE(log.find("] URLTest cancel requested: " + id + ", processes="), std::string::npos)
      << log;
  EXPECT_EQ(run.err,
            "orvelctl: cancelled test " + id + " after " + std::to_string(rows) + " of 14 nodes\n");
}

}  // namespace
}  // namespace orvel::test
