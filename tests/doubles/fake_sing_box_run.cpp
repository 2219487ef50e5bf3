// Run mode of the core double: "sing-box run -c FILE". FILE is the
// configuration the helper wrote, i.e. the test's request body, and the test
// picks the behaviour with a member the real core never sees in these tests:
//
//   "x-test-double":"..."   behaviour
//   (absent)                 serve the controller if configured, stay up
//   "fatal3"                 three coloured FATAL lines ("\n" ends), exit 1
//   "fatal3-plain"           the same three lines without colour, "\r\n" ends
//   "silent"                 no output, exit 1
//   "die-after-N"            as absent for N ms, then exit 1 (N decimal)
//
// Every run first records its invocation (DescribeInvocation) in
// C:\OrvelTest\core-run.txt, whatever the behaviour.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "doubles/fake_sing_box.h"

namespace {

const wchar_t kInvocationRecord[] = L"C:\\OrvelTest\\core-run.txt";

// The lines a configuration with an unknown member would get, in the
// colour-wrapped form the real core writes even into a pipe.
const char* const kFatalLines[] = {
    "FATAL[0000] decode config: json: unknown field \"x-test-double\"",
    "FATAL[0000] start service: start inbound/mixed[mixed-in]: listen tcp 127.0.0.1:2080",
    "FATAL[0000] exit status 1",
};

std::string BehaviourOf(const std::string& config) {
  const std::string key = "\"x-test-double\":\"";
  const std::size_t start = config.find(key);
  if (start == std::string::npos) return {};
  const std::size_t valueStart = start + key.size();
  const std::size_t end = config.find('"', valueStart);
  return end == std::string::npos ? std::string() : config.substr(valueStart, end - valueStart);
}

void WriteStderr(const std::string& text) {
  // Unbuffered and in one call, so nothing is lost when the process exits.
  DWORD written = 0;
  WriteFile(GetStdHandle(STD_ERROR_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written,
            nullptr);
}

int StayUp(const std::string& config) {
  StartControllerIfConfigured(config);
  for (;;) Sleep(INFINITE);
}

}  // namespace

int RunCoreMode(const std::vector<std::wstring>& args) {
  std::wstring configPath;
  for (std::size_t i = 0; i + 1 < args.size(); ++i) {
    if (args[i] == L"-c") configPath = args[i + 1];
  }
  WriteWholeFile(kInvocationRecord, DescribeInvocation());
  const std::string config = ReadWholeFile(configPath);
  const std::string behaviour = BehaviourOf(config);

  if (behaviour == "fatal3" || behaviour == "fatal3-plain") {
    const bool colour = behaviour == "fatal3";
    std::string text;
    for (const char* line : kFatalLines) {
      std::string body(line);
      text += colour ? "\x1b[31mFATAL\x1b[0m" + body.substr(5) + "\n" : body + "\r\n";
    }
    WriteStderr(text);
    return 1;
  }
  if (behaviour == "silent") return 1;
  if (behaviour.rfind("die-after-", 0) == 0) {
    StartControllerIfConfigured(config);
    Sleep(static_cast<DWORD>(std::strtoul(behaviour.c_str() + 10, nullptr, 10)));
    return 1;
  }
  return StayUp(config);
}
