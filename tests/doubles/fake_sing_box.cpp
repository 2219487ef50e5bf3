#include "doubles/fake_sing_box.h"

#include <windows.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

std::string WideToUtf8(const std::wstring& text) {
  if (text.empty()) return {};
  const int length = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                         nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<std::size_t>(length), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), length,
                      nullptr, nullptr);
  return out;
}

std::string ReadWholeFile(const std::wstring& path) {
  std::ifstream in(std::filesystem::path(path), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteWholeFile(const std::wstring& path, const std::string& bytes) {
  std::ofstream(std::filesystem::path(path), std::ios::binary) << bytes;
}

std::string DescribeInvocation() {
  wchar_t directory[MAX_PATH] = {};
  GetCurrentDirectoryW(MAX_PATH, directory);
  std::string text = "commandLine=" + WideToUtf8(GetCommandLineW()) + "\n";
  text += "workingDirectory=" + WideToUtf8(directory) + "\n";
  for (const wchar_t* name :
       {L"ENABLE_DEPRECATED_LEGACY_DNS_SERVERS", L"ENABLE_DEPRECATED_OUTBOUND_DNS_RULE_ITEM",
        L"ENABLE_DEPRECATED_MISSING_DOMAIN_RESOLVER"}) {
    wchar_t value[64] = {};
    GetEnvironmentVariableW(name, value, 64);
    text += WideToUtf8(name) + "=" + WideToUtf8(value) + "\n";
  }
  return text;
}

int wmain(int argc, wchar_t** argv) {
  std::vector<std::wstring> args(argv + 1, argv + argc);
  for (const std::wstring& arg : args) {
    if (arg == L"run") return RunCoreMode(args);
    if (arg == L"tools") return RunToolsMode(args);
  }
  std::fputs("FATAL[0000] unknown command\n", stderr);
  return 1;
}
