#include <windows.h>
// windows.h first: the shell headers below depend on it.
#include <knownfolders.h>
#include <shlobj.h>

#include <cwchar>
#include <filesystem>
#include <system_error>
#include <vector>

#include "core/paths.h"
#include "core/run_mode.h"

namespace orvel {

namespace {

bool ReadModuleFileName(std::wstring& path) {
  wchar_t buffer[MAX_PATH] = {};
  const DWORD length = GetModuleFileNameW(nullptr, buffer, MAX_PATH);
  if (length == 0) return false;
  path.assign(buffer, length);
  return true;
}

// Whether anything (file, directory, link, junction) exists at `path`. Only
// the codes that mean "missing" (file, path or network name not found, bad
// name, not a directory) count as absent; any other failure is thrown as a
// file-system error, which is not expected and is left to end the process
// rather than be guessed at.
bool PathExists(const std::wstring& path) {
  if (GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES) return true;
  const DWORD error = GetLastError();
  switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_BAD_NETPATH:
    case ERROR_NETNAME_DELETED:
    case ERROR_INVALID_NAME:
    case ERROR_DIRECTORY:
      return false;
    default:
      throw std::filesystem::filesystem_error(
          "exists", std::filesystem::path(path),
          std::error_code(static_cast<int>(error), std::system_category()));
  }
}

}  // namespace

std::filesystem::path GetExecutablePath() {
  std::wstring path;
  return ReadModuleFileName(path) ? path : std::wstring();
}

std::filesystem::path GetExecutableDirectory() {
  std::wstring path;
  if (!ReadModuleFileName(path)) return L".";
  // A name cut at the buffer's end may carry its terminating zero in the
  // returned length; the directory is taken from the text before it.
  path.resize(wcsnlen(path.c_str(), path.size()));
  // parent_path keeps a root such as "C:\" and drops the separator run in
  // front of the last component, with both slash kinds as separators.
  return std::filesystem::path(path).parent_path().wstring();
}

std::filesystem::path GetDataDirectory() {
  PWSTR roaming = nullptr;
  if (SUCCEEDED(SHGetKnownFolderPath(FOLDERID_RoamingAppData, 0, nullptr, &roaming))) {
    std::wstring result(roaming);
    CoTaskMemFree(roaming);
    return result + L"\\OrvelVPN";
  }
  // Deliberately without the suffix: the data files then lie beside the exe.
  return GetExecutableDirectory();
}

std::filesystem::path GetCoreConfigPath() {
  return GetDataDirectory().wstring() + L"\\sing-box.json";
}

std::filesystem::path FindCoreExecutable() {
  const std::wstring directory = GetExecutableDirectory().wstring();
  const std::wstring candidates[] = {directory + L"\\sing-box.exe",
                                     directory + L"\\data\\sing-box.exe"};
  for (const std::wstring& candidate : candidates) {
    if (PathExists(candidate)) return candidate;  // as it stands, not made canonical
  }
  // The service runs as LocalSystem: a sing-box.exe that any folder on the
  // search path (or the service's current directory) offers would run with
  // its rights. It runs only the core it was installed with.
  if (IsRunningAsService()) return {};
  const DWORD needed = SearchPathW(nullptr, L"sing-box.exe", nullptr, 0, nullptr, nullptr);
  if (needed == 0) return {};
  std::vector<wchar_t> buffer(needed);
  const DWORD written =
      SearchPathW(nullptr, L"sing-box.exe", nullptr, needed, buffer.data(), nullptr);
  if (written > 0 && written < needed) return std::wstring(buffer.data(), written);
  return {};
}

}  // namespace orvel
