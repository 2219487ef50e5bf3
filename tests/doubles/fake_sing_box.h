#pragma once

// Test double of sing-box.exe. Its behaviour is chosen by the test: in run
// mode through the configuration file the helper wrote (the request body), in
// tools mode through the node tag. Each mode lives in its own file.

#include <string>
#include <vector>

// sing-box run -c FILE
int RunCoreMode(const std::vector<std::wstring>& args);
// sing-box --disable-color -c FILE tools -o TAG fetch URL
int RunToolsMode(const std::vector<std::wstring>& args);

// Serves the controller of the core on the address that the configuration
// names under experimental.clash_api.external_controller, on background
// threads; does nothing when the configuration names none.
void StartControllerIfConfigured(const std::string& configText);

// Whole file as bytes, "" when unreadable.
std::string ReadWholeFile(const std::wstring& path);
// Command line, working directory and the three core variables, for tests to
// read back (UTF-8, one "key=value" per line).
std::string DescribeInvocation();
void WriteWholeFile(const std::wstring& path, const std::string& bytes);
std::string WideToUtf8(const std::wstring& text);
