#include <windows.h>

#include <algorithm>
#include <atomic>

#include "core/paths.h"
#include "urltest/urltest_stream.h"

namespace orvel {

namespace {

constexpr DWORD kMaxWriteChunkBytes = 1048576;

}  // namespace

std::filesystem::path MakeUrlTestConfigPath() {
  static std::atomic<std::uint64_t> sequence{0};
  const std::uint64_t number = ++sequence;
  return GetDataDirectory().wstring() + L"\\sing-box-urltest-" +
         std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(number) + L".json";
}

bool WriteFileBytes(const std::filesystem::path& path, const std::string& content,
                    std::string& error) {
  HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                            FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    error = "CreateFile failed: " + std::to_string(GetLastError());
    return false;
  }
  std::size_t written = 0;
  while (written < content.size()) {
    const DWORD chunk =
        static_cast<DWORD>(std::min<std::size_t>(content.size() - written, kMaxWriteChunkBytes));
    DWORD done = 0;
    if (!WriteFile(file, content.data() + written, chunk, &done, nullptr)) {
      error = "WriteFile failed: " + std::to_string(GetLastError());
      CloseHandle(file);
      return false;
    }
    written += done;
  }
  if (!CloseHandle(file)) {
    error = "CloseHandle failed: " + std::to_string(GetLastError());
    return false;
  }
  return true;
}

}  // namespace orvel
