#include <windows.h>
// windows.h first: the shell headers below depend on it.
#include <knownfolders.h>
#include <shlobj.h>

#include <filesystem>
#include <vector>

#include "core/paths.h"

namespace orvel {

namespace {

bool ReadModuleFileName(std::wstring& path) {
  wchar_t buffer[MAX_PATH] = {};
  const DWORD length = GetModuleFileNameW(nullptr, buffer, MAX_PATH);
  if (length == 0) return false;
  path.assign(buffer, length);
  return true;
}

}  // namespace

std::wstring GetExecutablePath() {
  std::wstring path;
  return ReadModuleFileName(path) ? path : std::wstring();
}

std::wstring GetExecutableDirectory() {
  std::wstring path;
  if (!ReadModuleFileName(path)) return L".";
  return std::filesystem::path(path).parent_path().wstring();
}

std::wstring GetDataDirectory() {
  PWSTR roaming = nullptr;
  if (SUCCEEDED(SHGetKnownFolderPath(FOLDERID_RoamingAppData, 0, nullptr, &roaming))) {
    std::wstring result(roaming);
    CoTaskMemFree(roaming);
    return result + L"\\OrvelVPN";
  }
  // Deliberately without the suffix: the data files then lie beside the exe.
  return GetExecutableDirectory();
}

std::wstring GetCoreConfigPath() { return GetDataDirectory() + L"\\sing-box.json"; }

std::wstring FindCoreExecutable() {
  const std::wstring directory = GetExecutableDirectory();
  const std::wstring candidates[] = {directory + L"\\sing-box.exe",
                                     directory + L"\\data\\sing-box.exe"};
  for (const std::wstring& candidate : candidates) {
    // Throws for errors other than "not found"; those are not expected and
    // are left to end the process rather than be guessed at.
    if (std::filesystem::exists(std::filesystem::path(candidate))) return candidate;
  }
  const DWORD needed = SearchPathW(nullptr, L"sing-box.exe", nullptr, 0, nullptr, nullptr);
  if (needed == 0) return {};
  std::vector<wchar_t> buffer(needed);
  const DWORD written = SearchPathW(nullptr, L"sing-box.exe", nullptr, needed, buffer.data(), nullptr);
  if (written > 0 && written < needed) return std::wstring(buffer.data(), written);
  return {};
}

}  // namespace orvel
